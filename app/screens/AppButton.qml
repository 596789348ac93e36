import QtQuick
import QtQuick.Controls

// Every button of the program: "primary" (the one main action of a view), "secondary", "quiet" (text
// only) and "danger". Enter and Space activate it, like any focused button.
Button {
    id: control
    property string kind: "secondary"
    property color tint: kind === "danger" ? Theme.recording : Theme.accent

    implicitHeight: Theme.controlHeight
    leftPadding: kind === "quiet" ? Theme.space2 : Theme.space4
    rightPadding: leftPadding
    font.pixelSize: Theme.fontBody
    font.weight: Theme.weightMedium
    focusPolicy: Qt.StrongFocus
    Keys.onReturnPressed: if (enabled) clicked()
    Keys.onEnterPressed: if (enabled) clicked()

    contentItem: Text {
        text: control.text
        font: control.font
        elide: Text.ElideRight
        horizontalAlignment: Text.AlignHCenter
        verticalAlignment: Text.AlignVCenter
        color: !control.enabled ? Theme.textMuted
             : control.kind === "primary" ? Theme.textOnAccent
             : control.kind === "danger" ? Theme.recording
             : control.kind === "quiet" ? Theme.accent : Theme.text
    }

    background: Rectangle {
        radius: Theme.radiusSmall
        // A button that cannot act steps back to a plain surface, whatever its kind.
        color: !control.enabled ? Theme.surfaceAlt
             : control.kind === "primary" ? (control.hovered ? Theme.accentHover : Theme.accent)
             : control.kind === "quiet" ? (control.hovered ? Theme.hover : "transparent")
             : control.kind === "danger" ? (control.hovered ? Theme.recordingSoft : Theme.surface)
             : (control.hovered ? Theme.hover : Theme.surface)
        border.width: control.kind === "quiet" || (control.kind === "primary" && control.enabled) ? 0 : 1
        border.color: control.kind === "danger" ? Theme.recording : Theme.border

        FocusRing { shown: control.visualFocus }
    }
}
