import QtQuick
import QtQuick.Controls
import QtTest
import Tavelo.Calendar

Item {
    id: window
    width: 1100
    height: 900

    WeekView {
        id: view
        anchors.fill: parent
        store: workspace.store
        scene: workspace.scene
    }

    TestCase {
        name: "WeekView"
        when: windowShown

        function init() { workspace.resetScene() }

        function gridPoint(dayIndex, minutes) {
            return { x: view.model.gutterWidth + (dayIndex + 0.5) * view.model.dayWidth,
                     y: (minutes / 60 - view.model.firstHour) * view.model.hourHeight }
        }

        function test_1_dragOnEmptySpaceOpensTheEditorWithTheInterval() {
            const area = findChild(view, "createArea")
            verify(area)
            tryVerify(() => view.model.dayWidth > 50)
            // Monday from 13:05 down to 14:20: 13:00 - 14:30.
            const from = gridPoint(1, 13 * 60 + 5)
            const to = gridPoint(1, 14 * 60 + 20)
            mousePress(area, from.x, from.y)
            mouseMove(area, from.x, (from.y + to.y) / 2, -1, Qt.LeftButton)
            mouseMove(area, to.x, to.y, -1, Qt.LeftButton)
            verify(findChild(view, "dragPreview").visible)
            compare(view.model.dragTimeText, "13:00 – 14:30")
            mouseRelease(area, to.x, to.y)
            compare(workspace.editorPresentationId(), "create")
            compare(workspace.pendingDraft(), [workspace.march(2, 13, 0), workspace.march(2, 14, 30)])
            verify(!findChild(view, "dragPreview").visible)
        }

        function test_2_draggingAnEventMovesItToTheNewDayInTheFile() {
            const item = findChild(view, "event:1on1")
            verify(item)
            const dayWidth = view.model.dayWidth
            mousePress(item, 10, 10)
            mouseMove(item, 20, 12, -1, Qt.LeftButton)
            mouseMove(item, 10 + dayWidth, 10 + 30, -1, Qt.LeftButton)
            compare(view.model.dragKind, "move")
            mouseRelease(item, 10 + dayWidth, 10 + 30)
            // Wednesday 9:00 becomes Thursday 9:30, in the SQLite file.
            tryVerify(() => workspace.storedInterval(2)[0] === workspace.march(5, 9, 30), 5000)
            compare(workspace.storedInterval(2), [workspace.march(5, 9, 30), workspace.march(5, 10, 30)])
            // And on screen in Thursday's column.
            tryVerify(() => {
                const moved = findChild(view, "event:1on1")
                return moved && Math.abs(moved.x - (view.model.gutterWidth + 4 * dayWidth)) < dayWidth / 2
            })
        }

        function test_3_clickOpensTheDetailAtTheItem() {
            const item = findChild(view, "event:設計レビュー")
            verify(item)
            mouseClick(item, 10, 10)
            tryVerify(() => view.popover.opened)
            compare(view.popover.detail.title, "設計レビュー")
            compare(workspace.scene.selectedEventID, workspace.eventId(1))
            keyClick(Qt.Key_Escape)
            tryVerify(() => !view.popover.visible)
            compare(workspace.scene.selectedEventID, "")
        }
    }
}
