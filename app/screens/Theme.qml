pragma Singleton
import QtQuick

// Colours, spacing, radii and type for every screen, light and dark. Screens use these names only.
QtObject {
    property bool dark: false

    readonly property color background: dark ? "#17191c" : "#f6f5f2"
    readonly property color surface: dark ? "#202328" : "#ffffff"
    readonly property color text: dark ? "#eceae6" : "#1d1f22"
    readonly property color textMuted: dark ? "#a3a6ab" : "#5f6368"
    readonly property color accent: dark ? "#7fb2a6" : "#2f6f62"

    readonly property int spacing: 8
    readonly property int radius: 8
    readonly property int fontSize: 14
}
