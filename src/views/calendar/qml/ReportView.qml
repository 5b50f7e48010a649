import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import QtQuick.Shapes
import Tavelo.Calendar

// Minutes per tag for the week or month against the weekly targets, with
// the period before beside it: a bar chart and a table.
Pane {
    id: root
    property QtObject store

    readonly property alias model: report

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
    Accessible.name: "レポート " + report.rangeText

    ReportModel {
        id: report
        store: root.store
    }

    readonly property color lineColor: Qt.rgba(palette.text.r, palette.text.g, palette.text.b, 0.15)
    readonly property color previousColor: Qt.rgba(palette.text.r, palette.text.g, palette.text.b, 0.25)

    ColumnLayout {
        anchors.fill: parent
        spacing: 12

        RowLayout {
            Layout.fillWidth: true
            spacing: 8
            TabBar {
                id: periodBar
                currentIndex: report.period === "month" ? 1 : 0
                TabButton { text: "週"; width: 64; onClicked: report.period = "week"; Accessible.name: "週ごと" }
                TabButton { text: "月"; width: 64; onClicked: report.period = "month"; Accessible.name: "月ごと" }
            }
            ToolButton { text: "‹"; onClicked: report.movePeriod(-1); Accessible.name: "前の期間" }
            Button { text: report.period === "month" ? "今月" : "今週"; onClicked: report.showCurrentPeriod(); Accessible.name: "現在の期間" }
            ToolButton { text: "›"; onClicked: report.movePeriod(1); Accessible.name: "次の期間" }
            Label { text: report.rangeText; font.bold: true; Layout.leftMargin: 8 }
            Item { Layout.fillWidth: true }
        }

        RowLayout {
            spacing: 28
            ColumnLayout {
                Layout.alignment: Qt.AlignTop
                Label { text: "合計"; opacity: 0.7 }
                Label { text: report.totalText; font.pointSize: root.font.pointSize + 6; font.bold: true }
            }
            ColumnLayout {
                Label { text: "前期間 (" + report.previousRangeText + ")"; opacity: 0.7 }
                Label { text: report.previousTotalText; font.pointSize: root.font.pointSize + 6 }
                Label { text: report.changeText; opacity: 0.7; font.pointSize: root.font.pointSize - 1 }
            }
            ColumnLayout {
                Layout.alignment: Qt.AlignTop
                Label { text: "集中時間"; opacity: 0.7 }
                Label { text: report.focusText; font.pointSize: root.font.pointSize + 6 }
            }
        }

        // The chart: this period's bar in the tag's colour, the previous
        // period's below it, and a dashed mark at the target.
        ListView {
            id: chart
            Layout.fillWidth: true
            Layout.preferredHeight: Math.min(contentHeight, root.height * 0.45)
            interactive: contentHeight > height
            clip: true
            model: report
            spacing: 10
            Accessible.role: Accessible.Chart
            Accessible.name: "タグ別の時間"
            delegate: Item {
                id: bar
                required property string name
                required property string colorHex
                required property int minutes
                required property int previousMinutes
                required property int targetMinutes
                required property bool isOverTarget
                required property string minutesText
                readonly property real labelWidth: 120
                readonly property color barColor: colorHex || root.palette.highlight
                readonly property real scale: (width - labelWidth - 130) / Math.max(1, report.scaleMinutes)
                width: chart.width
                height: 30
                Label {
                    width: bar.labelWidth - 8
                    height: parent.height
                    verticalAlignment: Text.AlignVCenter
                    text: bar.name
                    elide: Text.ElideRight
                }
                Rectangle {
                    x: bar.labelWidth
                    y: 2
                    height: 16
                    radius: 3
                    width: Math.max(2, bar.minutes * bar.scale)
                    color: bar.barColor
                }
                Rectangle {
                    x: bar.labelWidth
                    y: 21
                    height: 7
                    radius: 2
                    width: Math.max(1, bar.previousMinutes * bar.scale)
                    color: root.previousColor
                }
                Shape {
                    visible: bar.targetMinutes >= 0
                    x: bar.labelWidth + bar.targetMinutes * bar.scale
                    width: 2
                    height: bar.height
                    ShapePath {
                        strokeColor: bar.isOverTarget ? "#E0524B" : root.palette.text
                        strokeWidth: 2
                        strokeStyle: ShapePath.DashLine
                        dashPattern: [2, 2]
                        startX: 1; startY: 0
                        PathLine { x: 1; y: bar.height }
                    }
                }
                // The minutes follow the bar's end. Where the target mark
                // would cut through them they move inside a bar that has
                // room, and only otherwise past the mark.
                Label {
                    id: minutesLabel
                    readonly property real barEnd: bar.labelWidth + Math.max(2, bar.minutes * bar.scale)
                    readonly property real markX: bar.labelWidth + bar.targetMinutes * bar.scale
                    readonly property bool hitsMark: bar.targetMinutes >= 0 && markX >= barEnd + 4
                                                     && markX <= barEnd + 8 + implicitWidth + 4
                    readonly property bool inside: hitsMark && bar.minutes * bar.scale >= implicitWidth + 16
                    x: inside ? barEnd - implicitWidth - 6 : (hitsMark ? markX + 8 : barEnd + 8)
                    height: 20
                    verticalAlignment: Text.AlignVCenter
                    text: bar.minutesText
                    font.pointSize: inside ? root.font.pointSize - 2 : root.font.pointSize
                    color: inside ? (bar.barColor.hslLightness > 0.7 ? "#1C1C1E" : "white")
                                  : (bar.isOverTarget ? "#E0524B" : root.palette.text)
                }
            }
        }

        // The table.
        GridLayout {
            Layout.fillWidth: true
            Layout.maximumWidth: 720
            columns: 5
            columnSpacing: 16
            rowSpacing: 6
            Label { text: "タグ"; font.bold: true; Layout.fillWidth: true }
            Label { text: "今期間"; font.bold: true }
            Label { text: "前期間"; font.bold: true }
            Label { text: "目標"; font.bold: true }
            Label { text: "達成率"; font.bold: true }
            Repeater {
                model: report
                delegate: Label {
                    required property int index
                    required property string name
                    Layout.row: index + 1
                    Layout.column: 0
                    Layout.fillWidth: true
                    text: name
                    elide: Text.ElideRight
                }
            }
            Repeater {
                model: report
                delegate: Label { required property int index; required property string minutesText; Layout.row: index + 1; Layout.column: 1; text: minutesText }
            }
            Repeater {
                model: report
                delegate: Label { required property int index; required property string previousMinutesText; Layout.row: index + 1; Layout.column: 2; text: previousMinutesText; opacity: 0.75 }
            }
            Repeater {
                model: report
                delegate: Label { required property int index; required property string targetText; Layout.row: index + 1; Layout.column: 3; text: targetText }
            }
            Repeater {
                model: report
                delegate: Label {
                    required property int index
                    required property string progressText
                    required property bool isOverTarget
                    Layout.row: index + 1
                    Layout.column: 4
                    text: progressText
                    color: isOverTarget ? "#E0524B" : root.palette.text
                }
            }
        }
        Label {
            visible: report.count === 0
            text: "タグがありません。設定でタグを作成すると、ここに時間が集計されます。"
            opacity: 0.7
        }
        Item { Layout.fillHeight: true }
    }
}
