#pragma once

#include "host/backdrop.h"
#include "host/export.h"
#include "host/orbitcamera.h"
#include "host/pickpass.h"

#include <QByteArray>
#include <QImage>
#include <QOpenGLWidget>
#include <QStringList>
#include <QVariant>
#include <QVector>

#include <memory>

class QNativeGestureEvent;
class QTouchEvent;

namespace Brevane::Kvo {

class GPUModel;
class Pipeline;
class ViewportWidgetPrivate;
struct ModelData;

/// A viewport in a Qt widget: shows a model through a pipeline, with a camera to drag, picking, a selection with an
/// outline, and pictures of any size.
///
/// It draws when something changed, and goes on for as long as the pipeline settles (temporal antialiasing); left
/// alone it draws nothing. It may be hidden, resized and moved into another window: what belonged to the context
/// there is made again.
///
/// Left drag turns, right or middle drag (or Shift) pans, the wheel zooms to the cursor, a click selects, Ctrl and a
/// drag select an area, a double click or F shows all. 1, 3, 7 and 0 are the front, right, top and isometric view
/// (with Ctrl back, left and bottom), 5 switches perspective. A finger turns, two pan and zoom; on a trackpad two
/// fingers pan and a pinch zooms.
///
/// Positions are in the widget's own coordinates; on screens of a high density a picture has more pixels than these.
class KVO_WIDGETS_EXPORT ViewportWidget : public QOpenGLWidget
{
    Q_OBJECT

public:
    /// Shows nothing before it has a model or a pipeline.
    explicit ViewportWidget(QWidget *parent = nullptr);
    ~ViewportWidget() override;

    /// Asks Qt for an OpenGL context that the passes can use, in the best version that there is. Before the
    /// application is made. Hosts that set a default format of version 3.2 or later need it not.
    static void setDefaultFormat();

    // What is shown

    /// Takes a copy, and shows all of it.
    void setModel(const ModelData &model);
    /// A model of the host's, in the widget's share group (Qt::AA_ShareOpenGLContexts), and its opaque part. It may be
    /// destroyed before the widget.
    void setModel(GPUModel *model, GPUModel *opaque = nullptr);
    /// A file, or the name of one on the search path ("viewport"); see findPipeline. It is read again whenever it
    /// changes. False with a line per mistake; what was there before then stays.
    bool setPipelineFile(const QString &nameOrPath, QStringList *errors = nullptr);
    /// See ViewportRenderer::setPipelineText. No file is watched then.
    bool setPipelineText(const QByteArray &text, const QString &path, QStringList *errors = nullptr);
    /// The file; empty for a pipeline from elsewhere.
    QString pipelineFile() const;
    /// One that the host built.
    void setPipeline(std::unique_ptr<Pipeline> pipeline);
    /// To look at, and to change with invalidate behind it; null while there is none.
    Pipeline *pipeline() const;
    /// See Pipeline::setTimingEnabled; for every pipeline to come as well.
    void setTimingEnabled(bool enabled);
    /// See ViewportRenderer::setSlotValues.
    void setSlotValues(const QVariantMap &values);
    /// See setSlotValues.
    QVariantMap slotValues() const;
    /// Something that the widget does not know of has changed: draw again.
    void invalidate();
    /// Draws frame after frame, for passes that change by themselves and for steady times.
    void setRunning(bool running);
    /// Whether the picture is the final one.
    bool isSettled() const;
    /// How many frames a picture takes to settle; negative: as many as the passes ask for.
    void setSettlingFrames(int frames);
    /// How many the picture takes now.
    int settlingFrames() const;
    /// Frames drawn so far.
    int frameCount() const;

    // Camera

    /// As it is now.
    OrbitCamera camera() const;
    /// From the next frame on.
    void setCamera(const OrbitCamera &camera);
    /// See ViewportRenderer::setBackdrop.
    void setBackdrop(const Backdrop &backdrop);
    /// See setBackdrop.
    Backdrop backdrop() const;
    /// Shows all.
    void fit();
    /// From a standard direction.
    void look(OrbitCamera::View view);
    /// See OrbitCamera::setOrthographic.
    void setOrthographic(bool orthographic);
    /// See OrbitCamera::setUp.
    void setUp(const QVector3D &up);

    // Picking and selection

    /// What is at a place of the widget.
    Pick pickAt(const QPoint &position);
    /// The items that show in a part of the widget.
    QVector<int> itemsIn(const QRect &area);
    /// Items with an outline.
    QVector<int> selection() const;
    /// Draws an outline around them.
    void setSelection(const QVector<int> &items);
    /// Of the selection; the width is in pixels of the picture.
    void setOutline(const QColor &color, float width);
    /// Whether clicks and areas select; on at first. Off: they are only signalled.
    void setSelecting(bool selecting);

    /// The settled picture in any size in pixels, without the outline. Null, with the reason, on failure.
    QImage grabPicture(const QSize &size, QString *error = nullptr);

Q_SIGNALS:
    /// With how many were drawn so far.
    void frameDrawn(int number);
    /// Why a frame shows nothing or not what was asked for: once when it begins, empty when it is over.
    void errorsChanged(const QStringList &errors);
    /// Broken counts of pool textures and error codes, see Pipeline::faults; once, and empty when over.
    void faultsChanged(const QStringList &faults);
    /// A program that did not compile or link.
    void shaderFailed(const QString &message);
    /// The file changed and was read again; with mistakes the pipeline before it stays.
    void pipelineReloaded(const QStringList &errors);
    /// By hand or by the host.
    void cameraChanged();
    /// With what was there.
    void clicked(const Brevane::Kvo::Pick &pick);
    /// With what shows in it.
    void areaSelected(const QVector<int> &items);
    /// By hand or by the host.
    void selectionChanged(const QVector<int> &items);

protected:
    void initializeGL() override;
    void resizeGL(int width, int height) override;
    void paintGL() override;
    bool event(QEvent *event) override;
    void mousePressEvent(QMouseEvent *event) override;
    void mouseMoveEvent(QMouseEvent *event) override;
    void mouseReleaseEvent(QMouseEvent *event) override;
    void mouseDoubleClickEvent(QMouseEvent *event) override;
    void wheelEvent(QWheelEvent *event) override;
    void keyPressEvent(QKeyEvent *event) override;

private:
    void touch(const QTouchEvent &event);
    bool gesture(const QNativeGestureEvent &event);
    void change(const OrbitCamera &camera);
    void select(const QVector<int> &items);

    friend class ViewportWidgetPrivate;
    std::unique_ptr<ViewportWidgetPrivate> d;
};

} // namespace Brevane::Kvo
