import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Tavelo.Shell

// Tags: create, rename, colour, order, weekly targets and rules.
Pane {
    id: page
    property QtObject store
    background: null
    padding: 24

    readonly property var palette8: ["#3B82F6", "#10B981", "#F59E0B", "#EF4444", "#8B5CF6", "#EC4899", "#14B8A6", "#6B7280"]

    TagListModel { id: tags; store: page.store }

    ColumnLayout {
        anchors.fill: parent
        spacing: 10

        Label { text: "タグとルール"; font.pointSize: 18; font.weight: Font.DemiBold }

        RowLayout {
            Layout.fillWidth: true
            TextField {
                id: newName
                objectName: "newTagField"
                placeholderText: "新しいタグの名前"
                Accessible.name: "新しいタグの名前"
                Layout.fillWidth: true
                onAccepted: addButton.clicked()
            }
            Button {
                id: addButton
                text: "タグを追加"
                Accessible.name: text
                onClicked: if (tags.addTag(newName.text, page.palette8[tags.rowCount() % page.palette8.length])) newName.text = ""
            }
        }
        Label { visible: text.length > 0; text: tags.nameError; color: "#d1453b" }

        ListView {
            id: list
            objectName: "tagList"
            Layout.fillWidth: true
            Layout.fillHeight: true
            clip: true
            spacing: 6
            model: tags
            delegate: Frame {
                id: card
                required property int index
                required property string name
                required property string tagColor
                required property real weeklyTargetHours
                required property bool warnsWhenExceeded
                required property var rules
                width: list.width
                ColumnLayout {
                    anchors.fill: parent
                    spacing: 6
                    RowLayout {
                        Layout.fillWidth: true
                        spacing: 8
                        Repeater {
                            model: page.palette8
                            delegate: Rectangle {
                                required property string modelData
                                implicitWidth: 18; implicitHeight: 18; radius: 9
                                color: modelData
                                border.width: card.tagColor.toUpperCase() === modelData.toUpperCase() ? 2 : 0
                                border.color: palette.text
                                Accessible.role: Accessible.Button
                                Accessible.name: "色 " + modelData
                                TapHandler { onTapped: tags.setColor(card.index, modelData) }
                            }
                        }
                        TextField {
                            text: card.name
                            Accessible.name: "タグの名前"
                            Layout.fillWidth: true
                            onEditingFinished: if (text !== card.name && !tags.renameTag(card.index, text)) text = card.name
                        }
                        Label { text: "週の目標" }
                        SpinBox {
                            from: 0; to: 80
                            value: card.weeklyTargetHours
                            editable: true
                            Accessible.name: "週の目標時間"
                            onValueModified: tags.setWeeklyTarget(card.index, value, card.warnsWhenExceeded)
                        }
                        Label { text: "時間" }
                        CheckField {
                            text: "超過を警告"
                            Accessible.name: card.name + " の超過を警告"
                            checked: card.warnsWhenExceeded
                            enabled: card.weeklyTargetHours > 0
                            onToggled: tags.setWeeklyTarget(card.index, card.weeklyTargetHours, checked)
                        }
                        ToolButton { text: "↑"; enabled: card.index > 0; Accessible.name: "上へ"; onClicked: tags.moveTag(card.index, card.index - 1) }
                        ToolButton { text: "↓"; enabled: card.index < list.count - 1; Accessible.name: "下へ"; onClicked: tags.moveTag(card.index, card.index + 1) }
                        ToolButton { text: "削除"; Accessible.name: card.name + " を削除"; onClicked: tags.deleteTag(card.index) }
                    }
                    Repeater {
                        model: card.rules
                        delegate: RowLayout {
                            required property int index
                            required property string modelData
                            Label { text: "ルール: " + modelData; opacity: 0.8; Layout.fillWidth: true; elide: Text.ElideRight }
                            ToolButton { text: "✕"; Accessible.name: "ルールを削除"; onClicked: tags.removeRule(card.index, index) }
                        }
                    }
                    RowLayout {
                        Layout.fillWidth: true
                        TextField {
                            id: ruleText
                            placeholderText: "タイトルに含む語でルールを追加"
                            Accessible.name: "タイトルのルール"
                            Layout.fillWidth: true
                            onAccepted: { tags.addTitleRule(card.index, text); text = "" }
                        }
                        ComboBox {
                            textRole: "name"
                            valueRole: "calendarID"
                            displayText: "カレンダーのルール…"
                            Layout.preferredWidth: 220
                            model: tags.calendarChoices
                            Accessible.name: "カレンダーのルールを追加"
                            onActivated: tags.addCalendarRule(card.index, currentValue)
                        }
                    }
                }
            }
        }
    }
}
