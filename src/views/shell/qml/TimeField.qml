import QtQuick
import QtQuick.Controls

// A wall-clock time typed as H:mm.
TextField {
    id: field
    property string time
    property string accessibleName
    signal picked(string time)

    text: time
    implicitWidth: 76
    horizontalAlignment: Text.AlignHCenter
    validator: RegularExpressionValidator { regularExpression: /^([01]?\d|2[0-3]):[0-5]\d$/ }
    Accessible.name: accessibleName
    onEditingFinished: if (acceptableInput && text !== time) picked(text)
    onTimeChanged: text = time

}
