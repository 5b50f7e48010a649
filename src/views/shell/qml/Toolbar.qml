import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Tavelo.Shell

ToolBar {
    id: bar
    property ShellController controller
    background: Rectangle { color: palette.window }
    implicitHeight: 46
    readonly property var pageTitles: ({ search: "検索", report: "レポート", meetings: "会議", settings: "設定" })

    RowLayout {
        anchors.fill: parent
        anchors.leftMargin: 12
        anchors.rightMargin: 12
        spacing: 6

        Button {
            objectName: "todayButton"
            text: "今日"
            visible: bar.controller.pagingAvailable
            Accessible.name: "今日"
            onClicked: bar.controller.goToToday()
        }
        ToolButton {
            text: "‹"
            font.pointSize: 16
            visible: bar.controller.pagingAvailable
            Accessible.name: "前へ"
            ToolTip.visible: hovered
            ToolTip.text: "前へ"
            onClicked: bar.controller.page(-1)
        }
        ToolButton {
            text: "›"
            font.pointSize: 16
            visible: bar.controller.pagingAvailable
            Accessible.name: "次へ"
            ToolTip.visible: hovered
            ToolTip.text: "次へ"
            onClicked: bar.controller.page(1)
        }
        Label {
            objectName: "rangeLabel"
            text: bar.controller.pagingAvailable ? bar.controller.rangeText : (bar.pageTitles[bar.controller.navigation] || "")
            font.pointSize: 15
            font.weight: Font.DemiBold
            elide: Text.ElideRight
            Layout.fillWidth: true
            Layout.leftMargin: 8
        }
        Button {
            objectName: "newEventButton"
            text: "＋ 新規イベント"
            highlighted: true
            Accessible.name: "新規イベント"
            onClicked: bar.controller.newEvent()
        }
    }
}
