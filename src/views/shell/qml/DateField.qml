import QtQuick
import QtQuick.Controls
import QtQuick.Layouts

// A day shown as text with a month grid to pick from (built when opened).
Button {
    id: field
    property date day
    property string accessibleName
    property int shownMonth: 0
    property int shownYear: 2000
    signal picked(date day)

    text: isNaN(day.getTime()) ? "—" : day.toLocaleDateString(Qt.locale("ja_JP"), "yyyy年M月d日（ddd）")
    Accessible.name: accessibleName
    onClicked: { shownMonth = day.getMonth(); shownYear = day.getFullYear(); popup.open() }

    Popup {
        id: popup
        y: field.height + 4
        padding: 10
        focus: true
        contentItem: Loader {
            active: popup.visible
            sourceComponent: ColumnLayout {
                spacing: 6
                RowLayout {
                    Layout.fillWidth: true
                    ToolButton {
                        text: "‹"; Accessible.name: "前の月"
                        onClicked: { if (field.shownMonth === 0) { field.shownMonth = 11; field.shownYear -= 1 } else field.shownMonth -= 1 }
                    }
                    Label { text: field.shownYear + "年" + (field.shownMonth + 1) + "月"; horizontalAlignment: Text.AlignHCenter; Layout.fillWidth: true }
                    ToolButton {
                        text: "›"; Accessible.name: "次の月"
                        onClicked: { if (field.shownMonth === 11) { field.shownMonth = 0; field.shownYear += 1 } else field.shownMonth += 1 }
                    }
                }
                DayOfWeekRow { locale: grid.locale; Layout.fillWidth: true }
                MonthGrid {
                    id: grid
                    month: field.shownMonth
                    year: field.shownYear
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
}
