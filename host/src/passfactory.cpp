#include "host/passfactory.h"

#include "renderpasses/blendrenderpass.h"
#include "renderpasses/blurandcombinerenderpass.h"
#include "renderpasses/camerajitterpass.h"
#include "renderpasses/depthoffieldrenderpass.h"
#include "renderpasses/fastapproximateantialiasingrenderpass.h"
#include "renderpasses/forwardrenderpass.h"
#include "renderpasses/gaussianblurrenderpass.h"
#include "renderpasses/gradientrenderpass.h"
#include "renderpasses/modeldeferredpass.h"
#include "renderpasses/modelrenderpass.h"
#include "renderpasses/smaarenderpass.h"
#include "renderpasses/stencilblurandblendrenderpass.h"
#include "renderpasses/temporalaarenderpass.h"
#include "renderpasses/texturetoscreenrenderpass.h"
#include "renderpasses/wireframerenderpass.h"

namespace Brevane::Kvo {

namespace {

template <typename Pass>
std::unique_ptr<RenderPass> makePass()
{
    return std::make_unique<Pass>();
}

struct Entry
{
    const char *className;
    PassFactory::Maker maker;
};

// A new pass takes an include above and a line here.
constexpr Entry kPasses[] = {
    {"BlendRenderPass", makePass<BlendRenderPass>},
    {"BlurAndCombineRenderPass", makePass<BlurAndCombineRenderPass>},
    {"CameraJitterPass", makePass<CameraJitterPass>},
    {"DepthOfFieldRenderPass", makePass<DepthOfFieldRenderPass>},
    {"FastApproximateAntiAliasingRenderPass", makePass<FastApproximateAntiAliasingRenderPass>},
    {"ForwardRenderPass", makePass<ForwardRenderPass>},
    {"GaussianBlurRenderPass", makePass<GaussianBlurRenderPass>},
    {"GradientRenderPass", makePass<GradientRenderPass>},
    {"ModelDeferredPass", makePass<ModelDeferredPass>},
    {"ModelRenderPass", makePass<ModelRenderPass>},
    {"SMAARenderPass", makePass<SMAARenderPass>},
    {"StencilBlurAndBlendRenderPass", makePass<StencilBlurAndBlendRenderPass>},
    {"TemporalAARenderPass", makePass<TemporalAARenderPass>},
    {"TextureToScreenRenderPass", makePass<TextureToScreenRenderPass>},
    {"WireframeRenderPass", makePass<WireframeRenderPass>},
};

} // namespace

PassFactory &passFactory()
{
    static PassFactory factory;
    return factory;
}

PassFactory::PassFactory()
{
    for (const Entry &entry : kPasses)
        add(QLatin1StringView(entry.className), entry.maker);
}

std::unique_ptr<RenderPass> PassFactory::make(const QString &className) const
{
    const auto found = _makers.find(className);
    return found == _makers.end() ? nullptr : found->second();
}

bool PassFactory::knows(const QString &className) const
{
    return _makers.count(className) > 0;
}

QStringList PassFactory::classNames() const
{
    QStringList names;
    for (const auto &[name, maker] : _makers)
        names << name;
    return names;
}

bool PassFactory::add(const QString &className, Maker maker)
{
    return !className.isEmpty() && maker && _makers.emplace(className, maker).second;
}

} // namespace Brevane::Kvo
