import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Kavely.Screens

// The main window: a sidebar with the sections and the content area beside it.
ApplicationWindow {
    id: window

    // The settings object arrives with the preferences; until then the window keeps its defaults.
    readonly property var prefs: typeof settings !== "undefined" ? settings : null
    property string section: "home"
    // The theme in use, for whoever looks at the window from outside (the screen gallery).
    readonly property QtObject theme: Theme
    readonly property bool recordingActive: ["recording", "recording_device_warning",
        "recording_no_audio_warning", "recording_offline_buffering", "recording_route_changed", "stop_confirm",
        "paused_user", "interrupted_system", "resuming", "resume_failed"].indexOf(app.phase) >= 0

    // The product name stays the same in every language.
    title: "Kavely"
    width: prefs && prefs.windowWidth > 0 ? prefs.windowWidth : 1040
    height: prefs && prefs.windowHeight > 0 ? prefs.windowHeight : 680
    minimumWidth: 720
    minimumHeight: 480
    visible: true
    color: Theme.background
    // Coming back to the window is a moment to see whether the session is still good.
    onActiveChanged: if (active) app.onAppForeground()

    // The Basic controls draw from the palette: hand them the theme so switches, lists and fields match.
    palette.window: Theme.background
    palette.windowText: Theme.text
    palette.base: Theme.surface
    palette.alternateBase: Theme.surfaceAlt
    palette.text: Theme.text
    palette.button: Theme.surface
    palette.buttonText: Theme.text
    palette.highlight: Theme.accent
    palette.highlightedText: Theme.textOnAccent
    palette.placeholderText: Theme.textMuted
    palette.mid: Theme.border
    palette.midlight: Theme.surfaceAlt
    palette.dark: Theme.textMuted
    palette.light: Theme.surface
    palette.shadow: Theme.border
    palette.toolTipBase: Theme.surface
    palette.toolTipText: Theme.text

    Binding {
        target: Theme
        property: "dark"
        value: window.prefs ? window.prefs.effectiveDark : false
        when: window.prefs !== null
    }

    // The size is remembered once the user stops dragging, not at every pixel.
    Timer {
        id: rememberSize
        interval: 400
        onTriggered: {
            if (window.prefs && window.visibility === Window.Windowed) {
                window.prefs.windowWidth = window.width
                window.prefs.windowHeight = window.height
            }
        }
    }
    onWidthChanged: rememberSize.restart()
    onHeightChanged: rememberSize.restart()

    function show(name) {
        if (name === "home" || name === "settings")
            section = name
    }

    // Another part of the program (a notification, a second launch, the D-Bus interface) asks for a
    // section: show it and clear the request so the same request can come again.
    Connections {
        target: app
        function onRequestedSectionChanged() { window.consumeRequest() }
    }
    function consumeRequest() {
        if (app.requestedSection.length === 0)
            return
        show(app.requestedSection)
        app.requestedSection = ""
    }
    Component.onCompleted: consumeRequest()

    Shortcut {
        sequences: ["Ctrl+,"]
        context: Qt.ApplicationShortcut
        onActivated: window.show("settings")
    }
    Shortcut {
        sequences: ["Ctrl+R"]
        context: Qt.ApplicationShortcut
        onActivated: {
            if (window.recordingActive)
                app.stopRecording()
            else if (app.canStartFromUI)
                app.startRecording()
        }
    }

    RowLayout {
        anchors.fill: parent
        spacing: 0

        Rectangle {
            id: sidebar
            Layout.fillHeight: true
            Layout.preferredWidth: window.width < Theme.compactBelow ? Theme.sidebarWidthCompact : Theme.sidebarWidth
            color: Theme.sidebar

            ColumnLayout {
                anchors.fill: parent
                anchors.margins: Theme.space3
                anchors.topMargin: Theme.space5
                spacing: Theme.space1

                RowLayout {
                    Layout.leftMargin: Theme.space3
                    Layout.bottomMargin: Theme.space5
                    spacing: Theme.space2
                    Rectangle {
                        width: 22
                        height: 22
                        radius: Theme.radiusSmall
                        color: Theme.accent
                        Rectangle {
                            anchors.centerIn: parent
                            width: 8
                            height: 8
                            radius: 4
                            color: Theme.textOnAccent
                        }
                    }
                    Text {
                        text: "Kavely"
                        font.pixelSize: Theme.fontLarge
                        font.weight: Theme.weightBold
                        color: Theme.text
                    }
                }

                SidebarItem {
                    id: homeItem
                    objectName: "sidebarHome"
                    Layout.fillWidth: true
                    glyph: "⌂"
                    text: copy.text("dashboard.nav_home")
                    current: window.section === "home"
                    onClicked: window.show("home")
                    KeyNavigation.down: settingsItem
                }
                SidebarItem {
                    id: settingsItem
                    objectName: "sidebarSettings"
                    Layout.fillWidth: true
                    glyph: "⚙"
                    text: copy.text("settings.nav_title")
                    current: window.section === "settings"
                    onClicked: window.show("settings")
                    KeyNavigation.up: homeItem
                }

                Item { Layout.fillHeight: true }

                RowLayout {
                    Layout.fillWidth: true
                    Layout.leftMargin: Theme.space3
                    visible: window.recordingActive
                    spacing: Theme.space2
                    Rectangle {
                        width: 8
                        height: 8
                        radius: 4
                        color: Theme.recording
                    }
                    Text {
                        Layout.fillWidth: true
                        text: copy.text("dashboard.sidebar_recording")
                        elide: Text.ElideRight
                        font.pixelSize: Theme.fontCaption
                        color: Theme.text
                    }
                }

                Rectangle {
                    objectName: "mockBadge"
                    visible: app.mockMode
                    Layout.fillWidth: true
                    Layout.topMargin: Theme.space2
                    implicitHeight: mockText.implicitHeight + 2 * Theme.space2
                    radius: Theme.radiusSmall
                    color: "transparent"
                    border.width: 1
                    border.color: Theme.border
                    Text {
                        id: mockText
                        anchors.fill: parent
                        anchors.margins: Theme.space2
                        text: copy.text("dashboard.mock_badge")
                        wrapMode: Text.Wrap
                        horizontalAlignment: Text.AlignHCenter
                        font.pixelSize: Theme.fontCaption
                        color: Theme.textMuted
                    }
                }
            }

            Rectangle {
                anchors.right: parent.right
                width: 1
                height: parent.height
                color: Theme.border
            }
        }

        StackLayout {
            Layout.fillWidth: true
            Layout.fillHeight: true
            currentIndex: window.section === "settings" ? 1 : 0

            DashboardScreen {
                id: dashboard
                objectName: "dashboardScreen"
                onOpenSettings: window.show("settings")
            }
            // Built the first time it is opened, then kept: the window shows sooner, and the settings keep
            // their scroll position when the user goes back and forth.
            Loader {
                objectName: "settingsScreen"
                active: window.section === "settings" || status === Loader.Ready
                sourceComponent: SettingsScreen {}
            }
        }
    }
}
