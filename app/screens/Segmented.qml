import QtQuick
import QtQuick.Controls

// A choice among a few named values, all visible at once. `options` holds {value, label}; `activated`
// reports the value the user picked. Arrow keys move the choice, like a radio group.
FocusScope {
    id: group
    property var options: []
    property string value: ""
    signal activated(string value)

    implicitWidth: frame.implicitWidth
    implicitHeight: Theme.controlHeight
    activeFocusOnTab: true

    function indexOfValue() {
        for (let i = 0; i < options.length; ++i) {
            if (options[i].value === value)
                return i
        }
        return -1
    }
    function pick(offset) {
        const count = options.length
        if (count === 0)
            return
        const next = ((indexOfValue() + offset) % count + count) % count
        activated(options[next].value)
    }
    Keys.onLeftPressed: pick(-1)
    Keys.onRightPressed: pick(1)
    Keys.onSpacePressed: pick(1)
    Accessible.role: Accessible.RadioButton

    Rectangle {
        id: frame
        anchors.fill: parent
        implicitWidth: row.implicitWidth + 2 * 3
        radius: Theme.radiusSmall
        color: Theme.surfaceAlt
        border.width: 1
        border.color: Theme.border
        FocusRing { shown: group.activeFocus }

        Row {
            id: row
            anchors.fill: parent
            anchors.margins: 3
            spacing: 2
            Repeater {
                model: group.options
                AbstractButton {
                    id: segment
                    required property var modelData
                    readonly property bool chosen: modelData.value === group.value
                    height: row.height
                    focusPolicy: Qt.NoFocus
                    leftPadding: Theme.space3
                    rightPadding: Theme.space3
                    text: modelData.label
                    Accessible.name: modelData.label
                    Accessible.checked: chosen
                    onClicked: {
                        group.forceActiveFocus()
                        group.activated(modelData.value)
                    }
                    background: Rectangle {
                        radius: Theme.radiusSmall - 2
                        color: segment.chosen ? Theme.surface : (segment.hovered ? Theme.hover : "transparent")
                        border.width: segment.chosen ? 1 : 0
                        border.color: Theme.border
                    }
                    contentItem: Text {
                        text: segment.text
                        verticalAlignment: Text.AlignVCenter
                        horizontalAlignment: Text.AlignHCenter
                        font.pixelSize: Theme.fontBody
                        font.weight: segment.chosen ? Theme.weightMedium : Theme.weightNormal
                        color: segment.chosen ? Theme.text : Theme.textMuted
                    }
                }
            }
        }
    }
}
