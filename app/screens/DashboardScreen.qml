import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Kavely.Screens

// Home: the recording card, the recordings the backend is working on, tips, and whatever the user should
// know about the program's state (offline, an update, an expired session).
Item {
    id: screen
    signal openSettings()

    readonly property string phase: app.phase
    readonly property bool capturing: ["recording", "recording_device_warning", "recording_no_audio_warning",
        "recording_offline_buffering", "recording_route_changed", "stop_confirm"].indexOf(phase) >= 0
    readonly property bool paused: ["paused_user", "interrupted_system", "resuming", "resume_failed"]
        .indexOf(phase) >= 0
    readonly property bool preparing: ["preflight_check", "init_recording", "starting_native_recorder"]
        .indexOf(phase) >= 0
    readonly property bool active: capturing || paused || preparing
    // Before the session is known there is nothing to show yet but the shape of the screen.
    readonly property bool loading: !app.isSignedIn && !app.sessionExpired
    readonly property string updateState: app.updateStatus.state !== undefined ? app.updateStatus.state : "unknown"
    property string lastError: ""
    // The device test runs only while asked for and while nothing records.
    property bool testing: false
    function startTest() {
        testing = true
        levels.startTest(app.selectedMicrophoneId, app.systemAudioMode, app.selectedSystemSourceId,
                         app.selectedOutputId, false)
    }
    function stopTest() {
        testing = false
        levels.stopTest()
    }
    onVisibleChanged: if (!visible && testing) stopTest()
    onPhaseChanged: if (testing && phase !== "idle") stopTest()
    property bool tipsJustHidden: false
    // One step through the tips each time the dashboard appears, so a returning user sees another one.
    readonly property int tipCursor: app.nextTipCursor()
    readonly property var tip: app.tips.length > 0 ? app.tips[tipCursor % app.tips.length] : null

    // Inside a text field "copy" names the field's own clipboard method; its texts come through here.
    function label(key) { return copy.text(key) }

    Connections {
        target: app
        // An empty message takes a shown error away.
        function onErrorOccurred(message) { screen.lastError = message }
    }

    function clock(seconds) {
        const h = Math.floor(seconds / 3600)
        const m = Math.floor((seconds % 3600) / 60)
        const s = seconds % 60
        const two = n => (n < 10 ? "0" : "") + n
        return (h > 0 ? h + ":" + two(m) : two(m)) + ":" + two(s)
    }

    function deviceName(list, id) {
        for (let i = 0; i < list.length; ++i) {
            if (list[i].id === id)
                return list[i].name
        }
        for (let j = 0; j < list.length; ++j) {
            if (list[j].isDefault)
                return list[j].name
        }
        return list.length > 0 ? list[0].name : copy.text("dashboard.device_none")
    }

    readonly property string micName: deviceName(app.microphones, app.selectedMicrophoneId)
    readonly property string systemName: app.systemAudioMode === "off" ? copy.text("dashboard.system_audio_off")
        : deviceName(app.systemSources, app.selectedSystemSourceId)

    function statusTitle() {
        if (preparing)
            return copy.text("dashboard.record_preparing")
        if (paused)
            return copy.text("dashboard.record_paused")
        return copy.text("dashboard.record_running")
    }

    ScrollView {
        id: scroller
        objectName: "dashboardScroller"
        anchors.fill: parent
        contentWidth: availableWidth
        clip: true

        ColumnLayout {
            id: page
            width: Math.min(scroller.availableWidth - 2 * Theme.space6, Theme.contentMaxWidth)
            x: (scroller.availableWidth - width) / 2
            spacing: Theme.space5

            Item { Layout.preferredHeight: Theme.space3 }

            // Header.
            ColumnLayout {
                Layout.fillWidth: true
                spacing: Theme.space1
                Text {
                    Layout.fillWidth: true
                    text: app.profile.fullName ? copy.format("dashboard.greeting_named", { name: String(app.profile.fullName).split(" ")[0] })
                                               : copy.text("dashboard.greeting")
                    elide: Text.ElideRight
                    font.pixelSize: Theme.fontHeadline
                    font.weight: Theme.weightBold
                    color: Theme.text
                }
                Text {
                    Layout.fillWidth: true
                    text: copy.text("dashboard.subtitle")
                    wrapMode: Text.Wrap
                    font.pixelSize: Theme.fontBody
                    color: Theme.textMuted
                }
            }

            // What the user should know first.
            Banner {
                objectName: "sessionExpiredBanner"
                Layout.fillWidth: true
                visible: app.sessionExpired
                tone: "danger"
                title: copy.text("dashboard.session_expired_title")
                body: copy.text("dashboard.session_expired_body")
                AppButton {
                    kind: "secondary"
                    text: copy.text("dashboard.session_expired_action")
                    onClicked: screen.openSettings()
                }
            }
            Banner {
                objectName: "offlineBanner"
                Layout.fillWidth: true
                visible: !app.online
                tone: "warning"
                title: copy.text("dashboard.offline_title")
                body: copy.text("dashboard.offline_body")
            }
            Banner {
                objectName: "updateBanner"
                Layout.fillWidth: true
                visible: screen.updateState === "available" || screen.updateState === "required"
                tone: screen.updateState === "required" ? "warning" : "info"
                title: copy.format(screen.updateState === "required" ? "dashboard.update_required_title"
                                                                     : "dashboard.update_available_title",
                                   { version: app.updateStatus.version !== undefined ? app.updateStatus.version : "" })
                body: app.updateStatus.notes !== undefined && String(app.updateStatus.notes).length > 0
                      ? String(app.updateStatus.notes) : copy.text("dashboard.update_body")
                AppButton {
                    kind: "primary"
                    text: copy.text("dashboard.update_action")
                    onClicked: app.openUpdateDownload()
                }
            }
            Banner {
                objectName: "errorBanner"
                Layout.fillWidth: true
                visible: screen.lastError.length > 0
                tone: "danger"
                title: copy.text("dashboard.error_title")
                body: screen.lastError
                AppButton {
                    kind: "quiet"
                    text: copy.text("dashboard.error_dismiss")
                    onClicked: screen.lastError = ""
                }
            }

            // The recording card.
            Card {
                objectName: "recordCard"
                Layout.fillWidth: true
                spacing: Theme.space4

                // Idle: name the meeting, check the devices, start.
                ColumnLayout {
                    width: parent.width
                    visible: !screen.active
                    spacing: Theme.space4

                    Text {
                        Layout.fillWidth: true
                        text: copy.text("dashboard.record_title")
                        font.pixelSize: Theme.fontTitle
                        font.weight: Theme.weightBold
                        color: Theme.text
                    }
                    TextField {
                        id: meetingName
                        objectName: "meetingNameField"
                        Layout.fillWidth: true
                        implicitHeight: Theme.controlHeight + Theme.space1
                        enabled: !screen.loading
                        placeholderText: screen.label("dashboard.meeting_name_placeholder")
                        text: app.meetingName
                        maximumLength: 160
                        font.pixelSize: Theme.fontBody
                        color: Theme.text
                        placeholderTextColor: Theme.textMuted
                        selectByMouse: true
                        Accessible.name: screen.label("dashboard.meeting_name_label")
                        onTextEdited: app.meetingName = text
                        onAccepted: if (app.canStartFromUI) app.startRecording()
                        background: Rectangle {
                            radius: Theme.radiusSmall
                            color: Theme.surfaceAlt
                            border.width: meetingName.activeFocus ? Theme.focusWidth : 1
                            border.color: meetingName.activeFocus ? Theme.focus : Theme.border
                        }
                    }
                    RowLayout {
                        Layout.fillWidth: true
                        spacing: Theme.space2
                        Text {
                            Layout.fillWidth: true
                            text: copy.format("dashboard.devices_line", { microphone: screen.micName, system: screen.systemName })
                            elide: Text.ElideRight
                            font.pixelSize: Theme.fontCaption
                            color: Theme.textMuted
                        }
                        AppButton {
                            objectName: "testDevicesButton"
                            kind: "quiet"
                            implicitHeight: Theme.controlHeight - Theme.space2
                            font.pixelSize: Theme.fontCaption
                            enabled: app.phase === "idle"
                            text: copy.text(screen.testing ? "dashboard.devices_test_stop" : "dashboard.devices_test")
                            onClicked: screen.testing ? screen.stopTest() : screen.startTest()
                        }
                        AppButton {
                            objectName: "changeDevicesButton"
                            kind: "quiet"
                            implicitHeight: Theme.controlHeight - Theme.space2
                            font.pixelSize: Theme.fontCaption
                            text: copy.text("dashboard.devices_change")
                            onClicked: screen.openSettings()
                        }
                    }
                    // The chosen devices, live, before the meeting depends on them. The dashboard never falls back
                    // to a second kind of stream for the system sound: what it shows is what a recording takes.
                    ColumnLayout {
                        objectName: "testLevels"
                        Layout.fillWidth: true
                        visible: screen.testing
                        spacing: Theme.space2
                        LevelMeter {
                            Layout.fillWidth: true
                            label: copy.text("dashboard.levels_microphone")
                            level: levels.testMicLevel
                            active: levels.testMicActive
                        }
                        LevelMeter {
                            Layout.fillWidth: true
                            visible: app.systemAudioMode !== "off"
                            label: copy.text("dashboard.levels_system")
                            level: levels.testSystemLevel
                            active: levels.testSystemActive
                        }
                    }
                    RowLayout {
                        Layout.fillWidth: true
                        spacing: Theme.space4
                        AppButton {
                            objectName: "startButton"
                            kind: "primary"
                            implicitHeight: Theme.controlHeight + Theme.space2
                            leftPadding: Theme.space5
                            rightPadding: Theme.space5
                            text: copy.text("dashboard.start")
                            enabled: app.canStartFromUI
                            onClicked: app.startRecording()
                        }
                        Text {
                            Layout.fillWidth: true
                            text: app.startBlocker.length > 0 ? app.startBlocker : copy.text("dashboard.start_hint")
                            wrapMode: Text.Wrap
                            font.pixelSize: Theme.fontCaption
                            color: app.startBlocker.length > 0 ? Theme.warning : Theme.textMuted
                        }
                    }
                }

                // Running: the phase, the time, and the controls.
                ColumnLayout {
                    width: parent.width
                    visible: screen.active
                    spacing: Theme.space4

                    RowLayout {
                        spacing: Theme.space2
                        Rectangle {
                            width: 10
                            height: 10
                            radius: 5
                            color: screen.paused ? Theme.warning : Theme.recording
                            SequentialAnimation on opacity {
                                running: screen.capturing
                                loops: Animation.Infinite
                                NumberAnimation { to: 0.35; duration: 900; easing.type: Easing.InOutSine }
                                NumberAnimation { to: 1; duration: 900; easing.type: Easing.InOutSine }
                            }
                        }
                        Text {
                            text: screen.statusTitle()
                            font.pixelSize: Theme.fontBody
                            font.weight: Theme.weightMedium
                            color: Theme.text
                        }
                    }
                    Text {
                        objectName: "elapsedText"
                        text: screen.clock(app.elapsedSeconds)
                        font.pixelSize: Theme.fontDisplay
                        font.weight: Theme.weightMedium
                        color: Theme.text
                        Accessible.name: copy.format("dashboard.elapsed_accessible", { time: text })
                    }
                    // What the recording hears, so a silent microphone is noticed during the meeting, not after.
                    ColumnLayout {
                        objectName: "recordingLevels"
                        Layout.fillWidth: true
                        visible: screen.capturing
                        spacing: Theme.space2
                        LevelMeter {
                            Layout.fillWidth: true
                            label: copy.text("dashboard.levels_microphone")
                            level: levels.micLevel
                        }
                        LevelMeter {
                            Layout.fillWidth: true
                            visible: app.systemAudioMode !== "off"
                            label: copy.text("dashboard.levels_system")
                            level: levels.systemLevel
                        }
                    }
                    Text {
                        Layout.fillWidth: true
                        visible: app.meetingName.length > 0
                        text: app.meetingName
                        elide: Text.ElideRight
                        font.pixelSize: Theme.fontBody
                        color: Theme.textMuted
                    }
                    RowLayout {
                        spacing: Theme.space3
                        AppButton {
                            objectName: "pauseButton"
                            visible: screen.capturing
                            text: copy.text("dashboard.pause")
                            onClicked: app.pauseRecording()
                        }
                        AppButton {
                            objectName: "resumeButton"
                            visible: screen.paused
                            kind: "primary"
                            text: copy.text("dashboard.resume")
                            onClicked: app.resumeRecording()
                        }
                        AppButton {
                            objectName: "stopButton"
                            kind: "danger"
                            enabled: !screen.preparing
                            text: copy.text("dashboard.stop")
                            onClicked: app.stopRecording()
                        }
                    }
                }
            }

            // The recordings the backend is working on.
            ColumnLayout {
                Layout.fillWidth: true
                spacing: Theme.space3
                visible: !screen.loading && app.dashboardActivity.length > 0

                Text {
                    text: copy.text("dashboard.activity_title")
                    font.pixelSize: Theme.fontLarge
                    font.weight: Theme.weightBold
                    color: Theme.text
                }
                Repeater {
                    model: app.dashboardActivity
                    delegate: ActivityRow {
                        Layout.fillWidth: true
                        item: modelData
                    }
                }
            }

            // First run: nothing submitted yet.
            Card {
                objectName: "welcomeCard"
                Layout.fillWidth: true
                visible: !screen.loading && !app.sessionExpired && app.dashboardActivity.length === 0 && !screen.active
                color: Theme.accentSoft
                border.width: 0
                Text {
                    width: parent.width
                    text: copy.text("dashboard.empty_title")
                    wrapMode: Text.Wrap
                    font.pixelSize: Theme.fontLarge
                    font.weight: Theme.weightBold
                    color: Theme.text
                }
                Text {
                    width: parent.width
                    text: copy.text("dashboard.empty_body")
                    wrapMode: Text.Wrap
                    lineHeight: 1.25
                    font.pixelSize: Theme.fontBody
                    color: Theme.text
                }
            }

            // Loading: the shape of what comes, without pretending content.
            ColumnLayout {
                objectName: "loadingPlaceholder"
                Layout.fillWidth: true
                visible: screen.loading
                spacing: Theme.space3
                Text {
                    text: copy.text("dashboard.loading")
                    font.pixelSize: Theme.fontBody
                    color: Theme.textMuted
                }
                Repeater {
                    model: 2
                    Rectangle {
                        Layout.fillWidth: true
                        Layout.preferredHeight: 64
                        radius: Theme.radiusLarge
                        color: Theme.surfaceAlt
                    }
                }
            }

            // Tips.
            Card {
                objectName: "tipCard"
                Layout.fillWidth: true
                visible: app.tipsEnabled && app.tips.length > 0 && !screen.loading
                spacing: Theme.space2
                RowLayout {
                    width: parent.width
                    spacing: Theme.space3
                    Text {
                        Layout.fillWidth: true
                        text: copy.text("dashboard.tips_label")
                        font.pixelSize: Theme.fontCaption
                        font.weight: Theme.weightBold
                        font.capitalization: Font.AllUppercase
                        font.letterSpacing: 0.6
                        color: Theme.accent
                    }
                    AppButton {
                        objectName: "dismissTipButton"
                        kind: "quiet"
                        implicitHeight: Theme.controlHeight - Theme.space2
                        font.pixelSize: Theme.fontCaption
                        text: copy.text("dashboard.tips_close")
                        Accessible.name: copy.text("dashboard.tips_close_accessible")
                        onClicked: {
                            screen.tipsJustHidden = true
                            app.tipsEnabled = false
                        }
                    }
                }
                Text {
                    width: parent.width
                    text: screen.tip && screen.tip.title ? screen.tip.title : ""
                    visible: text.length > 0
                    wrapMode: Text.Wrap
                    font.pixelSize: Theme.fontBody
                    font.weight: Theme.weightMedium
                    color: Theme.text
                }
                Text {
                    width: parent.width
                    text: screen.tip && screen.tip.body ? screen.tip.body : ""
                    wrapMode: Text.Wrap
                    maximumLineCount: 5
                    elide: Text.ElideRight
                    lineHeight: 1.2
                    font.pixelSize: Theme.fontBody
                    color: Theme.textMuted
                }
            }
            RowLayout {
                objectName: "tipsHiddenRow"
                Layout.fillWidth: true
                visible: screen.tipsJustHidden && !app.tipsEnabled
                spacing: Theme.space2
                Text {
                    text: copy.text("dashboard.tips_hidden")
                    font.pixelSize: Theme.fontCaption
                    color: Theme.textMuted
                }
                AppButton {
                    kind: "quiet"
                    implicitHeight: Theme.controlHeight - Theme.space2
                    font.pixelSize: Theme.fontCaption
                    text: copy.text("dashboard.tips_undo")
                    onClicked: {
                        app.tipsEnabled = true
                        screen.tipsJustHidden = false
                    }
                }
            }

            Item { Layout.preferredHeight: Theme.space5 }
        }
    }
}
