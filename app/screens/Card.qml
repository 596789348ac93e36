import QtQuick

// A quiet surface that groups one subject. Content goes in a column with the card's padding.
Rectangle {
    id: card
    default property alias content: column.data
    property int padding: Theme.space5
    property alias spacing: column.spacing

    color: Theme.surface
    radius: Theme.radiusLarge
    border.width: 1
    border.color: Theme.border
    implicitHeight: column.implicitHeight + 2 * padding

    Column {
        id: column
        x: card.padding
        y: card.padding
        width: card.width - 2 * card.padding
        spacing: Theme.space3
    }
}
