#pragma once

#include "core/renderpasshelper.h"
#include "gl/held.h"
#include "host/export.h"

#include <QRect>
#include <QVector3D>
#include <QVector>

namespace Brevane::Kvo {

class FramebufferObject;
class ShaderProgram;

/// What lies under a pixel.
struct Pick
{
    int item =
        -1; ///< Number of the draw, which is that of the item where the model dropped none; -1: nothing is there.
    int triangle = -1; ///< Of the item's mesh.
    int material = -1; ///< Where the host's side knows it; the pass does not.
    QVector3D position; ///< On the surface, in world space.

    /// Whether there is anything.
    bool isHit() const { return item >= 0; }
};

/// Draws which item and triangle of a model each pixel shows, and where in the world, for hosts that want to know
/// what is under the mouse or in a frame drawn with it. Unlike the Id of ModelRenderPass it names the item.
///
/// | # | Input                            | Type       | Meaning                                                     |
/// |---|----------------------------------|------------|-------------------------------------------------------------|
/// | 0 | Kvo_QRect_Viewport               | QRect      | size of the picture                                         |
/// | 1 | Kvo_QMatrix4x4_ProjectionMatrix  | QMatrix4x4 | camera to clip space                                        |
/// | 2 | Kvo_QMatrix4x4_CameraMatrix      | QMatrix4x4 | world to camera space                                       |
/// | 3 | Kvo_KvoGPUModel*_Geometry        | model      | what is drawn; all of it, whatever its opacity              |
/// | 4 | Kvo_QRect_Area                   | QRect      | pixels of the picture, from its lower left, that the targets hold; none: all |
///
/// | # | Output                           | Format                                                                   |
/// |---|----------------------------------|--------------------------------------------------------------------------|
/// | 0 | Kvo_KvoTexture*_Item             | pool format 11: item + 1, triangle + 1, 0, 0; all 0 where nothing is     |
/// | 1 | Kvo_KvoTexture*_Position         | pool format 6: world position, 1; all 0 where nothing is                 |
///
/// Area is cut to the picture; one that lies outside of it draws nothing. Only what is in it is drawn, so that
/// asking for a pixel costs no filling. Leaves no state changed. Needs OpenGL 3.2.
class KVO_SCENE_EXPORT PickPass : public RenderPassHelper
{
public:
    /// Indices of the inputs.
    enum Input { kViewport, kProjectionMatrix, kCameraMatrix, kGeometry, kArea };
    /// Indices of the outputs.
    enum Output { kItem, kPosition };

    PickPass();

    void start(RenderCallbacks *callbacks) override;

    // Right after start, while the targets hold what it drew; these wait for the GPU.

    /// What is at a pixel of the picture, from its lower left.
    Pick at(const QPoint &pixel) const;
    /// The items that show in a part of the picture, in their order, each once.
    QVector<int> itemsIn(const QRect &area) const;

private:
    /// Numbers of pixels, cut to what was drawn.
    QVector<quint32> readItems(const QRect &area) const;

    Held<FramebufferObject> _fbo;
    Held<ShaderProgram> _program;
    QRect _drawn; ///< Pixels of the picture that the targets hold.
};

} // namespace Brevane::Kvo
