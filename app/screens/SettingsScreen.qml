import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Kavely.Screens

// Every application setting, the audio sources and the account, in groups read from top to bottom.
Item {
    id: screen

    // The settings object arrives with the preferences; until then the controls show the defaults.
    readonly property var prefs: typeof settings !== "undefined" ? settings : null
    function pref(name, fallback) { return prefs ? prefs[name] : fallback }
    function setPref(name, value) { if (prefs) prefs[name] = value }
    // Inside a text field "copy" names the field's own clipboard method; its texts come through here.
    function label(key) { return copy.text(key) }

    readonly property var mutedApps: pref("mutedApps", [])

    // The audio test runs only while the user looks at it, and never beside a recording.
    property bool testing: false
    function startTest() {
        testing = true
        levels.startTest(app.selectedMicrophoneId, app.systemAudioMode, app.selectedSystemSourceId,
                         app.selectedOutputId, true)
    }
    function stopTest() {
        testing = false
        levels.stopTest()
    }
    onVisibleChanged: if (!visible && testing) stopTest()
    Connections {
        target: app
        function onPhaseChanged() { if (screen.testing && app.phase !== "idle") screen.stopTest() }
        // A new choice is tested at once.
        function onSelectedMicrophoneIdChanged() { if (screen.testing) screen.startTest() }
        function onSystemAudioModeChanged() { if (screen.testing) screen.startTest() }
        function onSelectedSystemSourceIdChanged() { if (screen.testing) screen.startTest() }
    }
    Component.onDestruction: if (testing) levels.stopTest()
    // Each language is named in itself, so a user who cannot read the current one still finds their own.
    readonly property var languages: [{ value: "nl", label: copy.text("settings.language_nl") },
                                      { value: "en", label: copy.text("settings.language_en") }]

    component SectionTitle: Text {
        Layout.fillWidth: true
        Layout.topMargin: Theme.space3
        font.pixelSize: Theme.fontCaption
        font.weight: Theme.weightBold
        font.capitalization: Font.AllUppercase
        font.letterSpacing: 0.6
        color: Theme.textMuted
    }
    component Divider: Rectangle {
        width: parent ? parent.width : 0
        height: 1
        color: Theme.border
    }

    ScrollView {
        id: scroller
        objectName: "settingsScroller"
        anchors.fill: parent
        contentWidth: availableWidth
        clip: true

        ColumnLayout {
            width: Math.min(scroller.availableWidth - 2 * Theme.space6, Theme.contentMaxWidth)
            x: (scroller.availableWidth - width) / 2
            spacing: Theme.space3

            Item { Layout.preferredHeight: Theme.space3 }

            Text {
                Layout.fillWidth: true
                text: copy.text("settings.title")
                font.pixelSize: Theme.fontHeadline
                font.weight: Theme.weightBold
                color: Theme.text
            }

            SectionTitle { text: copy.text("settings.section_general") }
            Card {
                Layout.fillWidth: true
                padding: Theme.space4
                spacing: 0
                SettingRow {
                    title: copy.text("settings.app_language")
                    description: copy.text("settings.app_language_hint")
                    Segmented {
                        objectName: "appLanguage"
                        options: screen.languages
                        value: screen.pref("appLanguage", copy.language)
                        onActivated: value => {
                            screen.setPref("appLanguage", value)
                            copy.language = value
                        }
                    }
                }
                Divider {}
                SettingRow {
                    title: copy.text("settings.output_language")
                    description: copy.text("settings.output_language_hint")
                    Segmented {
                        objectName: "outputLanguage"
                        options: screen.languages
                        value: screen.pref("outputLanguage", "nl")
                        onActivated: value => screen.setPref("outputLanguage", value)
                    }
                }
                Divider {}
                SettingRow {
                    title: copy.text("settings.theme")
                    description: copy.text("settings.theme_hint")
                    Segmented {
                        objectName: "theme"
                        options: [{ value: "system", label: copy.text("settings.theme_system") },
                                  { value: "light", label: copy.text("settings.theme_light") },
                                  { value: "dark", label: copy.text("settings.theme_dark") }]
                        value: screen.pref("theme", "system")
                        onActivated: value => screen.setPref("theme", value)
                    }
                }
            }

            SectionTitle { text: copy.text("settings.section_audio") }
            Card {
                Layout.fillWidth: true
                padding: Theme.space4
                spacing: 0
                SettingRow {
                    title: copy.text("settings.microphone")
                    description: copy.text("settings.microphone_hint")
                    DeviceComboBox {
                        objectName: "microphone"
                        model: app.microphones
                        currentId: app.selectedMicrophoneId
                        Accessible.name: copy.text("settings.microphone")
                        onChosen: id => app.selectedMicrophoneId = id
                    }
                }
                Divider {}
                SettingRow {
                    title: copy.text("settings.system_audio")
                    description: copy.text("settings.system_audio_hint")
                    Segmented {
                        objectName: "systemAudioMode"
                        options: [{ value: "off", label: copy.text("settings.system_audio_off") },
                                  { value: "system", label: copy.text("settings.system_audio_all") },
                                  { value: "app", label: copy.text("settings.system_audio_app") }]
                        value: app.systemAudioMode
                        onActivated: value => app.systemAudioMode = value
                    }
                }
                Divider { visible: app.systemAudioMode !== "off" }
                SettingRow {
                    visible: app.systemAudioMode !== "off"
                    title: copy.text(app.systemAudioMode === "app" ? "settings.system_source_app"
                                                                   : "settings.system_source")
                    description: copy.text("settings.system_source_hint")
                    DeviceComboBox {
                        objectName: "systemSource"
                        model: app.systemSources
                        currentId: app.selectedSystemSourceId
                        Accessible.name: copy.text("settings.system_source")
                        onChosen: id => app.selectedSystemSourceId = id
                    }
                }
                Divider {}
                SettingRow {
                    title: copy.text("settings.audio_test")
                    description: copy.text("settings.audio_test_hint")
                    RowLayout {
                        spacing: Theme.space2
                        AppButton {
                            objectName: "audioTestButton"
                            enabled: app.phase === "idle" || app.phase === "signed_out"
                            text: copy.text(screen.testing ? "settings.audio_test_stop" : "settings.audio_test_start")
                            onClicked: screen.testing ? screen.stopTest() : screen.startTest()
                        }
                        AppButton {
                            objectName: "testToneButton"
                            visible: screen.testing
                            enabled: !levels.playingTestSound
                            text: copy.text("settings.audio_test_tone")
                            onClicked: levels.playTestTone()
                        }
                    }
                }
                ColumnLayout {
                    objectName: "audioTestMeters"
                    visible: screen.testing
                    width: parent.width
                    spacing: Theme.space2
                    LevelMeter {
                        Layout.fillWidth: true
                        label: copy.text("settings.meter_microphone")
                        level: levels.testMicLevel
                        active: levels.testMicActive
                    }
                    LevelMeter {
                        Layout.fillWidth: true
                        visible: app.systemAudioMode !== "off"
                        label: copy.text("settings.meter_system")
                        level: levels.testSystemLevel
                        active: levels.testSystemActive
                    }
                    Item { Layout.preferredHeight: Theme.space2 }
                }
                Divider {}
                SettingRow {
                    title: copy.text("settings.live_indicator")
                    description: copy.text("settings.live_indicator_hint")
                    AppSwitch {
                        objectName: "liveIndicator"
                        checked: screen.pref("liveIndicator", true)
                        Accessible.name: copy.text("settings.live_indicator")
                        onToggled: screen.setPref("liveIndicator", checked)
                    }
                }
            }

            SectionTitle { text: copy.text("settings.section_reports") }
            Card {
                Layout.fillWidth: true
                padding: Theme.space4
                spacing: 0
                SettingRow {
                    title: copy.text("settings.attach_word")
                    description: copy.text("settings.attach_word_hint")
                    AppSwitch {
                        objectName: "defaultAttachWord"
                        checked: screen.pref("defaultAttachWord", false)
                        Accessible.name: copy.text("settings.attach_word")
                        onToggled: screen.setPref("defaultAttachWord", checked)
                    }
                }
                Divider {}
                SettingRow {
                    title: copy.text("settings.include_transcript")
                    description: copy.text("settings.include_transcript_hint")
                    AppSwitch {
                        objectName: "defaultIncludeTranscription"
                        checked: screen.pref("defaultIncludeTranscription", true)
                        Accessible.name: copy.text("settings.include_transcript")
                        onToggled: screen.setPref("defaultIncludeTranscription", checked)
                    }
                }
            }

            SectionTitle { text: copy.text("settings.section_notifications") }
            Card {
                Layout.fillWidth: true
                padding: Theme.space4
                spacing: 0
                SettingRow {
                    title: copy.text("settings.notify_detected")
                    description: copy.text("settings.notify_detected_hint")
                    AppSwitch {
                        objectName: "notifyDetected"
                        checked: screen.pref("notifyDetected", true)
                        Accessible.name: copy.text("settings.notify_detected")
                        onToggled: screen.setPref("notifyDetected", checked)
                    }
                }
                Divider {}
                SettingRow {
                    title: copy.text("settings.notify_started")
                    description: copy.text("settings.notify_started_hint")
                    AppSwitch {
                        objectName: "notifyStarted"
                        checked: screen.pref("notifyStarted", true)
                        Accessible.name: copy.text("settings.notify_started")
                        onToggled: screen.setPref("notifyStarted", checked)
                    }
                }
                Divider {}
                SettingRow {
                    title: copy.text("settings.muted_apps")
                    description: screen.mutedApps.length === 0 ? copy.text("settings.muted_apps_empty")
                                                               : copy.text("settings.muted_apps_hint")
                }
                Flow {
                    width: parent.width
                    spacing: Theme.space2
                    visible: screen.mutedApps.length > 0
                    bottomPadding: Theme.space3
                    Repeater {
                        model: screen.mutedApps
                        AppButton {
                            required property string modelData
                            implicitHeight: Theme.controlHeight - Theme.space2
                            font.pixelSize: Theme.fontCaption
                            text: modelData + "  ×"
                            Accessible.name: copy.format("settings.muted_apps_remove", { app: modelData })
                            onClicked: screen.setPref("mutedApps", screen.mutedApps.filter(name => name !== modelData))
                        }
                    }
                }
                RowLayout {
                    width: parent.width
                    spacing: Theme.space2
                    TextField {
                        id: muteField
                        objectName: "mutedAppField"
                        Layout.fillWidth: true
                        implicitHeight: Theme.controlHeight
                        maximumLength: 80
                        placeholderText: screen.label("settings.muted_apps_placeholder")
                        font.pixelSize: Theme.fontBody
                        color: Theme.text
                        placeholderTextColor: Theme.textMuted
                        selectByMouse: true
                        onAccepted: addMuted.clicked()
                        background: Rectangle {
                            radius: Theme.radiusSmall
                            color: Theme.surfaceAlt
                            border.width: muteField.activeFocus ? Theme.focusWidth : 1
                            border.color: muteField.activeFocus ? Theme.focus : Theme.border
                        }
                    }
                    AppButton {
                        id: addMuted
                        text: copy.text("settings.muted_apps_add")
                        enabled: muteField.text.trim().length > 0 && screen.prefs !== null
                        onClicked: {
                            const name = muteField.text.trim()
                            if (name.length > 0 && screen.mutedApps.indexOf(name) < 0)
                                screen.setPref("mutedApps", screen.mutedApps.concat([name]))
                            muteField.text = ""
                        }
                    }
                }
            }

            SectionTitle { text: copy.text("settings.section_system") }
            Card {
                Layout.fillWidth: true
                padding: Theme.space4
                spacing: 0
                SettingRow {
                    title: copy.text("settings.open_at_login")
                    description: copy.text("settings.open_at_login_hint")
                    AppSwitch {
                        objectName: "openAtLogin"
                        checked: screen.pref("openAtLogin", true)
                        Accessible.name: copy.text("settings.open_at_login")
                        onToggled: screen.setPref("openAtLogin", checked)
                    }
                }
            }

            SectionTitle { text: copy.text("settings.section_account") }
            Card {
                Layout.fillWidth: true
                padding: Theme.space4
                spacing: 0
                SettingRow {
                    title: app.isSignedIn && app.profile.email ? app.profile.email : copy.text("settings.account_signed_out")
                    description: app.isSignedIn ? (app.profile.organizationName ? copy.format("settings.account_org", { organization: app.profile.organizationName })
                                                                                : copy.text("settings.account_signed_in"))
                                                : ""
                    AppButton {
                        objectName: "signOutButton"
                        visible: app.isSignedIn
                        kind: "danger"
                        text: copy.text("settings.sign_out")
                        onClicked: app.signOut()
                    }
                }
            }

            Item { Layout.preferredHeight: Theme.space5 }
        }
    }
}
