import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Tavelo.Calendar

// Six weeks of days; a click selects a day or opens an event, a double
// click on a day creates an event on it.
Pane {
    id: root
    property QtObject store
    property QtObject scene

    readonly property alias model: month
    readonly property alias popover: detailPopover

    // The window's palette, also where the items between do not hand it on
    // (a view created inside a plain item before the window was known).
    Binding {
        target: root
        property: "palette"
        when: root.ApplicationWindow.window !== null
        value: root.ApplicationWindow.window ? root.ApplicationWindow.window.palette : null
    }

    padding: 0
    focus: true
    Accessible.role: Accessible.Table
    Accessible.name: "月表示 " + month.titleText

    readonly property color lineColor: Qt.rgba(palette.text.r, palette.text.g, palette.text.b, 0.12)
    readonly property real cellHeight: (height - weekdayRow.height) / 6

    MonthModel {
        id: month
        store: root.store
        scene: root.scene
        // Entries that fit a cell under its day number.
        maxItemsPerDay: Math.max(1, Math.floor((root.cellHeight - 28) / 19))
    }

    Keys.onLeftPressed: month.moveSelection(-1)
    Keys.onRightPressed: month.moveSelection(1)
    Keys.onUpPressed: month.moveSelection(-7)
    Keys.onDownPressed: month.moveSelection(7)

    Row {
        id: weekdayRow
        width: parent.width
        height: 28
        Repeater {
            model: ["日", "月", "火", "水", "木", "金", "土"]
            delegate: Label {
                required property string modelData
                required property int index
                width: root.width / 7
                height: 28
                horizontalAlignment: Text.AlignHCenter
                verticalAlignment: Text.AlignVCenter
                text: modelData
                opacity: 0.75
                color: index === 0 ? "#E0524B" : (index === 6 ? "#3B7DDD" : root.palette.text)
            }
        }
    }

    Rectangle { y: weekdayRow.height - 1; width: parent.width; height: 1; color: root.lineColor }
    Grid {
        y: weekdayRow.height
        columns: 7
        Repeater {
            model: month.days
            delegate: Rectangle {
                id: cell
                required property int index
                required property int dayNumber
                required property bool isToday
                required property bool isSelected
                required property bool isInMonth
                required property var items
                required property string overflowText
                required property string accessibleText
                required property int itemCount
                objectName: "day:" + index
                width: root.width / 7
                height: root.cellHeight
                color: isSelected ? Qt.rgba(root.palette.highlight.r, root.palette.highlight.g, root.palette.highlight.b, 0.10) : "transparent"
                Rectangle { anchors.right: parent.right; width: 1; height: parent.height; color: root.lineColor }
                Rectangle { anchors.bottom: parent.bottom; width: parent.width; height: 1; color: root.lineColor }
                Accessible.role: Accessible.Cell
                Accessible.name: accessibleText + (itemCount > 0 ? " 予定 " + itemCount + " 件" : "")

                MouseArea {
                    anchors.fill: parent
                    onClicked: { month.selectDay(cell.index); root.forceActiveFocus() }
                    onDoubleClicked: month.createOnDay(cell.index)
                }
                Rectangle {
                    x: 4; y: 3
                    width: 24; height: 24; radius: 12
                    color: cell.isToday ? root.palette.highlight : "transparent"
                    Label {
                        anchors.centerIn: parent
                        text: cell.dayNumber
                        color: cell.isToday ? root.palette.highlightedText : root.palette.text
                        opacity: cell.isInMonth ? 1 : 0.4
                        font.bold: cell.isToday
                    }
                }
                Column {
                    x: 3
                    y: 29
                    width: parent.width - 6
                    spacing: 2
                    Repeater {
                        model: cell.items
                        delegate: Rectangle {
                            id: entry
                            required property var modelData
                            width: parent.width
                            height: 17
                            radius: 3
                            color: modelData.isAllDay || modelData.isBusyBlock
                                   ? (modelData.isBusyBlock ? Qt.rgba(root.palette.text.r, root.palette.text.g, root.palette.text.b, 0.10)
                                                            : Qt.rgba(Qt.color(modelData.colorHex || "#888888").r, Qt.color(modelData.colorHex || "#888888").g, Qt.color(modelData.colorHex || "#888888").b, 0.28))
                                   : "transparent"
                            opacity: cell.isInMonth ? 1 : 0.6
                            border.color: root.palette.highlight
                            border.width: activeFocus ? 2 : 0
                            activeFocusOnTab: true
                            function openDetail() {
                                month.openDetail(modelData.eventId, cell.index)
                                detailPopover.openAt(entry)
                            }
                            Keys.onReturnPressed: openDetail()
                            Keys.onSpacePressed: openDetail()
                            Accessible.role: Accessible.Button
                            Accessible.name: modelData.title
                            Row {
                                anchors.fill: parent
                                anchors.leftMargin: 3
                                spacing: 4
                                Rectangle {
                                    visible: !entry.modelData.isAllDay && !entry.modelData.isBusyBlock
                                    anchors.verticalCenter: parent.verticalCenter
                                    width: 6; height: 6; radius: 3
                                    color: entry.modelData.colorHex || root.palette.highlight
                                }
                                Label {
                                    anchors.verticalCenter: parent.verticalCenter
                                    width: entry.width - x - 4
                                    text: (entry.modelData.timeText ? entry.modelData.timeText + " " : "") + entry.modelData.title
                                    font.pointSize: root.font.pointSize - 2
                                    font.italic: entry.modelData.isBusyBlock
                                    elide: Text.ElideRight
                                }
                            }
                            MouseArea {
                                anchors.fill: parent
                                onClicked: entry.openDetail()
                            }
                        }
                    }
                    Label {
                        visible: cell.overflowText !== ""
                        text: cell.overflowText
                        font.pointSize: root.font.pointSize - 2
                        opacity: 0.7
                        leftPadding: 3
                    }
                }
            }
        }
    }

    EventDetailPopover {
        id: detailPopover
        store: root.store
        scene: root.scene
    }
}
