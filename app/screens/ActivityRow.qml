import QtQuick
import QtQuick.Layouts

// One submitted recording and how far the backend has come with it: three steps, from the transcript to
// the report in the recipients' mail.
Rectangle {
    id: row
    property var item: ({})

    readonly property string phase: item.phase !== undefined ? item.phase : "submitted"
    readonly property bool delivered: phase === "delivered"
    // How many of the three steps are done, and which one is under way.
    readonly property int stepsDone: phase === "delivered" ? 3 : phase === "generating" ? 1 : 0
    readonly property int stepActive: phase === "transcribing" || phase === "submitted" ? 0 : phase === "generating" ? 1 : -1
    readonly property var stepKeys: ["dashboard.activity_phase_transcribing", "dashboard.activity_phase_generating",
        "dashboard.activity_phase_emailing"]

    function when(iso) {
        if (!iso)
            return ""
        const date = new Date(iso)
        if (isNaN(date.getTime()))
            return ""
        const locale = Qt.locale(copy.language === "en" ? "en_GB" : "nl_NL")
        return date.toLocaleString(locale, "d MMM, HH:mm")
    }

    function statusText() {
        if (delivered) {
            return item.recipientCount !== undefined && item.recipientCount > 0
                ? copy.format("dashboard.activity_delivered_count", { count: item.recipientCount })
                : copy.text("dashboard.activity_delivered_copy")
        }
        if (item.slow === true)
            return copy.text("dashboard.activity_processing_slow")
        return copy.text("dashboard.activity_processing_copy")
    }

    color: Theme.surface
    radius: Theme.radiusLarge
    border.width: 1
    border.color: Theme.border
    implicitHeight: layout.implicitHeight + 2 * Theme.space4
    Accessible.role: Accessible.ListItem
    Accessible.name: (item.meetingName || "") + ", " + statusText()

    ColumnLayout {
        id: layout
        anchors.fill: parent
        anchors.margins: Theme.space4
        anchors.leftMargin: Theme.space5
        anchors.rightMargin: Theme.space5
        spacing: Theme.space3

        RowLayout {
            Layout.fillWidth: true
            spacing: Theme.space3
            ColumnLayout {
                Layout.fillWidth: true
                spacing: 2
                Text {
                    Layout.fillWidth: true
                    text: item.meetingName && item.meetingName.length > 0 ? item.meetingName
                                                                          : copy.text("dashboard.activity_untitled")
                    elide: Text.ElideRight
                    font.pixelSize: Theme.fontBody
                    font.weight: Theme.weightMedium
                    color: Theme.text
                }
                Text {
                    Layout.fillWidth: true
                    text: row.when(item.submittedAt || item.createdAt)
                    visible: text.length > 0
                    font.pixelSize: Theme.fontCaption
                    color: Theme.textMuted
                }
            }
            Rectangle {
                Layout.alignment: Qt.AlignTop
                radius: height / 2
                implicitHeight: badge.implicitHeight + Theme.space1 * 2
                implicitWidth: badge.implicitWidth + Theme.space3 * 2
                color: row.delivered ? Theme.accentSoft : Theme.surfaceAlt
                Text {
                    id: badge
                    anchors.centerIn: parent
                    text: row.delivered ? copy.text("dashboard.activity_delivered_title")
                                        : copy.text("dashboard.activity_processing_title")
                    font.pixelSize: Theme.fontCaption
                    font.weight: Theme.weightMedium
                    color: row.delivered ? Theme.accent : Theme.textMuted
                }
            }
        }

        // The three steps.
        RowLayout {
            Layout.fillWidth: true
            spacing: Theme.space2
            Repeater {
                model: 3
                RowLayout {
                    Layout.fillWidth: true
                    Layout.preferredWidth: 1
                    spacing: Theme.space2
                    readonly property bool done: index < row.stepsDone
                    readonly property bool current: index === row.stepActive
                    Rectangle {
                        width: 8
                        height: 8
                        radius: 4
                        // A step still to come is an open ring, visible on either theme.
                        color: parent.done || parent.current ? Theme.accent : "transparent"
                        border.width: parent.done || parent.current ? 0 : 1
                        border.color: Theme.textMuted
                    }
                    Text {
                        Layout.fillWidth: true
                        text: copy.text(row.stepKeys[index])
                        elide: Text.ElideRight
                        font.pixelSize: Theme.fontCaption
                        font.weight: parent.current ? Theme.weightBold : Theme.weightNormal
                        color: parent.done || parent.current ? Theme.text : Theme.textMuted
                    }
                }
            }
        }

        Text {
            Layout.fillWidth: true
            text: row.statusText()
            wrapMode: Text.Wrap
            font.pixelSize: Theme.fontCaption
            color: item.slow === true && !row.delivered ? Theme.warning : Theme.textMuted
        }
    }
}
