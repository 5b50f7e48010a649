import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Tavelo.Calendar

// The week: day headers, the all-day row and the timed grid with lanes, the
// current-time line and drags that create, move and resize events.
Pane {
    id: root
    property QtObject store
    property QtObject scene
    // The cloud store, for the runs of AI schedules; optional.
    property QtObject cloud: null

    readonly property alias model: week
    readonly property alias gridArea: gridContent
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
    Accessible.role: Accessible.Pane
    Accessible.name: "週表示 " + week.rangeText

    readonly property real allDayRowHeight: 22
    readonly property color lineColor: Qt.rgba(palette.text.r, palette.text.g, palette.text.b, 0.12)

    FontMetrics {
        id: titleMetrics
        font.pointSize: root.font.pointSize - 1
        font.family: root.font.family
        font.bold: true
    }
    FontMetrics {
        id: timeMetrics
        font.pointSize: root.font.pointSize - 2
        font.family: root.font.family
    }

    WeekModel {
        id: week
        store: root.store
        scene: root.scene
        cloud: root.cloud
        dayWidth: Math.max(1, (gridContent.width - week.gutterWidth) / 7)
    }

    Timer {
        interval: 60000
        repeat: true
        running: root.visible
        onTriggered: week.refreshNow()
    }

    Keys.onLeftPressed: week.moveSelection(-1)
    Keys.onRightPressed: week.moveSelection(1)
    Keys.onUpPressed: week.moveSelection(-7)
    Keys.onDownPressed: week.moveSelection(7)
    Keys.onEscapePressed: week.cancelDrag()

    function eventColor(hex, busy) {
        if (busy || hex === "")
            return Qt.rgba(palette.text.r, palette.text.g, palette.text.b, 0.10)
        const c = Qt.color(hex)
        return Qt.rgba(c.r, c.g, c.b, 0.28)
    }

    ColumnLayout {
        anchors.fill: parent
        spacing: 0

        // Day headers.
        Row {
            Layout.fillWidth: true
            Layout.preferredHeight: 46
            Item { width: week.gutterWidth; height: 46 }
            Repeater {
                model: week.days
                delegate: Item {
                    required property int index
                    required property int dayNumber
                    required property string weekdayText
                    required property bool isToday
                    required property bool isSelected
                    required property string accessibleText
                    width: week.dayWidth
                    height: 46
                    Accessible.role: Accessible.ColumnHeader
                    Accessible.name: accessibleText
                    Rectangle {
                        anchors.fill: parent
                        anchors.margins: 2
                        radius: 6
                        color: isSelected ? Qt.rgba(root.palette.highlight.r, root.palette.highlight.g, root.palette.highlight.b, 0.15) : "transparent"
                    }
                    Row {
                        anchors.centerIn: parent
                        spacing: 6
                        Label {
                            anchors.verticalCenter: parent.verticalCenter
                            text: weekdayText
                            color: index === 0 ? "#E0524B" : (index === 6 ? "#3B7DDD" : root.palette.text)
                            opacity: 0.8
                        }
                        Rectangle {
                            width: 30; height: 30; radius: 15
                            color: isToday ? root.palette.highlight : "transparent"
                            Label {
                                anchors.centerIn: parent
                                text: dayNumber
                                font.pointSize: root.font.pointSize + 3
                                font.bold: isToday
                                color: isToday ? root.palette.highlightedText : root.palette.text
                            }
                        }
                    }
                    MouseArea {
                        anchors.fill: parent
                        onClicked: { week.selectDay(index); root.forceActiveFocus() }
                    }
                }
            }
        }

        // All-day row.
        Item {
            id: allDayArea
            Layout.fillWidth: true
            Layout.preferredHeight: Math.max(1, week.allDayRowCount) * root.allDayRowHeight + 8
            Label {
                width: week.gutterWidth - 6
                y: 4
                horizontalAlignment: Text.AlignRight
                text: "終日"
                font.pointSize: root.font.pointSize - 2
                opacity: 0.6
            }
            Rectangle { anchors.bottom: parent.bottom; width: parent.width; height: 1; color: root.lineColor }
            Repeater {
                model: week.allDayItems
                delegate: Rectangle {
                    id: bar
                    required property string eventId
                    required property int dayIndex
                    required property int dayCount
                    required property int lane
                    required property string title
                    required property string colorHex
                    required property bool isBusyBlock
                    required property int calendarCount
                    x: week.gutterWidth + dayIndex * week.dayWidth + 2
                    y: 4 + lane * root.allDayRowHeight
                    width: dayCount * week.dayWidth - 4
                    height: root.allDayRowHeight - 3
                    radius: 4
                    color: root.eventColor(colorHex, isBusyBlock)
                    border.color: activeFocus ? root.palette.highlight : (colorHex !== "" ? colorHex : root.lineColor)
                    border.width: activeFocus ? 2 : 1
                    activeFocusOnTab: true
                    function openDetail() {
                        week.openDetail(eventId, "weekAllDay", dayIndex, lane)
                        detailPopover.openAt(bar)
                    }
                    Keys.onReturnPressed: openDetail()
                    Keys.onSpacePressed: openDetail()
                    Accessible.role: Accessible.Button
                    Accessible.name: "終日 " + title
                    Label {
                        anchors.fill: parent
                        anchors.leftMargin: 6
                        anchors.rightMargin: 4
                        verticalAlignment: Text.AlignVCenter
                        text: bar.title + (bar.calendarCount > 1 ? "  ×" + bar.calendarCount : "")
                        elide: Text.ElideRight
                        font.pointSize: root.font.pointSize - 1
                    }
                    MouseArea {
                        anchors.fill: parent
                        onClicked: bar.openDetail()
                    }
                }
            }
        }

        // Timed grid.
        ScrollView {
            id: scroller
            Layout.fillWidth: true
            Layout.fillHeight: true
            clip: true
            contentWidth: availableWidth
            contentHeight: week.gridHeight + 12
            ScrollBar.horizontal.policy: ScrollBar.AlwaysOff

            Component.onCompleted: Qt.callLater(function () {
                // A little above the hour, so that its label shows whole.
                scroller.contentItem.contentY = Math.max(0, Math.min(
                    (week.initialScrollHour - week.firstHour) * week.hourHeight - 10,
                    scroller.contentHeight - scroller.height))
            })

            Item {
                id: gridContent
                objectName: "weekGrid"
                width: scroller.availableWidth
                height: week.gridHeight + 12

                // Hours and lines.
                Repeater {
                    model: week.lastHour - week.firstHour
                    delegate: Item {
                        required property int index
                        y: index * week.hourHeight
                        width: gridContent.width
                        height: week.hourHeight
                        Label {
                            visible: index > 0
                            width: week.gutterWidth - 8
                            y: -height / 2
                            horizontalAlignment: Text.AlignRight
                            text: (week.firstHour + index) + ":00"
                            font.pointSize: root.font.pointSize - 2
                            opacity: 0.6
                        }
                        Rectangle { x: week.gutterWidth; width: parent.width - x; height: 1; color: root.lineColor }
                    }
                }
                Repeater {
                    model: 8
                    delegate: Rectangle {
                        required property int index
                        x: week.gutterWidth + index * week.dayWidth
                        width: 1
                        height: week.gridHeight
                        color: root.lineColor
                    }
                }

                // Drag on empty space creates.
                MouseArea {
                    id: createArea
                    objectName: "createArea"
                    anchors.fill: parent
                    preventStealing: true
                    onPressed: (mouse) => {
                        root.forceActiveFocus()
                        if (mouse.x < week.gutterWidth) { mouse.accepted = false; return }
                        week.beginCreate(mouse.x, mouse.y)
                    }
                    onPositionChanged: (mouse) => week.updateCreate(mouse.x, mouse.y)
                    onReleased: week.finishCreate()
                    onCanceled: week.cancelDrag()
                }

                // Events in lanes.
                Repeater {
                    model: week.timedItems
                    delegate: Rectangle {
                        id: item
                        required property string eventId
                        required property int dayIndex
                        required property int lane
                        required property int laneCount
                        required property int laneSpan
                        required property real itemTop
                        required property real itemHeight
                        required property string title
                        required property string timeText
                        required property string colorHex
                        required property bool isBusyBlock
                        required property bool isPast
                        required property int calendarCount
                        objectName: "event:" + title
                        readonly property real laneWidth: week.dayWidth / laneCount
                        readonly property bool dragged: week.dragActive && week.dragEventId === eventId
                        // Many overlapping entries would leave lanes too narrow
                        // to read: then each block keeps a legible width and
                        // the lanes cascade across the day, later (later
                        // starting) lanes on top, each edged in the background
                        // colour, so every title shows above the next block.
                        readonly property real laneExtent: laneSpan * laneWidth - 3
                        readonly property real legibleWidth: Math.min(week.dayWidth - 4, 60)
                        readonly property bool cascaded: laneExtent < legibleWidth
                        readonly property real cascadeStep: (week.dayWidth - legibleWidth - 3) / Math.max(1, laneCount - 1)
                        readonly property bool narrow: width < 96
                        x: week.gutterWidth + dayIndex * week.dayWidth + 1
                           + (cascaded ? lane * cascadeStep : lane * laneWidth)
                        y: itemTop + 1
                        z: lane
                        width: Math.max(laneExtent, legibleWidth)
                        height: Math.max(itemHeight - 2, 18)
                        radius: 4
                        // Cascaded blocks cover each other: opaque, so that no
                        // title shows through the block above it.
                        opacity: dragged ? 0.35 : (isPast && !cascaded ? 0.75 : 1)
                        color: cascaded ? Qt.tint(root.palette.base, root.eventColor(colorHex, isBusyBlock))
                                        : root.eventColor(colorHex, isBusyBlock)
                        border.color: activeFocus ? root.palette.highlight
                                                  : (isBusyBlock ? Qt.rgba(root.palette.text.r, root.palette.text.g, root.palette.text.b, 0.35)
                                                                 : (cascaded ? root.palette.base : "transparent"))
                        border.width: activeFocus ? 2 : (isBusyBlock || cascaded ? 1 : 0)
                        // Tab reaches each entry; Enter or Space opens its detail.
                        activeFocusOnTab: true
                        function openDetail() {
                            week.openDetail(eventId, "weekTimed", dayIndex, lane)
                            detailPopover.openAt(item)
                        }
                        Keys.onReturnPressed: openDetail()
                        Keys.onSpacePressed: openDetail()
                        clip: true
                        Accessible.role: Accessible.Button
                        Accessible.name: title + " " + timeText + (isBusyBlock ? " 予定あり" : "")

                        Rectangle {
                            visible: !item.isBusyBlock
                            width: 3
                            height: parent.height
                            radius: 1.5
                            color: item.colorHex !== "" ? item.colorHex : root.palette.highlight
                        }
                        // Only whole lines: the time shows when a title line
                        // and it fit, the title takes what is left.
                        readonly property real room: height - 4
                        readonly property bool showsTime: !narrow && room >= titleMetrics.height + timeMetrics.height
                        Column {
                            x: 7
                            y: 2
                            width: parent.width - 10
                            Label {
                                width: parent.width
                                text: item.title + (item.calendarCount > 1 ? "  ×" + item.calendarCount : "")
                                font.family: titleMetrics.font.family
                                font.pointSize: titleMetrics.font.pointSize
                                font.bold: !item.isBusyBlock
                                font.italic: item.isBusyBlock
                                elide: Text.ElideRight
                                // Narrow blocks: at most two lines, elided.
                                maximumLineCount: Math.max(1, Math.min(item.narrow ? 2 : 99,
                                    Math.floor((item.room - (item.showsTime ? timeMetrics.height : 0)) / titleMetrics.height)))
                                wrapMode: Text.Wrap
                            }
                            Label {
                                visible: item.showsTime
                                width: parent.width
                                text: item.timeText
                                font.pointSize: root.font.pointSize - 2
                                opacity: 0.7
                                elide: Text.ElideRight
                            }
                        }

                        // Body: click opens the detail, drag moves.
                        MouseArea {
                            id: body
                            anchors.fill: parent
                            anchors.bottomMargin: 6
                            preventStealing: true
                            property point origin
                            property bool moving: false
                            cursorShape: moving ? Qt.ClosedHandCursor : Qt.PointingHandCursor
                            onPressed: (mouse) => {
                                root.forceActiveFocus()
                                origin = mapToItem(gridContent, mouse.x, mouse.y)
                                moving = false
                            }
                            onPositionChanged: (mouse) => {
                                const p = mapToItem(gridContent, mouse.x, mouse.y)
                                const dx = p.x - origin.x, dy = p.y - origin.y
                                if (!moving && Math.abs(dx) + Math.abs(dy) > 4)
                                    moving = week.beginMove(item.eventId)
                                if (moving)
                                    week.updateMove(dx, dy)
                            }
                            onReleased: {
                                if (moving) {
                                    moving = false
                                    week.finishDrag()
                                } else {
                                    item.openDetail()
                                }
                            }
                            onCanceled: { moving = false; week.cancelDrag() }
                        }
                        // Bottom edge: drag resizes.
                        MouseArea {
                            anchors.left: parent.left
                            anchors.right: parent.right
                            anchors.bottom: parent.bottom
                            height: 6
                            visible: !item.isBusyBlock
                            preventStealing: true
                            cursorShape: Qt.SizeVerCursor
                            property real originY
                            property bool resizing: false
                            onPressed: (mouse) => {
                                originY = mapToItem(gridContent, mouse.x, mouse.y).y
                                resizing = week.beginResize(item.eventId)
                            }
                            onPositionChanged: (mouse) => {
                                if (resizing) week.updateResize(mapToItem(gridContent, mouse.x, mouse.y).y - originY)
                            }
                            onReleased: { if (resizing) week.finishDrag(); resizing = false }
                            onCanceled: { resizing = false; week.cancelDrag() }
                        }
                    }
                }

                // Runs of AI schedules.
                Repeater {
                    model: week.aiItems
                    delegate: Rectangle {
                        required property int dayIndex
                        required property real itemTop
                        required property string title
                        required property string timeText
                        required property bool isPast
                        x: week.gutterWidth + dayIndex * week.dayWidth + week.dayWidth * 0.45
                        y: itemTop
                        width: week.dayWidth * 0.55 - 3
                        height: 18
                        radius: 9
                        color: Qt.rgba(0.55, 0.36, 0.96, isPast ? 0.12 : 0.22)
                        border.color: "#8B5CF6"
                        Accessible.role: Accessible.StaticText
                        Accessible.name: "AI スケジュール " + title + " " + timeText
                        Label {
                            anchors.fill: parent
                            anchors.leftMargin: 6
                            verticalAlignment: Text.AlignVCenter
                            text: "AI " + timeText + " " + title
                            font.pointSize: root.font.pointSize - 2
                            elide: Text.ElideRight
                        }
                    }
                }

                // The drag preview.
                Rectangle {
                    objectName: "dragPreview"
                    visible: week.dragActive && week.dragDayIndex >= 0
                    x: week.gutterWidth + week.dragDayIndex * week.dayWidth + 2
                    y: week.dragTop
                    width: week.dayWidth - 4
                    height: Math.max(week.dragHeight, 14)
                    radius: 4
                    color: Qt.rgba(root.palette.highlight.r, root.palette.highlight.g, root.palette.highlight.b, 0.30)
                    border.color: root.palette.highlight
                    Label {
                        x: 6; y: 2
                        text: week.dragTimeText
                        font.pointSize: root.font.pointSize - 2
                        font.bold: true
                    }
                }

                // Now.
                Item {
                    visible: week.nowDayIndex >= 0
                    x: week.gutterWidth + week.nowDayIndex * week.dayWidth
                    y: week.nowY
                    width: week.dayWidth
                    Rectangle { width: parent.width; height: 2; y: -1; color: "#E0524B" }
                    Rectangle { width: 10; height: 10; radius: 5; x: -5; y: -5; color: "#E0524B" }
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
