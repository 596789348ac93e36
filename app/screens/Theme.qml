pragma Singleton
import QtQuick

// Colours, spacing, radii and type for every screen, light and dark. Screens use these names only, so a
// change of look happens here and nowhere else. Text colours are chosen for at least 4.5:1 contrast
// against the surfaces they stand on (WCAG AA), muted text included.
QtObject {
    property bool dark: false

    // Surfaces, from the window inwards.
    readonly property color background: dark ? "#16181b" : "#f4f4f1"
    readonly property color sidebar: dark ? "#1b1d21" : "#ecebe7"
    readonly property color surface: dark ? "#212429" : "#ffffff"
    readonly property color surfaceAlt: dark ? "#2a2e34" : "#f1f1ee"
    readonly property color border: dark ? "#363a41" : "#dedcd6"
    readonly property color hover: dark ? "#2c3036" : "#e4e3de"

    // Text.
    readonly property color text: dark ? "#ebeae6" : "#1c1e21"
    readonly property color textMuted: dark ? "#a7abb1" : "#5a5f66"

    // The one accent, and what stands on it.
    readonly property color accent: dark ? "#83c5b3" : "#2b6b5e"
    readonly property color accentHover: dark ? "#9ad3c3" : "#235a4f"
    readonly property color accentSoft: dark ? "#23352f" : "#e2efeb"
    readonly property color textOnAccent: dark ? "#0f1f1b" : "#ffffff"
    readonly property color focus: dark ? "#9ad3c3" : "#2b6b5e"

    // States that need a colour of their own; each has a soft background to stand on.
    readonly property color recording: dark ? "#f2a097" : "#b3261e"
    readonly property color recordingSoft: dark ? "#3b2422" : "#fbe9e7"
    readonly property color warning: dark ? "#e9c46a" : "#7a4f00"
    readonly property color warningSoft: dark ? "#352d1a" : "#fbf0d9"
    readonly property color info: dark ? "#9cc0ec" : "#24528a"
    readonly property color infoSoft: dark ? "#1e2a3a" : "#e6eef8"

    // Spacing scale, in pixels: every gap and margin is one of these.
    readonly property int space1: 4
    readonly property int space2: 8
    readonly property int space3: 12
    readonly property int space4: 16
    readonly property int space5: 24
    readonly property int space6: 32
    readonly property int space7: 48

    // Radii.
    readonly property int radiusSmall: 6
    readonly property int radius: 10
    readonly property int radiusLarge: 14

    // Fixed measures.
    readonly property int sidebarWidth: 200
    // Below this window width the sidebar narrows so the content keeps its room.
    readonly property int compactBelow: 900
    readonly property int sidebarWidthCompact: 176
    readonly property int controlHeight: 36
    readonly property int contentMaxWidth: 760
    readonly property int focusWidth: 2

    // Type scale.
    readonly property int fontCaption: 12
    readonly property int fontBody: 14
    readonly property int fontLarge: 16
    readonly property int fontTitle: 20
    readonly property int fontHeadline: 26
    readonly property int fontDisplay: 34
    readonly property int weightNormal: Font.Normal
    readonly property int weightMedium: Font.Medium
    readonly property int weightBold: Font.DemiBold
}
