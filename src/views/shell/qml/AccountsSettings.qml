import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Tavelo.Shell

ScrollView {
    id: page
    property SettingsModel settings
    property QtObject cloud
    property QtObject store
    readonly property color warningColor: palette.window.hslLightness > 0.5 ? "#b45309" : "#fbbf24"
    property alias google: googleAccounts

    GoogleAccountListModel {
        id: googleAccounts
        objectName: "googleAccounts"
        store: page.store
    }
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
            id: googleBox
            objectName: "googleAccountsBox"
            title: "Googleアカウント"
            Layout.fillWidth: true

            ColumnLayout {
                anchors.fill: parent
                spacing: 10

                // Without the OAuth settings there is nothing to connect:
                // where they go, instead of the accounts.
                Label {
                    objectName: "googleConfigurationMessage"
                    visible: !page.google.isConfigured
                    text: page.google.configurationMessage
                    wrapMode: Text.WrapAnywhere
                    Layout.fillWidth: true
                }

                Repeater {
                    model: page.google.isConfigured ? page.google : null
                    delegate: Frame {
                        id: accountRow
                        objectName: "googleAccount:" + email
                        required property int index
                        required property string name
                        required property string email
                        required property string accountColor
                        required property string status
                        required property string statusMessage
                        required property bool needsReconnect
                        required property string lastSyncText
                        required property var warnings
                        Layout.fillWidth: true
                        padding: 10
                        background: Rectangle {
                            radius: 6
                            color: Qt.rgba(palette.text.r, palette.text.g, palette.text.b, 0.04)
                            border.color: accountRow.needsReconnect ? page.warningColor : Qt.rgba(palette.text.r, palette.text.g, palette.text.b, 0.12)
                        }

                        RowLayout {
                            anchors.fill: parent
                            spacing: 10
                            Rectangle {
                                Layout.preferredWidth: 10; Layout.preferredHeight: 10; radius: 5
                                Layout.alignment: Qt.AlignTop
                                Layout.topMargin: 5
                                color: accountRow.accountColor.length > 0 ? accountRow.accountColor : palette.highlight
                            }
                            ColumnLayout {
                                spacing: 2
                                Layout.fillWidth: true
                                Label {
                                    text: accountRow.email.length > 0 ? accountRow.email : accountRow.name
                                    font.weight: Font.DemiBold
                                    elide: Text.ElideRight
                                    Layout.fillWidth: true
                                }
                                Label {
                                    objectName: "googleStatus"
                                    text: accountRow.statusMessage
                                    color: accountRow.needsReconnect || accountRow.status === "failed" ? page.warningColor : palette.windowText
                                    opacity: accountRow.needsReconnect || accountRow.status === "failed" ? 1 : 0.75
                                    wrapMode: Text.WordWrap
                                    Layout.fillWidth: true
                                }
                                Repeater {
                                    model: accountRow.warnings
                                    delegate: Label {
                                        required property string modelData
                                        text: "⚠ " + modelData
                                        color: page.warningColor
                                        wrapMode: Text.WordWrap
                                        Layout.fillWidth: true
                                    }
                                }
                                Label {
                                    text: accountRow.lastSyncText
                                    opacity: 0.6
                                    font.pointSize: page.font.pointSize - 1
                                }
                            }
                            Button {
                                objectName: "reconnectButton"
                                visible: accountRow.needsReconnect
                                text: "再接続"
                                highlighted: true
                                enabled: !page.google.isSyncing
                                Accessible.name: accountRow.email + " を再接続"
                                Layout.alignment: Qt.AlignTop
                                onClicked: page.google.reconnectAccount(accountRow.index)
                            }
                            Button {
                                objectName: "disconnectButton"
                                text: "接続を解除…"
                                enabled: !page.google.isSyncing
                                Accessible.name: accountRow.email + " の接続を解除"
                                Layout.alignment: Qt.AlignTop
                                onClicked: disconnectDialog.ask(accountRow.index, accountRow.email.length > 0 ? accountRow.email : accountRow.name)
                            }
                        }
                    }
                }

                Label {
                    visible: page.google.isConfigured && page.google.count === 0
                    text: "Googleアカウントを接続すると、そのカレンダーがここに並び、サイドバーにアカウントごとに表示されます。"
                    opacity: 0.7
                    wrapMode: Text.WordWrap
                    Layout.fillWidth: true
                }
                Label {
                    objectName: "googleAuthenticationMessage"
                    visible: page.google.isConfigured && text.length > 0
                    text: page.google.authenticationMessage
                    wrapMode: Text.WordWrap
                    Layout.fillWidth: true
                }

                RowLayout {
                    visible: page.google.isConfigured
                    spacing: 8
                    Button {
                        objectName: "connectGoogleButton"
                        text: "Googleアカウントを接続…"
                        enabled: !page.google.isSyncing
                        Accessible.name: "Googleアカウントを接続"
                        Accessible.description: "ブラウザでGoogleのログインを開きます"
                        onClicked: page.google.connectAccount()
                    }
                    Button {
                        objectName: "syncNowButton"
                        text: "今すぐ同期"
                        visible: page.google.count > 0
                        enabled: !page.google.isSyncing
                        Accessible.name: text
                        onClicked: page.google.syncAll()
                    }
                    BusyIndicator {
                        visible: page.google.isSyncing
                        running: visible
                        Layout.preferredWidth: 24
                        Layout.preferredHeight: 24
                    }
                    Label {
                        visible: page.google.isSyncing
                        text: page.google.isAuthenticating ? "ブラウザでGoogleの認証を続けてください…" : "同期中…"
                        opacity: 0.7
                    }
                    Button {
                        objectName: "cancelAuthenticationButton"
                        visible: page.google.isAuthenticating
                        text: "キャンセル"
                        Accessible.name: "Googleの認証をキャンセル"
                        onClicked: page.google.cancelAuthentication()
                    }
                }
            }
        }

        Dialog {
            id: disconnectDialog
            objectName: "disconnectDialog"
            property int row: -1
            property string accountTitle
            function ask(index, title) {
                row = index
                accountTitle = title
                open()
            }
            parent: Overlay.overlay
            anchors.centerIn: parent
            width: 440
            modal: true
            title: "Googleアカウントの接続を解除"
            standardButtons: Dialog.Ok | Dialog.Cancel
            Component.onCompleted: {
                standardButton(Dialog.Ok).text = "接続を解除"
                standardButton(Dialog.Cancel).text = "キャンセル"
            }
            Label {
                width: disconnectDialog.availableWidth
                wrapMode: Text.WordWrap
                text: "「" + disconnectDialog.accountTitle + "」の接続を解除しますか？\nこのコンピューターに保存されたこのアカウントのカレンダーと予定は削除されます。Google上のデータは変わりません。"
            }
            onAccepted: page.google.disconnectAccount(row)
            // Enter confirms, Escape cancels.
            Shortcut { sequences: ["Return", "Enter"]; enabled: disconnectDialog.opened; onActivated: disconnectDialog.accept() }
        }

        Label {
            visible: text.length > 0
            text: page.settings.errorText
            color: palette.window.hslLightness > 0.5 ? "#c2410c" : "#f87171"
            wrapMode: Text.WordWrap
            Layout.fillWidth: true
        }
    }
}
