#pragma once

#include "host/export.h"
#include "renderpasses/shaderrenderpass.h"

namespace Brevane::Kvo {

/// Puts what VisibilityDeferredRenderPass shaded over any picture: exact transparency in front of whatever a chain
/// has drawn so far.
///
/// | # | Input                    | Type    | Meaning                                                                  |
/// |---|--------------------------|---------|--------------------------------------------------------------------------|
/// | 0 | Kvo_QRect_Viewport       | QRect   | size of the image                                                        |
/// | 1 | Kvo_KvoTexture*_Layers   | texture | colour, and in alpha the light that still comes through; none: all of it |
/// | 2 | Kvo_KvoTexture*_Backdrop | texture | what lies behind; none: black                                            |
///
/// | # | Output                | Format                                     |
/// |---|-----------------------|--------------------------------------------|
/// | 0 | Kvo_KvoTexture*_Frame | pool format 3: layers + alpha * backdrop, opaque |
///
/// Leaves changed and needs what ShaderRenderPass does.
class KVO_PIPELINE_EXPORT LayerCompositionPass : public ShaderRenderPass
{
public:
    /// Indices of the inputs; the viewport is ShaderRenderPass's.
    enum Input : int { InViewport, InLayers, InBackdrop };
    /// Indices of the outputs.
    enum Output : int { OutFrame };

    LayerCompositionPass();

    void setUniforms() override;
};

} // namespace Brevane::Kvo
