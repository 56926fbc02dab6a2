import QtQuick
import QtQuick.Window
import Kvo

Window {
    id: window
    property url model
    property string picture // a file to show the window in, and end
    property real glow: 0.4

    width: 960
    height: 600
    visible: true
    title: "Kvo in QML"

    Viewport {
        id: viewport
        anchors.fill: parent
        source: window.model
        pipeline: "viewport"
        slotValues: ({"Glow.GlowAmount": window.glow})
        onClicked: pick => selection = pick.item < 0 ? [] : [pick.item]
        onErrorsChanged: console.warn(errors.join("\n"))
        onCameraChanged: shoot.restart() // the model is there and fits
        onSettledChanged: shoot.restart()
    }
    Row {
        anchors { left: parent.left; bottom: parent.bottom; margins: 12 }
        spacing: 8
        Repeater {
            model: [
                { text: "all", act: () => viewport.fit() },
                { text: "top", act: () => viewport.look(Viewport.Top) },
                { text: "flat", act: () => viewport.orthographic = !viewport.orthographic },
                { text: "glow " + window.glow.toFixed(1), act: () => window.glow = (window.glow + 0.4) % 2 }
            ]
            Rectangle {
                width: 76; height: 28; radius: 6
                color: "#c0202830"
                Text {
                    anchors.centerIn: parent
                    color: "white"
                    text: modelData.text
                }
                MouseArea {
                    anchors.fill: parent
                    onClicked: modelData.act()
                }
            }
        }
    }
    Timer {
        id: shoot
        interval: 1500
        onTriggered: if (window.picture.length > 0 && viewport.settled)
            window.contentItem.grabToImage(result => Qt.exit(result.saveToFile(window.picture) ? 0 : 1))
    }
}
