#pragma once

#include "core/renderpasshelper.h"
#include "gl/held.h"
#include "renderpasses/export.h"

#include <QSharedPointer>

namespace Brevane::Kvo {

class DrawBuffers;
class FramebufferObject;
class ShaderProgram;
class Texture;

/// Ambient obscurance in screen space: how much of the surroundings of each pixel is hidden by geometry
/// nearby, from a spiral of taps into the depth. A grey image, 1 where nothing is hidden, to multiply
/// ambient light with. After McGuire, Mara and Luebke, "Scalable Ambient Obscurance" (HPG 2012), with
/// the falloff of medium contrast, and without their depth pyramid and their blur: the image is noisy.
///
/// | #  | Input                               | Type       | Default | Range                      | Meaning |
/// |----|-------------------------------------|------------|---------|----------------------------|-----|
/// | 0  | Kvo_QRect_Viewport                  | QRect      | none    | pixels                     | size before the divider |
/// | 1  | Kvo_QMatrix4x4_ProjectionMatrix     | QMatrix4x4 | none    |                            | camera to clip space |
/// | 2  | Kvo_QMatrix4x4_CameraMatrix         | QMatrix4x4 | none    |                            | world to camera space, for world normals |
/// | 3  | Kvo_float_NearPlane                 | float      | none    | from 0 units of the scene  | distance of the near plane |
/// | 4  | Kvo_float_FarPlane                  | float      | none    | from 0 units of the scene  | distance of the far plane |
/// | 5  | Kvo_KvoTexture*_Depth               | texture    | none    |                            | window depth, may be multisampled; none: nothing is obscured |
/// | 6  | Kvo_float_SAORadius                 | float      | 0.08    | 0 to 50 units of the scene | how far away things hide |
/// | 7  | Kvo_float_SAOBias                   | float      | 0.03    | 0 to 50 units of the scene | distance that does not count, against obscurance of smooth surfaces |
/// | 8  | Kvo_float_SAOIntensity              | float      | 1       | 0 to 100                   | strength |
/// | 9  | Kvo_KvoTexture*_CameraSpacePosition | texture    | none    |                            | positions of CameraSpaceZBufferRenderPass; none: from the depth |
/// | 10 | Kvo_KvoTexture*_Normal              | texture    | none    |                            | normals, see setNormalProcessing, multisampled where the depth is; none: from the positions |
/// | 11 | Kvo_float_SaoNumSamples             | float      | 11      | 0 to 1024 taps             | taps per pixel, without its fraction |
/// | 12 | Kvo_float_SaoNumLogMaxOffset        | float      | 3       | 0 to 16                    | radii of 2 to this power read finer levels of the depth, if it has any |
/// | 13 | Kvo_float_SaoNumSpiralTurns         | float      | 3       | 0 to 65536 turns           | turns of the spiral, without its fraction |
/// | 14 | Kvo_float_ResolutionDivider         | float      | 1       | 0 to 64                    | the output is the viewport divided by this; 0 counts as 1 |
///
/// | # | Output                | Type    | Format                                                                   | Meaning |
/// |---|-----------------------|---------|--------------------------------------------------------------------------|-----|
/// | 0 | Kvo_KvoTexture*_Frame | texture | pool format 3, size of the viewport divided by the divider, rounded down | 1 where nothing is hidden |
///
/// What is farther than 50 units, and with positions from depth the background at depth 1, stays at 1. A
/// pixel with a single tap on the background does so too. Taps outside the depth read what the driver
/// gives for a fetch out of bounds, mostly the near plane, which is too near to hide anything.
///
/// The depth is read texel by texel, one for each pixel of the output, and so are normals: with a divider
/// connect positions, which are read in proportion, or a depth of the divided size. A divider below 1
/// draws no further than the depth reaches. A multisampled depth is read at its first sample; it cannot
/// be combined with positions.
///
/// Whether positions and normals are connected counts in the first start alone, which builds the programs
/// for it. The text asks for GLSL 4.00 where the context has it, and uses nothing that 1.50 lacks: from
/// OpenGL 3.2 on the picture is the same.
///
/// A depth texture in a format other than depth or depth and stencil draws too, with a failed assertion in
/// the log at every start. With 0 taps the sum is empty. The output carries the references of its users;
/// depth, positions and normals are given back to the pool.
///
/// Out of range: taps are 1024 at most, turns 65536, the power of 2 from -1000 to 1000; what is not a number
/// acts as the default. A divider whose output would have a side beyond the driver's limit gives the largest
/// there is, of 4 million texels at most; a negative one an empty output. Each but the last is said once, with a
/// warning that names pass and slot.
///
/// Leaves changed: with a depth: stencil test (off), depth mask (closed), clear colour (transparent black),
/// viewport (the size of the target), stencil function (equal to 1), stencil operation (keep), stencil mask
/// (closed).
class KVO_RENDERPASSES_EXPORT ScalableAmbientObscuranceRenderPass : public RenderPassHelper
{
public:
    /// Indices of the inputs.
    enum Input : int {
        InViewport,
        InProjectionMatrix,
        InCameraMatrix,
        InNearPlane,
        InFarPlane,
        InDepth,
        InSAORadius,
        InSAOBias,
        InSAOIntensity,
        InCameraSpacePosition,
        InNormal,
        InSaoNumSamples,
        InSaoNumLogMaxOffset,
        InSaoNumSpiralTurns,
        InResolutionDivider,
    };
    /// Indices of the outputs.
    enum Output : int {
        OutFrame,
    };

    /// What the normal texture holds.
    enum NormalProcessing : int {
        NormalTransposeInvert = 0, ///< Normals of the world; they are turned into camera space.
        NormalScreenSpace = 1, ///< Normals of camera space; those that face away are turned round.
    };

    ScalableAmbientObscuranceRenderPass();
    ScalableAmbientObscuranceRenderPass(const ScalableAmbientObscuranceRenderPass &other);
    ScalableAmbientObscuranceRenderPass &operator=(const ScalableAmbientObscuranceRenderPass &other);
    ~ScalableAmbientObscuranceRenderPass() override;

    void start(RenderCallbacks *callbacks) override;

    /// NormalTransposeInvert unless set. To be called before the first start, which builds it into the
    /// programs: later calls fail an assertion, and the picture stays.
    void setNormalProcessing(NormalProcessing processing);

private:
    ShaderProgram *build(bool multisampled, bool positions, bool normals) const;
    void clearToUnobscured();
    void draw(Texture *depth, Texture *position, Texture *normal);

    Held<FramebufferObject> _fbo;
    Held<ShaderProgram> _shaderProgramSS;
    Held<ShaderProgram> _shaderProgramMS;
    QSharedPointer<DrawBuffers> _screenQuad;
    int _width = 0;
    int _height = 0;
    NormalProcessing _normalProcessing = NormalTransposeInvert;
};

} // namespace Brevane::Kvo
