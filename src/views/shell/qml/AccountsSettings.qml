import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Tavelo.Shell

ScrollView {
    id: page
    property SettingsModel settings
    property QtObject cloud
    contentWidth: availableWidth

    ColumnLayout {
        width: page.availableWidth - 48
        x: 24
        spacing: 12

        Label { text: "アカウント"; font.pointSize: 18; font.weight: Font.DemiBold; Layout.topMargin: 24 }

        GroupBox {
            title: "Tavelo AI Cloud"
            Layout.fillWidth: true
            ColumnLayout {
                anchors.fill: parent
                spacing: 6
                Label { objectName: "cloudAccount"; text: page.settings.accountText; font.weight: Font.DemiBold }
                Label { text: page.settings.endpoint; opacity: 0.7; elide: Text.ElideMiddle; Layout.fillWidth: true }
                RowLayout {
                    Button {
                        objectName: "signOutButton"
                        text: "ログアウト"
                        enabled: !page.settings.isBusy
                        Accessible.name: text
                        onClicked: page.settings.signOut()
                    }
                    Label { text: "ログアウトしても、このコンピューターのカレンダーは残ります。"; opacity: 0.7; wrapMode: Text.WordWrap; Layout.fillWidth: true }
                }
            }
        }

        GroupBox {
            title: "Googleアカウント"
            Layout.fillWidth: true
            ColumnLayout {
                anchors.fill: parent
                spacing: 6
                Repeater {
                    model: page.settings.googleAccounts
                    delegate: RowLayout {
                        required property var modelData
                        Rectangle { Layout.preferredWidth: 10; Layout.preferredHeight: 10; radius: 5; color: modelData.color || palette.highlight }
                        Label { text: modelData.name + "  " + modelData.email; Layout.fillWidth: true; elide: Text.ElideRight }
                        Label { text: modelData.connected ? "接続済み" : "再接続が必要"; opacity: 0.7 }
                    }
                }
                Label {
                    visible: page.settings.googleAccounts.length === 0
                    text: "接続したGoogleアカウントはここに表示されます。"
                    opacity: 0.7
                }
                Label {
                    objectName: "googleConfigurationMessage"
                    visible: text.length > 0
                    text: page.settings.googleConfigurationMessage
                    wrapMode: Text.WrapAnywhere
                    Layout.fillWidth: true
                }
            }
        }

        Label {
            visible: text.length > 0
            text: page.settings.errorText
            color: "#d1453b"
            wrapMode: Text.WordWrap
            Layout.fillWidth: true
        }
    }
}
