import QtQuick
import QtQuick.Controls

// Hosts one screen of the calendar module. The module is looked up when the
// screen is first shown, so the shell runs (with a notice) where it is
// missing.
Item {
    id: host
    property string typeName
    property QtObject store
    property QtObject scene
    property bool active: false
    property Item view: null
    property string failure: ""

    function build() {
        if (view !== null || failure.length > 0) return
        try {
            const needsScene = typeName !== "ReportView"
            view = Qt.createQmlObject("import Tavelo.Calendar\n" + typeName + " { anchors.fill: parent }", host,
                                      "CalendarHost/" + typeName)
            view.store = Qt.binding(() => host.store)
            if (needsScene) view.scene = Qt.binding(() => host.scene)
        } catch (error) {
            failure = "この画面を表示できませんでした。"
            console.warn("Tavelo.Calendar." + typeName + ": " + error)
        }
    }

    onActiveChanged: if (active) build()
    Component.onCompleted: if (active) build()

    Label {
        anchors.centerIn: parent
        visible: host.failure.length > 0
        text: host.failure
        opacity: 0.7
    }
}
