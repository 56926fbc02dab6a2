#pragma once

#include "host/export.h"
#include "host/orbitcamera.h"

#include <QColor>
#include <QQuickFramebufferObject>
#include <QStringList>
#include <QUrl>
#include <QVariant>
#include <QVector3D>
#include <QVector>

#include <memory>

namespace Brevane::Kvo {

struct ModelData;
class ViewportItemPrivate;

/// A viewport in a QML scene: shows a model through a pipeline, with a camera to drag or to bind.
///
///     import Kvo
///
///     Viewport {
///         source: "engine.glb"
///         pipeline: "viewport"
///         slotValues: ({"Glow.GlowAmount": 0.4})
///         onClicked: pick => console.log(pick.item)
///     }
///
/// Left drag turns, right or middle drag pans, the wheel zooms to the cursor, a click picks, a double click shows
/// all; two fingers pan and zoom. Where it draws nothing the scene behind it shows.
///
/// It needs the scene graph on OpenGL (QQuickWindow::setGraphicsApi(QSGRendererInterface::OpenGL), or
/// QSG_RHI_BACKEND=opengl); on another backend it stays empty and says why. What GL needs happens on the thread that
/// the scene graph renders in, under a lock that all items share, since the library serves one thread at a time: a
/// host that uses it on another thread too calls lockLibrary around that.
class KVO_QUICK_EXPORT ViewportItem : public QQuickFramebufferObject
{
    Q_OBJECT
    /// A model file, or the local URL of one.
    Q_PROPERTY(QUrl source READ source WRITE setSource NOTIFY sourceChanged)
    /// A pipeline file, or the name of one on the search path.
    Q_PROPERTY(QString pipeline READ pipeline WRITE setPipeline NOTIFY pipelineChanged)
    /// Values by "Pass.Slot".
    Q_PROPERTY(QVariantMap slotValues READ slotValues WRITE setSlotValues NOTIFY slotValuesChanged)
    /// In degrees, see OrbitCamera.
    Q_PROPERTY(qreal yaw READ yaw WRITE setYaw NOTIFY cameraChanged)
    /// In degrees, see OrbitCamera.
    Q_PROPERTY(qreal pitch READ pitch WRITE setPitch NOTIFY cameraChanged)
    /// From the eye to the pivot.
    Q_PROPERTY(qreal distance READ distance WRITE setDistance NOTIFY cameraChanged)
    /// What the camera looks at.
    Q_PROPERTY(QVector3D pivot READ pivot WRITE setPivot NOTIFY cameraChanged)
    /// Vertical opening angle in degrees.
    Q_PROPERTY(qreal fieldOfView READ fieldOfView WRITE setFieldOfView NOTIFY cameraChanged)
    /// Whether the picture is without perspective.
    Q_PROPERTY(bool orthographic READ isOrthographic WRITE setOrthographic NOTIFY cameraChanged)
    /// The axis that points up.
    Q_PROPERTY(QVector3D up READ up WRITE setUp NOTIFY cameraChanged)
    /// Numbers of items with an outline.
    Q_PROPERTY(QList<int> selection READ selection WRITE setSelection NOTIFY selectionChanged)
    /// Of the outline around the selection.
    Q_PROPERTY(QColor outlineColor READ outlineColor WRITE setOutlineColor NOTIFY outlineColorChanged)
    /// Whether drags, wheel and fingers move the camera; on at first.
    Q_PROPERTY(bool interactive READ isInteractive WRITE setInteractive NOTIFY interactiveChanged)
    /// Whether the picture is the final one.
    Q_PROPERTY(bool settled READ isSettled NOTIFY settledChanged)
    /// What went wrong: a model or pipeline that cannot be read, slots that are not there, another backend.
    Q_PROPERTY(QStringList errors READ errors NOTIFY errorsChanged)

public:
    /// Standard directions to look from.
    enum View { Front, Back, Left, Right, Top, Bottom, Isometric };
    Q_ENUM(View)

    /// Shows nothing before it has a source or a pipeline.
    explicit ViewportItem(QQuickItem *parent = nullptr);
    ~ViewportItem() override;

    Renderer *createRenderer() const override;

    /// Of the property of this name.
    ///@{
    QUrl source() const;
    void setSource(const QUrl &source);
    ///@}
    /// A model from anywhere, in the place of a source.
    void setModel(const ModelData &model);
    /// Of the property of this name.
    ///@{
    QString pipeline() const;
    void setPipeline(const QString &nameOrPath);
    QVariantMap slotValues() const;
    void setSlotValues(const QVariantMap &values);
    OrbitCamera camera() const;
    void setCamera(const OrbitCamera &camera);
    qreal yaw() const { return qreal(camera().yaw()); }
    void setYaw(qreal yaw);
    qreal pitch() const { return qreal(camera().pitch()); }
    void setPitch(qreal pitch);
    qreal distance() const { return qreal(camera().distance()); }
    void setDistance(qreal distance);
    QVector3D pivot() const { return camera().pivot(); }
    void setPivot(const QVector3D &pivot);
    qreal fieldOfView() const { return qreal(camera().fieldOfView()); }
    void setFieldOfView(qreal degrees);
    bool isOrthographic() const { return camera().isOrthographic(); }
    void setOrthographic(bool orthographic);
    QVector3D up() const { return camera().up(); }
    void setUp(const QVector3D &up);
    QList<int> selection() const;
    void setSelection(const QList<int> &items);
    QColor outlineColor() const;
    void setOutlineColor(const QColor &color);
    bool isInteractive() const;
    void setInteractive(bool interactive);
    bool isSettled() const;
    QStringList errors() const;
    ///@}

    /// Shows all.
    Q_INVOKABLE void fit();
    /// From a standard direction.
    Q_INVOKABLE void look(View view);
    /// Asks what is at a place of the item; picked answers after the next frame.
    Q_INVOKABLE void pick(qreal x, qreal y);
    /// Asks for a settled picture of any size, written to a file; grabbed answers.
    Q_INVOKABLE void grab(const QString &file, int width, int height);

    /// Held while any item uses the library on the thread of its scene graph.
    static void lockLibrary();
    /// Behind lockLibrary, on the same thread.
    static void unlockLibrary();

Q_SIGNALS:
    /// The property of this name has another value.
    ///@{
    void sourceChanged();
    void pipelineChanged();
    void slotValuesChanged();
    void cameraChanged();
    void selectionChanged();
    void outlineColorChanged();
    void interactiveChanged();
    void settledChanged();
    void errorsChanged();
    ///@}
    /// \a pick: item, triangle and material as numbers, -1 where there is none, and position.
    void picked(const QVariantMap &pick);
    /// The same, for a click of the mouse.
    void clicked(const QVariantMap &pick);
    /// With the file; the error is empty where it is written.
    void grabbed(const QString &file, const QString &error);
    /// With how many were drawn so far.
    void frameDrawn(int number);
    /// See Pipeline::faults.
    void faultsFound(const QStringList &faults);
    /// A program that did not compile or link.
    void shaderFailed(const QString &message);

protected:
    QSGNode *updatePaintNode(QSGNode *node, UpdatePaintNodeData *data) override;
    void componentComplete() override;
    void geometryChange(const QRectF &now, const QRectF &before) override;
    void mousePressEvent(QMouseEvent *event) override;
    void mouseMoveEvent(QMouseEvent *event) override;
    void mouseReleaseEvent(QMouseEvent *event) override;
    void mouseDoubleClickEvent(QMouseEvent *event) override;
    void wheelEvent(QWheelEvent *event) override;
    void touchEvent(QTouchEvent *event) override;

private:
    friend class ViewportItemPrivate;
    std::unique_ptr<ViewportItemPrivate> d;
};

/// Makes Viewport known as that of "import Kvo", for programs that link the library and do not want the plugin.
KVO_QUICK_EXPORT void registerQuickTypes();

} // namespace Brevane::Kvo
