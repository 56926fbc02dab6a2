// A model in a QML scene: example_quick MODEL [PICTURE]

#include <host/viewportitem.h>

#include <QGuiApplication>
#include <QQmlApplicationEngine>
#include <QQuickWindow>
#include <QSurfaceFormat>

int main(int argc, char **argv)
{
    // Qt Quick on OpenGL, in a version that the passes can use; both before the first window.
    QQuickWindow::setGraphicsApi(QSGRendererInterface::OpenGL);
    QSurfaceFormat format;
    format.setVersion(4, 5); // the nearest that the driver has comes
    format.setProfile(QSurfaceFormat::CoreProfile);
    QSurfaceFormat::setDefaultFormat(format);
    const QGuiApplication application(argc, argv);

    Brevane::Kvo::registerQuickTypes(); // or the module on the engine's import path
    const QStringList arguments = QCoreApplication::arguments();
    QQmlApplicationEngine engine;
    engine.setInitialProperties({{QStringLiteral("model"), QUrl::fromLocalFile(arguments.value(1))},
                                 {QStringLiteral("picture"), arguments.value(2)}});
    engine.load(QUrl(QStringLiteral("qrc:/Viewer.qml")));
    return engine.rootObjects().isEmpty() ? 1 : QGuiApplication::exec();
}
