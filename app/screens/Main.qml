import QtQuick
import QtQuick.Controls

ApplicationWindow {
    id: window
    title: "Kavely"
    width: 960
    height: 640
    minimumWidth: 720
    minimumHeight: 480
    visible: true
    color: Theme.background

    Label {
        anchors.centerIn: parent
        text: copy.text("common.app_name") + " — " + app.phase
        color: Theme.text
        font.pixelSize: Theme.fontSize
    }
}
