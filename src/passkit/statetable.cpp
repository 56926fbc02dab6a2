#include "passkit/statetable.h"

#include <epoxy/gl.h>

#include <QByteArray>
#include <QtGlobal>

namespace Brevane::Kvo {

namespace {

using P = StatePiece;

// Builders of exceptions, so that the table below reads as one.

StateException counts(P piece, const char *why, const char *when = nullptr)
{
    return {StateException::HostCounts, piece, when, why};
}

StateException left(P piece, const char *text, std::vector<double> value, const char *when = nullptr)
{
    return {StateException::Left, piece, when, text, std::move(value)};
}

StateException off(P piece, const char *when = nullptr)
{
    return left(piece, "off", {0}, when);
}

StateException on(P piece, const char *when = nullptr)
{
    return left(piece, "on", {1}, when);
}

StateException depthMask(bool open, const char *when = nullptr)
{
    return left(P::DepthMask, open ? "open" : "closed", {double(open)}, when);
}

StateException colorMaskOpen(const char *when = nullptr)
{
    return left(P::ColorMask, "open", {double(~0u)}, when);
}

// A viewport call without an index sets all of them.
std::vector<StateException> with(std::vector<StateException> list, std::vector<StateException> more)
{
    list.insert(list.end(), more.begin(), more.end());
    return list;
}

std::vector<StateException> viewportLeft(const char *text, const char *when = nullptr)
{
    return {left(P::Viewport, text, {}, when), left(P::FurtherViewports, text, {}, when)};
}

constexpr const char *kTargetSize = "the size of the target";
constexpr const char *kRectangle = "the rectangle of the input";

StateException drawsInHostViewport()
{
    return counts(P::Viewport, "The pass draws with the viewport that the host has set, which may be a part of the "
                               "target.");
}

StateException clearsToCurrent(const char *when = nullptr)
{
    return counts(P::ClearColor,
                  "The target is cleared to the clear colour of the moment: the host chooses what "
                  "pixels hold that nothing is drawn to.",
                  when);
}

StateException clearColor(double r, double g, double b, double a, const char *when = nullptr)
{
    return left(P::ClearColor,
                a == 0   ? "transparent black"
                : r == 0 ? "opaque black"
                         : "the mark of an empty texel",
                {r, g, b, a}, when);
}

constexpr double kKeep = GL_KEEP;

std::vector<StateException> stencilLeft(unsigned int function, int reference, const char *text,
                                        const char *when = nullptr)
{
    const double f = function, r = reference;
    return {left(P::StencilFunction, text, {f, r, 255, f, r, 255}, when),
            left(P::StencilOperation, "keep", {kKeep, kKeep, kKeep, kKeep, kKeep, kKeep}, when),
            left(P::StencilMask, "closed", {0, 0}, when)};
}

// The same factors for all draw buffers.
std::vector<double> blendFunction(double sourceColor, double targetColor, double sourceAlpha, double targetAlpha)
{
    std::vector<double> factors;
    for (int i = 0; i < 8; ++i)
        factors.insert(factors.end(), {sourceColor, targetColor, sourceAlpha, targetAlpha});
    return factors;
}

} // namespace

const std::vector<StateRow> &stateTable()
{
    static const char *const kWithModel = "with a model";
    static const char *const kWithGeometry = "with geometry";
    static const char *const kSolid = "with a solid colour";
    static const char *const kGradient = "with a gradient";
    static const char *const kAveraging = "when averaging";
    static const char *const kCopying = "when copying";
    static const char *const kClearing = "without a texture";
    static const char *const kWithStencil = "with a stencil";
    static const char *const kWithCasters = "with casters";
    static const char *const kWithCulled = "with casters that are culled";
    static const char *const kFirst = "after a change";
    static const char *const kMean = "in a still view";
    static const char *const kWithSource = "with a source";
    static const char *const kWithFrame = "with a frame";
    static const char *const kWithDepth = "with a depth";

    static const char *const kCulling = "Recorded are the fragments that the host's culling leaves, so that a host may "
                                        "record one side of its surfaces.";
    static const char *const kBlending = "The recording runs under the blending of the host.";

    static const std::vector<StateRow> table = {
        {"GradientRenderPass",
         with({counts(P::ScissorTest,
                      "A gradient fills what the host's scissor lets it, so that a host may draw it "
                      "into a part of the target.",
                      kGradient),
               counts(P::ScissorBox, "The box of that scissor test.", kGradient), off(P::DepthTest),
               off(P::StencilTest), off(P::Blending), off(P::FaceCulling), colorMaskOpen(), off(P::ScissorTest, kSolid),
               left(P::ClearColor, "the solid colour", {}, kSolid)},
              viewportLeft(kTargetSize))},
        {"ModelRenderPass", {drawsInHostViewport(), clearColor(0, 0, 0, 0), on(P::DepthTest, kWithModel)}},
        {"GBufferRenderPass",
         with({clearsToCurrent(), on(P::DepthTest, kWithGeometry)}, viewportLeft(kTargetSize)),
         {P::AttributeValues}},
        {"ModelDeferredPass", {drawsInHostViewport(), clearsToCurrent(), off(P::DepthTest)}},
        {"ForwardRenderPass", {drawsInHostViewport(), clearColor(0, 0, 0, 0)}},
        {"PrimitiveBuilderRenderPass", {}},
        {"DeferredRenderPass", {drawsInHostViewport(), clearsToCurrent(), off(P::DepthTest)}},
        {"CameraSpaceZBufferRenderPass", with({off(P::StencilTest), depthMask(false)}, viewportLeft(kTargetSize))},
        {"ScalableAmbientObscuranceRenderPass",
         with(with({off(P::StencilTest, kWithDepth), depthMask(false, kWithDepth), clearColor(0, 0, 0, 0, kWithDepth)},
                   viewportLeft(kTargetSize, kWithDepth)),
              stencilLeft(GL_EQUAL, 1, "equal to 1", kWithDepth))},
        {"LuminanceAverageRenderPass",
         with({off(P::DepthTest), off(P::StencilTest), off(P::Blending), off(P::FaceCulling), colorMaskOpen()},
              viewportLeft("one pixel at the corner of the input's rectangle"))},
        {"VisibilityBufferRenderPass",
         {drawsInHostViewport(),
          counts(P::DepthFunction, "Which of two fragments of a pixel stays, where a list holds only one, is for the "
                                   "host to say."),
          counts(P::FaceCulling, kCulling), counts(P::CulledFace, kCulling), counts(P::FrontFace, kCulling),
          counts(P::Blending, kBlending), counts(P::BlendFunction, kBlending), counts(P::BlendEquation, kBlending),
          counts(P::BlendColor, kBlending), clearColor(0, 0, 0, 0), on(P::DepthTest, kWithModel)}},
        {"VisibilitySortRenderPass",
         {drawsInHostViewport(), on(P::DepthTest)},
         {P::StencilOperation, P::StencilMask, P::ClearStencil}},
        {"VisibilityDeferredRenderPass",
         {drawsInHostViewport(), clearsToCurrent()},
         {P::StencilOperation, P::StencilMask, P::ClearStencil}},
        {"TransparencyRenderPass",
         {drawsInHostViewport(), clearsToCurrent(),
          counts(P::DepthFunction, "The pass has no depth function of its own: a host with a reversed depth buffer "
                                   "sets one."),
          clearColor(0, 0, 0, 0), depthMask(true, kWithModel),
          left(P::BlendFunction, "source by 1 - alpha, target by alpha",
               blendFunction(GL_ONE_MINUS_SRC_ALPHA, GL_SRC_ALPHA, GL_ONE_MINUS_SRC_ALPHA, GL_SRC_ALPHA), kWithModel)},
         {P::BlendEquation}},
        {"ShadowMapRenderPass",
         with({clearColor(1e9, 1e9, 1e9, 1), off(P::Blending, kWithCasters), off(P::DepthClamp, kWithCasters),
               depthMask(true, kWithCasters), off(P::FaceCulling, kWithCulled)},
              viewportLeft("the size of the maps", kWithCasters))},
        {"ShadowMapRenderPass2",
         {clearColor(1e9, 1e9, 1e9, 1), off(P::Blending, kWithCasters), off(P::DepthClamp, kWithCasters),
          depthMask(true, kWithCasters), colorMaskOpen(kWithCasters), off(P::FaceCulling, kWithCulled)}},
        {"CameraJitterPass", {}},
        {"TemporalAARenderPass", with({off(P::DepthTest, kWithFrame), depthMask(true, kWithFrame),
                                       off(P::Blending, kWithFrame), clearColor(0, 0, 0, 0, kFirst),
                                       left(P::BlendFunction, "source by 1 - constant, target by constant",
                                            blendFunction(GL_ONE_MINUS_CONSTANT_COLOR, GL_CONSTANT_COLOR,
                                                          GL_ONE_MINUS_CONSTANT_COLOR, GL_CONSTANT_COLOR),
                                            kMean),
                                       left(P::BlendEquation, "add", std::vector<double>(16, GL_FUNC_ADD), kMean),
                                       left(P::BlendColor, "the weight of the frames so far", {}, kMean)},
                                      viewportLeft(kTargetSize))},
        {"FastApproximateAntiAliasingRenderPass",
         with({clearsToCurrent(), off(P::DepthTest)}, viewportLeft(kTargetSize))},
        {"SMAARenderPass", with(with({off(P::DepthTest), off(P::Blending), off(P::StencilTest), clearColor(0, 0, 0, 0),
                                      left(P::ClearStencil, "0", {0}),
                                      left(P::StencilOperation, "keep, keep, replace",
                                           {kKeep, kKeep, GL_REPLACE, kKeep, kKeep, GL_REPLACE}),
                                      left(P::StencilFunction, "equal to 1", {GL_EQUAL, 1, 255, GL_EQUAL, 1, 255}),
                                      left(P::StencilMask, "closed", {0, 0})},
                                     {}),
                                viewportLeft(kTargetSize))},
        {"BlurBaseRenderPass", {}},
        {"GaussianBlurRenderPass", with({clearsToCurrent(), off(P::DepthTest), depthMask(false), clearColor(0, 0, 0, 1),
                                         off(P::StencilTest, kWithStencil)},
                                        stencilLeft(GL_EQUAL, 2, "equal to the material's number", kWithStencil))},
        {"BlurAndCombineRenderPass", {clearsToCurrent(), off(P::DepthTest), depthMask(false)}},
        {"StencilBlurAndBlendRenderPass", {clearsToCurrent(), off(P::DepthTest), depthMask(false)}},
        {"DepthOfFieldRenderPass", with({clearsToCurrent(), off(P::DepthTest)}, viewportLeft(kTargetSize))},
        {"BlendRenderPass", with({clearsToCurrent(), off(P::DepthTest), off(P::Blending)}, viewportLeft(kRectangle))},
        {"WireframeRenderPass", with({clearsToCurrent(), off(P::DepthTest)}, viewportLeft(kRectangle))},
        {"TextureToScreenRenderPass",
         with({clearsToCurrent(kClearing), off(P::DepthTest, kAveraging), off(P::Blending, kAveraging),
               off(P::StencilTest, kAveraging), off(P::ScissorTest, kAveraging), colorMaskOpen(kAveraging),
               left(P::ScissorBox, "the last rectangle", {}, kAveraging), left(P::DrawFramebuffer, "0", {0}),
               left(P::ReadFramebuffer, "0", {0}, kCopying)},
              viewportLeft("the last rectangle", kAveraging))},
        {"SkyboxRenderPass", with({drawsInHostViewport(), off(P::DepthTest, kWithSource), off(P::StencilTest)},
                                  stencilLeft(GL_EQUAL, 0, "equal to 0"))},
        {"BackgroundImageRenderPass",
         with(with({off(P::DepthTest), depthMask(false), off(P::StencilTest)}, viewportLeft(kTargetSize)),
              stencilLeft(GL_EQUAL, 0, "equal to 0"))},
        {"TextureLoaderRenderPass", {}},
        {"CubemapLoaderRenderPass", {}},
        {"ShaderRenderPass",
         with({clearsToCurrent(),
               counts(P::PatchParameters, "What a patch of the host's own geometry is, the host says to GL."),
               off(P::DepthTest), off(P::Blending),
               left(P::BlendFunction, "that of the mode", {}, "with a blend mode")},
              viewportLeft(kTargetSize)),
         {P::BlendEquation, P::AttributeValues, P::LineDrawing, P::PointDrawing}},
    };
    return table;
}

const std::vector<StateOfAll> &stateOfAll()
{
    static const std::vector<StateOfAll> all{
        {P::Query, "A query that is running counts what passes draw: GL has no way to pause one."},
        {P::ConditionalRendering, "Draws are left out as the host has asked: GL does not tell that it was asked to."},
        {P::TransformFeedback, "Feedback that runs is paused for a pass from OpenGL 4.0 on; before, GL cannot pause "
                               "it, and draws fail."}};
    return all;
}

const StateRow *findStateRow(const char *className)
{
    for (const StateRow &row : stateTable()) {
        if (qstrcmp(row.className, className) == 0)
            return &row;
    }
    return nullptr;
}

const StateRow &stateRow(const char *className)
{
    const StateRow *row = findStateRow(className);
    Q_ASSERT(row);
    return *row;
}

} // namespace Brevane::Kvo
