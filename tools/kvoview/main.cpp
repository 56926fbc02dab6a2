#include "view.h"

#include "gl/shaderprogram.h"
#include "host/pipelinefile.h"
#include "host/sceneimport.h"

#include <QApplication>
#include <QComboBox>
#include <QCommandLineParser>
#include <QFileSystemWatcher>
#include <QMainWindow>
#include <QStatusBar>
#include <QSurfaceFormat>
#include <QToolBar>

#include <cstdio>

using namespace Brevane::Kvo;

namespace {

enum ExitCode { kSuccess = 0, kFailure = 1, kUsage = 2 };

void complain(const QString &message)
{
    std::fprintf(stderr, "kvoview: %s\n", qPrintable(message));
}

void onMessage(QtMsgType type, const QMessageLogContext &, const QString &text)
{
    if (type != QtDebugMsg && type != QtInfoMsg)
        complain(text);
}

struct Options
{
    QString model;
    QString pipeline;
    QStringList folders;
    QVector<float> opacity;
    int frames = 0;
    QString grab;
};

bool readOptions(Options *options, int *exitCode)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Shows a 3D model through a pipeline of passes in a window.\n\n"
                       "Drag turns, right drag moves, the wheel zooms, a double click shows all. The pipeline is\n"
                       "read again when its file changes."));
    parser.addHelpOption();
    parser.addVersionOption();
    parser.addPositionalArgument(QStringLiteral("MODEL"), QStringLiteral("glTF, OBJ, FBX, Collada, STL, PLY …"),
                                 QStringLiteral("[MODEL]"));
    parser.addOptions(
        {{{QStringLiteral("p"), QStringLiteral("pipeline")},
          QStringLiteral("A pipeline by name or a JSON file; default: forward, or gradient."),
          QStringLiteral("name")},
         {QStringLiteral("pipelines"), QStringLiteral("Look for pipelines there first; may be repeated."),
          QStringLiteral("folder")},
         {QStringLiteral("opacity"), QStringLiteral("Another opacity, 0 to 1, for all materials."),
          QStringLiteral("value")},
         {QStringLiteral("frames"), QStringLiteral("End after so many frames."), QStringLiteral("count")},
         {QStringLiteral("grab"), QStringLiteral("Write the last of them to a file."), QStringLiteral("file")}});
    parser.process(*QCoreApplication::instance());
    options->model = parser.positionalArguments().value(0);
    options->pipeline = parser.value(QStringLiteral("pipeline"));
    options->folders = parser.values(QStringLiteral("pipelines"));
    options->grab = parser.value(QStringLiteral("grab"));
    if (options->pipeline.isEmpty())
        options->pipeline = options->model.isEmpty() ? QStringLiteral("gradient") : QStringLiteral("forward");
    bool ok = true;
    if (parser.isSet(QStringLiteral("frames")))
        options->frames = parser.value(QStringLiteral("frames")).toInt(&ok);
    if (ok && parser.isSet(QStringLiteral("opacity")))
        options->opacity << parser.value(QStringLiteral("opacity")).toFloat(&ok);
    if (ok && options->frames >= 0 && parser.positionalArguments().size() <= 1
        && (options->grab.isEmpty() || options->frames > 0))
        return true;
    complain(QStringLiteral("--frames takes a number, --opacity a value, --grab goes with --frames, and there is one "
                            "model at a time (see --help)"));
    *exitCode = kUsage;
    return false;
}

} // namespace

int main(int argc, char **argv)
{
    QSurfaceFormat format;
    format.setVersion(4, 5); // the nearest that the driver has comes
    format.setProfile(QSurfaceFormat::CoreProfile);
    QSurfaceFormat::setDefaultFormat(format);
    const QApplication application(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("kvoview"));
    QCoreApplication::setApplicationVersion(QStringLiteral(KVO_VERSION));
    qInstallMessageHandler(onMessage);
    ShaderProgram::setFailureHandler(
        [](const ShaderFailure &failure) { complain(QStringLiteral("%1: %2").arg(failure.label, failure.log)); });

    Options options;
    int exitCode = kSuccess;
    if (!readOptions(&options, &exitCode))
        return exitCode;
    ModelData data;
    if (!options.model.isEmpty()) {
        ImportReport report;
        data = importScene(options.model, ImportOptions(), &report);
        for (const QString &warning : report.warnings.mid(0, 10))
            complain(QStringLiteral("warning: %1").arg(warning));
        if (!report.ok()) {
            complain(report.error);
            return kFailure;
        }
        for (float opacity : options.opacity)
            setOpacity(&data, QString(), opacity);
    }
    const QStringList searchPath = pipelineSearchPath(options.folders);
    QString error;
    const QString first = findPipeline(options.pipeline, searchPath, &error);
    if (first.isEmpty()) {
        complain(error);
        return kFailure;
    }

    QMainWindow window;
    auto *view = new View(data);
    window.setCentralWidget(view);
    auto *choice = new QComboBox;
    choice->setFocusPolicy(Qt::NoFocus);
    for (const PipelineFileInfo &info : listPipelines(searchPath)) {
        choice->addItem(info.name, info.path);
        choice->setItemData(choice->count() - 1, info.description, Qt::ToolTipRole);
    }
    if (choice->findData(first) < 0)
        choice->addItem(options.pipeline, first);
    QToolBar *bar = window.addToolBar(QStringLiteral("Pipeline"));
    bar->setMovable(false);
    bar->addWidget(choice);

    QFileSystemWatcher watcher;
    QStringList mistakes;
    const auto show = [&](const QString &path) {
        mistakes.clear();
        if (!view->setPipeline(path, &mistakes)) {
            for (const QString &line : std::as_const(mistakes))
                complain(line);
            window.statusBar()->showMessage(mistakes.value(0));
        }
        if (!watcher.files().isEmpty())
            watcher.removePaths(watcher.files());
        watcher.addPath(path);
        window.setWindowTitle(QStringLiteral("%1 – kvoview").arg(choice->currentText()));
        return mistakes.isEmpty();
    };
    choice->setCurrentIndex(choice->findData(first));
    if (!show(first))
        return kFailure;
    QObject::connect(choice, &QComboBox::currentIndexChanged, &window,
                     [&](int index) { show(choice->itemData(index).toString()); });
    QObject::connect(&watcher, &QFileSystemWatcher::fileChanged, &window, [&](const QString &path) { show(path); });

    QString said;
    view->setFrameHandler([&](const QString &problem) {
        if (!problem.isEmpty()) {
            window.statusBar()->showMessage(problem.section(QLatin1Char('\n'), 0, 0));
            if (problem != said)
                complain(problem);
            said = problem;
            exitCode = kFailure;
        } else if (mistakes.isEmpty()) {
            window.statusBar()->showMessage(view->times());
        }
        if (options.frames > 0 && view->frameCount() == options.frames)
            QMetaObject::invokeMethod(
                &window, [] { QCoreApplication::quit(); }, Qt::QueuedConnection);
    });
    window.resize(1280, 800);
    window.show();
    view->setRunning(true);
    QApplication::exec();
    if (!options.grab.isEmpty() && !view->grabFramebuffer().save(options.grab)) {
        complain(QStringLiteral("cannot write '%1'").arg(options.grab));
        exitCode = kFailure;
    }
    view->setFrameHandler({});
    return exitCode;
}
