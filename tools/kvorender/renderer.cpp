#include "renderer.h"

#include "gl/opengldevicecontext.h"
#include "gl/texture.h"
#include "host/fragmentlists.h"
#include "host/imagecomparison.h"
#include "host/imageoutput.h"
#include "host/isolatedimport.h"
#include "host/lights.h"
#include "host/pipelinefile.h"
#include "host/slotname.h"
#include "report.h"
#include "scene.h"
#include "shadows/shadowmaprenderdata.h"
#include "tiledpicture.h"

#include <epoxy/gl.h>

#include <QDateTime>
#include <QElapsedTimer>
#include <QFileInfo>

#include <algorithm>
#include <cstdlib>
#include <utility>

using namespace Brevane::Kvo;

namespace {

constexpr qint64 kProgressInterval = 1000; // ms
constexpr qsizetype kMostPipelines = 8;
constexpr qsizetype kBytesPerKilobyte = 1024;
constexpr qsizetype kKilobytesPerMegabyte = 1024;
constexpr unsigned kSeed = 1;
// Up to here a picture is made in one piece where the driver can, and beyond, where its pipeline cannot be in tiles.
constexpr qint64 kUsualPixels = qint64(8192) * 8192;
constexpr int kLargestWindow = 8192;
constexpr qint64 kMostPixels = 2 * kUsualPixels;

// Whether a frame of it depends on those before, or on how many there were: such a pipeline begins anew for every
// picture.
bool remembersFrames(const Pipeline &pipeline)
{
    static const QStringList kRemembering{QStringLiteral("TemporalAARenderPass"), QStringLiteral("CameraJitterPass"),
                                          QStringLiteral("SMAARenderPass"), // its temporal modes
                                          // Their program has room for the lights of the frame before.
                                          QStringLiteral("ShadowMapRenderPass"),
                                          QStringLiteral("ShadowMapRenderPass2")};
    if (pipeline.uses(QStringLiteral("frame")))
        return true;
    const QStringList names = pipeline.passNames();
    return std::any_of(names.cbegin(), names.cend(), [&](const QString &name) {
        return pipeline.className(name).isEmpty() || kRemembering.contains(pipeline.className(name));
    });
}

// A file as it is now.
QString stampOf(const QString &path)
{
    const QFileInfo info(path);
    return QStringLiteral("%1 %2 %3")
        .arg(info.absoluteFilePath(), QString::number(info.size()),
             QString::number(info.lastModified().toMSecsSinceEpoch()));
}

// All that a pipeline gets from the options of a picture.
QString keyOfPipeline(const CommandLine &commandLine)
{
    QStringList parts{stampOf(findPipeline(commandLine.pipeline, pipelineSearchPath(commandLine.pipelines.folders)))};
    for (const char *name : {"set", "light", "path"})
        parts << QString::fromLatin1(name) << commandLine.given.value(QString::fromLatin1(name));
    for (const auto &[name, path] : commandLine.settings.paths)
        parts << stampOf(path);
    return parts.join(QChar(0));
}

QString keyOfModel(const CommandLine &commandLine, bool hasOpaquePart, bool keepsData)
{
    QStringList parts{stampOf(commandLine.model), QString::number(double(commandLine.scene.scale), 'g', 9),
                      QString::number(commandLine.scene.floor), QString::number(hasOpaquePart),
                      QString::number(keepsData)};
    for (const auto &[material, opacity] : commandLine.scene.opacities)
        parts << material << QString::number(double(opacity), 'g', 9);
    return parts.join(QChar(0));
}

// What a model takes, about: vertices and indices, and each of its images once.
qsizetype bytesOf(const ModelData &data)
{
    qsizetype bytes = 0;
    for (const ModelMesh &mesh : data.meshes)
        bytes += mesh.positions.size() * qsizetype(2 * sizeof(QVector3D) + sizeof(QVector2D))
                 + mesh.indices.size() * qsizetype(sizeof(quint32));
    QSet<qint64> images;
    for (const ModelMaterial &material : data.materials)
        for (const QImage &image : {material.map_Kd, material.map_Ks})
            if (!images.contains(image.cacheKey())) {
                images.insert(image.cacheKey());
                bytes += image.sizeInBytes();
            }
    return bytes;
}

// PNG as tiles are written: in half the time of Qt's own, since rows are filtered in two ways only.
bool writePicture(const QImage &picture, const QString &path, QString *error)
{
    if (!path.endsWith(QStringLiteral(".png"), Qt::CaseInsensitive)
        || QFileInfo(path).exists() != QFileInfo(path).isFile())
        return writeImage(picture, path, error);
    PngTileWriter writer;
    return canWriteImage(path, false, error) && writer.open(path, picture.size(), picture.hasAlphaChannel(), error)
           && writer.write({}, picture, error) && writer.commit(error);
}

} // namespace

Renderer::Renderer(const Settings &settings) : _settings(settings)
{
    _models.setMaxCost(qsizetype(settings.cacheMegabytes) * kKilobytesPerMegabyte);
    _pipelines.setMaxCost(kMostPipelines);
}

Renderer::~Renderer() = default;

int Renderer::run(const CommandLine &commandLine)
{
    Rendered rendered = render(commandLine);
    const qsizetype errors = rendered.errors.size(), files = rendered.files.size();
    write(&rendered, commandLine);
    for (const QString &error : rendered.errors.mid(errors))
        complain(error);
    if (rendered.files.size() > files)
        progress(QStringLiteral("wrote %1").arg(commandLine.output));
    return rendered.exitCode;
}

Rendered Renderer::render(const CommandLine &commandLine)
{
    _commandLine = &commandLine;
    _rendered = Rendered();
    _listPass.clear();
    _compared.clear();
    _isTiled = false;
    const auto all = [this](std::initializer_list<Step> steps) {
        return std::all_of(steps.begin(), steps.end(), [this](Step step) { return (this->*step)(); });
    };
    if (!_session && !commandLine.model.isEmpty())
        _early = std::make_unique<EarlyImport>(commandLine.model);
    // What can fail early and cheaply does; but some passes look at the context when they are made.
    if (all({&Renderer::openContext, &Renderer::loadPipeline, &Renderer::checkOutputs, &Renderer::loadModel,
             &Renderer::planTiles})) {
        if (_isTiled)
            renderTiles();
        else
            all({&Renderer::prepare, &Renderer::renderFrames, &Renderer::takePicture});
    }
    _early.reset();
    release();
    return std::exchange(_rendered, Rendered());
}

// What was said by the driver while the picture was made counts for it.
void Renderer::release()
{
    if (!_session)
        return;
    if (const qsizetype failures = _session->takeFailures().size(); failures > 0)
        fail(QStringLiteral("%1 failed shader program(s) or OpenGL error(s)").arg(failures));
    if (noteLoss()) {
        _loaded.reset();
        _pipelines.clear();
        _model.reset();
        _models.clear();
        _screen.reset();
        _session.reset();
        return;
    }
    if (_loaded) {
        pipeline().setPassObserver({});
        pipeline().setModel(nullptr);
        // One that failed may have stopped halfway.
        if (_loaded->remembers || _isTiled || _rendered.exitCode != kSuccess)
            _pipelines.remove(keyOfPipeline(*_commandLine));
    }
    _loaded.reset();
    _model.reset();
}

// After a loss every call does nothing, and the picture would be black.
bool Renderer::noteLoss()
{
    const bool canTell = epoxy_gl_version() >= 45 || epoxy_has_gl_extension("GL_KHR_robustness");
    if (!canTell || glGetGraphicsResetStatus() == GL_NO_ERROR)
        return false;
    _rendered.picture = QImage();
    fail(QStringLiteral("the driver has lost the OpenGL context"));
    return true;
}

bool Renderer::fail(const QString &message, ExitCode exitCode)
{
    if (!_settings.collects)
        complain(message);
    _rendered.errors << message;
    _rendered.exitCode = exitCode;
    return false;
}

void Renderer::warn(const QStringList &warnings)
{
    QStringList news;
    for (const QString &warning : warnings) {
        if (_settings.collects && _warned.contains(warning))
            continue;
        _warned.insert(warning);
        news << warning;
    }
    _settings.warn(news);
}

void Renderer::progress(const QString &message) const
{
    if (!_settings.quiet)
        complain(message);
}

void Renderer::written(const QString &file)
{
    _rendered.files << file;
    progress(QStringLiteral("wrote %1").arg(file));
}

bool Renderer::loadPipeline()
{
    QString error;
    const QString path =
        findPipeline(_commandLine->pipeline, pipelineSearchPath(_commandLine->pipelines.folders), &error);
    if (path.isEmpty())
        return fail(error);
    const QString key = keyOfPipeline(*_commandLine);
    if (const std::shared_ptr<LoadedPipeline> *known = _pipelines.object(key)) {
        _loaded = *known;
        return true;
    }
    _loaded = std::make_shared<LoadedPipeline>();
    _loaded->path = path;
    QStringList errors;
    if (!Brevane::Kvo::loadPipeline(path, &pipeline(), &errors)) {
        for (const QString &line : errors)
            fail(line);
        return false;
    }
    if (!setValues(&pipeline()))
        return false;
    warn(pipeline().warnings() + optionsWithoutEffect());
    _loaded->remembers = remembersFrames(pipeline());
    _pipelines.insert(key, new std::shared_ptr<LoadedPipeline>(_loaded));
    return true;
}

bool Renderer::setValues(Pipeline *pipeline)
{
    QString error;
    for (const auto &[input, text] : _commandLine->settings.values)
        if (!pipeline->setValueText(input.section(u'.', 0, 0), input.section(u'.', 1), text, &error))
            return fail(QStringLiteral("--set %1=%2: %3").arg(input, text, error), kUsage);
    if (!_commandLine->settings.lights.isEmpty()
        && !pipeline->setHostValue(QStringLiteral("lights"), lightsToVariant(_commandLine->settings.lights), &error))
        return fail(QStringLiteral("--light: %1").arg(error), kUsage);
    for (const auto &[name, path] : _commandLine->settings.paths) {
        if (!pipeline->setHostValue(QStringLiteral("paths.") + name, path, &error))
            return fail(QStringLiteral("--path %1: %2").arg(name, error), kUsage);
        if (!QFileInfo::exists(path))
            return fail(QStringLiteral("--path %1: there is no file '%2'").arg(name, path));
    }
    return true;
}

// Those that the pipeline cannot tell by itself.
QStringList Renderer::optionsWithoutEffect() const
{
    const auto usesAny = [this](std::initializer_list<const char *> hosts) {
        return std::any_of(hosts.begin(), hosts.end(),
                           [this](const char *host) { return pipeline().uses(QString::fromLatin1(host)); });
    };
    QStringList found;
    // A camera looks at the model, whether it is drawn or not.
    if (!_commandLine->model.isEmpty() && !usesAny({"model", "opaque", "camera", "projection"}))
        found << QStringLiteral("the model has no effect: the pipeline draws none");
    if (_commandLine->model.isEmpty() && _commandLine->sceneIsGiven)
        found << QStringLiteral("--scale, --floor and --opacity have no effect without a model");
    if (!_commandLine->settings.camera.isEmpty() && !usesAny({"camera", "projection", "near", "far"}))
        found << QStringLiteral("--camera has no effect: the pipeline asks for no camera");
    return found;
}

bool Renderer::checkOutputs()
{
    QString error;
    for (const SlotArgument &dump : _commandLine->dumps) {
        QString slot;
        if (!pipeline().outputSlot(dump.pass, dump.slot, &slot, &error))
            return fail(QStringLiteral("%1: %2").arg(dump.option, error), kUsage);
        if (!slotTypesMatch(slot, QStringLiteral("Kvo_KvoTexture*_Any")))
            return fail(QStringLiteral("%1: '%2' is not a texture").arg(dump.option, slot), kUsage);
        if (!canWriteImage(dump.text, true, &error))
            return fail(error);
    }
    for (const SlotArgument &print : _commandLine->prints)
        if (QString slot; !pipeline().outputSlot(print.pass, print.slot, &slot, &error))
            return fail(QStringLiteral("%1: %2").arg(print.option, error), kUsage);
    for (const Comparison &comparison : _commandLine->comparisons) {
        for (int side = 0; side < 2; ++side) {
            QString slot;
            if (!pipeline().outputSlot(comparison.pass[side], comparison.slot[side], &slot, &error))
                return fail(QStringLiteral("%1: %2").arg(comparison.option, error), kUsage);
            if (!slotTypesMatch(slot, QStringLiteral("Kvo_KvoTexture*_Any")))
                return fail(QStringLiteral("%1: '%2' is not a texture").arg(comparison.option, slot), kUsage);
        }
        if (!comparison.file.isEmpty() && !canWriteImage(comparison.file, false, &error))
            return fail(error);
    }
    if (!prepareInspection())
        return false;
    if (!_commandLine->output.isEmpty()) {
        if (!canWriteImage(_commandLine->output, false, &error))
            return fail(error);
        if (!pipeline().uses(QStringLiteral("screen")))
            return fail(QStringLiteral("pipeline '%1' makes no picture: none of its inputs is bound to @screen")
                            .arg(_loaded->path));
    }
    if (_commandLine->model.isEmpty() && pipeline().uses(QStringLiteral("model")))
        return fail(QStringLiteral("pipeline '%1' draws a model: name a model file").arg(_commandLine->pipeline),
                    kUsage);
    return true;
}

bool Renderer::openContext()
{
    QString error;
    if (!_session) {
        auto session = std::make_unique<Session>();
        if (!session->open(_settings.debug, &error))
            return fail(error);
        _session = std::move(session);
        _screen = std::make_unique<ScreenTarget>();
    }
    return true;
}

bool Renderer::loadModel()
{
    if (_commandLine->model.isEmpty())
        return true;
    const QString key = keyOfModel(*_commandLine, pipeline().uses(QStringLiteral("opaque")), !_listPass.isEmpty());
    if (const std::shared_ptr<Model> *known = _models.object(key)) {
        _model = *known;
    } else {
        auto model = std::make_shared<Model>();
        qsizetype bytes = 0;
        if (!importModel(model.get(), &bytes))
            return false;
        _model = model;
        _models.insert(key, new std::shared_ptr<Model>(model), bytes / kBytesPerKilobyte + 1);
    }
    giveModel(&pipeline());
    return true;
}

void Renderer::giveModel(Pipeline *pipeline)
{
    GPUModel *const opaque = _model->isAllOpaque ? &_model->whole : &_model->opaque;
    pipeline->setModel(&_model->whole, pipeline->uses(QStringLiteral("opaque")) ? opaque : nullptr);
}

bool Renderer::importModel(Model *model, qsizetype *bytes)
{
    QElapsedTimer timer;
    timer.start();
    const QString path = _commandLine->model;
    progress(QStringLiteral("reading %1").arg(path));
    ImportReport report;
    const std::unique_ptr<EarlyImport> early = std::exchange(_early, nullptr);
    ModelData data = early ? early->take(&report) : importSceneIsolated(path, ImportOptions(), ImportLimits(), &report);
    if (!report.ok()) {
        warn(report.warnings);
        return fail(report.error);
    }
    QString error;
    if (!applySettings(&data, _commandLine->scene, &error))
        return fail(QStringLiteral("--opacity: %1").arg(error), kUsage);
    QStringList warnings;
    const bool uploaded = model->whole.upload(data, &warnings);
    warn(report.warnings + warnings);
    if (!uploaded)
        return fail(QStringLiteral("cannot put model '%1' on the GPU").arg(path));
    progress(QStringLiteral("%1 meshes, %2 items, %3 triangles, %4 materials, %5 images in %6 s")
                 .arg(data.meshes.size())
                 .arg(model->whole.itemCount())
                 .arg(model->whole.triangleCount())
                 .arg(data.materials.size())
                 .arg(report.images)
                 .arg(double(timer.elapsed()) / 1000.0, 0, 'f', 2));
    *bytes = bytesOf(data);
    // The same materials and meshes once more: what was wrong with them was said above.
    const ModelData opaque = opaquePartOf(data);
    model->isAllOpaque = opaque.items.size() == data.items.size();
    if (pipeline().uses(QStringLiteral("opaque")) && !model->isAllOpaque) {
        if (!model->opaque.upload(opaque))
            return fail(QStringLiteral("cannot put the opaque part of model '%1' on the GPU").arg(path));
        *bytes += bytesOf(opaque);
    }
    if (!_listPass.isEmpty())
        model->data = data;
    return true;
}

bool Renderer::prepare()
{
    // Some passes draw lots; a picture is the same at every making.
    std::srand(kSeed);
    QString error;
    if (_screen->size() != _commandLine->size && !_screen->resize(_commandLine->size, &error))
        return fail(error);
    const GPUModel::BoundingBox bounds = _model ? _model->whole.sceneBounds() : GPUModel::BoundingBox();
    if (!aim(&pipeline(), *_screen, bounds, _commandLine->settings.camera, &error))
        return fail(error, kUsage);
    pipeline().setTimingEnabled(_commandLine->timings);
    return true;
}

// Of tiles is what the driver has no room for, and what is asked for so.
bool Renderer::planTiles()
{
    const QSize size = _commandLine->size;
    const GLLimits driver = OpenGLDeviceContext::current()->limits();
    const int side = std::min({driver.textureSide, driver.targetWidth, driver.targetHeight});
    // Passes have a dozen targets and more of up to 16 bytes a pixel.
    const TileLimits limits{std::min(side, kLargestWindow), std::min(driver.targetWidth, driver.targetHeight)};
    const qint64 pixels = qint64(size.width()) * size.height();
    const bool isPossible = std::max(size.width(), size.height()) <= side && pixels <= kMostPixels;
    if (_commandLine->tile == 0 && isPossible && pixels <= kUsualPixels)
        return true;
    QString error;
    const GPUModel::BoundingBox bounds = _model ? _model->whole.sceneBounds() : GPUModel::BoundingBox();
    if (!Camera::parse(_commandLine->settings.camera, bounds, aspectOf(size), &_camera, &error))
        return fail(error, kUsage);
    QStringList prints;
    for (const SlotArgument &print : _commandLine->prints)
        prints << print.pass + u'.' + print.slot;
    const double perUnit =
        size.height() * double(_camera.projectionMatrix(aspectOf(size))(1, 1)) * 0.5 / double(_camera.nearPlane);
    if (!_plan.make(pipeline(), size, _commandLine->tile, limits, perUnit, prints, &error)) {
        if (_commandLine->tile == 0 && isPossible)
            return true;
        return fail(error);
    }
    // What looks at all of a picture at once.
    if (!_listPass.isEmpty() || !_commandLine->comparisons.isEmpty() || _commandLine->timings)
        return fail(
            QStringLiteral("--inspect-oit, --oit-lengths, --compare and --timings are for pictures in one piece, "
                           "not for one of %1x%2 in tiles")
                .arg(size.width())
                .arg(size.height()),
            kUsage);
    for (const SlotArgument &dump : _commandLine->dumps)
        if (!dump.text.endsWith(QStringLiteral(".exr"), Qt::CaseInsensitive))
            return fail(
                QStringLiteral("%1: of a picture in tiles, textures can be written as .exr only").arg(dump.option),
                kUsage);
    if (!_commandLine->output.isEmpty() && !_commandLine->output.endsWith(QStringLiteral(".png"), Qt::CaseInsensitive))
        return fail(
            QStringLiteral("cannot write '%1': a picture in tiles has to end in .png").arg(_commandLine->output),
            kUsage);
    _isTiled = true;
    return true;
}

// One that has drawn no other tile, where that would show.
Pipeline *Renderer::pipelineForTile(QString *error)
{
    if (_loaded->remembers) {
        const QString path = _loaded->path;
        _loaded = std::make_shared<LoadedPipeline>();
        _loaded->path = path;
        _loaded->remembers = true;
        QStringList errors;
        if (!Brevane::Kvo::loadPipeline(path, &pipeline(), &errors) || !setValues(&pipeline())) {
            *error = errors.join(u'\n');
            return nullptr;
        }
        std::srand(kSeed);
    }
    if (_model)
        giveModel(&pipeline());
    return &pipeline();
}

bool Renderer::renderTiles()
{
    warn(_plan.warnings());
    std::srand(kSeed);
    QElapsedTimer total, sinceProgress;
    total.start();
    sinceProgress.start();
    TiledPicture picture(_plan, *_commandLine, _camera, _screen.get(),
                         [this](QString *error) { return pipelineForTile(error); });
    QString error;
    const bool done = picture.render(
        [&](qsizetype tile, qsizetype tiles) {
            if (sinceProgress.elapsed() < kProgressInterval)
                return;
            progress(QStringLiteral("tile %1 of %2").arg(tile + 1).arg(tiles));
            sinceProgress.restart();
        },
        &error);
    if (!done)
        return fail(error);
    if (!picture.faults().isEmpty())
        fail(QStringLiteral("%1 fault(s) in pipeline '%2'").arg(picture.faults().size()).arg(_loaded->path));
    progress(QStringLiteral("%1 tile(s) of %2 pixels, %3 around them, in %4 s")
                 .arg(_plan.tiles().size())
                 .arg(_plan.side())
                 .arg(_plan.margin())
                 .arg(double(total.elapsed()) / 1000.0, 0, 'f', 2));
    for (const SlotArgument &print : _commandLine->prints)
        printValue(print, picture.value(print.pass, print.slot));
    for (const QString &file : picture.files())
        written(file);
    return true;
}

void Renderer::dump(const QString &pass)
{
    for (const SlotArgument &dump : _commandLine->dumps) {
        if (dump.pass != pass)
            continue;
        QString error;
        const QVariant value = pipeline().output(dump.pass, dump.slot);
        const ShadowMapRenderData *shadows = ShadowMapRenderData::fromVariant(value);
        if (shadows ? writeShadowMaps(shadows, dump.text, &error)
                    : writeTexture(textureFromVariant(value), dump.text, &error))
            written(dump.text);
        else
            fail(error);
    }
}

// The lists are looked at behind the pass that handles them last: sorted, where there is a sort.
bool Renderer::prepareInspection()
{
    if (_commandLine->inspected.isEmpty() && _commandLine->listLengths.isEmpty())
        return true;
    QString error;
    if (!_commandLine->listLengths.isEmpty() && !canWriteImage(_commandLine->listLengths, false, &error))
        return fail(error);
    for (const QString &pass : pipeline().order()) {
        QString slot;
        if (pipeline().outputSlot(pass, QStringLiteral("Kvo_KvoTexture*_HeadPointers"), &slot)
            && pipeline().outputSlot(pass, QStringLiteral("Kvo_KvoTexture*_NodeBuffer"), &slot))
            _listPass = pass;
    }
    return !_listPass.isEmpty()
           || fail(QStringLiteral("pipeline '%1' makes no fragment lists: see 'oit'").arg(_loaded->path), kUsage);
}

void Renderer::inspectLists(const QString &pass)
{
    if (pass != _listPass)
        return;
    FragmentLists lists;
    QString error;
    if (!lists.read(textureFromVariant(pipeline().output(pass, QStringLiteral("HeadPointers"))),
                    textureFromVariant(pipeline().output(pass, QStringLiteral("NodeBuffer"))),
                    pipeline().output(pass, QStringLiteral("NodeBufferWidth")).toInt(), &error)) {
        fail(QStringLiteral("cannot read the fragment lists of '%1': %2").arg(pass, error));
        return;
    }
    printLists(lists, _commandLine->inspected, _model ? _model->data : ModelData());
    if (lists.lostCount() > 0)
        warn({QStringLiteral("the node buffer overflowed, %1 fragments are lost").arg(lists.lostCount())});
    if (_commandLine->listLengths.isEmpty())
        return;
    if (writeImage(lists.lengthImage(), _commandLine->listLengths, &error))
        written(_commandLine->listLengths);
    else
        fail(error);
}

// Each side is read right behind its pass, since the pool may use its texture again later.
void Renderer::compare(const QString &pass)
{
    for (qsizetype i = 0; i < _commandLine->comparisons.size(); ++i) {
        const Comparison &comparison = _commandLine->comparisons[i];
        std::array<TexturePixels, 2> &pixels = _compared[i];
        bool isNew = false;
        QString error;
        for (int side = 0; side < 2; ++side) {
            if (pass != comparison.pass[side])
                continue;
            isNew = true;
            if (!readTexture(textureFromVariant(pipeline().output(pass, comparison.slot[side])), &pixels[side], &error))
                fail(QStringLiteral("%1: %2").arg(comparison.option, error));
        }
        if (!isNew || pixels[0].width == 0 || pixels[1].width == 0)
            continue;
        ImageComparison result;
        if (!comparePixels(pixels[0], pixels[1], &result, &error)
            || (!comparison.file.isEmpty() && !writeImage(result.picture, comparison.file, &error))) {
            fail(QStringLiteral("%1: %2").arg(comparison.option, error));
            continue;
        }
        printComparison(comparison, result);
        if (!comparison.file.isEmpty())
            written(comparison.file);
    }
}

void Renderer::observe()
{
    _compared.resize(_commandLine->comparisons.size());
    pipeline().setPassObserver([this](const QString &pass, RenderPass *) {
        dump(pass);
        inspectLists(pass);
        compare(pass);
    });
}

bool Renderer::renderFrames()
{
    QElapsedTimer total, sinceProgress;
    total.start();
    sinceProgress.start();
    const int frames = _commandLine->frames;
    QStringList faults;
    const auto noteFaults = [&] {
        for (const QString &fault : pipeline().faults())
            if (!faults.contains(fault))
                faults << fault;
    };
    const auto before = [&](int frame) {
        noteFaults();
        if (frame == frames - 1)
            observe();
        if (sinceProgress.elapsed() < kProgressInterval || frame == 0)
            return;
        progress(QStringLiteral("frame %1 of %2").arg(frame).arg(frames));
        sinceProgress.restart();
    };
    QString error;
    if (!::renderFrames(&pipeline(), _screen.get(), frames, before, &error))
        return fail(error);
    noteFaults();
    // The pipeline has said each of them.
    if (!faults.isEmpty())
        fail(QStringLiteral("%1 fault(s) in pipeline '%2'").arg(faults.size()).arg(_loaded->path));
    progress(QStringLiteral("%1 frame(s) of %2x%3 in %4 s")
                 .arg(frames)
                 .arg(_commandLine->size.width())
                 .arg(_commandLine->size.height())
                 .arg(double(total.elapsed()) / 1000.0, 0, 'f', 2));
    for (const SlotArgument &print : _commandLine->prints)
        printValue(print, pipeline().output(print.pass, print.slot));
    if (_commandLine->timings)
        printTimings(pipeline().timings(true), frames == 1);
    return faults.size() > 0 || _rendered.exitCode == kSuccess;
}

bool Renderer::takePicture()
{
    if (_commandLine->output.isEmpty())
        return true;
    QString error;
    const QColor &background = _commandLine->settings.background;
    bool showsBackground = false;
    _rendered.picture = pictureOf(*_screen, background, &error, background.isValid() ? &showsBackground : nullptr);
    if (background.isValid() && !showsBackground && !_rendered.picture.isNull())
        warn({QStringLiteral("--background has no effect: the picture is opaque everywhere")});
    return !_rendered.picture.isNull() || fail(error);
}

void Renderer::write(Rendered *rendered, const CommandLine &commandLine)
{
    if (rendered->picture.isNull())
        return;
    QString error;
    if (writePicture(std::exchange(rendered->picture, QImage()), commandLine.output, &error)) {
        rendered->files << commandLine.output;
        return;
    }
    rendered->errors << error;
    rendered->exitCode = kFailure;
}
