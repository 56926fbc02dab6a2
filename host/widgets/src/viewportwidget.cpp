#include "host/viewportwidget.h"

#include "filewatch.h"
#include "gl/framebufferobject.h"
#include "host/camerahand.h"
#include "host/pipeline.h"
#include "host/viewportrenderer.h"

#include <QApplication>
#include <QMouseEvent>
#include <QNativeGestureEvent>
#include <QOffscreenSurface>
#include <QOpenGLContext>
#include <QPointingDevice>
#include <QRubberBand>
#include <QSurfaceFormat>
#include <QTouchEvent>
#include <QWheelEvent>

#include <algorithm>
#include <cmath>
#include <optional>

namespace Brevane::Kvo {

namespace {

constexpr double kStep = 120.0; // of a wheel, in eighths of a degree
constexpr float kUsualAspect = 16.0f / 9.0f;

/// The widget's context, unless it is current anyway, as in paintGL.
class Current
{
public:
    explicit Current(QOpenGLWidget *widget)
        : _widget(widget->isValid() && QOpenGLContext::currentContext() != widget->context() ? widget : nullptr)
    {
        if (_widget)
            _widget->makeCurrent();
    }
    ~Current()
    {
        if (_widget)
            _widget->doneCurrent();
    }
    Current(const Current &) = delete;
    Current &operator=(const Current &) = delete;

private:
    QOpenGLWidget *_widget;
};

} // namespace

class ViewportWidgetPrivate
{
public:
    explicit ViewportWidgetPrivate(ViewportWidget *widget) : q(widget) {}

    QSize pixels() const { return q->size() * q->devicePixelRatio(); }
    QPoint pixelAt(const QPointF &position) const
    {
        const double ratio = q->devicePixelRatio();
        return {int(std::floor(position.x() * ratio)), int(std::floor(position.y() * ratio))};
    }
    float aspect() const { return q->height() > 0 ? float(q->width()) / float(q->height()) : kUsualAspect; }
    /// Some passes look at the context when they are made; a widget that was not shown has none yet.
    template <typename Load>
    bool withContext(const Load &load) const
    {
        QOffscreenSurface surface;
        QOpenGLContext trial;
        if (!q->isValid()) {
            surface.create();
            trial.create() && trial.makeCurrent(&surface);
        }
        const Current current(q);
        return load();
    }
    void fitIfDue();
    /// The surface under the cursor, which the hand has hold of.
    std::optional<QVector3D> surfaceAt(const QPointF &position);
    void report(const ViewportFrame &frame);

    ViewportWidget *q;
    ViewportRenderer renderer;
    FileWatch watch;
    bool isRunning = false;
    bool isSelecting = true;
    bool isFitDue = true;
    bool isTargetNew = true;
    int frames = 0;
    QStringList errors;
    QStringList faults;

    CameraHand hand{[this](const QPointF &at) { return surfaceAt(at); }};
    std::unique_ptr<QRubberBand> band;
};

void ViewportWidgetPrivate::fitIfDue()
{
    if (!std::exchange(isFitDue, false))
        return;
    OrbitCamera camera = renderer.camera();
    camera.setScene(renderer.bounds());
    camera.fit(aspect());
    renderer.setCamera(camera);
}

std::optional<QVector3D> ViewportWidgetPrivate::surfaceAt(const QPointF &position)
{
    const Current current(q);
    const Pick pick = renderer.pick(pixelAt(position), pixels());
    return pick.isHit() ? std::optional(pick.position) : std::nullopt;
}

void ViewportWidgetPrivate::report(const ViewportFrame &frame)
{
    if (frame.errors != errors)
        Q_EMIT q->errorsChanged(errors = frame.errors);
    if (frame.faults != faults)
        Q_EMIT q->faultsChanged(faults = frame.faults);
    for (const QString &failure : frame.shaderFailures)
        Q_EMIT q->shaderFailed(failure);
    if (frame.isDrawn)
        Q_EMIT q->frameDrawn(frames);
}

ViewportWidget::ViewportWidget(QWidget *parent)
    : QOpenGLWidget(parent), d(std::make_unique<ViewportWidgetPrivate>(this))
{
    setFocusPolicy(Qt::StrongFocus);
    setAttribute(Qt::WA_AcceptTouchEvents);
    // What was drawn stays, so that a paint event without a change costs nothing.
    setUpdateBehavior(PartialUpdate);
    resize(960, 600);
    d->watch.setHandler([this] {
        QStringList mistakes;
        {
            const Current current(this);
            d->renderer.reload(&mistakes);
        }
        update();
        Q_EMIT pipelineReloaded(mistakes);
    });
}

ViewportWidget::~ViewportWidget()
{
    // The context outlives this part of the widget.
    if (context())
        context()->disconnect(this);
    const Current current(this);
    d->renderer.releaseContext();
    d.reset();
}

void ViewportWidget::setDefaultFormat()
{
    QSurfaceFormat format = QSurfaceFormat::defaultFormat();
    format.setVersion(4, 5); // the nearest that the driver has comes
    format.setProfile(QSurfaceFormat::CoreProfile);
    format.setDepthBufferSize(24);
    format.setStencilBufferSize(8);
    QSurfaceFormat::setDefaultFormat(format);
}

void ViewportWidget::setModel(const ModelData &model)
{
    const Current current(this);
    d->renderer.setModel(model);
    d->isFitDue = true;
    update();
}

void ViewportWidget::setModel(GPUModel *model, GPUModel *opaque)
{
    const Current current(this);
    d->renderer.setModel(model, opaque);
    d->isFitDue = true;
    update();
}

bool ViewportWidget::setPipelineFile(const QString &nameOrPath, QStringList *errors)
{
    if (!d->withContext([&] { return d->renderer.setPipelineFile(nameOrPath, errors); }))
        return false;
    d->watch.setFile(d->renderer.pipelineFile());
    update();
    return true;
}

bool ViewportWidget::setPipelineText(const QByteArray &text, const QString &path, QStringList *errors)
{
    if (!d->withContext([&] { return d->renderer.setPipelineText(text, path, errors); }))
        return false;
    d->watch.setFile(QString());
    update();
    return true;
}

QString ViewportWidget::pipelineFile() const
{
    return d->renderer.pipelineFile();
}

void ViewportWidget::setPipeline(std::unique_ptr<Pipeline> pipeline)
{
    const Current current(this);
    d->watch.setFile(QString());
    d->renderer.setPipeline(std::move(pipeline));
    update();
}

Pipeline *ViewportWidget::pipeline() const
{
    return d->renderer.pipeline();
}

void ViewportWidget::setTimingEnabled(bool enabled)
{
    d->renderer.setTimingEnabled(enabled);
}

void ViewportWidget::setSlotValues(const QVariantMap &values)
{
    d->renderer.setSlotValues(values);
    update();
}

QVariantMap ViewportWidget::slotValues() const
{
    return d->renderer.slotValues();
}

void ViewportWidget::invalidate()
{
    d->renderer.invalidate();
    update();
}

void ViewportWidget::setRunning(bool running)
{
    d->isRunning = running;
    update();
}

bool ViewportWidget::isSettled() const
{
    return !d->renderer.needsFrame();
}

void ViewportWidget::setSettlingFrames(int frames)
{
    d->renderer.setSettlingFrames(frames);
    update();
}

int ViewportWidget::settlingFrames() const
{
    return d->renderer.settlingFrames();
}

int ViewportWidget::frameCount() const
{
    return d->frames;
}

OrbitCamera ViewportWidget::camera() const
{
    // What a fit that is due will make of it.
    d->fitIfDue();
    return d->renderer.camera();
}

void ViewportWidget::setCamera(const OrbitCamera &camera)
{
    d->isFitDue = false;
    change(camera);
}

void ViewportWidget::change(const OrbitCamera &camera)
{
    if (camera == d->renderer.camera())
        return;
    d->renderer.setCamera(camera);
    update();
    Q_EMIT cameraChanged();
}

void ViewportWidget::fit()
{
    OrbitCamera moved = camera();
    moved.setScene(d->renderer.bounds());
    moved.fit(d->aspect());
    change(moved);
}

void ViewportWidget::look(OrbitCamera::View view)
{
    OrbitCamera turned = camera();
    turned.look(view);
    change(turned);
}

void ViewportWidget::setOrthographic(bool orthographic)
{
    OrbitCamera other = camera();
    other.setOrthographic(orthographic);
    change(other);
}

void ViewportWidget::setUp(const QVector3D &up)
{
    OrbitCamera turned = camera();
    turned.setUp(up);
    change(turned);
}

void ViewportWidget::setBackdrop(const Backdrop &backdrop)
{
    d->renderer.setBackdrop(backdrop);
    update();
}

Backdrop ViewportWidget::backdrop() const
{
    return d->renderer.backdrop();
}

Pick ViewportWidget::pickAt(const QPoint &position)
{
    const Current current(this);
    return d->renderer.pick(d->pixelAt(position), d->pixels());
}

QVector<int> ViewportWidget::itemsIn(const QRect &area)
{
    const Current current(this);
    // A pixel beyond the widget is as far away as any.
    const auto near = [this](const QPoint &p) {
        return QPoint(std::clamp(p.x(), -1, width()), std::clamp(p.y(), -1, height()));
    };
    const QRect whole = QRect(near(area.topLeft()), near(area.bottomRight())).normalized();
    const QPoint corner = d->pixelAt(whole.topLeft());
    const QPoint behind = d->pixelAt(whole.bottomRight() + QPoint(1, 1));
    return d->renderer.itemsIn(QRect(corner, behind - QPoint(1, 1)), d->pixels());
}

QVector<int> ViewportWidget::selection() const
{
    return d->renderer.selection();
}

void ViewportWidget::setSelection(const QVector<int> &items)
{
    if (items == d->renderer.selection())
        return;
    d->renderer.setSelection(items);
    update();
    Q_EMIT selectionChanged(items);
}

void ViewportWidget::select(const QVector<int> &items)
{
    if (d->isSelecting)
        setSelection(items);
}

void ViewportWidget::setOutline(const QColor &color, float width)
{
    d->renderer.setOutline(color, width);
    update();
}

void ViewportWidget::setSelecting(bool selecting)
{
    d->isSelecting = selecting;
}

QImage ViewportWidget::grabPicture(const QSize &size, QString *error)
{
    // A widget that was never shown has no context yet; this makes it.
    if (!isValid())
        grabFramebuffer();
    const Current current(this);
    d->fitIfDue();
    const QImage picture = d->renderer.grab(size, error);
    update();
    return picture;
}

void ViewportWidget::initializeGL()
{
    // A widget that comes into another window gets another context.
    connect(
        context(), &QOpenGLContext::aboutToBeDestroyed, this,
        [this] {
            const Current current(this);
            d->renderer.releaseContext();
        },
        Qt::DirectConnection);
    d->isTargetNew = true;
}

void ViewportWidget::resizeGL(int, int)
{
    d->isTargetNew = true;
}

void ViewportWidget::paintGL()
{
    const bool isNew = std::exchange(d->isTargetNew, false);
    d->fitIfDue();
    if (!d->isRunning && !isNew && !d->renderer.needsFrame())
        return;
    if (isNew)
        d->renderer.invalidate();
    const std::unique_ptr<FramebufferObject> screen(FramebufferObject::wrap(defaultFramebufferObject()));
    const ViewportFrame frame = d->renderer.render(screen.get(), d->pixels());
    d->frames += frame.isDrawn ? 1 : 0;
    if (d->isRunning || d->renderer.needsFrame())
        update();
    d->report(frame);
}

bool ViewportWidget::event(QEvent *event)
{
    switch (event->type()) {
    case QEvent::TouchBegin:
    case QEvent::TouchUpdate:
    case QEvent::TouchEnd:
    case QEvent::TouchCancel:
        touch(*static_cast<QTouchEvent *>(event));
        event->accept();
        return true;
    case QEvent::NativeGesture:
        if (gesture(*static_cast<QNativeGestureEvent *>(event)))
            return true;
        break;
    default: break;
    }
    return QOpenGLWidget::event(event);
}

void ViewportWidget::touch(const QTouchEvent &event)
{
    QVector<QPointF> fingers;
    if (event.type() != QEvent::TouchEnd && event.type() != QEvent::TouchCancel) {
        for (const QEventPoint &point : event.points())
            if (point.state() != QEventPoint::Released)
                fingers.append(point.position());
    }
    OrbitCamera moved = camera();
    d->hand.touch(&moved, fingers, size());
    change(moved);
}

bool ViewportWidget::gesture(const QNativeGestureEvent &event)
{
    OrbitCamera moved = camera();
    switch (event.gestureType()) {
    case Qt::ZoomNativeGesture:
        moved.zoom(float(std::max(0.1, 1.0 + event.value())), event.position(), size(), d->surfaceAt(event.position()));
        break;
    case Qt::PanNativeGesture: moved.pan(QPointF(), event.delta(), size()); break;
    case Qt::SmartZoomNativeGesture: fit(); return true;
    default: return false;
    }
    change(moved);
    return true;
}

void ViewportWidget::mousePressEvent(QMouseEvent *event)
{
    d->hand.press(event->button(), event->modifiers(), event->position());
}

void ViewportWidget::mouseMoveEvent(QMouseEvent *event)
{
    OrbitCamera moved = camera();
    d->hand.move(&moved, event->position(), size(), QApplication::startDragDistance());
    change(moved);
    if (d->hand.drag() == CameraHand::Drag::Area) {
        if (!d->band)
            d->band = std::make_unique<QRubberBand>(QRubberBand::Rectangle, this);
        d->band->setGeometry(QRect(d->hand.pressedAt().toPoint(), event->position().toPoint()).normalized());
        d->band->show();
    }
}

void ViewportWidget::mouseReleaseEvent(QMouseEvent *event)
{
    bool wasClick = false;
    const CameraHand::Drag drag = d->hand.release(&wasClick);
    if (d->band)
        d->band->hide();
    if (wasClick) {
        const Pick pick = pickAt(event->position().toPoint());
        select(pick.isHit() ? QVector<int>{pick.item} : QVector<int>());
        Q_EMIT clicked(pick);
    } else if (drag == CameraHand::Drag::Area) {
        const QRect area = QRect(d->hand.pressedAt().toPoint(), event->position().toPoint()).normalized();
        const QVector<int> items = itemsIn(area);
        select(items);
        Q_EMIT areaSelected(items);
    }
}

void ViewportWidget::mouseDoubleClickEvent(QMouseEvent *)
{
    d->hand.cancelClick();
    fit();
}

void ViewportWidget::wheelEvent(QWheelEvent *event)
{
    const bool isTrackpad = event->device() && event->device()->type() == QInputDevice::DeviceType::TouchPad
                            && !event->pixelDelta().isNull() && !event->modifiers().testFlag(Qt::ControlModifier);
    OrbitCamera moved = camera();
    if (isTrackpad)
        moved.pan(QPointF(), event->pixelDelta(), size());
    else
        d->hand.wheel(&moved, double(event->angleDelta().y()) / kStep, event->position(), size());
    change(moved);
    event->accept();
}

void ViewportWidget::keyPressEvent(QKeyEvent *event)
{
    using View = OrbitCamera::View;
    const bool isOpposite = event->modifiers().testFlag(Qt::ControlModifier);
    switch (event->key()) {
    case Qt::Key_F: fit(); break;
    case Qt::Key_1: look(isOpposite ? View::Back : View::Front); break;
    case Qt::Key_3: look(isOpposite ? View::Left : View::Right); break;
    case Qt::Key_7: look(isOpposite ? View::Bottom : View::Top); break;
    case Qt::Key_0: look(View::Isometric); break;
    case Qt::Key_5: setOrthographic(!camera().isOrthographic()); break;
    default: QOpenGLWidget::keyPressEvent(event);
    }
}

} // namespace Brevane::Kvo
