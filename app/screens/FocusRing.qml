import QtQuick

// The ring a keyboard user follows: drawn around its parent only when focus came from the keyboard.
Rectangle {
    property bool shown: false
    property int inset: -3
    anchors.fill: parent
    anchors.margins: inset
    radius: parent && parent.radius !== undefined ? parent.radius - inset : Theme.radius
    color: "transparent"
    border.width: Theme.focusWidth
    border.color: Theme.focus
    visible: shown
}
