import QtQuick
import QtQuick.Controls

// A check box whose box reads on light and dark backgrounds alike, filled
// with `swatch` when checked (a calendar's colour, say).
CheckBox {
    id: control
    property color swatch: palette.highlight
    indicator: Rectangle {
        x: control.leftPadding
        y: (control.height - height) / 2
        implicitWidth: 14
        implicitHeight: 14
        radius: 3
        opacity: control.enabled ? 1 : 0.45
        color: control.checked ? control.swatch : "transparent"
        border.color: control.visualFocus ? palette.highlight
                    : (control.checked ? control.swatch : Qt.rgba(palette.text.r, palette.text.g, palette.text.b, 0.55))
        border.width: control.visualFocus ? 2 : 1.5
        Label {
            anchors.centerIn: parent
            visible: control.checked
            text: "✓"
            color: "white"
            font.pointSize: 8
            font.bold: true
        }
    }
}
