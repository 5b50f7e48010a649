import QtQuick
import QtQuick.Controls
import QtQuick.Layouts

// One message with an optional retry, dismissable.
Rectangle {
    id: bar
    property string text
    property bool canRetry: false
    signal retry()
    signal dismissed()

    visible: text.length > 0
    implicitHeight: visible ? row.implicitHeight + 16 : 0
    color: palette.window.hslLightness > 0.5 ? "#fdecea" : "#4a2421"

    RowLayout {
        id: row
        anchors.fill: parent
        anchors.leftMargin: 14
        anchors.rightMargin: 8
        spacing: 8
        Label {
            objectName: "messageText"
            text: bar.text
            wrapMode: Text.WordWrap
            color: palette.window.hslLightness > 0.5 ? "#7a1f17" : "#ffd9d4"
            Layout.fillWidth: true
            Accessible.role: Accessible.AlertMessage
            Accessible.name: bar.text
        }
        Button {
            visible: bar.canRetry
            text: "再試行"
            Accessible.name: "再試行"
            onClicked: bar.retry()
        }
        ToolButton {
            text: "✕"
            Accessible.name: "閉じる"
            onClicked: bar.dismissed()
        }
    }
}
