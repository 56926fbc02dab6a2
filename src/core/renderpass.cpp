#include "core/renderpass.h"

#include "core/rendercallbacks.h"

namespace Brevane::Kvo {

RenderCallbacks::RenderCallbacks() = default;
RenderCallbacks::~RenderCallbacks() = default;

RenderPass::~RenderPass() = default;

bool RenderPass::isFinished() const
{
    return true;
}

} // namespace Brevane::Kvo
