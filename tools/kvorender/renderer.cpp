#include "renderer.h"

#include "gl/shaderprogram.h"
#include "gl/texture.h"
#include "host/fragmentlists.h"
#include "host/imagecomparison.h"
#include "host/imageoutput.h"
#include "host/lights.h"
#include "host/pipelinefile.h"
#include "host/sceneimport.h"
#include "host/slotname.h"
#include "report.h"
#include "shadows/shadowmaprenderdata.h"

#include <epoxy/gl.h>

#include <QFileInfo>
#include <QPainter>

#include <algorithm>
#include <cstdio>

using namespace Brevane::Kvo;

namespace {

constexpr qint64 kProgressInterval = 1000; // ms
constexpr int kMostWarnings = 10;
constexpr float kFittingSide = 2.0f; // units
constexpr float kLeastSide = 1e-30f;

int failedShaders = 0;
int glErrors = 0;

void GLAPIENTRY onGlMessage(GLenum, GLenum type, GLuint, GLenum, GLsizei, const GLchar *text, const void *)
{
    if (type != GL_DEBUG_TYPE_ERROR)
        return;
    ++glErrors;
    complain(QStringLiteral("OpenGL error: %1").arg(QString::fromUtf8(text).trimmed()));
}

void printWarnings(const QStringList &warnings)
{
    for (const QString &warning : warnings.mid(0, kMostWarnings))
        complain(QStringLiteral("warning: %1").arg(warning));
    if (warnings.size() > kMostWarnings)
        complain(QStringLiteral("warning: and %1 more").arg(warnings.size() - kMostWarnings));
}

} // namespace

Renderer::Renderer(const CommandLine &commandLine) : _commandLine(commandLine) {}

Renderer::~Renderer()
{
    ShaderProgram::setFailureHandler({});
}

int Renderer::run()
{
    // What can fail early and cheaply does; but some passes look at the context when they are made.
    for (const Step step : {&Renderer::openContext, &Renderer::loadPipeline, &Renderer::checkOutputs,
                            &Renderer::loadModel, &Renderer::prepare, &Renderer::renderFrames, &Renderer::writePicture})
        if (!(this->*step)())
            return _exitCode;
    if (failedShaders > 0)
        fail(QStringLiteral("%1 shader program(s) failed").arg(failedShaders));
    if (glErrors > 0)
        fail(QStringLiteral("%1 OpenGL error(s)").arg(glErrors));
    return _exitCode;
}

bool Renderer::fail(const QString &message, int exitCode)
{
    complain(message);
    _exitCode = exitCode;
    return false;
}

void Renderer::progress(const QString &message) const
{
    if (!_commandLine.quiet)
        complain(message);
}

bool Renderer::loadPipeline()
{
    QString error;
    _pipelinePath = findPipeline(_commandLine.pipeline, pipelineSearchPath(_commandLine.pipelineFolders), &error);
    if (_pipelinePath.isEmpty())
        return fail(error);
    QStringList errors;
    if (!Brevane::Kvo::loadPipeline(_pipelinePath, &_pipeline, &errors)) {
        for (const QString &line : errors)
            fail(line);
        return false;
    }
    for (const SlotArgument &value : _commandLine.values)
        if (!_pipeline.setValueText(value.pass, value.slot, value.text, &error))
            return fail(QStringLiteral("%1: %2").arg(value.option, error), kUsage);
    if (!_commandLine.lights.isEmpty()
        && !_pipeline.setHostValue(QStringLiteral("lights"), lightsToVariant(_commandLine.lights), &error))
        return fail(QStringLiteral("--light: %1").arg(error), kUsage);
    for (const auto &[name, path] : _commandLine.paths) {
        if (!_pipeline.setHostValue(QStringLiteral("paths.") + name, path, &error))
            return fail(QStringLiteral("--path %1: %2").arg(name, error), kUsage);
        if (!QFileInfo::exists(path))
            return fail(QStringLiteral("--path %1: there is no file '%2'").arg(name, path));
    }
    printWarnings(_pipeline.warnings());
    return true;
}

bool Renderer::checkOutputs()
{
    QString error;
    for (const SlotArgument &dump : _commandLine.dumps) {
        QString slot;
        if (!_pipeline.outputSlot(dump.pass, dump.slot, &slot, &error))
            return fail(QStringLiteral("%1: %2").arg(dump.option, error), kUsage);
        if (!slotTypesMatch(slot, QStringLiteral("Kvo_KvoTexture*_Any")))
            return fail(QStringLiteral("%1: '%2' is not a texture").arg(dump.option, slot), kUsage);
        if (!canWriteImage(dump.text, true, &error))
            return fail(error);
    }
    for (const SlotArgument &print : _commandLine.prints)
        if (QString slot; !_pipeline.outputSlot(print.pass, print.slot, &slot, &error))
            return fail(QStringLiteral("%1: %2").arg(print.option, error), kUsage);
    for (const Comparison &comparison : _commandLine.comparisons) {
        for (int side = 0; side < 2; ++side) {
            QString slot;
            if (!_pipeline.outputSlot(comparison.pass[side], comparison.slot[side], &slot, &error))
                return fail(QStringLiteral("%1: %2").arg(comparison.option, error), kUsage);
            if (!slotTypesMatch(slot, QStringLiteral("Kvo_KvoTexture*_Any")))
                return fail(QStringLiteral("%1: '%2' is not a texture").arg(comparison.option, slot), kUsage);
        }
        if (!comparison.file.isEmpty() && !canWriteImage(comparison.file, false, &error))
            return fail(error);
    }
    if (!prepareInspection())
        return false;
    if (!_commandLine.output.isEmpty()) {
        if (!canWriteImage(_commandLine.output, false, &error))
            return fail(error);
        if (!_pipeline.uses(QStringLiteral("screen")))
            return fail(QStringLiteral("pipeline '%1' makes no picture: none of its inputs is bound to @screen")
                            .arg(_pipelinePath));
    }
    if (_commandLine.model.isEmpty() && _pipeline.uses(QStringLiteral("model")))
        return fail(QStringLiteral("pipeline '%1' draws a model: name a model file").arg(_commandLine.pipeline),
                    kUsage);
    return true;
}

bool Renderer::openContext()
{
    QString error;
    HeadlessContext::Options options;
    options.debug = _commandLine.debug;
    _context = HeadlessContext::create(options, &error);
    if (!_context)
        return fail(error);
    if (_commandLine.debug && (epoxy_gl_version() >= 43 || epoxy_has_gl_extension("GL_KHR_debug"))) {
        glEnable(GL_DEBUG_OUTPUT);
        glEnable(GL_DEBUG_OUTPUT_SYNCHRONOUS);
        glDebugMessageCallback(&onGlMessage, nullptr);
    }
    ShaderProgram::setFailureHandler([](const ShaderFailure &failure) {
        ++failedShaders;
        complain(QStringLiteral("shader program '%1' failed:\n%2").arg(failure.label, failure.log));
    });
    return _screen.resize(_commandLine.size, &error) || fail(error);
}

bool Renderer::loadModel()
{
    if (_commandLine.model.isEmpty())
        return true;
    QElapsedTimer timer;
    timer.start();
    progress(QStringLiteral("reading %1").arg(_commandLine.model));
    ImportReport report;
    ModelData data = importScene(_commandLine.model, ImportOptions(), &report);
    if (!report.ok()) {
        printWarnings(report.warnings);
        return fail(report.error);
    }
    if (_commandLine.scale == CommandLine::kScaleToFit)
        scaleModel(&data, kFittingSide / std::max(longestSideOf(data), kLeastSide));
    else if (_commandLine.scale != 1.0f)
        scaleModel(&data, _commandLine.scale);
    if (_commandLine.floor)
        addFloor(&data);
    QString error;
    for (const auto &[material, opacity] : _commandLine.opacities) {
        if (!setOpacity(&data, material, opacity, &error))
            return fail(QStringLiteral("--opacity: %1").arg(error), kUsage);
    }
    QStringList warnings;
    const bool uploaded = _model.upload(data, &warnings);
    printWarnings(report.warnings + warnings);
    if (!uploaded)
        return fail(QStringLiteral("cannot put model '%1' on the GPU").arg(_commandLine.model));
    progress(QStringLiteral("%1 meshes, %2 items, %3 triangles, %4 materials, %5 images in %6 s")
                 .arg(data.meshes.size())
                 .arg(_model.itemCount())
                 .arg(_model.triangleCount())
                 .arg(data.materials.size())
                 .arg(report.images)
                 .arg(double(timer.elapsed()) / 1000.0, 0, 'f', 2));
    _pipeline.setModel(&_model);
    if (!_listPass.isEmpty())
        _modelData = data;
    return true;
}

bool Renderer::prepare()
{
    const QSize size = _commandLine.size;
    const float aspect = float(size.width()) / float(size.height());
    Camera camera;
    QString error;
    if (!Camera::parse(_commandLine.camera, _model.sceneBounds(), aspect, &camera, &error))
        return fail(error, kUsage);
    _pipeline.setCamera(camera.cameraMatrix(), camera.projectionMatrix(aspect), camera.nearPlane, camera.farPlane);
    _pipeline.setViewport(QRect(QPoint(0, 0), size));
    _pipeline.setScreen(_screen.framebuffer());
    _pipeline.setTimingEnabled(_commandLine.timings);
    return true;
}

void Renderer::dump(const QString &pass)
{
    for (const SlotArgument &dump : _commandLine.dumps) {
        if (dump.pass != pass)
            continue;
        QString error;
        const QVariant value = _pipeline.output(dump.pass, dump.slot);
        const ShadowMapRenderData *shadows = ShadowMapRenderData::fromVariant(value);
        if (shadows ? writeShadowMaps(shadows, dump.text, &error)
                    : writeTexture(textureFromVariant(value), dump.text, &error))
            progress(QStringLiteral("wrote %1").arg(dump.text));
        else
            fail(error);
    }
}

// The lists are looked at behind the pass that handles them last: sorted, where there is a sort.
bool Renderer::prepareInspection()
{
    if (_commandLine.inspected.isEmpty() && _commandLine.listLengths.isEmpty())
        return true;
    QString error;
    if (!_commandLine.listLengths.isEmpty() && !canWriteImage(_commandLine.listLengths, false, &error))
        return fail(error);
    for (const QString &pass : _pipeline.order(&error)) {
        QString slot;
        if (_pipeline.outputSlot(pass, QStringLiteral("Kvo_KvoTexture*_HeadPointers"), &slot)
            && _pipeline.outputSlot(pass, QStringLiteral("Kvo_KvoTexture*_NodeBuffer"), &slot))
            _listPass = pass;
    }
    return !_listPass.isEmpty()
           || fail(QStringLiteral("pipeline '%1' makes no fragment lists: see 'oit'").arg(_pipelinePath), kUsage);
}

void Renderer::inspectLists(const QString &pass)
{
    if (pass != _listPass)
        return;
    FragmentLists lists;
    QString error;
    if (!lists.read(textureFromVariant(_pipeline.output(pass, QStringLiteral("HeadPointers"))),
                    textureFromVariant(_pipeline.output(pass, QStringLiteral("NodeBuffer"))),
                    _pipeline.output(pass, QStringLiteral("NodeBufferWidth")).toInt(), &error)) {
        fail(QStringLiteral("cannot read the fragment lists of '%1': %2").arg(pass, error));
        return;
    }
    printLists(lists, _commandLine.inspected, _modelData);
    if (lists.lostCount() > 0)
        complain(QStringLiteral("warning: the node buffer overflowed, %1 fragments are lost").arg(lists.lostCount()));
    if (_commandLine.listLengths.isEmpty())
        return;
    if (writeImage(lists.lengthImage(), _commandLine.listLengths, &error))
        progress(QStringLiteral("wrote %1").arg(_commandLine.listLengths));
    else
        fail(error);
}

// Each side is read right behind its pass, since the pool may use its texture again later.
void Renderer::compare(const QString &pass)
{
    for (qsizetype i = 0; i < _commandLine.comparisons.size(); ++i) {
        const Comparison &comparison = _commandLine.comparisons[i];
        std::array<TexturePixels, 2> &pixels = _compared[i];
        bool isNew = false;
        QString error;
        for (int side = 0; side < 2; ++side) {
            if (pass != comparison.pass[side])
                continue;
            isNew = true;
            if (!readTexture(textureFromVariant(_pipeline.output(pass, comparison.slot[side])), &pixels[side], &error))
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
            progress(QStringLiteral("wrote %1").arg(comparison.file));
    }
}

bool Renderer::renderFrames()
{
    QElapsedTimer total, sinceProgress;
    total.start();
    sinceProgress.start();
    const int frames = _commandLine.frames;
    for (int frame = 0; frame < frames; ++frame) {
        if (frame == frames - 1) {
            _compared.resize(_commandLine.comparisons.size());
            _pipeline.setPassObserver([this](const QString &pass, RenderPass *) {
                dump(pass);
                inspectLists(pass);
                compare(pass);
            });
        }
        _screen.clear();
        QString error;
        if (!_pipeline.render(nullptr, &error))
            return fail(error);
        // The first frame makes everything; the times of the others are those that count.
        if (frame == 0 && frames > 1)
            _pipeline.setTimingHistory(frames);
        if (sinceProgress.elapsed() >= kProgressInterval && frame < frames - 1) {
            progress(QStringLiteral("frame %1 of %2").arg(frame + 1).arg(frames));
            sinceProgress.restart();
        }
    }
    glFinish();
    progress(QStringLiteral("%1 frame(s) of %2x%3 in %4 s")
                 .arg(frames)
                 .arg(_commandLine.size.width())
                 .arg(_commandLine.size.height())
                 .arg(double(total.elapsed()) / 1000.0, 0, 'f', 2));
    for (const SlotArgument &print : _commandLine.prints)
        printValue(print, _pipeline.output(print.pass, print.slot));
    if (_commandLine.timings)
        printTimings(_pipeline.timings(true), frames == 1);
    return _exitCode == kSuccess;
}

bool Renderer::writePicture()
{
    if (_commandLine.output.isEmpty())
        return true;
    QString error;
    QImage image = _screen.image(&error);
    if (image.isNull())
        return fail(QStringLiteral("cannot read the picture back: %1").arg(error));
    if (_commandLine.background.isValid()) {
        QImage canvas(image.size(), QImage::Format_RGB32);
        canvas.fill(_commandLine.background);
        QPainter(&canvas).drawImage(0, 0, image);
        image = canvas;
    }
    if (!writeImage(image, _commandLine.output, &error))
        return fail(error);
    progress(QStringLiteral("wrote %1").arg(_commandLine.output));
    return true;
}
