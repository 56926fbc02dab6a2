#pragma once

#include "gl/framebufferobject.h"
#include "host/camera.h"
#include "host/pipeline.h"
#include "model/gpumodel.h"

#include <QOpenGLWidget>

#include <functional>
#include <memory>

/// Shows a model through a pipeline file. Drag: turn; right drag: move; wheel: zoom; double click: all.
class View : public QOpenGLWidget
{
public:
    explicit View(const Brevane::Kvo::ModelData &model);
    ~View() override;

    /// Takes another pipeline file. False with a line per mistake; the one before stays.
    bool setPipeline(const QString &path, QStringList *errors);
    /// Draws again and again, for passes that change by themselves and for steady times.
    void setRunning(bool running);
    /// Milliseconds of the passes of the last frames, and the number of frames.
    QString times() const;
    int frameCount() const { return _frames; }
    /// Is called after each frame, with what went wrong in it.
    void setFrameHandler(std::function<void(const QString &error)> handler) { _onFrame = std::move(handler); }

protected:
    void initializeGL() override;
    void paintGL() override;
    void mousePressEvent(QMouseEvent *event) override;
    void mouseMoveEvent(QMouseEvent *event) override;
    void mouseDoubleClickEvent(QMouseEvent *event) override;
    void wheelEvent(QWheelEvent *event) override;

private:
    bool load(const QString &path, QStringList *errors);
    void release();
    Brevane::Kvo::Camera camera(float aspect) const;

    const Brevane::Kvo::ModelData _data;
    QString _pipelinePath;
    std::unique_ptr<Brevane::Kvo::GPUModel> _model;
    std::unique_ptr<Brevane::Kvo::GPUModel> _opaqueModel; ///< For pipelines that ask for it.
    std::unique_ptr<Brevane::Kvo::Pipeline> _pipeline;
    std::unique_ptr<Brevane::Kvo::FramebufferObject> _screen;
    std::function<void(const QString &)> _onFrame;
    float _yaw = -30.0f;
    float _pitch = 20.0f;
    float _zoom = 1.0f;
    QVector3D _moved; ///< Of the point that is looked at, in world space.
    QPointF _last;
    bool _running = false;
    int _frames = 0;
};
