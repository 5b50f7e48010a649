import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Tavelo.Shell

// The ways in while nobody is signed in.
Pane {
    id: view
    objectName: "loginView"
    property QtObject cloud
    property QtObject localServer
    property alias model: login
    // "signIn", "register", "reset", "server"
    property string mode: "signIn"

    padding: 0
    background: Rectangle { color: palette.window }

    LoginModel {
        id: login
        cloud: view.cloud
        localServer: view.localServer
    }

    function submit() {
        if (login.isBusy) return
        if (mode === "signIn") login.signIn(email.text, password.text)
        else if (mode === "register") login.registerAccount(email.text, password.text)
        else if (mode === "reset") login.resetPassword(email.text)
        else login.connectPrivateServer(endpoint.text, connectionKey.text)
    }

    ScrollView {
        anchors.fill: parent
        contentWidth: availableWidth

        ColumnLayout {
            width: Math.min(520, parent.width - 48)
            x: (parent.width - width) / 2
            spacing: 14

            Item { Layout.preferredHeight: 64 }

            Label {
                text: "Tavelo"
                font.pointSize: 28
                font.weight: Font.DemiBold
                Layout.alignment: Qt.AlignHCenter
            }
            Label {
                text: "AI Cloudにログインして、カレンダーを開きます。"
                opacity: 0.75
                wrapMode: Text.WordWrap
                horizontalAlignment: Text.AlignHCenter
                Layout.fillWidth: true
            }

            Button {
                id: localButton
                objectName: "localServerButton"
                visible: view.localServer && view.localServer.isAvailable
                text: "このコンピューターのサーバーに接続"
                highlighted: true
                enabled: !login.isBusy
                Layout.fillWidth: true
                Layout.topMargin: 8
                Accessible.name: text
                onClicked: login.connectLocalServer()
            }

            TabBar {
                id: tabs
                Layout.fillWidth: true
                Layout.topMargin: 8
                currentIndex: ["signIn", "register", "reset", "server"].indexOf(view.mode)
                onCurrentIndexChanged: {
                    view.mode = ["signIn", "register", "reset", "server"][currentIndex]
                    login.clearMessages()
                }
                TabButton { text: "ログイン"; Accessible.name: "ログイン" }
                TabButton { text: "新規登録"; Accessible.name: "新規登録" }
                TabButton { text: "再設定"; Accessible.name: "パスワード再設定" }
                TabButton { objectName: "serverTab"; text: "自分のサーバー"; Accessible.name: "プライベートサーバー" }
            }

            Label {
                visible: view.mode === "server"
                text: "自分で運用しているTaveloサーバーのURLと接続キーを入力します。"
                wrapMode: Text.WordWrap
                opacity: 0.75
                Layout.fillWidth: true
            }

            TextField {
                id: email
                objectName: "emailField"
                visible: view.mode !== "server"
                placeholderText: "メールアドレス"
                inputMethodHints: Qt.ImhEmailCharactersOnly
                Accessible.name: "メールアドレス"
                Layout.fillWidth: true
                onAccepted: view.submit()
            }
            TextField {
                id: password
                objectName: "passwordField"
                visible: view.mode === "signIn" || view.mode === "register"
                placeholderText: "パスワード"
                echoMode: TextInput.Password
                Accessible.name: "パスワード"
                Layout.fillWidth: true
                onAccepted: view.submit()
            }
            TextField {
                id: endpoint
                objectName: "endpointField"
                visible: view.mode === "server"
                placeholderText: "https://tavelo.example.jp"
                inputMethodHints: Qt.ImhUrlCharactersOnly
                Accessible.name: "サーバーのURL"
                Layout.fillWidth: true
                onAccepted: view.submit()
            }
            TextField {
                id: connectionKey
                objectName: "connectionKeyField"
                visible: view.mode === "server"
                placeholderText: "接続キー"
                echoMode: TextInput.Password
                Accessible.name: "接続キー"
                Layout.fillWidth: true
                onAccepted: view.submit()
            }

            RowLayout {
                Layout.fillWidth: true
                spacing: 10
                BusyIndicator {
                    running: login.isBusy
                    visible: login.isBusy
                    Layout.preferredWidth: 28
                    Layout.preferredHeight: 28
                }
                Item { Layout.fillWidth: true }
                Button {
                    objectName: "resendButton"
                    visible: view.mode === "signIn"
                    flat: true
                    text: "確認メールを再送"
                    enabled: !login.isBusy
                    Accessible.name: text
                    onClicked: login.resendVerification(email.text, password.text)
                }
                Button {
                    objectName: "submitButton"
                    highlighted: true
                    enabled: !login.isBusy
                    text: view.mode === "signIn" ? "ログイン"
                        : view.mode === "register" ? "登録"
                        : view.mode === "reset" ? "再設定メールを送信" : "接続"
                    Accessible.name: text
                    onClicked: view.submit()
                }
            }

            Label {
                objectName: "loginError"
                visible: text.length > 0
                text: login.errorText.length > 0 ? login.errorText
                    : (view.localServer && view.localServer.problem.length > 0 ? view.localServer.problem : "")
                color: "#d1453b"
                wrapMode: Text.WordWrap
                Layout.fillWidth: true
                Accessible.role: Accessible.AlertMessage
                Accessible.name: text
            }
            Label {
                objectName: "loginNotice"
                visible: text.length > 0
                text: login.notice
                wrapMode: Text.WordWrap
                Layout.fillWidth: true
            }
            Label {
                objectName: "cloudError"
                visible: text.length > 0 && login.errorText.length === 0 && !login.isBusy
                text: view.cloud ? view.cloud.errorMessage : ""
                color: "#d1453b"
                wrapMode: Text.WordWrap
                Layout.fillWidth: true
            }
            Item { Layout.preferredHeight: 32 }
        }
    }
}
