#pragma once

#include "core/renderpasshelper.h"
#include "gl/held.h"
#include "host/export.h"

#include <QVector>

namespace Brevane::Kvo {

class FramebufferObject;
class ShaderProgram;
class Texture;

/// Draws a line around chosen items of a model, over a picture that is there: what a viewport shows of a selection.
/// The line runs around the silhouette of all of them together, also where something else hides them.
///
/// | # | Input                                | Type       | Default | Meaning                                      |
/// |---|--------------------------------------|------------|---------|----------------------------------------------|
/// | 0 | Kvo_QRect_Viewport                   | QRect      | none    | size of the picture                          |
/// | 1 | Kvo_QMatrix4x4_ProjectionMatrix      | QMatrix4x4 | none    | camera to clip space                         |
/// | 2 | Kvo_QMatrix4x4_CameraMatrix          | QMatrix4x4 | none    | world to camera space                        |
/// | 3 | Kvo_KvoGPUModel*_Geometry            | model      | none    | whose items they are                         |
/// | 4 | Kvo_QColor_Color                     | QColor     | orange  | of the line; its alpha counts                |
/// | 5 | Kvo_float_Width                      | float      | 2       | of the line, in pixels, 1 to 8               |
/// | 6 | Kvo_KvoFramebuffer*_FramebufferOut   | framebuffer| none    | what is drawn onto; none: framebuffer 0      |
///
/// There is no output. A width that is not in range counts as the nearest that is. Leaves no state changed. Needs
/// OpenGL 3.2.
class KVO_SCENE_EXPORT OutlinePass : public RenderPassHelper
{
public:
    /// Indices of the inputs.
    enum Input { kViewport, kProjectionMatrix, kCameraMatrix, kGeometry, kColor, kWidth, kFramebufferOut };

    OutlinePass();

    /// The items by their numbers, as PickPass gives them; none: nothing is drawn.
    void setItems(const QVector<int> &items);

    void start(RenderCallbacks *callbacks) override;

private:
    void uploadItems(int count);
    void drawMask(Texture *mask);

    Held<FramebufferObject> _fbo;
    Held<ShaderProgram> _maskProgram;
    Held<ShaderProgram> _lineProgram;
    Held<Texture> _chosen; ///< A texel per item: 1 where it is chosen.
    QVector<int> _items;
    int _uploaded = -1; ///< How many items the texture is for; -1: it is out of date.
};

} // namespace Brevane::Kvo
