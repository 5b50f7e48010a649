import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Tavelo.Shell

ApplicationWindow {
    id: window
    objectName: "mainWindow"
    required property ShellRoot root

    title: "Tavelo"
    width: 1280
    height: 820
    minimumWidth: 1000
    minimumHeight: 640
    visible: true
    color: palette.window

    // The application palette, handed on to every control of the window.
    palette.window: root.colors.window
    palette.windowText: root.colors.windowText
    palette.base: root.colors.base
    palette.alternateBase: root.colors.alternateBase
    palette.text: root.colors.text
    palette.button: root.colors.button
    palette.buttonText: root.colors.buttonText
    palette.highlight: root.colors.highlight
    palette.highlightedText: root.colors.highlightedText
    palette.mid: root.colors.mid
    palette.dark: root.colors.dark
    palette.light: root.colors.light
    palette.midlight: root.colors.midlight
    palette.shadow: root.colors.shadow
    palette.placeholderText: root.colors.placeholderText
    palette.toolTipBase: root.colors.toolTipBase
    palette.toolTipText: root.colors.toolTipText
    palette.link: root.colors.link
    palette.disabled.text: root.colors.disabledText
    palette.disabled.windowText: root.colors.disabledText
    palette.disabled.buttonText: root.colors.disabledText

    readonly property bool hasScene: root.scene !== null

    menuBar: MenuBar {
        Menu {
            title: "Tavelo"
            Action { text: "設定…"; shortcut: "Ctrl+,"; enabled: window.hasScene; onTriggered: window.root.openSettings() }
            MenuSeparator {}
            Action { text: "Taveloを終了"; shortcut: StandardKey.Quit; onTriggered: window.root.requestQuit() }
        }
        Menu {
            title: "ファイル"
            Action { text: "新しい予定…"; shortcut: StandardKey.New; enabled: window.hasScene; onTriggered: window.root.newEvent() }
        }
        Menu {
            title: "移動"
            Action { text: "カレンダー"; shortcut: "Ctrl+1"; enabled: window.hasScene; onTriggered: window.root.openCalendar() }
            Action {
                text: "今日"; shortcut: "Ctrl+T"; enabled: window.hasScene
                onTriggered: if (contentLoader.item) contentLoader.item.controller.goToToday()
            }
            Action {
                text: "検索"; shortcut: StandardKey.Find; enabled: window.hasScene
                onTriggered: if (contentLoader.item) contentLoader.item.controller.navigate("search")
            }
        }
    }

    Loader {
        id: contentLoader
        anchors.fill: parent
        // A new workspace rebuilds the whole content.
        property string key: window.root.workspaceKey
        onKeyChanged: { active = false; active = true }
        // While the saved session is being restored nothing asks for a login.
        sourceComponent: window.root.hasWorkspace ? contentComponent
                       : (window.root.isStarting ? startingComponent : loginComponent)
    }

    Component {
        id: startingComponent
        Pane {
            objectName: "startingView"
            padding: 0
            background: Rectangle { color: palette.window }
            // Quiet: a quick restore shows an empty window, a slow one a
            // spinner after a moment.
            ColumnLayout {
                id: busy
                anchors.centerIn: parent
                spacing: 12
                opacity: 0
                NumberAnimation on opacity { from: 0; to: 1; duration: 250; running: true; easing.type: Easing.InQuad }
                BusyIndicator {
                    running: true
                    Layout.alignment: Qt.AlignHCenter
                    Accessible.name: "前回のログインを確認しています"
                }
                Label {
                    text: "前回のログインを確認しています…"
                    opacity: 0.6
                    Layout.alignment: Qt.AlignHCenter
                }
            }
        }
    }

    Component {
        id: loginComponent
        LoginView {
            cloud: window.root.cloud
            localServer: window.root.localServer
        }
    }

    Component {
        id: contentComponent
        ContentView {
            store: window.root.store
            scene: window.root.scene
            cloud: window.root.cloud
        }
    }
}
