import QtQuick
import QtQuick.Controls

// One entry of the sidebar; the current one carries the accent.
AbstractButton {
    id: item
    property bool current: false
    property string glyph: ""

    implicitHeight: Theme.controlHeight
    focusPolicy: Qt.StrongFocus
    Keys.onReturnPressed: clicked()
    Keys.onEnterPressed: clicked()
    Accessible.role: Accessible.PageTab
    Accessible.name: text

    background: Rectangle {
        radius: Theme.radiusSmall
        color: item.current ? Theme.accentSoft : (item.hovered ? Theme.hover : "transparent")
        FocusRing { shown: item.visualFocus; inset: -2 }
    }

    contentItem: Row {
        spacing: Theme.space3
        leftPadding: Theme.space3
        Text {
            anchors.verticalCenter: parent.verticalCenter
            text: item.glyph
            font.pixelSize: Theme.fontLarge
            color: item.current ? Theme.accent : Theme.textMuted
        }
        Text {
            anchors.verticalCenter: parent.verticalCenter
            text: item.text
            font.pixelSize: Theme.fontBody
            font.weight: item.current ? Theme.weightBold : Theme.weightNormal
            color: item.current ? Theme.accent : Theme.text
        }
    }
}
