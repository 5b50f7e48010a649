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
    property QtObject cloud
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
            if ("cloud" in view) view.cloud = Qt.binding(() => host.cloud)
        } catch (error) {
            failure = "この画面を表示できませんでした。"
            console.warn("Tavelo.Calendar." + typeName + ": " + error)
        }
    }

    // Built once the host has its size, so that the view lays out for it.
    function buildWhenReady() { if (active && width > 0 && height > 0) build() }
    onActiveChanged: buildWhenReady()
    onWidthChanged: buildWhenReady()
    onHeightChanged: buildWhenReady()
    Component.onCompleted: buildWhenReady()

    Label {
        anchors.centerIn: parent
        visible: host.failure.length > 0
        text: host.failure
        opacity: 0.7
    }
}
