#pragma once

#include "core/renderpasshelper.h"
#include "gl/held.h"
#include "gl/pooledtexture.h"
#include "renderpasses/export.h"

#include <QMatrix4x4>
#include <QSharedPointer>
#include <QVector4D>
#include <QVector>

namespace Brevane::Kvo {

class DrawBuffers;
class FramebufferObject;
class ShaderProgram;
class Texture;

/// Enhanced Subpixel Morphological Antialiasing (Jimenez et al., 2012) at the ultra preset: colour edges,
/// blending weights, neighbourhood blending, and in temporal mode the resolve of SMAA T2x against the
/// previous frame, with velocities from the depth buffer. CameraJitterPass in mode 2 supplies the two
/// sample positions.
///
/// | # | Input                           | Type       | Default | Range   | Meaning |
/// |---|---------------------------------|------------|---------|---------|-----|
/// | 0 | Kvo_QRect_Viewport              | QRect      | none    | pixels  | size of all images |
/// | 1 | Kvo_KvoTexture*_Frame           | texture    | none    |         | display-ready image; none: the output is invalid |
/// | 2 | Kvo_int_Mode                    | int        | 1       |         | 0 singleFrame, 1 temporal; others: a single frame |
/// | 3 | Kvo_bool_SupportTransparency    | bool       | false   |         | keep velocity beside alpha instead of in it |
/// | 4 | Kvo_KvoTexture*_Predicate       | texture    | none    |         | edges of this raise the threshold less |
/// | 5 | Kvo_KvoTexture*_Depth           | texture    | none    |         | window depth; none: single frame |
/// | 6 | Kvo_QMatrix4x4_CameraMatrix     | QMatrix4x4 | none    |         | world to camera space |
/// | 7 | Kvo_QMatrix4x4_ProjectionMatrix | QMatrix4x4 | none    |         | camera to clip space |
/// | 8 | Kvo_int_JitterIndex             | int        | none    | -1 to 1 | of CameraJitterPass; -1: drawn without jitter; none reads as 0 |
///
/// | # | Output                | Type    | Format        | Meaning |
/// |---|-----------------------|---------|---------------|-----|
/// | 0 | Kvo_KvoTexture*_Frame | texture | pool format 3 | the image with smooth edges; alpha 1 in temporal mode without transparency |
///
/// For SMAA 1x set the mode to 0 and the jitter index to -1: with the index that an unconnected slot reads as, the
/// weights are those of a frame that was drawn a quarter of a pixel aside.
///
/// The first temporal frame after a rebuild has no history, and is the single frame of its sample. A frame that
/// starts with history index 0 sees no camera motion: only every other frame has true camera velocities.
/// Everything is rebuilt when size, mode, transparency or the presence of a predicate change; what a rebuild
/// replaces is given up, see OpenGLDeviceContext::giveUp. Inputs are given back to the pool.
///
/// Leaves changed: depth test (off), blending (off), stencil test (off), clear colour (transparent black),
/// clear stencil (0), stencil operation (keep, keep, replace), stencil function (equal to 1), stencil mask
/// (closed), viewport (the size of the target).
///
/// The filters of frame and depth stay linear. Needs OpenGL 3.2.
class KVO_RENDERPASSES_EXPORT SMAARenderPass : public RenderPassHelper
{
public:
    /// Indices of the inputs.
    enum Input : int {
        InViewport,
        InFrame,
        InMode,
        InSupportTransparency,
        InPredicate,
        InDepth,
        InCameraMatrix,
        InProjectionMatrix,
        InJitterIndex,
    };
    /// Indices of the outputs.
    enum Output : int {
        OutFrame,
    };

    SMAARenderPass();
    SMAARenderPass(const SMAARenderPass &other);
    SMAARenderPass &operator=(const SMAARenderPass &other);
    ~SMAARenderPass() override;

    /// Builds everything for the size and mode of the last start (64 by 64, temporal, before the first).
    void setup(RenderCallbacks *callbacks) override;
    void start(RenderCallbacks *callbacks) override;
    void teardown(RenderCallbacks *callbacks) override;

private:
    Texture *edgeDetection(Texture *frame, Texture *depthStencil, Texture *predicate);
    Texture *blendingWeightCalculation(Texture *edges, Texture *depthStencil, const int &jitterIndex);
    void neighbourhoodBlending(Texture *output, Texture *packedVelocityOutput, Texture *frame, Texture *weights,
                               Texture *velocity);
    Texture *velocityVectors(Texture *depth, const QMatrix4x4 &projection, const QMatrix4x4 &camera);
    Texture *temporalResolve(Texture *current, Texture *previous, Texture *velocity, Texture *packedVelocity,
                             Texture *previousPackedVelocity);
    Texture *takeImage(int format) const;
    bool canDraw() const;
    void clearAndDraw() const;

    int _width = 64;
    int _height = 64;
    int _mode = 1;
    bool _supportTransparency = false;
    bool _predication = false;
    QVector4D _smaaMetrics;
    Held<FramebufferObject> _edgeFbo;
    Held<FramebufferObject> _weightFbo;
    Held<FramebufferObject> _blendFbo;
    Held<FramebufferObject> _resolveFbo;
    Held<FramebufferObject> _velocityFbo;
    Held<Texture> _areaTexture;
    Held<Texture> _searchTexture;
    Held<ShaderProgram> _edgeProgram;
    Held<ShaderProgram> _weightProgram;
    Held<ShaderProgram> _blendProgram;
    Held<ShaderProgram> _resolveProgram;
    Held<ShaderProgram> _velocityProgram;
    QSharedPointer<DrawBuffers> _quad;
    QVector<PooledTexture> _colorHistory;
    QVector<PooledTexture> _packedVelocityHistory;
    /// Whether a frame was drawn to the history since it was taken.
    bool _hasHistory = false;
    int _historyIndex = 0;
    QMatrix4x4 _previousViewProjection;
};

} // namespace Brevane::Kvo
