import QtQuick
import QtQuick.Controls

// A list of devices from the capture layer ({id, name, isDefault}); `chosen` reports the id picked.
ComboBox {
    id: box
    property string currentId: ""
    signal chosen(string id)

    implicitWidth: 280
    implicitHeight: Theme.controlHeight
    textRole: "name"
    valueRole: "id"
    font.pixelSize: Theme.fontBody
    // Reading the count ties the choice to the list, so it is found again when the devices arrive.
    currentIndex: count > 0 ? indexOfValue(currentId) : -1
    onActivated: chosen(currentValue)
    displayText: currentIndex >= 0 ? currentText : (count > 0 ? copy.text("settings.device_choose")
                                                              : copy.text("settings.device_none"))

    background: Rectangle {
        radius: Theme.radiusSmall
        color: box.hovered ? Theme.hover : Theme.surface
        border.width: 1
        border.color: Theme.border
        FocusRing { shown: box.visualFocus }
    }
    contentItem: Text {
        leftPadding: Theme.space3
        rightPadding: box.indicator.width + Theme.space2
        text: box.displayText
        font: box.font
        color: box.count > 0 ? Theme.text : Theme.textMuted
        verticalAlignment: Text.AlignVCenter
        elide: Text.ElideRight
    }
}
