import QtQuick

// A strip that tells the user about a state of the program (offline, an update, an expired session), with
// at most one action beside it. The tone picks its colours: "info", "warning" or "danger".
Rectangle {
    id: banner
    property string tone: "info"
    property string title: ""
    property string body: ""
    default property alias actions: actionRow.data

    readonly property color ink: tone === "warning" ? Theme.warning : tone === "danger" ? Theme.recording : Theme.info
    color: tone === "warning" ? Theme.warningSoft : tone === "danger" ? Theme.recordingSoft : Theme.infoSoft
    radius: Theme.radius
    // Plain positioning rather than layouts: wrapped text inside a layout that sizes its parent loops.
    implicitHeight: Math.max(texts.height, actionRow.height) + 2 * Theme.space4
    Accessible.role: Accessible.AlertMessage
    Accessible.name: title

    Rectangle {
        id: dot
        x: Theme.space4
        y: Theme.space4 + Theme.space1 + 1
        width: Theme.space2
        height: Theme.space2
        radius: width / 2
        color: banner.ink
    }
    Column {
        id: texts
        anchors.left: dot.right
        anchors.leftMargin: Theme.space3
        anchors.right: actionRow.left
        anchors.rightMargin: actionRow.width > 0 ? Theme.space4 : 0
        y: Theme.space4
        spacing: Theme.space1
        Text {
            width: parent.width
            text: banner.title
            wrapMode: Text.Wrap
            font.pixelSize: Theme.fontBody
            font.weight: Theme.weightBold
            color: Theme.text
        }
        Text {
            width: parent.width
            visible: text.length > 0
            text: banner.body
            wrapMode: Text.Wrap
            maximumLineCount: 6
            elide: Text.ElideRight
            font.pixelSize: Theme.fontBody
            color: Theme.textMuted
        }
    }
    Row {
        id: actionRow
        anchors.right: parent.right
        anchors.rightMargin: Theme.space4
        anchors.verticalCenter: parent.verticalCenter
        spacing: Theme.space2
    }
}
