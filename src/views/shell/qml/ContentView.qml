import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Tavelo.Shell

// The calendar window of a signed-in workspace: sidebar, toolbar, message
// bar and the screen the navigation selects.
Pane {
    id: view
    objectName: "contentView"
    property QtObject store
    property QtObject scene
    property QtObject cloud
    property alias controller: shell
    property alias editor: editorModel

    padding: 0
    background: Rectangle { color: palette.base }

    ShellController {
        id: shell
        store: view.store
        scene: view.scene
        cloud: view.cloud
    }

    RowLayout {
        anchors.fill: parent
        spacing: 0

        Sidebar {
            id: sidebar
            store: view.store
            controller: shell
            Layout.preferredWidth: 236
            Layout.fillHeight: true
        }

        Rectangle { Layout.fillHeight: true; Layout.preferredWidth: 1; color: palette.mid; opacity: 0.5 }

        ColumnLayout {
            Layout.fillWidth: true
            Layout.fillHeight: true
            spacing: 0

            Toolbar {
                controller: shell
                Layout.fillWidth: true
            }
            MessageBar {
                objectName: "storeMessageBar"
                text: shell.storeMessage
                canRetry: shell.canRetry
                onRetry: shell.retry()
                onDismissed: shell.dismissStoreMessage()
                Layout.fillWidth: true
            }
            MessageBar {
                objectName: "cloudMessageBar"
                text: shell.cloudMessage
                onDismissed: shell.dismissCloudMessage()
                Layout.fillWidth: true
            }

            StackLayout {
                id: pages
                Layout.fillWidth: true
                Layout.fillHeight: true
                currentIndex: ["week", "month", "search", "report", "meetings", "settings"].indexOf(shell.navigation)

                // Arrow keys the calendar leaves unused move the selected day.
                readonly property bool onCalendar: shell.navigation === "week" || shell.navigation === "month"
                Keys.onLeftPressed: (event) => { event.accepted = onCalendar; if (onCalendar) shell.moveSelectedDay(-1) }
                Keys.onRightPressed: (event) => { event.accepted = onCalendar; if (onCalendar) shell.moveSelectedDay(1) }
                Keys.onUpPressed: (event) => { event.accepted = onCalendar; if (onCalendar) shell.moveSelectedDay(-7) }
                Keys.onDownPressed: (event) => { event.accepted = onCalendar; if (onCalendar) shell.moveSelectedDay(7) }

                CalendarHost { typeName: "WeekView"; store: view.store; scene: view.scene; cloud: view.cloud; active: shell.navigation === "week" }
                CalendarHost { typeName: "MonthView"; store: view.store; scene: view.scene; cloud: view.cloud; active: shell.navigation === "month" }
                CalendarHost { typeName: "SearchView"; store: view.store; scene: view.scene; cloud: view.cloud; active: shell.navigation === "search" }
                CalendarHost { typeName: "ReportView"; store: view.store; scene: view.scene; cloud: view.cloud; active: shell.navigation === "report" }
                Loader {
                    active: shell.navigation === "meetings"
                    sourceComponent: PlaceholderPage {
                        title: "会議ノート"
                        message: "会議の文字起こしとノートはこの場所に表示されます。"
                    }
                }
                // Built when first shown; the window starts faster without it.
                Loader {
                    active: shell.navigation === "settings"
                    sourceComponent: SettingsView {
                        store: view.store
                        scene: view.scene
                        cloud: view.cloud
                    }
                }
            }
        }
    }

    // The editor follows the scene; its dialog is built the first time it
    // opens and then kept (it shows and hides with the editor).
    EventEditorModel {
        id: editorModel
        store: view.store
        scene: view.scene
        onIsOpenChanged: if (isOpen) editorLoader.active = true
    }
    Loader {
        id: editorLoader
        active: false
        sourceComponent: EventEditorDialog { editor: editorModel }
    }
}
