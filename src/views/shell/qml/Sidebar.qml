import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Tavelo.Shell

// Navigation and the calendars with their visibility.
Pane {
    id: sidebar
    property QtObject store
    property ShellController controller

    padding: 0
    background: Rectangle { color: Qt.darker(palette.window, palette.window.hslLightness > 0.5 ? 1.03 : 0.85) }

    readonly property var items: [
        { key: "week", title: "週", glyph: "▦" },
        { key: "month", title: "月", glyph: "▤" },
        { key: "search", title: "検索", glyph: "⌕" },
        { key: "report", title: "レポート", glyph: "▥" },
        { key: "meetings", title: "会議", glyph: "◎" },
        { key: "settings", title: "設定", glyph: "⚙" }
    ]

    ColumnLayout {
        anchors.fill: parent
        anchors.margins: 10
        spacing: 2

        Repeater {
            model: sidebar.items
            delegate: ItemDelegate {
                id: navItem
                required property var modelData
                Layout.fillWidth: true
                Layout.preferredHeight: 34
                highlighted: sidebar.controller.navigation === modelData.key
                Accessible.name: modelData.title
                background: Rectangle {
                    radius: 6
                    color: navItem.highlighted ? palette.highlight
                         : navItem.hovered ? Qt.rgba(palette.text.r, palette.text.g, palette.text.b, 0.06) : "transparent"
                }
                contentItem: RowLayout {
                    spacing: 10
                    Label {
                        text: navItem.modelData.glyph
                        color: navItem.highlighted ? palette.highlightedText : palette.windowText
                        horizontalAlignment: Text.AlignHCenter
                        Layout.preferredWidth: 18
                    }
                    Label {
                        text: navItem.modelData.title
                        color: navItem.highlighted ? palette.highlightedText : palette.windowText
                        Layout.fillWidth: true
                    }
                }
                onClicked: sidebar.controller.navigate(modelData.key)
            }
        }

        Rectangle { Layout.fillWidth: true; Layout.preferredHeight: 1; Layout.topMargin: 8; Layout.bottomMargin: 4; color: palette.mid; opacity: 0.4 }

        RowLayout {
            Layout.fillWidth: true
            Layout.leftMargin: 6
            spacing: 6
            Label {
                text: "カレンダー"
                font.weight: Font.DemiBold
                opacity: 0.7
                Layout.fillWidth: true
            }
            // Google accounts syncing.
            BusyIndicator {
                objectName: "syncIndicator"
                visible: sidebar.store !== null && sidebar.store.isSyncing
                running: visible
                Layout.preferredWidth: 18
                Layout.preferredHeight: 18
                Accessible.name: "Googleカレンダーを同期中"
            }
            Label {
                visible: sidebar.store !== null && sidebar.store.isSyncing
                text: "同期中"
                font.pointSize: 10
                opacity: 0.6
            }
        }

        ListView {
            id: calendarList
            objectName: "calendarList"
            Layout.fillWidth: true
            Layout.fillHeight: true
            clip: true
            model: CalendarListModel { store: sidebar.store }
            section.property: "accountName"
            section.delegate: Label {
                required property string section
                width: calendarList.width
                text: section
                elide: Text.ElideRight
                font.pointSize: 10
                opacity: 0.6
                topPadding: 8
                leftPadding: 6
                bottomPadding: 2
            }
            delegate: CheckDelegate {
                id: row
                required property int index
                required property string name
                required property string calendarColor
                required property bool isVisible
                width: calendarList.width
                height: 30
                checked: isVisible
                text: name
                Accessible.name: name + " を表示"
                readonly property color swatch: calendarColor.length > 0 ? calendarColor : palette.highlight
                leftPadding: 32
                background: Rectangle {
                    radius: 6
                    color: row.visualFocus ? Qt.rgba(palette.highlight.r, palette.highlight.g, palette.highlight.b, 0.18)
                         : row.hovered ? Qt.rgba(palette.text.r, palette.text.g, palette.text.b, 0.06) : "transparent"
                }
                // The calendar's colour is its check box.
                indicator: Rectangle {
                    x: 10
                    y: (row.height - height) / 2
                    width: 14
                    height: 14
                    radius: 3
                    color: row.checked ? row.swatch : "transparent"
                    border.color: row.swatch
                    border.width: 1.5
                    Label {
                        anchors.centerIn: parent
                        visible: row.checked
                        text: "✓"
                        color: "white"
                        font.pointSize: 8
                        font.bold: true
                    }
                }
                contentItem: Label {
                    text: row.name
                    elide: Text.ElideRight
                    verticalAlignment: Text.AlignVCenter
                    opacity: row.checked ? 1 : 0.55
                }
                onClicked: calendarList.model.toggleVisibility(index)
            }
        }
    }
}
