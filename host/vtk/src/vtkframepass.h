#pragma once

#include "core/renderpasshelper.h"

namespace Brevane::Kvo {

/// What VTK drew, in textures of the pool: colour in format 7, depth in format 20.
class VtkFramePass : public RenderPassHelper
{
public:
    VtkFramePass();

    /// A framebuffer with a colour and a depth texture, both of that size.
    void setSource(unsigned int framebuffer, int width, int height);

    void start(RenderCallbacks *callbacks) override;

private:
    unsigned int _framebuffer = 0;
    int _width = 0;
    int _height = 0;
};

} // namespace Brevane::Kvo
