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

/// Puts a cross-fade of two image files behind a finished frame, and lets a floor sink into it. Which
/// pixel is what comes from the material ids in the alpha channel of the normal image.
///
/// | # | Input                    | Type    | Default | Range       | Meaning |
/// |---|--------------------------|---------|---------|-------------|-----|
/// | 0 | Kvo_QRect_Viewport       | QRect   | none    | pixels      | size of the result |
/// | 1 | Kvo_KvoTexture*_Frame    | texture | none    |             | the frame; required (none: transparent black) |
/// | 2 | Kvo_KvoTexture*_Depth    | texture | none    |             | depth and stencil of the frame; has no effect on the picture |
/// | 3 | Kvo_string_FadeImageUrl1 | QString | none    |             | path of the first image |
/// | 4 | Kvo_string_FadeImageUrl2 | QString | none    |             | path of the second image |
/// | 5 | Kvo_float_FadeRatio      | float   | none    | 0 to 1      | weight of the first image |
/// | 6 | Kvo_float_FadeRatio2     | float   | none    | 0 to 1      | weight of the second image |
/// | 7 | Kvo_KvoTexture*_Normal   | texture | none    |             | alpha: material id plus 1, with either sign; 0: nothing was drawn. None: nothing was drawn anywhere |
/// | 8 | Kvo_int_FloorMaterialId  | int     | -1      | -1 to 65535 | material of the floor; -1: there is none |
/// | 9 | Kvo_float_FadeRatioFloor | float   | none    | 0 to 1      | share of the frame on the floor |
///
/// | # | Output                | Type    | Format        | Meaning |
/// |---|-----------------------|---------|---------------|-----|
/// | 0 | Kvo_KvoTexture*_Frame | texture | pool format 7 | the frame in front of its background |
///
/// With background = image 1 * FadeRatio + image 2 * FadeRatio2, in all four channels: where nothing was
/// drawn the result is the background; on the floor it is frame * FadeRatioFloor + background * (1 -
/// FadeRatioFloor); elsewhere it is the frame. Ratios are taken as they are: they need not add up to 1,
/// and may lie beyond.
///
/// Each image is loaded once, through TextureManager::textureFromFile, which owns it: a path that changes
/// after that has no effect. One that cannot be loaded counts as transparent black and is tried again in
/// the next frame. Frame, depth and normal image are given back to the pool.
///
/// Leaves changed: depth test (off), depth mask (closed), stencil test (off), viewport (the size of the
/// target), stencil function (equal to 0), stencil operation (keep), stencil mask (closed).
///
/// Needs OpenGL 3.2.
class KVO_RENDERPASSES_EXPORT BackgroundImageRenderPass : public RenderPassHelper
{
public:
    /// Indices of the inputs.
    enum Input : int {
        InViewport,
        InFrame,
        InDepth,
        InFadeImageUrl1,
        InFadeImageUrl2,
        InFadeRatio,
        InFadeRatio2,
        InNormal,
        InFloorMaterialId,
        InFadeRatioFloor,
    };
    /// Indices of the outputs.
    enum Output : int {
        OutFrame,
    };

    BackgroundImageRenderPass();
    /// Holds the same GL objects as its source; the last one that lets go of them deletes them.
    BackgroundImageRenderPass(const BackgroundImageRenderPass &other);
    BackgroundImageRenderPass &operator=(const BackgroundImageRenderPass &other);
    ~BackgroundImageRenderPass() override;

    /// Makes a framebuffer, each time, and what else is missing.
    void setup(RenderCallbacks *callbacks) override;
    void start(RenderCallbacks *callbacks) override;
    /// Frees nothing.
    void teardown(RenderCallbacks *callbacks) override;

private:
    Held<FramebufferObject> _fbo;
    Held<ShaderProgram> _program;
    QSharedPointer<DrawBuffers> _quad;
    Held<Texture> _fadeTexture1;
    Held<Texture> _fadeTexture2;
    int _width = 0;
    int _height = 0;
};

} // namespace Brevane::Kvo
