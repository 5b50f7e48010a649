import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Tavelo.Shell

// Settings by section.
Pane {
    id: view
    objectName: "settingsView"
    property QtObject store
    property QtObject scene
    property QtObject cloud

    padding: 0
    background: Rectangle { color: palette.base }

    readonly property var sections: [
        { key: "accounts", title: "アカウント" },
        { key: "tags", title: "タグとルール" },
        { key: "aiCloud", title: "AI Cloud" },
        { key: "meetings", title: "会議" },
        { key: "meetingGuides", title: "会議ガイド" }
    ]
    readonly property string current: scene ? scene.settingsSection : "accounts"

    SettingsModel {
        id: settings
        store: view.store
        cloud: view.cloud
    }

    RowLayout {
        anchors.fill: parent
        spacing: 0

        ListView {
            id: sectionList
            objectName: "settingsSections"
            Layout.preferredWidth: 190
            Layout.fillHeight: true
            Layout.topMargin: 12
            model: view.sections
            keyNavigationEnabled: true
            delegate: ItemDelegate {
                required property var modelData
                width: sectionList.width
                text: modelData.title
                highlighted: view.current === modelData.key
                Accessible.name: modelData.title
                onClicked: settings.selectSection(view.scene, modelData.key)
            }
        }

        Rectangle { Layout.fillHeight: true; Layout.preferredWidth: 1; color: palette.mid; opacity: 0.4 }

        StackLayout {
            Layout.fillWidth: true
            Layout.fillHeight: true
            currentIndex: ["accounts", "tags", "aiCloud", "meetings", "meetingGuides"].indexOf(view.current)

            AccountsSettings { settings: settings; cloud: view.cloud; store: view.store }
            TagSettings { store: view.store }
            AICloudSettings { settings: settings; cloud: view.cloud }
            PlaceholderPage { title: "会議"; message: "録音と文字起こしの設定は、会議ノートの機能とともに追加されます。" }
            PlaceholderPage { title: "会議ガイド"; message: "会議の進め方のガイドは、会議ノートの機能とともに追加されます。" }
        }
    }
}
