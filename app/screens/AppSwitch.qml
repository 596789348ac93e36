import QtQuick
import QtQuick.Controls

// An on/off setting. Space toggles it, as everywhere; Enter does too, since a settings list is read top down.
Switch {
    id: control
    focusPolicy: Qt.StrongFocus
    padding: 0
    spacing: 0
    // The switch is its track alone: the setting's name stands beside it in the row.
    implicitWidth: indicator.implicitWidth
    implicitHeight: indicator.implicitHeight
    Keys.onReturnPressed: toggle(), toggled()
    Keys.onEnterPressed: toggle(), toggled()

    indicator: Rectangle {
        x: 0
        y: (control.height - height) / 2
        implicitWidth: 40
        implicitHeight: 22
        radius: height / 2
        color: control.checked ? Theme.accent : Theme.surfaceAlt
        border.width: control.checked ? 0 : 1
        border.color: Theme.border

        Rectangle {
            x: control.checked ? parent.width - width - 3 : 3
            anchors.verticalCenter: parent.verticalCenter
            width: 16
            height: 16
            radius: 8
            color: control.checked ? Theme.textOnAccent : Theme.textMuted
            Behavior on x { NumberAnimation { duration: 120 } }
        }
        FocusRing { shown: control.visualFocus }
    }
    contentItem: Item {}
}
