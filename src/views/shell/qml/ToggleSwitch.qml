import QtQuick
import QtQuick.Controls

// A switch whose track reads on light and dark backgrounds alike.
Switch {
    id: control
    indicator: Rectangle {
        x: control.leftPadding
        y: (control.height - height) / 2
        implicitWidth: 36
        implicitHeight: 20
        radius: 10
        color: control.checked ? palette.highlight : Qt.rgba(palette.text.r, palette.text.g, palette.text.b, 0.22)
        border.color: control.visualFocus ? palette.highlight : "transparent"
        border.width: 2
        opacity: control.enabled ? 1 : 0.5
        Rectangle {
            x: control.checked ? parent.width - width - 3 : 3
            y: 3
            width: 14
            height: 14
            radius: 7
            color: "white"
            Behavior on x { NumberAnimation { duration: 120 } }
        }
    }
}
