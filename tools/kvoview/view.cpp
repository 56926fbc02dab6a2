#include "view.h"

#include "gl/direction.h"
#include "host/pipelinefile.h"
#include "host/sceneimport.h"

#include <QMouseEvent>
#include <QOpenGLContext>
#include <QWheelEvent>

#include <algorithm>

using namespace Brevane::Kvo;

namespace {

constexpr float kDegreesPerPixel = 0.4f;
constexpr float kZoomStep = 1.1f;

} // namespace

View::View(const ModelData &model) : _data(model)
{
    setMinimumSize(160, 90);
    setFocusPolicy(Qt::StrongFocus);
}

View::~View()
{
    // The context outlives this part of the widget.
    if (context())
        context()->disconnect(this);
    makeCurrent();
    release();
    doneCurrent();
}

void View::release()
{
    _pipeline.reset();
    _model.reset();
    _opaqueModel.reset();
    _screen.reset();
}

void View::initializeGL()
{
    // A widget that comes into another window gets another context.
    connect(context(), &QOpenGLContext::aboutToBeDestroyed, this, [this] {
        makeCurrent();
        release();
        doneCurrent();
    });
    _model = std::make_unique<GPUModel>();
    QStringList errors;
    if (!_data.items.isEmpty())
        _model->upload(_data, &errors);
    if (!_pipelinePath.isEmpty())
        load(_pipelinePath, &errors);
    if (!errors.isEmpty() && _onFrame)
        _onFrame(errors.join(QLatin1Char('\n')));
}

bool View::setPipeline(const QString &path, QStringList *errors)
{
    // Without a context the file is read when there is one; what is wrong with it shows now.
    if (!isValid()) {
        Pipeline trial;
        _pipelinePath = path;
        return loadPipeline(path, &trial, errors);
    }
    makeCurrent();
    const bool loaded = load(path, errors);
    doneCurrent();
    update();
    return loaded;
}

bool View::load(const QString &path, QStringList *errors)
{
    auto pipeline = std::make_unique<Pipeline>();
    if (!loadPipeline(path, pipeline.get(), errors))
        return false;
    if (pipeline->uses(QStringLiteral("opaque")) && !_opaqueModel) {
        _opaqueModel = std::make_unique<GPUModel>();
        _opaqueModel->upload(opaquePartOf(_data));
    }
    pipeline->setModel(_model.get(), _opaqueModel.get());
    pipeline->setTimingEnabled(true);
    _pipeline = std::move(pipeline);
    _pipelinePath = path;
    return true;
}

void View::setRunning(bool running)
{
    _running = running;
    update();
}

QString View::times() const
{
    double gpu = 0.0;
    double cpu = 0.0;
    if (_pipeline) {
        for (const PassTiming &timing : _pipeline->timings()) {
            gpu += timing.gpuMedian;
            cpu += timing.cpuMedian;
        }
    }
    return QStringLiteral("GPU %1 ms, CPU %2 ms").arg(gpu, 0, 'f', 2).arg(cpu, 0, 'f', 2);
}

Camera View::camera(float aspect) const
{
    Camera camera;
    camera.fit(_model->sceneBounds(), _yaw, _pitch, aspect, _zoom);
    camera.eye += _moved;
    camera.target += _moved;
    camera.setDepthRange(_model->sceneBounds());
    return camera;
}

void View::paintGL()
{
    QString error;
    if (_pipeline) {
        const QSize pixels = size() * devicePixelRatio();
        const float aspect = float(pixels.width()) / float(std::max(1, pixels.height()));
        const Camera seen = camera(aspect);
        _pipeline->setCamera(seen.cameraMatrix(), seen.projectionMatrix(aspect), seen.nearPlane, seen.farPlane);
        _pipeline->setViewport(QRect(QPoint(0, 0), pixels));
        _screen.reset(FramebufferObject::wrap(defaultFramebufferObject()));
        _pipeline->setScreen(_screen.get());
        if (_pipeline->render(nullptr, &error))
            error = _pipeline->faults().join(QLatin1Char('\n'));
        ++_frames;
    }
    if (_onFrame)
        _onFrame(error);
    if (_running)
        update();
}

void View::mousePressEvent(QMouseEvent *event)
{
    _last = event->position();
}

void View::mouseMoveEvent(QMouseEvent *event)
{
    const QPointF moved = event->position() - _last;
    _last = event->position();
    if (event->buttons() & Qt::LeftButton) {
        _yaw -= kDegreesPerPixel * float(moved.x());
        _pitch = std::clamp(_pitch + kDegreesPerPixel * float(moved.y()), -89.0f, 89.0f);
    } else {
        const Camera seen = camera(float(width()) / float(std::max(1, height())));
        const QVector3D forward = directionOf(seen.target - seen.eye);
        const QVector3D right = directionOf(QVector3D::crossProduct(forward, directionOf(seen.up)));
        const float perPixel = (seen.target - seen.eye).length() / float(std::max(1, height()));
        _moved -= perPixel * float(moved.x()) * right;
        _moved += perPixel * float(moved.y()) * QVector3D::crossProduct(right, forward);
    }
    update();
}

void View::mouseDoubleClickEvent(QMouseEvent *)
{
    _moved = {};
    _zoom = 1.0f;
    update();
}

void View::wheelEvent(QWheelEvent *event)
{
    _zoom = std::clamp(event->angleDelta().y() > 0 ? _zoom * kZoomStep : _zoom / kZoomStep, 0.05f, 50.0f);
    update();
}
