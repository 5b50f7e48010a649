import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Tavelo.Calendar

// The detail of the event open in the scene, next to the item clicked.
Popup {
    id: popover
    property QtObject store
    property QtObject scene

    readonly property alias detail: detailModel

    // Opens beside `item` (any item of the view).
    function openAt(item) {
        if (!item)
            return
        const point = item.mapToItem(popover.parent, item.width + 6, 0)
        const right = popover.parent.width
        x = point.x + implicitWidth <= right ? point.x : Math.max(0, point.x - item.width - implicitWidth - 12)
        y = Math.max(0, Math.min(point.y, popover.parent.height - implicitHeight))
        open()
    }

    width: 320
    padding: 14
    modal: false
    focus: true
    closePolicy: Popup.CloseOnEscape | Popup.CloseOnPressOutside

    onClosed: if (detailModel.hasEvent) detailModel.close()

    EventDetailModel {
        id: detailModel
        store: popover.store
        scene: popover.scene
        onHasEventChanged: if (!hasEvent) popover.close()
    }

    contentItem: ColumnLayout {
        spacing: 8
        Accessible.role: Accessible.Dialog
        Accessible.name: "予定の詳細 " + detailModel.title

        RowLayout {
            Layout.fillWidth: true
            spacing: 8
            Rectangle {
                width: 12; height: 12; radius: 3
                color: detailModel.colorHex !== "" ? detailModel.colorHex : popover.palette.highlight
                Layout.alignment: Qt.AlignTop
                Layout.topMargin: 5
            }
            Label {
                text: detailModel.title
                font.pointSize: popover.font.pointSize + 3
                font.bold: true
                wrapMode: Text.Wrap
                Layout.fillWidth: true
            }
        }
        Label {
            text: detailModel.dateText + "  " + detailModel.timeText
            color: popover.palette.text
            opacity: 0.8
            Layout.fillWidth: true
            wrapMode: Text.Wrap
        }
        Label {
            visible: detailModel.isBusyBlock
            text: "ほかのカレンダーの予定を反映した予定ありブロックです"
            wrapMode: Text.Wrap
            Layout.fillWidth: true
            opacity: 0.7
        }
        Label {
            visible: detailModel.location !== ""
            text: "場所: " + detailModel.location
            wrapMode: Text.Wrap
            Layout.fillWidth: true
        }
        Label {
            text: "カレンダー: " + detailModel.calendarNames.join("、")
            wrapMode: Text.Wrap
            Layout.fillWidth: true
        }
        Label {
            visible: detailModel.tagName !== ""
            text: "タグ: " + detailModel.tagName
            Layout.fillWidth: true
        }
        Label {
            visible: detailModel.guests.length > 0
            text: "ゲスト: " + detailModel.guests.join("、")
            wrapMode: Text.Wrap
            Layout.fillWidth: true
        }
        Label {
            visible: detailModel.notes !== ""
            text: detailModel.notes
            wrapMode: Text.Wrap
            maximumLineCount: 8
            elide: Text.ElideRight
            Layout.fillWidth: true
            opacity: 0.85
        }
        RowLayout {
            Layout.fillWidth: true
            Layout.topMargin: 4
            Item { Layout.fillWidth: true }
            Button {
                text: "削除"
                Accessible.name: "予定を削除"
                onClicked: confirmDelete.open()
            }
            Button {
                text: "編集"
                highlighted: true
                Accessible.name: "予定を編集"
                onClicked: detailModel.edit()
            }
        }
    }

    Dialog {
        id: confirmDelete
        parent: Overlay.overlay
        anchors.centerIn: parent
        modal: true
        title: "予定を削除"
        standardButtons: Dialog.Cancel | Dialog.Ok
        width: 360
        Label {
            text: detailModel.deleteQuestion
            wrapMode: Text.Wrap
            width: parent ? parent.width : 320
        }
        onAccepted: detailModel.deleteEvent()
        Component.onCompleted: {
            standardButton(Dialog.Ok).text = "削除"
            standardButton(Dialog.Cancel).text = "キャンセル"
        }
        // Enter confirms, Escape cancels.
        Shortcut { sequences: ["Return", "Enter"]; enabled: confirmDelete.opened; onActivated: confirmDelete.accept() }
    }
}
