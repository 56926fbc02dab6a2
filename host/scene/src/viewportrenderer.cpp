#include "host/viewportrenderer.h"

#include "core/liveobjects.h"
#include "failure.h"
#include "gl/framebufferobject.h"
#include "gl/guards.h"
#include "gl/held.h"
#include "gl/hoststate.h"
#include "gl/opengldevicecontext.h"
#include "gl/shaderfailurelistener.h"
#include "gl/shaderprogram.h"
#include "host/outlinepass.h"
#include "host/pipeline.h"
#include "host/pipelinefile.h"
#include "host/sceneimport.h"
#include "host/screentarget.h"
#include "renderpasses/camerajitterpass.h"
#include "renderpasses/shadowmaprenderpass2.h"
#include "renderpasses/temporalaarenderpass.h"

#include <epoxy/gl.h>

#include <QVector2D>
#include <QVector3D>
#include <QVector4D>

#include <algorithm>
#include <utility>

namespace Brevane::Kvo {

namespace {

// See CameraJitterPass: a random jitter lasts so many frames, and further ones would pull the mean back.
constexpr int kRandomJitterFrames = 30;
constexpr int kTableJitterFrames = 4;
// Its program is built in the frame after the one in which it first has a light.
constexpr int kShadowFrames = 2;

enum JitterMode { kNoJitter, kRandomAfterChange, kTable };

const QString kDirty = QStringLiteral("Kvo_bool_Dirty");

// As parseSlotValue reads it.
QString textOf(const QVariant &value)
{
    const auto list = [](std::initializer_list<float> numbers) {
        QStringList parts;
        for (const float number : numbers)
            parts << QString::number(double(number), 'g', 9);
        return u'[' + parts.join(QStringLiteral(", ")) + u']';
    };
    switch (value.typeId()) {
    case QMetaType::QColor: {
        const auto color = value.value<QColor>();
        return list({color.redF(), color.greenF(), color.blueF(), color.alphaF()});
    }
    case QMetaType::QVector2D: return list({value.value<QVector2D>().x(), value.value<QVector2D>().y()});
    case QMetaType::QVector3D: {
        const auto v = value.value<QVector3D>();
        return list({v.x(), v.y(), v.z()});
    }
    case QMetaType::QVector4D: {
        const auto v = value.value<QVector4D>();
        return list({v.x(), v.y(), v.z(), v.w()});
    }
    default: return value.toString();
    }
}

const PassInput *dirtyInput(const QVector<PassInput> &inputs)
{
    const auto found =
        std::find_if(inputs.cbegin(), inputs.cend(), [](const PassInput &input) { return input.slot == kDirty; });
    return found == inputs.cend() ? nullptr : &*found;
}

void clear(FramebufferObject *screen)
{
    const DefaultState state(std::initializer_list<StatePiece>{});
    const AutoBinder bound(screen);
    constexpr GLfloat kGrey[] = {0.2f, 0.2f, 0.2f, 1.0f};
    glClearBufferfv(GL_COLOR, 0, kGrey);
}

} // namespace

class ViewportRendererPrivate
{
public:
    bool read(Pipeline *into, QStringList *errors) const;
    bool loadFile(QStringList *errors);
    template <typename Reload>
    bool load(const QString &path, const QByteArray &content, const Reload &reload)
    {
        const QString fileBefore = std::exchange(file, path);
        const QByteArray textBefore = std::exchange(text, content);
        if (reload())
            return true;
        file = fileBefore;
        text = textBefore;
        return false;
    }
    void applySlots(const QVariantMap &values, QStringList *errors);
    void upload(QStringList *errors);
    GPUModel *model() const;
    GPUModel *opaque() const;
    void changed();
    int framesToSettle() const;
    void setAccumulationsDirty(bool dirty);
    bool prepare(QStringList *errors);
    bool draw(FramebufferObject *screen, const QSize &size, ViewportFrame *frame);
    void drawBackdrop(FramebufferObject *screen, const QSize &size);
    void drawOutline(FramebufferObject *screen, const QSize &size);
    void startPick(const QRect &area, const QSize &size);
    void releaseModels();

    // What was asked for
    ModelData data;
    bool hasData = false;
    bool hasTiming = false;
    GPUModel *hostModel = nullptr;
    GPUModel *hostOpaque = nullptr;
    QString file;
    QByteArray text; ///< In the place of what is in the file, where it is not empty.
    QVariantMap slotValues;
    OrbitCamera camera;
    QVector<int> selection;
    QColor outlineColor{0xff, 0x9a, 0x1f};
    float outlineWidth = 2.0f;
    Backdrop backdrop;
    int askedSettlingFrames = -1;

    // What GL holds
    quint64 shareGroup = 0;
    std::unique_ptr<Pipeline> pipeline;
    bool pipelineIsOfFile = false;
    std::unique_ptr<GPUModel> ownModel;
    std::unique_ptr<GPUModel> ownOpaque;
    QVector<int> materials; ///< By draw.
    std::unique_ptr<PickPass> picker;
    std::unique_ptr<OutlinePass> outline;
    BackdropPainter backdropPainter;

    bool fileIsDue = false;
    bool slotsAreDue = false;
    bool uploadIsDue = false;
    bool isChanged = true; ///< Since the last frame.
    bool isAccumulationStale = false; ///< In a way that the passes do not notice by themselves.
    QStringList dirtyPasses; ///< Those that have been told.
    int framesDue = 0;
    int frames = 0;
};

bool ViewportRendererPrivate::read(Pipeline *into, QStringList *errors) const
{
    return text.isEmpty() ? loadPipeline(file, into, errors) : loadPipelineText(text, file, into, errors);
}

bool ViewportRendererPrivate::loadFile(QStringList *errors)
{
    auto fresh = std::make_unique<Pipeline>();
    if (!read(fresh.get(), errors))
        return false;
    pipeline = std::move(fresh);
    pipeline->setTimingEnabled(hasTiming);
    pipelineIsOfFile = true;
    dirtyPasses.clear();
    fileIsDue = false;
    slotsAreDue = true;
    changed();
    return true;
}

void ViewportRendererPrivate::applySlots(const QVariantMap &values, QStringList *errors)
{
    for (auto value = values.cbegin(); value != values.cend(); ++value) {
        QString error;
        const QString pass = value.key().section(u'.', 0, 0);
        const QString slot = value.key().section(u'.', 1);
        const bool isSet = slot.isEmpty()
                               ? fail(&error, QStringLiteral("'%1' is not of the form Pass.Slot").arg(value.key()))
                               : pipeline->setValueText(pass, slot, textOf(value.value()), &error);
        if (!isSet && errors)
            errors->append(QStringLiteral("slot %1: %2").arg(value.key(), error));
    }
    slotsAreDue = false;
}

void ViewportRendererPrivate::upload(QStringList *errors)
{
    releaseModels();
    uploadIsDue = false;
    ownModel = std::make_unique<GPUModel>();
    if (!ownModel->upload(data, errors)) {
        ownModel.reset();
        return;
    }
    // The model leaves out what it cannot draw, and counts its draws without them.
    for (const ModelItem &item : std::as_const(data.items))
        if (item.mesh >= 0 && item.mesh < data.meshes.size() && item.material >= 0
            && item.material < data.materials.size())
            materials.append(item.material);
    if (materials.size() != ownModel->itemCount())
        materials.clear();
}

void ViewportRendererPrivate::releaseModels()
{
    ownModel.reset();
    ownOpaque.reset();
    materials.clear();
}

GPUModel *ViewportRendererPrivate::model() const
{
    if (ownModel)
        return ownModel.get();
    return liveKindOf(hostModel) == LiveKind::Model ? hostModel : nullptr;
}

GPUModel *ViewportRendererPrivate::opaque() const
{
    if (ownOpaque)
        return ownOpaque.get();
    return liveKindOf(hostOpaque) == LiveKind::Model ? hostOpaque : nullptr;
}

void ViewportRendererPrivate::changed()
{
    isAccumulationStale = true;
    isChanged = true;
}

int ViewportRendererPrivate::framesToSettle() const
{
    if (askedSettlingFrames >= 0 || !pipeline)
        return std::max(askedSettlingFrames, 1);
    int count = 1;
    for (const QString &name : pipeline->passNames()) {
        const RenderPass *pass = pipeline->pass(name);
        if (const auto *jitter = dynamic_cast<const CameraJitterPass *>(pass)) {
            const int mode = jitter->inputValue(jitter->findInput(QStringLiteral("Kvo_int_JitterMode"))).toInt();
            if (mode != kNoJitter)
                count = std::max(count, mode == kTable ? kTableJitterFrames : kRandomJitterFrames);
        } else if (dynamic_cast<const ShadowMapRenderPass2 *>(pass)) {
            count = std::max(count, kShadowFrames);
        }
    }
    return count;
}

// Accumulating passes notice another camera and another size. Of everything else they are told by an input, which
// pipelines for still views hold at false; where a host or a link rules it, it is theirs.
void ViewportRendererPrivate::setAccumulationsDirty(bool dirty)
{
    for (const QString &name : std::exchange(dirtyPasses, {}))
        pipeline->setValue(name, kDirty, false);
    if (!dirty)
        return;
    for (const QString &name : pipeline->passNames()) {
        const RenderPass *pass = pipeline->pass(name);
        if (!dynamic_cast<const CameraJitterPass *>(pass) && !dynamic_cast<const TemporalAARenderPass *>(pass))
            continue;
        const QVector<PassInput> inputs = pipeline->inputs(name);
        const PassInput *input = dirtyInput(inputs);
        if (input && input->kind == PassInput::Kind::Value && !input->value.toBool()) {
            pipeline->setValue(name, kDirty, true);
            dirtyPasses << name;
        }
    }
}

// Makes what is due. False where there is nothing to draw with.
bool ViewportRendererPrivate::prepare(QStringList *errors)
{
    const quint64 group = currentShareGroup();
    if (group == 0) {
        errors->append(QStringLiteral("no usable OpenGL context of version 3.2 or later is current"));
        return false;
    }
    if (shareGroup != group) {
        // What was made in another group is gone with it, or was released.
        shareGroup = group;
        uploadIsDue = hasData;
    }
    if (fileIsDue && !loadFile(errors))
        fileIsDue = false; // said once; the file's next change asks again
    if (!pipeline) {
        if (file.isEmpty())
            errors->append(QStringLiteral("there is no pipeline"));
        return false;
    }
    if (slotsAreDue)
        applySlots(slotValues, errors);
    if (uploadIsDue)
        upload(errors);
    if (ownModel && !ownOpaque && pipeline->uses(QStringLiteral("opaque"))) {
        ownOpaque = std::make_unique<GPUModel>();
        ownOpaque->upload(opaquePartOf(data));
    }
    return true;
}

bool ViewportRendererPrivate::draw(FramebufferObject *screen, const QSize &size, ViewportFrame *frame)
{
    const float aspect = float(size.width()) / float(size.height());
    pipeline->setModel(model(), opaque());
    pipeline->setCamera(camera.cameraMatrix(), camera.projectionMatrix(aspect), camera.nearPlane(), camera.farPlane());
    pipeline->setViewport(QRect(QPoint(), size));
    pipeline->setScreen(screen);
    QString error;
    const bool isDrawn = pipeline->render(nullptr, &error);
    if (!isDrawn)
        frame->errors.append(error);
    frame->faults += pipeline->faults();
    // The framebuffer is the caller's, and need not outlive the frame.
    pipeline->setScreen(nullptr);
    return isDrawn;
}

void ViewportRendererPrivate::drawBackdrop(FramebufferObject *screen, const QSize &size)
{
    const QVector3D box = camera.scene().maximum - camera.scene().minimum;
    backdropPainter.draw(screen, size, backdrop, camera.cameraMatrix(),
                         camera.projectionMatrix(float(size.width()) / float(size.height())), camera.up(),
                         std::max({box.x(), box.y(), box.z()}));
}

void ViewportRendererPrivate::drawOutline(FramebufferObject *screen, const QSize &size)
{
    if (selection.isEmpty() || !model())
        return;
    if (!outline)
        outline = std::make_unique<OutlinePass>();
    outline->setItems(selection);
    outline->setInput(OutlinePass::kViewport, QRect(QPoint(), size));
    outline->setInput(OutlinePass::kProjectionMatrix,
                      camera.projectionMatrix(float(size.width()) / float(size.height())));
    outline->setInput(OutlinePass::kCameraMatrix, camera.cameraMatrix());
    outline->setInput(OutlinePass::kGeometry, QVariant::fromValue(model()));
    outline->setInput(OutlinePass::kColor, outlineColor);
    outline->setInput(OutlinePass::kWidth, outlineWidth);
    outline->setInput(OutlinePass::kFramebufferOut, framebufferToVariant(screen));
    outline->start(nullptr);
    outline->setInput(OutlinePass::kFramebufferOut, QVariant());
}

// \a area counts from the upper left.
void ViewportRendererPrivate::startPick(const QRect &area, const QSize &size)
{
    if (!picker)
        picker = std::make_unique<PickPass>();
    picker->setInput(PickPass::kViewport, QRect(QPoint(), size));
    picker->setInput(PickPass::kProjectionMatrix, camera.projectionMatrix(float(size.width()) / float(size.height())));
    picker->setInput(PickPass::kCameraMatrix, camera.cameraMatrix());
    picker->setInput(PickPass::kGeometry, QVariant::fromValue(model()));
    picker->setInput(PickPass::kArea,
                     QRect(area.x(), size.height() - area.y() - area.height(), area.width(), area.height()));
    picker->start(nullptr);
}

ViewportRenderer::ViewportRenderer() : d(std::make_unique<ViewportRendererPrivate>()) {}

ViewportRenderer::~ViewportRenderer() = default;

void ViewportRenderer::setModel(const ModelData &data)
{
    d->data = data;
    d->hasData = true;
    d->hostModel = nullptr;
    d->hostOpaque = nullptr;
    d->uploadIsDue = true;
    d->camera.setScene(boxOf(data));
    d->changed();
}

void ViewportRenderer::setModel(GPUModel *model, GPUModel *opaque)
{
    d->data = ModelData();
    d->hasData = false;
    d->uploadIsDue = false;
    d->releaseModels();
    d->hostModel = model;
    d->hostOpaque = opaque;
    d->camera.setScene(bounds());
    d->changed();
}

GPUModel::BoundingBox ViewportRenderer::bounds() const
{
    if (d->hasData)
        return boxOf(d->data);
    const GPUModel *model = d->model();
    return model ? model->sceneBounds() : GPUModel::BoundingBox();
}

bool ViewportRenderer::setPipelineFile(const QString &nameOrPath, QStringList *errors, const QStringList &searchPath)
{
    QString error;
    const QString path = findPipeline(nameOrPath, searchPath.isEmpty() ? pipelineSearchPath() : searchPath, &error);
    if (path.isEmpty()) {
        if (errors)
            errors->append(error);
        return false;
    }
    return d->load(path, QByteArray(), [&] { return reload(errors); });
}

bool ViewportRenderer::setPipelineText(const QByteArray &text, const QString &path, QStringList *errors)
{
    return d->load(path, text, [&] { return reload(errors); });
}

bool ViewportRenderer::reload(QStringList *errors)
{
    if (d->file.isEmpty())
        return false;
    // Some passes look at the context when they are made: those that stay are made with it. What is wrong with the
    // file shows now.
    if (!OpenGLDeviceContext::current()) {
        Pipeline trial;
        if (!d->read(&trial, errors))
            return false;
        d->fileIsDue = true;
        d->changed();
        return true;
    }
    return d->loadFile(errors);
}

QString ViewportRenderer::pipelineFile() const
{
    return d->file;
}

void ViewportRenderer::setPipeline(std::unique_ptr<Pipeline> pipeline)
{
    d->file.clear();
    d->text.clear();
    d->fileIsDue = false;
    d->pipelineIsOfFile = false;
    d->pipeline = std::move(pipeline);
    if (d->pipeline && d->hasTiming)
        d->pipeline->setTimingEnabled(true);
    d->dirtyPasses.clear();
    d->slotsAreDue = true;
    d->changed();
}

Pipeline *ViewportRenderer::pipeline() const
{
    return d->pipeline.get();
}

void ViewportRenderer::setTimingEnabled(bool enabled)
{
    d->hasTiming = enabled;
    if (d->pipeline)
        d->pipeline->setTimingEnabled(enabled);
}

void ViewportRenderer::setSlotValues(const QVariantMap &values)
{
    if (values == d->slotValues)
        return;
    const bool isNarrower = std::any_of(d->slotValues.keyBegin(), d->slotValues.keyEnd(),
                                        [&](const QString &slot) { return !values.contains(slot); });
    d->slotValues = values;
    d->slotsAreDue = true;
    if (isNarrower && d->pipelineIsOfFile)
        d->fileIsDue = true;
    d->changed();
}

QVariantMap ViewportRenderer::slotValues() const
{
    return d->slotValues;
}

void ViewportRenderer::setCamera(const OrbitCamera &camera)
{
    if (camera == d->camera)
        return;
    d->camera = camera;
    d->isChanged = true;
}

const OrbitCamera &ViewportRenderer::camera() const
{
    return d->camera;
}

void ViewportRenderer::setSelection(const QVector<int> &items)
{
    if (items == d->selection)
        return;
    d->selection = items;
    d->changed();
}

QVector<int> ViewportRenderer::selection() const
{
    return d->selection;
}

void ViewportRenderer::setOutline(const QColor &color, float width)
{
    d->outlineColor = color;
    d->outlineWidth = width;
    d->changed();
}

void ViewportRenderer::setBackdrop(const Backdrop &backdrop)
{
    if (backdrop == d->backdrop)
        return;
    d->backdrop = backdrop;
    d->changed();
}

const Backdrop &ViewportRenderer::backdrop() const
{
    return d->backdrop;
}

bool ViewportRenderer::needsFrame() const
{
    return d->isChanged || d->framesDue > 0 || (d->pipeline && d->pipeline->uses(QStringLiteral("frame")));
}

void ViewportRenderer::invalidate()
{
    d->changed();
}

void ViewportRenderer::setSettlingFrames(int frames)
{
    d->askedSettlingFrames = frames;
    d->changed();
}

int ViewportRenderer::settlingFrames() const
{
    return d->framesToSettle();
}

ViewportFrame ViewportRenderer::render(FramebufferObject *screen, const QSize &size)
{
    ViewportFrame frame;
    const ShaderFailureListener listener([&frame](const ShaderFailure &failure) {
        frame.shaderFailures << QStringLiteral("%1: %2").arg(failure.label, failure.log);
    });
    if (size.isEmpty())
        return frame;
    frame.isDrawn = d->prepare(&frame.errors);
    if (d->isChanged)
        d->framesDue = frame.isDrawn ? d->framesToSettle() : 1;
    d->isChanged = false;
    if (frame.isDrawn) {
        d->setAccumulationsDirty(std::exchange(d->isAccumulationStale, false));
        frame.isDrawn = d->draw(screen, size, &frame);
    }
    if (frame.isDrawn) {
        d->drawBackdrop(screen, size);
        d->drawOutline(screen, size);
        ++d->frames;
    } else if (currentShareGroup() != 0) {
        clear(screen);
    }
    d->framesDue = std::max(0, d->framesDue - 1);
    frame.number = d->frames;
    return frame;
}

Pick ViewportRenderer::pick(const QPoint &pixel, const QSize &size)
{
    if (!d->model() || size.isEmpty() || !QRect(QPoint(), size).contains(pixel))
        return {};
    d->startPick(QRect(pixel, QSize(1, 1)), size);
    Pick pick = d->picker->at(QPoint(pixel.x(), size.height() - 1 - pixel.y()));
    if (pick.isHit())
        pick.material = d->materials.value(pick.item, -1);
    return pick;
}

QVector<int> ViewportRenderer::itemsIn(const QRect &area, const QSize &size)
{
    // By hand: what Qt asks of rectangles overflows where they are as wide as integers go.
    const QRect seen(QPoint(std::max(area.left(), 0), std::max(area.top(), 0)),
                     QPoint(std::min(area.right(), size.width() - 1), std::min(area.bottom(), size.height() - 1)));
    if (!d->model() || size.isEmpty() || !seen.isValid())
        return {};
    d->startPick(seen, size);
    return d->picker->itemsIn(QRect(QPoint(), size));
}

QImage ViewportRenderer::grab(const QSize &size, QString *error)
{
    ViewportFrame frame;
    ScreenTarget target;
    QImage picture;
    if (!d->prepare(&frame.errors)) {
        fail(error, frame.errors.join(u'\n'));
        return picture;
    }
    if (!target.resize(size, error))
        return picture;
    target.clear();
    bool isDrawn = true;
    for (int i = 0; isDrawn && i < d->framesToSettle(); ++i) {
        d->setAccumulationsDirty(i == 0);
        isDrawn = d->draw(target.framebuffer(), size, &frame);
    }
    if (isDrawn) {
        d->drawBackdrop(target.framebuffer(), size);
        picture = target.image(error);
    } else
        fail(error, frame.errors.join(u'\n'));
    // What has gathered is of another picture now.
    d->changed();
    return picture;
}

void ViewportRenderer::releaseContext()
{
    if (d->pipeline)
        d->pipeline->teardown();
    d->releaseModels();
    d->picker.reset();
    d->outline.reset();
    d->shareGroup = 0;
    d->uploadIsDue = d->hasData;
    d->changed();
}

} // namespace Brevane::Kvo
