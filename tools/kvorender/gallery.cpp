#include "gallery.h"

#include "host/imageoutput.h"
#include "host/isolatedimport.h"
#include "host/pipelinegraph.h"

#include <epoxy/gl.h>

#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QMap>
#include <QRegularExpression>
#include <QSaveFile>

#include <cstdlib>

using namespace Brevane::Kvo;

namespace {

constexpr float kOpacity = 0.35f;
constexpr unsigned kSeed = 1;
constexpr QLatin1StringView kCameraOverFloor("zoom=1.7"); // The floor may leave the picture, the model is what counts.

const char *const kSamples[] = {
    "/usr/share/assimp/models/glTF2/2CylinderEngine-glTF-Binary/2CylinderEngine.glb",
    "/usr/share/assimp/models/OBJ/spider.obj",
    "/usr/share/glmark2/models/bunny.obj",
};

bool has(const Pipeline &pipeline, std::initializer_list<const char *> classNames)
{
    for (const QString &pass : pipeline.passNames())
        for (const char *className : classNames)
            if (pipeline.className(pass) == QLatin1StringView(className))
                return true;
    return false;
}

// The material that most triangles wear; empty where there is no choice.
QString mostUsedMaterial(const ModelData &data)
{
    QMap<QString, qsizetype> triangles;
    for (const ModelItem &item : data.items)
        triangles[data.materials.value(item.material).name] += data.meshes.value(item.mesh).indices.size() / 3;
    QString result;
    for (auto i = triangles.cbegin(); i != triangles.cend(); ++i)
        if (triangles.size() > 1 && !i.key().isEmpty() && i.value() > triangles.value(result))
            result = i.key();
    return result;
}

// What a pipeline needs to show what it is about.
SceneSettings settingsFor(const Pipeline &pipeline, const ModelData &model)
{
    SceneSettings settings;
    const bool hasLayers = has(pipeline, {"VisibilityBufferRenderPass", "TransparencyRenderPass", "DepthPeelingPass"});
    // One that draws opaque surfaces by themselves needs both kinds.
    const QString material = pipeline.uses(QStringLiteral("opaque")) ? mostUsedMaterial(model) : QString();
    if (hasLayers && !has(pipeline, {"StagePass"}) && (!material.isEmpty() || !pipeline.uses(QStringLiteral("opaque"))))
        settings.opacities << qMakePair(material, kOpacity);
    if (has(pipeline, {"ScalableAmbientObscuranceRenderPass"}))
        settings.scale = SceneSettings::kScaleToFit;
    settings.floor = has(pipeline, {"ShadowMapRenderPass", "ShadowMapRenderPass2"}) && !has(pipeline, {"StagePass"});
    return settings;
}

QString describe(const SceneSettings &settings)
{
    QStringList parts;
    for (const auto &[material, opacity] : settings.opacities)
        parts << QStringLiteral("%1 at an opacity of %2")
                     .arg(material.isEmpty() ? QStringLiteral("all") : material, QString::number(double(opacity)));
    if (settings.scale == SceneSettings::kScaleToFit)
        parts << QStringLiteral("scaled to %1 units").arg(double(kFittingSide));
    else if (settings.scale != 1.0f)
        parts << QStringLiteral("scaled by %1").arg(double(settings.scale));
    if (settings.floor)
        parts << QStringLiteral("on a floor");
    return parts.join(QLatin1StringView(", "));
}

// In its scope, what passes and pipelines say is noted beside being printed.
class Listener
{
public:
    explicit Listener(QStringList *messages)
    {
        list = messages;
        before = qInstallMessageHandler(&onMessage);
    }
    ~Listener() { qInstallMessageHandler(before); }
    Listener(const Listener &) = delete;
    Listener &operator=(const Listener &) = delete;

private:
    static void onMessage(QtMsgType type, const QMessageLogContext &context, const QString &text)
    {
        if (type != QtDebugMsg && type != QtInfoMsg && !list->contains(text))
            *list << text;
        before(type, context, text);
    }

    static inline QtMessageHandler before = nullptr;
    static inline QStringList *list = nullptr;
};

// For the name of a file that is linked from a page.
QString plain(QString name)
{
    static const QRegularExpression kOdd(QStringLiteral("[^A-Za-z0-9_-]+"));
    return name.replace(kOdd, QStringLiteral("-"));
}

} // namespace

int Gallery::run()
{
    // Some passes look at the context when they are made.
    if (!openFolder() || !openContext() || !choosePipelines() || !loadModels())
        return _exitCode;
    for (GalleryEntry &entry : _page.entries) {
        QElapsedTimer timer;
        timer.start();
        show(&entry);
        for (const QString &failure : std::as_const(entry.failures))
            fail(failure);
        for (const GalleryRun &run : std::as_const(entry.runs))
            for (const QString &failure : run.failures)
                fail(QStringLiteral("pipeline '%1'%2: %3")
                         .arg(entry.file.name,
                              run.model.isEmpty() ? QString() : QStringLiteral(" on %1").arg(run.model),
                              failure.section(QLatin1Char('\n'), 0, 0)));
        progress(QStringLiteral("%1: %2 in %3 s")
                     .arg(entry.file.name, entry.ok() ? QStringLiteral("done") : QStringLiteral("failed"),
                          QString::number(double(timer.elapsed()) / 1000.0, 'f', 2)));
    }
    if (writePage())
        progress(QStringLiteral("wrote %1").arg(pathOf(QStringLiteral("index.html"))));
    return _exitCode;
}

bool Gallery::fail(const QString &message, int exitCode)
{
    complain(message);
    _exitCode = exitCode;
    return false;
}

void Gallery::progress(const QString &message) const
{
    if (!_commandLine.quiet)
        complain(message);
}

QString Gallery::pathOf(const QString &fileName) const
{
    return QDir(_commandLine.gallery).filePath(fileName);
}

bool Gallery::openFolder()
{
    const QFileInfo folder(_commandLine.gallery);
    const QString problem = QStringLiteral("cannot write a gallery to '%1': %2");
    if (folder.exists() && !folder.isDir())
        return fail(problem.arg(_commandLine.gallery, QStringLiteral("it is not a folder")));
    if (!folder.exists() && !QDir().mkpath(_commandLine.gallery))
        return fail(problem.arg(_commandLine.gallery, QStringLiteral("the folder cannot be made")));
    if (!QFileInfo(_commandLine.gallery).isWritable())
        return fail(problem.arg(_commandLine.gallery, QStringLiteral("the folder cannot be written to")));
    return true;
}

bool Gallery::openContext()
{
    QString error;
    if (!_session.open(_commandLine.debug, &error) || !_screen.resize(_commandLine.size, &error))
        return fail(error);
    const auto *renderer = reinterpret_cast<const char *>(glGetString(GL_RENDERER));
    const auto *version = reinterpret_cast<const char *>(glGetString(GL_VERSION));
    _page.renderer = QStringLiteral("%1, OpenGL %2").arg(QString::fromLatin1(renderer), QString::fromLatin1(version));
    _page.size = _commandLine.size;
    _page.frames = _commandLine.frames;
    return true;
}

bool Gallery::choosePipelines()
{
    const QStringList path = pipelineSearchPath(_commandLine.pipelines.folders);
    const QVector<PipelineFileInfo> all = listPipelines(path);
    QStringList wanted;
    for (const QString &name : _commandLine.pipelines.names) {
        QString error;
        const QString file = findPipeline(name, path, &error);
        if (file.isEmpty())
            return fail(error);
        wanted << file;
    }
    for (const PipelineFileInfo &file : all) {
        if (_commandLine.pipelines.names.isEmpty() || wanted.removeAll(file.path) > 0)
            _page.entries.emplaceBack().file = file;
    }
    // Files outside of the folders.
    for (const QString &file : std::as_const(wanted))
        _page.entries.emplaceBack().file = {file, QFileInfo(file).completeBaseName(), QString()};
    return !_page.entries.isEmpty()
           || fail(QStringLiteral("there are no pipelines (looked in %1)").arg(path.join(QLatin1StringView(", "))));
}

bool Gallery::loadModels()
{
    QStringList files = _commandLine.galleryModels;
    if (files.isEmpty())
        for (const char *sample : kSamples) {
            if (QFileInfo::exists(QLatin1StringView(sample)))
                files << QLatin1StringView(sample);
            else
                complain(QStringLiteral("warning: there is no '%1', so it is left out").arg(QLatin1StringView(sample)));
        }
    if (files.isEmpty())
        return fail(QStringLiteral("none of the sample models is there: name model files"));
    QStringList taken;
    for (const QString &file : std::as_const(files)) {
        auto model = std::make_unique<Model>();
        ImportReport report;
        model->data = importSceneIsolated(file, ImportOptions(), ImportLimits(), &report);
        if (!report.ok())
            return fail(report.error);
        model->name = QFileInfo(file).completeBaseName();
        model->fileName = plain(model->name);
        // Two files of one name.
        for (int i = 2; taken.contains(model->fileName); ++i)
            model->fileName = QStringLiteral("%1-%2").arg(plain(model->name), QString::number(i));
        taken << model->fileName;
        progress(QStringLiteral("read %1: %2 triangles").arg(file, QString::number(report.triangles)));
        _models.push_back(std::move(model));
    }
    return true;
}

Gallery::Model::Variant *Gallery::variantOf(Model *model, const SceneSettings &settings, QString *error)
{
    for (const auto &variant : model->variants)
        if (variant->settings == settings)
            return variant.get();
    ModelData data = model->data;
    if (!applySettings(&data, settings, error))
        return nullptr;
    auto variant = std::make_unique<Model::Variant>();
    variant->settings = settings;
    if (!variant->whole.upload(data) || !variant->opaque.upload(opaquePartOf(data))) {
        *error = QStringLiteral("cannot put model '%1' on the GPU").arg(model->name);
        return nullptr;
    }
    model->variants.push_back(std::move(variant));
    return model->variants.back().get();
}

void Gallery::show(GalleryEntry *entry)
{
    Pipeline pipeline;
    if (!loadPipeline(entry->file.path, &pipeline, &entry->failures))
        return;
    describe(pipeline, entry);
    if (!pipeline.uses(QStringLiteral("screen")))
        entry->failures << QStringLiteral("pipeline '%1' makes no picture: none of its inputs is bound to @screen")
                               .arg(entry->file.path);
    else if (!pipeline.uses(QStringLiteral("model")) && !pipeline.uses(QStringLiteral("opaque")))
        show(*entry, nullptr, &entry->runs.emplaceBack());
    else
        for (const auto &model : _models)
            show(*entry, model.get(), &entry->runs.emplaceBack());
}

void Gallery::describe(const Pipeline &pipeline, GalleryEntry *entry) const
{
    entry->graph = pipelineGraph(pipeline);
    for (const QString &name : pipeline.order()) {
        GalleryPass pass{name, pipeline.className(name), pipeline.inputs(name), {}, {}};
        const RenderPass *object = pipeline.pass(name);
        for (int i = 0; i < object->numOutputs(); ++i) {
            pass.outputs << object->outputName(i);
            pass.users << pipeline.users(name, object->outputName(i));
        }
        entry->passes << pass;
    }
}

// Every run has a pipeline of its own: what a pass remembers of earlier frames belongs to one model.
void Gallery::show(const GalleryEntry &entry, Model *model, GalleryRun *run)
{
    QStringList messages;
    const Listener listener(&messages);
    Pipeline pipeline;
    GPUModel::BoundingBox bounds;
    QString camera = _commandLine.settings.camera;
    QString error;
    QStringList errors;
    const auto failed = [&] { run->failures << error; };
    if (!loadPipeline(entry.file.path, &pipeline, &errors)) {
        run->failures << errors;
        return;
    }
    if (model) {
        const SceneSettings settings =
            _commandLine.sceneIsGiven ? _commandLine.scene : settingsFor(pipeline, model->data);
        run->model = model->name;
        run->settings = ::describe(settings);
        Model::Variant *variant = variantOf(model, settings, &error);
        if (!variant)
            return failed();
        pipeline.setModel(&variant->whole, &variant->opaque);
        bounds = variant->whole.sceneBounds();
        if (camera.isEmpty() && settings.floor)
            camera = kCameraOverFloor;
    }
    if (!_commandLine.settings.lights.isEmpty())
        pipeline.setHostValue(QStringLiteral("lights"), lightsToVariant(_commandLine.settings.lights));
    if (!aim(&pipeline, _screen, bounds, camera, &error))
        return failed();
    pipeline.setTimingEnabled(true);
    // Some passes draw lots; a picture is the same at every making.
    std::srand(kSeed);
    const auto collectFaults = [&](int) {
        for (const QString &fault : pipeline.faults())
            if (!run->failures.contains(fault))
                run->failures << fault;
    };
    const bool rendered = renderFrames(&pipeline, &_screen, _commandLine.frames, collectFaults, &error);
    collectFaults(_commandLine.frames);
    run->failures << _session.takeFailures();
    run->messages = pipeline.warnings();
    for (const QString &message : std::as_const(messages))
        if (!run->failures.contains(message))
            run->messages << message;
    if (!rendered)
        return failed();
    run->timings = pipeline.timings(true);
    const QImage image = pictureOf(_screen, _commandLine.settings.background, &error);
    const QString name =
        plain(entry.file.name) + (model ? QLatin1Char('-') + model->fileName : QString()) + QStringLiteral(".png");
    if (image.isNull() || !writeImage(image, pathOf(name), &error))
        return failed();
    run->picture = name;
}

bool Gallery::writePage()
{
    QSaveFile file(pathOf(QStringLiteral("index.html")));
    const QByteArray html = _page.html().toUtf8();
    if (file.open(QIODevice::WriteOnly) && file.write(html) == html.size() && file.commit())
        return true;
    return fail(QStringLiteral("cannot write '%1': %2").arg(file.fileName(), file.errorString()));
}
