#include "renderer.h"

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

#include <QElapsedTimer>
#include <QFileInfo>

#include <algorithm>
#include <cstdio>

using namespace Brevane::Kvo;

namespace {

constexpr qint64 kProgressInterval = 1000; // ms

} // namespace

int Renderer::run()
{
    // What can fail early and cheaply does; but some passes look at the context when they are made.
    for (const Step step : {&Renderer::openContext, &Renderer::loadPipeline, &Renderer::checkOutputs,
                            &Renderer::loadModel, &Renderer::prepare, &Renderer::renderFrames, &Renderer::writePicture})
        if (!(this->*step)())
            return _exitCode;
    if (const qsizetype failures = _session.takeFailures().size(); failures > 0)
        fail(QStringLiteral("%1 failed shader program(s) or OpenGL error(s)").arg(failures));
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
    _pipelinePath = findPipeline(_commandLine.pipeline, pipelineSearchPath(_commandLine.pipelines.folders), &error);
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
    complainOf(_pipeline.warnings() + optionsWithoutEffect());
    return true;
}

// Those that the pipeline cannot tell by itself.
QStringList Renderer::optionsWithoutEffect() const
{
    const auto usesAny = [this](std::initializer_list<const char *> hosts) {
        return std::any_of(hosts.begin(), hosts.end(),
                           [this](const char *host) { return _pipeline.uses(QString::fromLatin1(host)); });
    };
    QStringList found;
    // A camera looks at the model, whether it is drawn or not.
    if (!_commandLine.model.isEmpty() && !usesAny({"model", "opaque", "camera", "projection"}))
        found << QStringLiteral("the model has no effect: the pipeline draws none");
    if (_commandLine.model.isEmpty() && _commandLine.sceneIsGiven)
        found << QStringLiteral("--scale, --floor and --opacity have no effect without a model");
    if (!_commandLine.camera.isEmpty() && !usesAny({"camera", "projection", "near", "far"}))
        found << QStringLiteral("--camera has no effect: the pipeline asks for no camera");
    return found;
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
    if (!_session.open(_commandLine.debug, &error))
        return fail(error);
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
    ModelData data = importSceneIsolated(_commandLine.model, ImportOptions(), ImportLimits(), &report);
    if (!report.ok()) {
        complainOf(report.warnings);
        return fail(report.error);
    }
    QString error;
    if (!applySettings(&data, _commandLine.scene, &error))
        return fail(QStringLiteral("--opacity: %1").arg(error), kUsage);
    QStringList warnings;
    const bool uploaded = _model.upload(data, &warnings);
    complainOf(report.warnings + warnings);
    if (!uploaded)
        return fail(QStringLiteral("cannot put model '%1' on the GPU").arg(_commandLine.model));
    progress(QStringLiteral("%1 meshes, %2 items, %3 triangles, %4 materials, %5 images in %6 s")
                 .arg(data.meshes.size())
                 .arg(_model.itemCount())
                 .arg(_model.triangleCount())
                 .arg(data.materials.size())
                 .arg(report.images)
                 .arg(double(timer.elapsed()) / 1000.0, 0, 'f', 2));
    // The same materials and meshes once more: what was wrong with them was said above.
    const bool hasOpaquePart = _pipeline.uses(QStringLiteral("opaque"));
    if (hasOpaquePart && !_opaqueModel.upload(opaquePartOf(data)))
        return fail(QStringLiteral("cannot put the opaque part of model '%1' on the GPU").arg(_commandLine.model));
    _pipeline.setModel(&_model, hasOpaquePart ? &_opaqueModel : nullptr);
    if (!_listPass.isEmpty())
        _modelData = data;
    return true;
}

bool Renderer::prepare()
{
    QString error;
    if (!aim(&_pipeline, _screen, _model.sceneBounds(), _commandLine.camera, &error))
        return fail(error, kUsage);
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
    for (const QString &pass : _pipeline.order()) {
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

void Renderer::observe()
{
    _compared.resize(_commandLine.comparisons.size());
    _pipeline.setPassObserver([this](const QString &pass, RenderPass *) {
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
    const int frames = _commandLine.frames;
    QStringList faults;
    const auto noteFaults = [&] {
        for (const QString &fault : _pipeline.faults())
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
    if (!::renderFrames(&_pipeline, &_screen, frames, before, &error))
        return fail(error);
    noteFaults();
    // The pipeline has said each of them.
    if (!faults.isEmpty())
        fail(QStringLiteral("%1 fault(s) in pipeline '%2'").arg(faults.size()).arg(_pipelinePath));
    progress(QStringLiteral("%1 frame(s) of %2x%3 in %4 s")
                 .arg(frames)
                 .arg(_commandLine.size.width())
                 .arg(_commandLine.size.height())
                 .arg(double(total.elapsed()) / 1000.0, 0, 'f', 2));
    for (const SlotArgument &print : _commandLine.prints)
        printValue(print, _pipeline.output(print.pass, print.slot));
    if (_commandLine.timings)
        printTimings(_pipeline.timings(true), frames == 1);
    return faults.size() > 0 || _exitCode == kSuccess;
}

bool Renderer::writePicture()
{
    if (_commandLine.output.isEmpty())
        return true;
    QString error;
    const QImage image = pictureOf(_screen, _commandLine.background, &error);
    if (image.isNull())
        return fail(error);
    if (!writeImage(image, _commandLine.output, &error))
        return fail(error);
    progress(QStringLiteral("wrote %1").arg(_commandLine.output));
    return true;
}
