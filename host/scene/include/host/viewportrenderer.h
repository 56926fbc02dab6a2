#pragma once

#include "host/backdrop.h"
#include "host/export.h"
#include "host/orbitcamera.h"
#include "host/pickpass.h"
#include "model/gpumodel.h"

#include <QByteArray>
#include <QColor>
#include <QImage>
#include <QMap>
#include <QRect>
#include <QSize>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVector>

#include <memory>

namespace Brevane::Kvo {

class FramebufferObject;
class Pipeline;
class ViewportRendererPrivate;

/// What there is to say of a frame.
struct ViewportFrame
{
    bool isDrawn = false; ///< Whether anything was.
    int number = 0; ///< Frames drawn so far, this one included.
    QStringList errors; ///< Why nothing was drawn, or not what was asked for: pipeline file, slots, model, context.
    QStringList faults; ///< See Pipeline::faults.
    QStringList shaderFailures; ///< "label: log" of programs that did not compile or link.
};

/// What a viewport of a toolkit is made of below the toolkit: a model, a pipeline from a file or an object, slot
/// values, a camera, a selection with its outline, picking and pictures of any size. It knows when another frame
/// is due: after a change, and for as long as the pipeline still settles (temporal antialiasing, SMAA T2x).
///
/// Only render, pick, itemsIn, grab and releaseContext need the context. Everything but those may be set before
/// there is one, and survives its end: what GL holds is made in the first frame, and again in the first one in
/// another share group. Before its context goes, and before this is destroyed, releaseContext has to be called
/// with the context current (a context of QOpenGLContext announces its end by aboutToBeDestroyed). Like the
/// rest of the library it serves one thread at a time.
class KVO_SCENE_EXPORT ViewportRenderer
{
public:
    ViewportRenderer();
    ~ViewportRenderer();
    ViewportRenderer(const ViewportRenderer &) = delete;
    ViewportRenderer &operator=(const ViewportRenderer &) = delete;

    // Model

    /// Takes a copy, which goes to the GPU with the next frame.
    void setModel(const ModelData &data);
    /// A model of the host's, uploaded in the context's share group, and its opaque part (see Pipeline::setModel).
    /// It may be destroyed at any time; nothing is drawn then.
    void setModel(GPUModel *model, GPUModel *opaque = nullptr);
    /// Box of the model; both corners 0 without one.
    GPUModel::BoundingBox bounds() const;

    // Pipeline

    /// A file, or the name of one on \a searchPath (see findPipeline; empty: pipelineSearchPath()). False with a line
    /// per mistake; what was there before then stays. Slot values apply to it as well.
    bool setPipelineFile(const QString &nameOrPath, QStringList *errors = nullptr, const QStringList &searchPath = {});
    /// A pipeline from the text of a file, which need not be on disk (yet): \a path is where files that it names are
    /// looked for, and stands in messages. False as above.
    bool setPipelineText(const QByteArray &text, const QString &path, QStringList *errors = nullptr);
    /// Reads the file again, or the text with the files that it names. False with a line per mistake; what was there before then stays.
    bool reload(QStringList *errors = nullptr);
    /// The file; empty for a pipeline from elsewhere.
    QString pipelineFile() const;
    /// One that the host built; null: none.
    void setPipeline(std::unique_ptr<Pipeline> pipeline);
    /// To look at, and to change; call invalidate after a change. Null while there is none; that of a file comes
    /// with the first context that is current, in a frame at the latest.
    Pipeline *pipeline() const;

    /// See Pipeline::setTimingEnabled; for every pipeline to come as well.
    void setTimingEnabled(bool enabled);
    /// Values of slots by "Pass.Slot": texts as parseSlotValue reads them, numbers, truth values, colours, vectors.
    /// They replace those set before; a slot that is no longer named gets back what the file says.
    void setSlotValues(const QVariantMap &values);
    /// See setSlotValues.
    QVariantMap slotValues() const;

    // View

    /// From the next frame on.
    void setCamera(const OrbitCamera &camera);
    /// See setCamera.
    const OrbitCamera &camera() const;
    /// Items with a line around them.
    void setSelection(const QVector<int> &items);
    /// See setSelection.
    QVector<int> selection() const;
    /// Of the selection; the width is in pixels.
    void setOutline(const QColor &color, float width);
    /// What shows behind the picture, also in those of grab; nothing at first: the picture keeps its alpha.
    void setBackdrop(const Backdrop &backdrop);
    /// See setBackdrop.
    const Backdrop &backdrop() const;

    // Frames

    /// Whether a frame would show something else than the last one.
    bool needsFrame() const;
    /// Something that the renderer does not know of has changed.
    void invalidate();
    /// How many frames a picture takes to settle after a change; negative, the default: as many as the passes of the
    /// pipeline ask for (30 with a random jitter, 4 with the two positions of SMAA T2x, 2 with ShadowMapRenderPass2, else 1).
    void setSettlingFrames(int frames);
    /// How many the picture takes now.
    int settlingFrames() const;
    /// Draws a frame of \a size pixels onto a framebuffer.
    ViewportFrame render(FramebufferObject *screen, const QSize &size);

    /// What is at a pixel of a picture of that size, from its upper left.
    Pick pick(const QPoint &pixel, const QSize &size);
    /// The items that show in an area of it.
    QVector<int> itemsIn(const QRect &area, const QSize &size);
    /// A picture of any size, settled, without the outline. Null, with the reason, on failure. An accumulation on
    /// screen begins anew afterwards.
    QImage grab(const QSize &size, QString *error = nullptr);

    /// Frees what GL holds. The next frame makes it again.
    void releaseContext();

private:
    std::unique_ptr<ViewportRendererPrivate> d;
};

} // namespace Brevane::Kvo
