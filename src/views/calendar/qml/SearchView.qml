import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Tavelo.Calendar

// Search as you type, results grouped by day.
Pane {
    id: root
    property QtObject store
    property QtObject scene

    readonly property alias model: search
    readonly property alias queryField: field

    // The window's palette, also where the items between do not hand it on
    // (a view created inside a plain item before the window was known).
    Binding {
        target: root
        property: "palette"
        when: root.ApplicationWindow.window !== null
        value: root.ApplicationWindow.window ? root.ApplicationWindow.window.palette : null
    }

    padding: 16
    Accessible.role: Accessible.Pane
    Accessible.name: "検索"

    SearchModel {
        id: search
        store: root.store
        scene: root.scene
    }

    function focusQuery() { field.forceActiveFocus(); field.selectAll() }

    ColumnLayout {
        anchors.fill: parent
        spacing: 10

        RowLayout {
            Layout.fillWidth: true
            spacing: 12
            TextField {
                id: field
                Layout.fillWidth: true
                placeholderText: "予定を検索 (タイトル、場所、メモ、ゲスト)"
                Accessible.name: "検索語"
                focus: true
                onTextChanged: search.query = text
                Keys.onDownPressed: results.forceActiveFocus()
            }
            CheckBox {
                id: pastToggle
                text: "過去の予定を含める"
                // Drawn here: the style's box does not show on a dark base.
                indicator: Rectangle {
                    x: pastToggle.leftPadding
                    y: (pastToggle.height - height) / 2
                    implicitWidth: 14
                    implicitHeight: 14
                    radius: 3
                    color: pastToggle.checked ? palette.highlight : "transparent"
                    border.color: pastToggle.visualFocus || pastToggle.checked ? palette.highlight
                                : Qt.rgba(palette.text.r, palette.text.g, palette.text.b, 0.55)
                    border.width: pastToggle.visualFocus ? 2 : 1.5
                    Label {
                        anchors.centerIn: parent
                        visible: pastToggle.checked
                        text: "✓"
                        color: "white"
                        font.pointSize: 8
                        font.bold: true
                    }
                }
                checked: search.includePast
                onToggled: search.includePast = checked
                Accessible.name: "過去の予定を含める"
            }
        }
        Label {
            text: search.summaryText
            opacity: 0.7
            visible: text !== ""
        }
        ListView {
            id: results
            Layout.fillWidth: true
            Layout.fillHeight: true
            clip: true
            model: search.results
            keyNavigationEnabled: true
            currentIndex: -1
            section.property: "section"
            section.delegate: Label {
                required property string section
                width: ListView.view.width
                topPadding: 10
                bottomPadding: 4
                text: section
                font.bold: true
            }
            ScrollBar.vertical: ScrollBar {}
            delegate: ItemDelegate {
                id: row
                required property int index
                required property string eventId
                required property string title
                required property string timeText
                required property string colorHex
                required property bool isPast
                required property int calendarCount
                width: ListView.view.width
                highlighted: ListView.isCurrentItem && ListView.view.activeFocus
                opacity: isPast ? 0.7 : 1
                Accessible.name: title + " " + timeText
                contentItem: RowLayout {
                    spacing: 10
                    Rectangle { width: 8; height: 8; radius: 4; color: row.colorHex || root.palette.highlight }
                    Label { text: row.timeText; opacity: 0.75; Layout.preferredWidth: 120 }
                    Label {
                        text: row.title + (row.calendarCount > 1 ? "  ×" + row.calendarCount : "")
                        elide: Text.ElideRight
                        Layout.fillWidth: true
                    }
                }
                onClicked: {
                    results.currentIndex = index
                    search.openDetail(eventId)
                    detailPopover.openAt(row)
                }
                Keys.onReturnPressed: clicked()
            }
        }
    }

    EventDetailPopover {
        id: detailPopover
        store: root.store
        scene: root.scene
    }
}
