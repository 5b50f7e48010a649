import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Tavelo.Shell

// The ChatGPT link and the AI schedules.
Pane {
    id: page
    property SettingsModel settings
    property QtObject cloud
    background: null
    padding: 24

    Component.onCompleted: settings.refreshSchedules()

    ColumnLayout {
        anchors.fill: parent
        spacing: 10

        Label { text: "AI Cloud"; font.pointSize: 18; font.weight: Font.DemiBold }

        GroupBox {
            title: "ChatGPT"
            Layout.fillWidth: true
            ColumnLayout {
                anchors.fill: parent
                RowLayout {
                    Label { text: page.settings.chatGPTAccountText; Layout.fillWidth: true }
                    Button {
                        text: page.settings.isChatGPTConnected ? "連携を解除" : "ChatGPTと連携"
                        enabled: !page.settings.isBusy
                        Accessible.name: text
                        onClicked: page.settings.isChatGPTConnected ? page.settings.unlinkChatGPT() : page.settings.startChatGPTLogin()
                    }
                }
                ColumnLayout {
                    visible: page.settings.loginCode.length > 0 && !page.settings.isChatGPTConnected
                    Label { text: "次のページを開き、コードを入力してください。" }
                    Label { text: page.settings.loginCode; font.pointSize: 20; font.family: "monospace"; font.weight: Font.DemiBold }
                    Button {
                        text: "ページを開く"
                        Accessible.name: text
                        onClicked: Qt.openUrlExternally(page.settings.loginURL)
                    }
                    Label { text: page.settings.loginURL; opacity: 0.7 }
                }
            }
        }

        RowLayout {
            Layout.fillWidth: true
            Label { text: "AIスケジュール"; font.weight: Font.DemiBold; Layout.fillWidth: true }
            Button { text: "更新"; Accessible.name: "スケジュールを更新"; onClicked: page.settings.refreshSchedules() }
            Button { text: "＋ 新しいスケジュール"; Accessible.name: "新しいスケジュール"; onClicked: page.settings.newSchedule() }
        }

        ListView {
            id: list
            objectName: "scheduleList"
            Layout.fillWidth: true
            Layout.fillHeight: true
            clip: true
            model: page.settings.schedules
            visible: !page.settings.isEditingSchedule
            delegate: ItemDelegate {
                id: row
                required property int index
                required property string title
                required property string status
                required property string nextRun
                required property string recurrence
                width: list.width
                contentItem: RowLayout {
                    ColumnLayout {
                        Layout.fillWidth: true
                        spacing: 2
                        Label { text: row.title; font.weight: Font.DemiBold; elide: Text.ElideRight; Layout.fillWidth: true }
                        Label { text: row.recurrence + " · 次回 " + row.nextRun + " · " + row.status; opacity: 0.7; elide: Text.ElideRight; Layout.fillWidth: true }
                    }
                    Button { text: "今すぐ実行"; Accessible.name: row.title + " を今すぐ実行"; onClicked: page.settings.runScheduleNow(row.index) }
                    Button { text: "削除"; Accessible.name: row.title + " を削除"; onClicked: confirm.openFor(row.index) }
                }
                onClicked: page.settings.editSchedule(index)
            }
            Label {
                anchors.centerIn: parent
                visible: list.count === 0
                text: "AIスケジュールはまだありません。"
                opacity: 0.7
            }
        }

        GridLayout {
            visible: page.settings.isEditingSchedule
            columns: 2
            columnSpacing: 12
            rowSpacing: 8
            Layout.fillWidth: true
            Label { text: "タイトル" }
            TextField { text: page.settings.scheduleTitle; Layout.fillWidth: true; Accessible.name: "タイトル"; onTextEdited: page.settings.scheduleTitle = text }
            Label { text: "AIへの指示"; Layout.alignment: Qt.AlignTop }
            TextArea {
                text: page.settings.schedulePrompt
                wrapMode: TextEdit.Wrap
                Layout.fillWidth: true
                Layout.preferredHeight: 110
                Accessible.name: "AIへの指示"
                background: Rectangle { color: palette.base; border.color: palette.mid; radius: 2 }
                onTextChanged: if (text !== page.settings.schedulePrompt) page.settings.schedulePrompt = text
            }
            Label { text: "初回" }
            RowLayout {
                DateField { day: page.settings.scheduleDay; accessibleName: "初回の日付"; onPicked: (d) => page.settings.scheduleDay = d }
                TimeField { time: page.settings.scheduleTime; accessibleName: "初回の時刻"; onPicked: (t) => page.settings.scheduleTime = t }
            }
            Label { text: "繰り返し" }
            ComboBox {
                textRole: "title"; valueRole: "key"
                model: [{ key: "", title: "1回のみ" }, { key: "daily", title: "毎日" }, { key: "weekly", title: "毎週" }, { key: "monthly", title: "毎月" }]
                currentIndex: Math.max(0, ["", "daily", "weekly", "monthly"].indexOf(page.settings.scheduleRecurrence))
                Accessible.name: "繰り返し"
                onActivated: page.settings.scheduleRecurrence = currentValue
            }
            Label { text: "一時停止" }
            ToggleSwitch { checked: page.settings.schedulePaused; Accessible.name: "一時停止"; onToggled: page.settings.schedulePaused = checked }
            Label { text: "次回以降"; Layout.alignment: Qt.AlignTop }
            Label { text: page.settings.scheduleNextOccurrences.join("\n") || "—"; opacity: 0.8 }
            Label {
                Layout.columnSpan: 2
                visible: text.length > 0
                text: page.settings.scheduleValidationMessage
                color: "#d1453b"
            }
            RowLayout {
                Layout.columnSpan: 2
                Item { Layout.fillWidth: true }
                Button { text: "キャンセル"; Accessible.name: text; onClicked: page.settings.cancelScheduleEdit() }
                Button {
                    text: "保存"; highlighted: true
                    enabled: page.settings.scheduleValidationMessage.length === 0 && !page.settings.isBusy
                    Accessible.name: text
                    onClicked: page.settings.saveSchedule()
                }
            }
        }

        Label { visible: text.length > 0; text: page.settings.errorText; color: "#d1453b"; wrapMode: Text.WordWrap; Layout.fillWidth: true }
    }

    Dialog {
        id: confirm
        property int row: -1
        function openFor(r) { row = r; open() }
        parent: Overlay.overlay
        anchors.centerIn: parent
        modal: true
        title: "AI Scheduleを削除しますか？"
        standardButtons: Dialog.Cancel | Dialog.Ok
        Label { text: "以降の定期実行を停止します。すでに実行中の処理は完了まで続きます。"; wrapMode: Text.WordWrap; width: 360 }
        onAccepted: page.settings.deleteSchedule(row)
        Component.onCompleted: {
            standardButton(Dialog.Ok).text = "削除"
            standardButton(Dialog.Cancel).text = "キャンセル"
        }
        // Enter confirms, Escape cancels.
        Shortcut { sequences: ["Return", "Enter"]; enabled: confirm.opened; onActivated: confirm.accept() }
    }
}
