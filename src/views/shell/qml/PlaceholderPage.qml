import QtQuick
import QtQuick.Controls
import QtQuick.Layouts

Pane {
    id: page
    property string title
    property string message
    background: Rectangle { color: palette.base }
    ColumnLayout {
        anchors.centerIn: parent
        width: Math.min(parent.width - 48, 460)
        spacing: 8
        Label { text: page.title; font.pointSize: 18; font.weight: Font.DemiBold; Layout.alignment: Qt.AlignHCenter }
        Label {
            text: page.message
            opacity: 0.7
            wrapMode: Text.WordWrap
            horizontalAlignment: Text.AlignHCenter
            Layout.fillWidth: true
        }
    }
}
