#include "gl/shaderprogram.h"
#include "host/isolatedimport.h"
#include "host/pipelinefile.h"
#include "host/viewportwidget.h"
#include "messages.h"
#include "options.h"
#include "scenesettings.h"
#include "window.h"

#include <QApplication>

#include <limits>

using namespace Brevane::Kvo;
using namespace Qt::StringLiterals;

namespace {

struct Settings
{
    QString model;
    PipelineChoice pipelines;
    SceneSettings scene;
    int frames = 0;
    QString grab;
};

std::optional<ExitCode> readOptions(Settings *settings)
{
    Options options(
        u"Usage: kvoview [MODEL] [options]\n\nShows a 3D model through a pipeline of passes in a window.\n\n"
        u"Drag turns, right drag moves, the wheel zooms to the cursor, a click selects, a double click\n"
        u"shows all, 1, 3, 7 and 0 are standard views, 5 switches perspective. The pipeline is read\n"
        u"again when its file changes."_s,
        u"a model file: glTF, OBJ, FBX, Collada, STL, PLY, 3DS and more"_s);
    options.section(u"What to show"_s);
    addPipelineOptions(&options, &settings->pipelines, false);
    addSceneOptions(&options, &settings->scene);
    options.section(u"For tests and pictures"_s);
    options.add({{u"frames"_s},
                 u"N"_s,
                 u"end after so many frames"_s,
                 u"a number from 1"_s,
                 into(&settings->frames, 1, std::numeric_limits<int>::max())});
    options.add(
        {{u"grab"_s}, u"FILE"_s, u"write the last of them to a file"_s, u"a file name"_s, into(&settings->grab)});
    if (const std::optional<ExitCode> end = options.read(QCoreApplication::arguments()))
        return end;
    const QStringList files = options.files();
    if (files.size() > 1)
        return Options::mistake(u"one model at a time, not '%1' and '%2'"_s.arg(files[0], files[1]));
    if (options.isSet(u"grab"_s) && !options.isSet(u"frames"_s))
        return Options::mistake(u"--grab goes with --frames"_s);
    settings->model = files.value(0);
    return std::nullopt;
}

std::optional<ExitCode> readModel(const Settings &settings, ModelData *data)
{
    if (settings.model.isEmpty())
        return std::nullopt;
    ImportReport report;
    *data = importSceneIsolated(settings.model, ImportOptions(), ImportLimits(), &report);
    complainOf(report.warnings);
    if (!report.ok()) {
        complain(report.error);
        return kFailure;
    }
    QString error;
    if (applySettings(data, settings.scene, &error))
        return std::nullopt;
    return Options::mistake(u"--opacity: %1"_s.arg(error));
}

} // namespace

int main(int argc, char **argv)
{
    ViewportWidget::setDefaultFormat();
    const QApplication application(argc, argv);
    startMessages(u"kvoview"_s);
    ShaderProgram::setFailureHandler([](const ShaderFailure &failure) {
        complain(u"shader program '%1' failed:\n%2"_s.arg(failure.label, failure.log));
    });

    Settings settings;
    if (const std::optional<ExitCode> end = readOptions(&settings))
        return *end;
    ModelData data;
    if (const std::optional<ExitCode> end = readModel(settings, &data))
        return *end;
    const QStringList searchPath = pipelineSearchPath(settings.pipelines.folders);
    const QString name = settings.pipelines.nameFor(settings.model);
    QString error;
    const QString path = findPipeline(name, searchPath, &error);
    if (path.isEmpty()) {
        complain(error);
        return kFailure;
    }

    Window window(data, searchPath);
    if (!window.open(path, name))
        return kFailure;
    window.run(settings.frames);
    QApplication::exec();
    if (!settings.grab.isEmpty() && !window.grab(settings.grab)) {
        complain(u"cannot write '%1'"_s.arg(settings.grab));
        return kFailure;
    }
    return window.hasFailed() ? kFailure : kSuccess;
}
