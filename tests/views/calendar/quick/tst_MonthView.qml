import QtQuick
import QtTest
import Tavelo.Calendar

Item {
    width: 1000
    height: 760

    MonthView {
        id: view
        anchors.fill: parent
        store: workspace.store
        scene: workspace.scene
    }

    TestCase {
        name: "MonthView"
        when: windowShown

        function init() { workspace.resetScene() }

        function test_doubleClickOnADayCreatesAnAllDayDraft() {
            // The grid starts on Sunday 1 March; cell 9 is Tuesday 10 March.
            const cell = findChild(view, "day:9")
            verify(cell)
            mouseDoubleClickSequence(cell, cell.width / 2, cell.height - 10)
            compare(workspace.editorPresentationId(), "create")
            compare(workspace.pendingDraft(), [workspace.march(10, 0, 0), workspace.march(10, 0, 0)])
            // The click of the double click selected the day.
            compare(workspace.scene.selectedDate, workspace.march(10, 0, 0))
        }
    }
}
