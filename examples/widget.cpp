// A Qt widget that shows a pipeline file, and a model in it. Drag to turn the camera, roll to zoom.
//
//   example_widget PIPELINE.json [MODEL] [--grab OUT.png]

#include <gl/framebufferobject.h>
#include <host/camera.h>
#include <host/pipeline.h>
#include <host/pipelinefile.h>
#include <host/sceneimport.h>
#include <model/gpumodel.h>

#include <QApplication>
#include <QMouseEvent>
#include <QOpenGLContext>
#include <QOpenGLWidget>
#include <QSurfaceFormat>
#include <QTimer>
#include <QWheelEvent>

#include <algorithm>
#include <memory>

using namespace Brevane::Kvo;

class View : public QOpenGLWidget
{
public:
    View(const QString &pipelinePath, const ModelData &scene) : _pipelinePath(pipelinePath), _data(scene)
    {
        resize(800, 450);
    }

    ~View() override
    {
        // The context outlives this part of the widget.
        if (context())
            context()->disconnect(this);
        makeCurrent(); // what the passes hold is freed in their context
        release();
        doneCurrent();
    }

protected:
    void initializeGL() override
    {
        // A widget that gets another window gets another context.
        connect(context(), &QOpenGLContext::aboutToBeDestroyed, this, [this] {
            makeCurrent();
            release();
            doneCurrent();
        });
        _pipeline = std::make_unique<Pipeline>();
        _model = std::make_unique<GPUModel>();
        QStringList errors;
        if (!loadPipeline(_pipelinePath, _pipeline.get(), &errors))
            qCritical("%s", qPrintable(errors.join(QLatin1Char('\n'))));
        if (!_data.items.isEmpty() && _model->upload(_data))
            _pipeline->setModel(_model.get());
    }

    void paintGL() override
    {
        const QSize pixels = size() * devicePixelRatio();
        const float aspect = float(pixels.width()) / float(std::max(1, pixels.height()));
        Camera camera;
        camera.fit(_model->sceneBounds(), _yaw, _pitch, aspect, _zoom);
        _pipeline->setCamera(camera.cameraMatrix(), camera.projectionMatrix(aspect), camera.nearPlane, camera.farPlane);
        _pipeline->setViewport(QRect(QPoint(0, 0), pixels));
        // The framebuffer of a widget is not 0, and may change with its size.
        _screen.reset(FramebufferObject::wrap(defaultFramebufferObject()));
        _pipeline->setScreen(_screen.get());
        QString error;
        if (!_pipeline->render(nullptr, &error))
            qCritical("%s", qPrintable(error));
    }

    void mousePressEvent(QMouseEvent *event) override { _last = event->position(); }

    void mouseMoveEvent(QMouseEvent *event) override
    {
        const QPointF moved = event->position() - _last;
        _last = event->position();
        _yaw -= 0.4f * float(moved.x());
        _pitch = std::clamp(_pitch + 0.4f * float(moved.y()), -89.0f, 89.0f);
        update();
    }

    void wheelEvent(QWheelEvent *event) override
    {
        _zoom = std::clamp(_zoom * (event->angleDelta().y() > 0 ? 1.1f : 0.9f), 0.1f, 20.0f);
        update();
    }

private:
    void release()
    {
        _pipeline.reset();
        _model.reset();
        _screen.reset();
    }

    QString _pipelinePath;
    ModelData _data;
    std::unique_ptr<GPUModel> _model;
    std::unique_ptr<Pipeline> _pipeline;
    std::unique_ptr<FramebufferObject> _screen;
    float _yaw = -30.0f;
    float _pitch = 20.0f;
    float _zoom = 1.0f;
    QPointF _last;
};

int main(int argc, char **argv)
{
    // Before the application: the format is that of its first context.
    QSurfaceFormat format;
    format.setVersion(3, 2);
    format.setProfile(QSurfaceFormat::CoreProfile);
    QSurfaceFormat::setDefaultFormat(format);
    const QApplication application(argc, argv);

    QStringList arguments = QCoreApplication::arguments().mid(1);
    QString grab;
    if (const qsizetype option = arguments.indexOf(QStringLiteral("--grab")); option >= 0) {
        grab = arguments.value(option + 1);
        arguments.remove(option, std::min(qsizetype(2), arguments.size() - option));
    }
    if (arguments.isEmpty()) {
        qCritical("usage: example_widget PIPELINE.json [MODEL] [--grab OUT.png]");
        return 2;
    }
    ModelData data;
    if (arguments.size() > 1) {
        ImportReport report;
        data = importScene(arguments[1], ImportOptions(), &report);
        if (!report.ok()) {
            qCritical("%s", qPrintable(report.error));
            return 1;
        }
    }

    View view(arguments[0], data);
    view.show();
    int exitCode = 0;
    if (!grab.isEmpty()) {
        QTimer::singleShot(0, &view, [&] {
            exitCode = view.grabFramebuffer().save(grab) ? 0 : 1;
            QCoreApplication::quit();
        });
    }
    const int code = QApplication::exec();
    return code ? code : exitCode;
}
