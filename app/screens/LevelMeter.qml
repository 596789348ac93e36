import QtQuick
import QtQuick.Layouts

// One live level: a name, and a bar that follows the sound. Quiet when its source is not running.
RowLayout {
    id: meter
    property string label: ""
    property real level: 0
    property bool active: true

    spacing: Theme.space3
    Accessible.role: Accessible.ProgressBar
    Accessible.name: label

    Text {
        Layout.preferredWidth: 120
        text: meter.label
        elide: Text.ElideRight
        font.pixelSize: Theme.fontCaption
        color: meter.active ? Theme.text : Theme.textMuted
    }
    Rectangle {
        Layout.fillWidth: true
        Layout.preferredHeight: 8
        radius: 4
        color: Theme.surfaceAlt
        Rectangle {
            width: parent.width * Math.max(0, Math.min(1, meter.active ? meter.level : 0))
            height: parent.height
            radius: parent.radius
            color: Theme.accent
            Behavior on width { NumberAnimation { duration: 80 } }
        }
    }
}
