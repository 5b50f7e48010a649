import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Tavelo.Shell

// The event editor: opens whenever the scene presents an editor.
Dialog {
    id: dialog
    objectName: "eventEditor"
    required property EventEditorModel editor

    parent: Overlay.overlay
    modal: true
    visible: editor.isOpen
    width: Math.min(parent ? parent.width - 80 : 640, 640)
    height: Math.min(parent ? parent.height - 60 : 720, 760)
    x: parent ? (parent.width - width) / 2 : 0
    y: parent ? (parent.height - height) / 2 : 0
    title: editor.isCreate ? "新規イベント" : "イベントを編集"
    closePolicy: Popup.NoAutoClose
    padding: 18

    onOpened: titleField.forceActiveFocus()

    function trySave() { if (editor.canSave) editor.save() }

    Shortcut { sequences: ["Return", "Enter"]; enabled: dialog.visible && !notesArea.activeFocus; onActivated: dialog.trySave() }
    Shortcut { sequence: "Escape"; enabled: dialog.visible; onActivated: editor.cancel() }

    header: Label {
        text: dialog.title
        font.pointSize: 15
        font.weight: Font.DemiBold
        padding: 18
        bottomPadding: 4
    }

    footer: DialogButtonBox {
        padding: 14
        Button {
            objectName: "cancelButton"
            text: "キャンセル"
            DialogButtonBox.buttonRole: DialogButtonBox.RejectRole
            Accessible.name: text
            onClicked: editor.cancel()
        }
        Button {
            objectName: "saveButton"
            text: editor.isSaving ? "保存中…" : "保存"
            highlighted: true
            enabled: editor.canSave
            DialogButtonBox.buttonRole: DialogButtonBox.AcceptRole
            Accessible.name: "保存"
            onClicked: dialog.trySave()
        }
    }

    ScrollView {
        id: scroll
        anchors.fill: parent
        contentWidth: availableWidth
        clip: true

        GridLayout {
            width: scroll.availableWidth - 18
            columns: 2
            columnSpacing: 14
            rowSpacing: 10

            Label {
                objectName: "validationMessage"
                Layout.columnSpan: 2
                Layout.fillWidth: true
                visible: text.length > 0
                text: editor.validationMessage
                color: "#d1453b"
                wrapMode: Text.WordWrap
                Accessible.role: Accessible.AlertMessage
                Accessible.name: text
            }

            Label { text: "タイトル" }
            TextField {
                id: titleField
                objectName: "titleField"
                Layout.fillWidth: true
                text: editor.title
                placeholderText: "タイトルを追加"
                Accessible.name: "タイトル"
                onTextEdited: editor.title = text
            }

            Label { text: "終日" }
            ToggleSwitch {
                objectName: "allDaySwitch"
                checked: editor.isAllDay
                Accessible.name: "終日"
                onToggled: editor.isAllDay = checked
            }

            Label { text: "開始" }
            RowLayout {
                spacing: 8
                DateField { day: editor.startDay; accessibleName: "開始日"; onPicked: (d) => editor.startDay = d }
                TimeField { visible: !editor.isAllDay; time: editor.startTime; accessibleName: "開始時刻"; onPicked: (t) => editor.startTime = t }
            }

            Label { text: "終了" }
            RowLayout {
                spacing: 8
                DateField { day: editor.endDay; accessibleName: "終了日"; onPicked: (d) => editor.endDay = d }
                TimeField { visible: !editor.isAllDay; time: editor.endTime; accessibleName: "終了時刻"; onPicked: (t) => editor.endTime = t }
            }

            Label { text: "空き状況"; Layout.alignment: Qt.AlignTop }
            ColumnLayout {
                objectName: "availability"
                Layout.fillWidth: true
                spacing: 2
                RowLayout {
                    spacing: 6
                    BusyIndicator { running: editor.availabilityLoading; visible: running; Layout.preferredWidth: 18; Layout.preferredHeight: 18 }
                    Label { text: editor.availabilityText; opacity: 0.85 }
                }
                Repeater {
                    model: editor.availabilityLoading ? [] : editor.availabilityRows
                    delegate: Label {
                        required property var modelData
                        text: (modelData.isAvailable ? "○ " : "× ") + modelData.accountName
                              + (modelData.isAvailable ? "  空き" : "  予定あり")
                        color: modelData.isAvailable ? palette.text : "#d1453b"
                        font.pointSize: 11
                    }
                }
            }

            Label { text: "カレンダー"; Layout.alignment: Qt.AlignTop; Layout.topMargin: 6 }
            ColumnLayout {
                Layout.fillWidth: true
                spacing: 0
                Repeater {
                    model: editor.calendars
                    delegate: CheckField {
                        id: choice
                        Layout.fillWidth: true
                        Layout.minimumWidth: 0
                        Layout.preferredWidth: 10
                        required property int index
                        required property string name
                        required property string accountName
                        required property string calendarColor
                        required property bool selected
                        required property bool receivesBusyBlocks
                        checked: selected
                        // As in the sidebar: the calendar's colour is its check box.
                        swatch: calendarColor.length > 0 ? calendarColor : palette.highlight
                        text: name + "  ·  " + accountName + (receivesBusyBlocks ? "  ・予定ありブロックを受け取る" : "")
                        Accessible.name: "カレンダー「" + name + "」"
                        onToggled: editor.toggleCalendar(index)
                    }
                }
            }

            Label { text: "繰り返し" }
            ComboBox {
                objectName: "recurrenceBox"
                textRole: "title"
                valueRole: "key"
                model: [
                    { key: "", title: "なし" }, { key: "daily", title: "毎日" },
                    { key: "weekly", title: "毎週" }, { key: "monthly", title: "毎月" }
                ]
                currentIndex: Math.max(0, ["", "daily", "weekly", "monthly"].indexOf(editor.recurrence))
                Accessible.name: "繰り返し"
                onActivated: editor.recurrence = currentValue
            }

            Label { text: "タグ" }
            ComboBox {
                id: tagBox
                textRole: "name"
                valueRole: "tagID"
                Layout.fillWidth: true
                model: [{ tagID: "", name: "自動（ルールで決定）" }].concat(editor.tagChoices)
                currentIndex: Math.max(0, model.findIndex(t => t.tagID === editor.tagID))
                Accessible.name: "タグ"
                onActivated: editor.tagID = currentValue
            }

            Label { text: "場所" }
            TextField {
                Layout.fillWidth: true
                text: editor.location
                placeholderText: "場所を追加"
                Accessible.name: "場所"
                onTextEdited: editor.location = text
            }

            Label { text: "ゲスト"; Layout.alignment: Qt.AlignTop; Layout.topMargin: 8 }
            ColumnLayout {
                Layout.fillWidth: true
                spacing: 4
                RowLayout {
                    Layout.fillWidth: true
                    TextField {
                        id: guestField
                        objectName: "guestField"
                        Layout.fillWidth: true
                        placeholderText: "name@example.com"
                        Accessible.name: "ゲストのメールアドレス"
                        onAccepted: if (editor.addGuest(text)) text = ""
                    }
                    Button { text: "追加"; Accessible.name: "ゲストを追加"; onClicked: if (editor.addGuest(guestField.text)) guestField.text = "" }
                }
                Label { visible: text.length > 0; text: editor.guestError; color: "#d1453b"; wrapMode: Text.WordWrap; Layout.fillWidth: true }
                Repeater {
                    model: editor.guests
                    delegate: RowLayout {
                        required property int index
                        required property string modelData
                        Label { text: modelData; Layout.fillWidth: true; elide: Text.ElideRight }
                        ToolButton { text: "✕"; Accessible.name: modelData + " を削除"; onClicked: editor.removeGuest(index) }
                    }
                }
            }

            Label { text: "通知"; Layout.alignment: Qt.AlignTop; Layout.topMargin: 8 }
            ColumnLayout {
                Layout.fillWidth: true
                spacing: 2
                Flow {
                    Layout.fillWidth: true
                    spacing: 6
                    Repeater {
                        model: editor.notifications
                        delegate: Button {
                            required property int index
                            required property var modelData
                            text: (modelData === 0 ? "開始時" : modelData % 1440 === 0 ? (modelData / 1440) + "日前"
                                  : modelData % 60 === 0 ? (modelData / 60) + "時間前" : modelData + "分前") + "  ✕"
                            flat: true
                            Accessible.name: text
                            onClicked: editor.removeNotification(index)
                        }
                    }
                }
                ComboBox {
                    textRole: "title"
                    valueRole: "minutes"
                    displayText: "通知を追加…"
                    model: [
                        { minutes: 0, title: "開始時" }, { minutes: 5, title: "5分前" }, { minutes: 10, title: "10分前" },
                        { minutes: 30, title: "30分前" }, { minutes: 60, title: "1時間前" }, { minutes: 1440, title: "1日前" }
                    ]
                    Accessible.name: "通知を追加"
                    onActivated: editor.addNotification(currentValue)
                }
            }

            Label { visible: editor.offersMeet; text: "Google Meet" }
            CheckField {
                visible: editor.offersMeet
                text: "Meetのリンクを作成"
                checked: editor.requestsMeet
                Accessible.name: text
                onToggled: editor.requestsMeet = checked
            }

            Label { text: "メモ"; Layout.alignment: Qt.AlignTop; Layout.topMargin: 8 }
            ScrollView {
                Layout.fillWidth: true
                Layout.preferredHeight: 96
                TextArea {
                    id: notesArea
                    text: editor.notes
                    wrapMode: TextEdit.Wrap
                    placeholderText: "メモを追加"
                    Accessible.name: "メモ"
                    background: Rectangle { color: palette.base; border.color: palette.mid; radius: 2 }
                    // Tab moves on instead of typing a tab character.
                    Keys.onTabPressed: (event) => nextItemInFocusChain(true).forceActiveFocus(Qt.TabFocusReason)
                    Keys.onBacktabPressed: (event) => nextItemInFocusChain(false).forceActiveFocus(Qt.BacktabFocusReason)
                    onTextChanged: if (text !== editor.notes) editor.notes = text
                }
            }
        }
    }
}
