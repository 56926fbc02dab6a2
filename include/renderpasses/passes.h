#pragma once

// The one list of passes: a new one takes an include and a line here. The factory of pipeline files, the tests and
// what is checked about documents and benchmarks go by it.

#include "renderpasses/backgroundimagerenderpass.h"
#include "renderpasses/blendrenderpass.h"
#include "renderpasses/blurandcombinerenderpass.h"
#include "renderpasses/blurbaserenderpass.h"
#include "renderpasses/camerajitterpass.h"
#include "renderpasses/cameraspacezbufferrenderpass.h"
#include "renderpasses/cubemaploaderrenderpass.h"
#include "renderpasses/deferredrenderpass.h"
#include "renderpasses/depthoffieldrenderpass.h"
#include "renderpasses/fastapproximateantialiasingrenderpass.h"
#include "renderpasses/forwardrenderpass.h"
#include "renderpasses/gaussianblurrenderpass.h"
#include "renderpasses/gbufferrenderpass.h"
#include "renderpasses/gradientrenderpass.h"
#include "renderpasses/luminanceaveragerenderpass.h"
#include "renderpasses/modeldeferredpass.h"
#include "renderpasses/modelrenderpass.h"
#include "renderpasses/primitivebuilderrenderpass.h"
#include "renderpasses/scalableambientobscurancerenderpass.h"
#include "renderpasses/shaderrenderpass.h"
#include "renderpasses/shadowmaprenderpass.h"
#include "renderpasses/shadowmaprenderpass2.h"
#include "renderpasses/skyboxrenderpass.h"
#include "renderpasses/smaarenderpass.h"
#include "renderpasses/stencilblurandblendrenderpass.h"
#include "renderpasses/temporalaarenderpass.h"
#include "renderpasses/textureloaderrenderpass.h"
#include "renderpasses/texturetoscreenrenderpass.h"
#include "renderpasses/transparencyrenderpass.h"
#include "renderpasses/visibilitybufferrenderpass.h"
#include "renderpasses/visibilitydeferredrenderpass.h"
#include "renderpasses/visibilitysortrenderpass.h"
#include "renderpasses/wireframerenderpass.h"

/// Every pass class of the library, for what takes their types: KVO_EVERY_PASS(X) is X(GradientRenderPass) ... in the
/// order in which a reader meets them.
#define KVO_EVERY_PASS(X)                                                                                              \
    X(GradientRenderPass)                                                                                              \
    X(ModelRenderPass)                                                                                                 \
    X(GBufferRenderPass)                                                                                               \
    X(ModelDeferredPass)                                                                                               \
    X(ForwardRenderPass)                                                                                               \
    X(PrimitiveBuilderRenderPass)                                                                                      \
    X(DeferredRenderPass)                                                                                              \
    X(CameraSpaceZBufferRenderPass)                                                                                    \
    X(ScalableAmbientObscuranceRenderPass)                                                                             \
    X(LuminanceAverageRenderPass)                                                                                      \
    X(VisibilityBufferRenderPass)                                                                                      \
    X(VisibilitySortRenderPass)                                                                                        \
    X(VisibilityDeferredRenderPass)                                                                                    \
    X(TransparencyRenderPass)                                                                                          \
    X(ShadowMapRenderPass)                                                                                             \
    X(ShadowMapRenderPass2)                                                                                            \
    X(CameraJitterPass)                                                                                                \
    X(TemporalAARenderPass)                                                                                            \
    X(FastApproximateAntiAliasingRenderPass)                                                                           \
    X(SMAARenderPass)                                                                                                  \
    X(BlurBaseRenderPass)                                                                                              \
    X(GaussianBlurRenderPass)                                                                                          \
    X(BlurAndCombineRenderPass)                                                                                        \
    X(StencilBlurAndBlendRenderPass)                                                                                   \
    X(DepthOfFieldRenderPass)                                                                                          \
    X(BlendRenderPass)                                                                                                 \
    X(WireframeRenderPass)                                                                                             \
    X(TextureToScreenRenderPass)                                                                                       \
    X(SkyboxRenderPass)                                                                                                \
    X(BackgroundImageRenderPass)                                                                                       \
    X(TextureLoaderRenderPass)                                                                                         \
    X(CubemapLoaderRenderPass)                                                                                         \
    X(ShaderRenderPass)
