// A model in a Qt widget, to turn and zoom: example_widget MODEL [PIPELINE [PICTURE]]

#include <host/sceneimport.h>
#include <host/viewportwidget.h>

#include <QApplication>

using namespace Brevane::Kvo;

int main(int argc, char **argv)
{
    ViewportWidget::setDefaultFormat(); // OpenGL as the passes need it; before the application
    const QApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    ImportReport report;
    ViewportWidget view;
    view.setModel(importScene(arguments.value(1), ImportOptions(), &report));
    if (!report.ok() || !view.setPipelineFile(arguments.value(2, QStringLiteral("viewport")), &report.warnings))
        qFatal("%s", qPrintable(report.error + report.warnings.join(u'\n')));
    view.show();
    if (argc > 3) // a picture instead of a window
        return view.grabPicture(view.size()).save(arguments[3]) ? 0 : 1;
    return QApplication::exec();
}
