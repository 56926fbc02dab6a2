#include "host/viewportitem.h"

#include "filewatch.h"
#include "gl/framebufferobject.h"
#include "host/camerahand.h"
#include "host/pipelinefile.h"
#include "host/sceneimport.h"
#include "host/viewportrenderer.h"

#include <QGuiApplication>
#include <QMutex>
#include <QOpenGLFramebufferObject>
#include <QQuickWindow>
#include <QSGRendererInterface>
#include <QStyleHints>
#include <QThreadPool>
#include <QtQml>

#include <algorithm>
#include <cmath>
#include <functional>
#include <utility>

namespace Brevane::Kvo {

namespace {

constexpr double kStep = 120.0; // of a wheel, in eighths of a degree

// The library serves one thread at a time, and windows may have one each.
QMutex &libraryMutex()
{
    static QMutex mutex;
    return mutex;
}

/// Brings what happened on other threads to the item, for as long as there is one.
class Mailbox
{
public:
    explicit Mailbox(QObject *receiver) : _receiver(receiver) {}

    void close()
    {
        const QMutexLocker locker(&_mutex);
        _receiver = nullptr;
    }

    void post(std::function<void()> message)
    {
        const QMutexLocker locker(&_mutex);
        if (_receiver)
            QMetaObject::invokeMethod(_receiver, std::move(message), Qt::QueuedConnection);
    }

private:
    QMutex _mutex;
    QObject *_receiver;
};

struct PickRequest
{
    QPointF at;
    bool isClick = false;
};

struct GrabRequest
{
    QString file;
    QSize size;
};

/// What the item asks for, as its renderer gets it while the item's thread waits.
struct Wishes
{
    ModelData model;
    int modelRevision = 0;
    QString pipeline;
    int pipelineRevision = 0;
    QVariantMap slotValues;
    OrbitCamera camera;
    QVector<int> selection;
    QColor outlineColor{0xff, 0x9a, 0x1f};
    QSizeF size;
    QVector<PickRequest> picks;
    QVector<GrabRequest> grabs;
};

QVariantMap mapOf(const Pick &pick)
{
    return {{QStringLiteral("item"), pick.item},
            {QStringLiteral("triangle"), pick.triangle},
            {QStringLiteral("material"), pick.material},
            {QStringLiteral("position"), pick.position}};
}

} // namespace

class ViewportItemPrivate
{
public:
    explicit ViewportItemPrivate(ViewportItem *item) : q(item), mailbox(std::make_shared<Mailbox>(item)) {}

    void change(const OrbitCamera &camera);
    void load();
    void setModel(const ModelData &model);
    void setErrors(const QString &place, const QStringList &lines);
    void setSettled(bool settled);
    void fitIfDue();
    float aspect() const { return q->height() > 0 ? float(q->width() / q->height()) : 1.0f; }

    ViewportItem *q;
    std::shared_ptr<Mailbox> mailbox;
    Wishes wishes;
    FileWatch watch;
    CameraHand hand;
    QUrl source;
    int loading = 0; ///< Number of the load that counts.
    bool isFitDue = true;
    bool isInteractive = true;
    bool isSettled = false;
    bool isBackendSaid = false;
    QMap<QString, QStringList> errors; ///< By what they are about.
};

namespace {

/// Lives where the scene graph renders, with its context.
class ViewportItemRenderer : public QQuickFramebufferObject::Renderer
{
public:
    ViewportItemRenderer(ViewportItem *item, ViewportItemPrivate *shared, std::shared_ptr<Mailbox> mailbox)
        : _item(item), _shared(shared), _mailbox(std::move(mailbox)), _renderer(std::make_unique<ViewportRenderer>())
    {}

    ~ViewportItemRenderer() override
    {
        const QMutexLocker locker(&libraryMutex());
        _renderer->releaseContext();
        _renderer.reset();
    }

    QOpenGLFramebufferObject *createFramebufferObject(const QSize &size) override
    {
        _isTargetNew = true;
        return new QOpenGLFramebufferObject(size, QOpenGLFramebufferObject::CombinedDepthStencil);
    }

    void synchronize(QQuickFramebufferObject *) override
    {
        _wishes = _shared->wishes;
        _shared->wishes.picks.clear();
        _shared->wishes.grabs.clear();
    }

    void render() override
    {
        const QMutexLocker locker(&libraryMutex());
        takeOver();
        const QSize size = framebufferObject()->size();
        if (std::exchange(_isTargetNew, false))
            _renderer->invalidate();
        if (_renderer->needsFrame()) {
            const std::unique_ptr<FramebufferObject> screen(FramebufferObject::wrap(framebufferObject()->handle()));
            report(_renderer->render(screen.get(), size));
        }
        answer(size);
        const bool goesOn = _renderer->needsFrame();
        if (goesOn)
            update();
        _mailbox->post([shared = _shared, goesOn] { shared->setSettled(!goesOn); });
    }

private:
    void takeOver()
    {
        if (_wishes.modelRevision != _modelRevision) {
            _modelRevision = _wishes.modelRevision;
            _renderer->setModel(_wishes.model);
        }
        if (_wishes.pipelineRevision != _pipelineRevision) {
            _pipelineRevision = _wishes.pipelineRevision;
            QStringList errors;
            if (!_wishes.pipeline.isEmpty())
                _renderer->setPipelineFile(_wishes.pipeline, &errors);
            _mailbox->post([shared = _shared, errors] { shared->setErrors(QStringLiteral("pipeline"), errors); });
        }
        _renderer->setSlotValues(_wishes.slotValues);
        _renderer->setCamera(_wishes.camera);
        _renderer->setSelection(_wishes.selection);
        if (_wishes.outlineColor != _outlineColor) {
            _outlineColor = _wishes.outlineColor;
            _renderer->setOutline(_outlineColor, 2.0f);
        }
    }

    void report(const ViewportFrame &frame)
    {
        _mailbox->post([item = _item, shared = _shared, frame, isBare = _wishes.pipeline.isEmpty()] {
            // Without a pipeline there is nothing to complain of yet.
            shared->setErrors(QStringLiteral("frame"), isBare ? QStringList() : frame.errors);
            if (!frame.faults.isEmpty())
                Q_EMIT item->faultsFound(frame.faults);
            for (const QString &failure : frame.shaderFailures)
                Q_EMIT item->shaderFailed(failure);
            if (frame.isDrawn)
                Q_EMIT item->frameDrawn(frame.number);
        });
    }

    void answer(const QSize &size)
    {
        for (const PickRequest &request : std::exchange(_wishes.picks, {})) {
            const QPoint pixel(int(std::floor(request.at.x() / _wishes.size.width() * size.width())),
                               int(std::floor(request.at.y() / _wishes.size.height() * size.height())));
            const QVariantMap pick = mapOf(_renderer->pick(pixel, size));
            _mailbox->post([item = _item, pick, isClick = request.isClick] {
                if (isClick)
                    Q_EMIT item->clicked(pick);
                else
                    Q_EMIT item->picked(pick);
            });
        }
        for (const GrabRequest &request : std::exchange(_wishes.grabs, {})) {
            QString error;
            const QImage picture = _renderer->grab(request.size, &error);
            if (!picture.isNull() && !picture.save(request.file))
                error = QStringLiteral("cannot write '%1'").arg(request.file);
            _mailbox->post([item = _item, file = request.file, error] { Q_EMIT item->grabbed(file, error); });
        }
    }

    // Both are touched in synchronize, while the item's thread waits, and in messages, on that thread.
    ViewportItem *_item;
    ViewportItemPrivate *_shared;
    std::shared_ptr<Mailbox> _mailbox;
    std::unique_ptr<ViewportRenderer> _renderer;
    Wishes _wishes;
    int _modelRevision = 0;
    int _pipelineRevision = 0;
    QColor _outlineColor;
    bool _isTargetNew = true;
};

} // namespace

void ViewportItemPrivate::change(const OrbitCamera &camera)
{
    if (camera == wishes.camera)
        return;
    wishes.camera = camera;
    q->update();
    Q_EMIT q->cameraChanged();
}

void ViewportItemPrivate::fitIfDue()
{
    if (!isFitDue || wishes.model.items.isEmpty() || q->width() <= 0 || q->height() <= 0)
        return;
    isFitDue = false;
    q->fit();
}

// On another thread: models may be large.
void ViewportItemPrivate::load()
{
    const int number = ++loading;
    if (source.isEmpty()) {
        setModel(ModelData());
        return;
    }
    const QString path = source.isLocalFile() ? source.toLocalFile() : source.toString();
    QThreadPool::globalInstance()->start([this, mail = mailbox, path, number] {
        ImportReport report;
        const ModelData model = importScene(path, ImportOptions(), &report);
        mail->post([this, model, report, number] {
            if (number != loading)
                return;
            setErrors(QStringLiteral("source"), report.ok() ? QStringList() : QStringList{report.error});
            if (report.ok())
                setModel(model);
        });
    });
}

void ViewportItemPrivate::setModel(const ModelData &model)
{
    wishes.model = model;
    ++wishes.modelRevision;
    OrbitCamera camera = wishes.camera;
    camera.setScene(boxOf(model));
    change(camera);
    fitIfDue();
    q->update();
}

void ViewportItemPrivate::setErrors(const QString &place, const QStringList &lines)
{
    if (errors.value(place) == lines)
        return;
    errors[place] = lines;
    Q_EMIT q->errorsChanged();
}

void ViewportItemPrivate::setSettled(bool settled)
{
    if (std::exchange(isSettled, settled) != settled)
        Q_EMIT q->settledChanged();
}

ViewportItem::ViewportItem(QQuickItem *parent)
    : QQuickFramebufferObject(parent), d(std::make_unique<ViewportItemPrivate>(this))
{
    setAcceptedMouseButtons(Qt::AllButtons);
    setAcceptTouchEvents(true);
    setMirrorVertically(true); // GL's first row is the lowest
    d->watch.setHandler([this] {
        ++d->wishes.pipelineRevision;
        update();
    });
}

ViewportItem::~ViewportItem()
{
    d->mailbox->close();
}

QQuickFramebufferObject::Renderer *ViewportItem::createRenderer() const
{
    return new ViewportItemRenderer(const_cast<ViewportItem *>(this), d.get(), d->mailbox);
}

void ViewportItem::lockLibrary()
{
    libraryMutex().lock();
}

void ViewportItem::unlockLibrary()
{
    libraryMutex().unlock();
}

QSGNode *ViewportItem::updatePaintNode(QSGNode *node, UpdatePaintNodeData *data)
{
    // On the scene graph's thread, while the item's waits.
    const auto api = window()->rendererInterface()->graphicsApi();
    if (api == QSGRendererInterface::OpenGL)
        return QQuickFramebufferObject::updatePaintNode(node, data);
    d->mailbox->post([this, api] {
        d->setErrors(QStringLiteral("backend"),
                     {QStringLiteral("the scene graph does not run on OpenGL here (but on backend %1): call "
                                     "QQuickWindow::setGraphicsApi(QSGRendererInterface::OpenGL) before the first "
                                     "window, or set QSG_RHI_BACKEND=opengl")
                          .arg(int(api))});
        if (!std::exchange(d->isBackendSaid, true))
            qWarning("Kvo Viewport: %s", qPrintable(errors().value(0)));
    });
    delete node;
    return nullptr;
}

QUrl ViewportItem::source() const
{
    return d->source;
}

void ViewportItem::setSource(const QUrl &source)
{
    if (source == d->source)
        return;
    d->source = source;
    d->isFitDue = true;
    if (isComponentComplete())
        d->load();
    Q_EMIT sourceChanged();
}

void ViewportItem::setModel(const ModelData &model)
{
    ++d->loading;
    d->isFitDue = true;
    d->setModel(model);
}

QString ViewportItem::pipeline() const
{
    return d->wishes.pipeline;
}

void ViewportItem::setPipeline(const QString &nameOrPath)
{
    const QUrl url(nameOrPath);
    const QString name = url.isLocalFile() ? url.toLocalFile() : nameOrPath;
    if (name == d->wishes.pipeline)
        return;
    d->wishes.pipeline = name;
    ++d->wishes.pipelineRevision;
    d->watch.setFile(name.isEmpty() ? QString() : findPipeline(name, pipelineSearchPath()));
    update();
    Q_EMIT pipelineChanged();
}

QVariantMap ViewportItem::slotValues() const
{
    return d->wishes.slotValues;
}

void ViewportItem::setSlotValues(const QVariantMap &values)
{
    if (values == d->wishes.slotValues)
        return;
    d->wishes.slotValues = values;
    update();
    Q_EMIT slotValuesChanged();
}

OrbitCamera ViewportItem::camera() const
{
    return d->wishes.camera;
}

void ViewportItem::setCamera(const OrbitCamera &camera)
{
    d->isFitDue = false;
    d->change(camera);
}

void ViewportItem::setYaw(qreal yaw)
{
    OrbitCamera moved = camera();
    moved.setAngles(float(yaw), moved.pitch());
    d->change(moved);
}

void ViewportItem::setPitch(qreal pitch)
{
    OrbitCamera moved = camera();
    moved.setAngles(moved.yaw(), float(pitch));
    d->change(moved);
}

void ViewportItem::setDistance(qreal distance)
{
    OrbitCamera moved = camera();
    moved.setDistance(float(distance));
    setCamera(moved);
}

void ViewportItem::setPivot(const QVector3D &pivot)
{
    OrbitCamera moved = camera();
    moved.setPivot(pivot);
    setCamera(moved);
}

void ViewportItem::setFieldOfView(qreal degrees)
{
    OrbitCamera moved = camera();
    moved.setFieldOfView(float(degrees));
    d->change(moved);
}

void ViewportItem::setOrthographic(bool orthographic)
{
    OrbitCamera moved = camera();
    moved.setOrthographic(orthographic);
    d->change(moved);
}

void ViewportItem::setUp(const QVector3D &up)
{
    OrbitCamera moved = camera();
    moved.setUp(up);
    d->change(moved);
}

QList<int> ViewportItem::selection() const
{
    return d->wishes.selection;
}

void ViewportItem::setSelection(const QList<int> &items)
{
    if (items == d->wishes.selection)
        return;
    d->wishes.selection = items;
    update();
    Q_EMIT selectionChanged();
}

QColor ViewportItem::outlineColor() const
{
    return d->wishes.outlineColor;
}

void ViewportItem::setOutlineColor(const QColor &color)
{
    if (color == d->wishes.outlineColor)
        return;
    d->wishes.outlineColor = color;
    update();
    Q_EMIT outlineColorChanged();
}

bool ViewportItem::isInteractive() const
{
    return d->isInteractive;
}

void ViewportItem::setInteractive(bool interactive)
{
    if (std::exchange(d->isInteractive, interactive) == interactive)
        return;
    setAcceptedMouseButtons(interactive ? Qt::AllButtons : Qt::NoButton);
    setAcceptTouchEvents(interactive);
    Q_EMIT interactiveChanged();
}

bool ViewportItem::isSettled() const
{
    return d->isSettled;
}

QStringList ViewportItem::errors() const
{
    QStringList all;
    for (const QStringList &lines : std::as_const(d->errors))
        all += lines;
    return all;
}

void ViewportItem::fit()
{
    OrbitCamera moved = camera();
    moved.fit(d->aspect());
    d->change(moved);
}

void ViewportItem::look(View view)
{
    OrbitCamera moved = camera();
    moved.look(OrbitCamera::View(view));
    d->change(moved);
}

void ViewportItem::pick(qreal x, qreal y)
{
    d->wishes.picks.append({QPointF(x, y), false});
    update();
}

void ViewportItem::grab(const QString &file, int width, int height)
{
    d->wishes.grabs.append({file, QSize(width, height)});
    update();
}

void ViewportItem::componentComplete()
{
    QQuickFramebufferObject::componentComplete();
    if (!d->source.isEmpty())
        d->load();
}

void ViewportItem::geometryChange(const QRectF &now, const QRectF &before)
{
    QQuickFramebufferObject::geometryChange(now, before);
    d->wishes.size = now.size();
    d->fitIfDue();
    update();
}

void ViewportItem::mousePressEvent(QMouseEvent *event)
{
    d->hand.press(event->button(), event->modifiers(), event->position());
    setKeepMouseGrab(true);
}

void ViewportItem::mouseMoveEvent(QMouseEvent *event)
{
    OrbitCamera moved = camera();
    d->hand.move(&moved, event->position(), size(), QGuiApplication::styleHints()->startDragDistance());
    d->change(moved);
}

void ViewportItem::mouseReleaseEvent(QMouseEvent *event)
{
    bool wasClick = false;
    d->hand.release(&wasClick);
    if (!wasClick)
        return;
    d->wishes.picks.append({event->position(), true});
    update();
}

void ViewportItem::mouseDoubleClickEvent(QMouseEvent *)
{
    d->hand.cancelClick();
    fit();
}

void ViewportItem::wheelEvent(QWheelEvent *event)
{
    if (!d->isInteractive) {
        event->ignore();
        return;
    }
    OrbitCamera moved = camera();
    d->hand.wheel(&moved, double(event->angleDelta().y()) / kStep, event->position(), size());
    d->change(moved);
}

void ViewportItem::touchEvent(QTouchEvent *event)
{
    QVector<QPointF> fingers;
    if (event->type() != QEvent::TouchEnd && event->type() != QEvent::TouchCancel) {
        for (const QEventPoint &point : event->points())
            if (point.state() != QEventPoint::Released)
                fingers.append(point.position());
    }
    OrbitCamera moved = camera();
    d->hand.touch(&moved, fingers, size());
    d->change(moved);
}

void registerQuickTypes()
{
    qmlRegisterType<ViewportItem>("Kvo", 1, 0, "Viewport");
}

} // namespace Brevane::Kvo
