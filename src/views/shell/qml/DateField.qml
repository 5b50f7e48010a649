import QtQuick
import QtQuick.Controls
import QtQuick.Layouts

// A day shown as text with a month grid to pick from.
Button {
    id: field
    property date day
    property string accessibleName
    signal picked(date day)

    text: isNaN(day.getTime()) ? "—" : day.toLocaleDateString(Qt.locale("ja_JP"), "yyyy年M月d日（ddd）")
    Accessible.name: accessibleName
    onClicked: { grid.month = day.getMonth(); grid.year = day.getFullYear(); popup.open() }

    Popup {
        id: popup
        y: field.height + 4
        padding: 10
        focus: true
        ColumnLayout {
            spacing: 6
            RowLayout {
                Layout.fillWidth: true
                ToolButton {
                    text: "‹"; Accessible.name: "前の月"
                    onClicked: { if (grid.month === 0) { grid.month = 11; grid.year -= 1 } else grid.month -= 1 }
                }
                Label { text: grid.year + "年" + (grid.month + 1) + "月"; horizontalAlignment: Text.AlignHCenter; Layout.fillWidth: true }
                ToolButton {
                    text: "›"; Accessible.name: "次の月"
                    onClicked: { if (grid.month === 11) { grid.month = 0; grid.year += 1 } else grid.month += 1 }
                }
            }
            DayOfWeekRow { locale: grid.locale; Layout.fillWidth: true }
            MonthGrid {
                id: grid
                locale: Qt.locale("ja_JP")
                Layout.fillWidth: true
                delegate: Label {
                    required property var model
                    text: model.day
                    horizontalAlignment: Text.AlignHCenter
                    opacity: model.month === grid.month ? 1 : 0.35
                    font.bold: model.date.getFullYear() === field.day.getFullYear()
                               && model.date.getMonth() === field.day.getMonth()
                               && model.date.getDate() === field.day.getDate()
                }
                onClicked: (date) => { field.picked(date); popup.close() }
            }
        }
    }
}
