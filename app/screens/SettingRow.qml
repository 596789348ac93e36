import QtQuick
import QtQuick.Layouts

// One setting: its name and a short explanation on the left, the control on the right.
Item {
    id: row
    property string title: ""
    property string description: ""
    default property alias control: slot.data

    width: parent ? parent.width : implicitWidth
    implicitHeight: Math.max(texts.implicitHeight, slot.childrenRect.height) + 2 * Theme.space3

    RowLayout {
        anchors.fill: parent
        spacing: Theme.space5
        ColumnLayout {
            id: texts
            Layout.fillWidth: true
            spacing: 2
            Text {
                Layout.fillWidth: true
                text: row.title
                wrapMode: Text.Wrap
                font.pixelSize: Theme.fontBody
                font.weight: Theme.weightMedium
                color: Theme.text
            }
            Text {
                Layout.fillWidth: true
                visible: text.length > 0
                text: row.description
                wrapMode: Text.Wrap
                font.pixelSize: Theme.fontCaption
                color: Theme.textMuted
            }
        }
        Item {
            id: slot
            Layout.alignment: Qt.AlignVCenter | Qt.AlignRight
            implicitWidth: childrenRect.width
            implicitHeight: childrenRect.height
        }
    }
}
