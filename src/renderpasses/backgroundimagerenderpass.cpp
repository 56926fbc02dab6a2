#include "renderpasses/backgroundimagerenderpass.h"

#include "core/hostcode.h"
#include "gl/bindings.h"
#include "gl/contextscope.h"
#include "gl/drawbuffers.h"
#include "gl/framebufferobject.h"
#include "gl/guards.h"
#include "gl/shaderprogram.h"
#include "gl/texture.h"
#include "passkit/glstate.h"
#include "passkit/limits.h"
#include "passkit/pool.h"
#include "passkit/programs.h"
#include "passkit/slots.h"
#include "passkit/statetable.h"
#include "passkit/targets.h"

#include <QColor>

#include <epoxy/gl.h>

namespace Brevane::Kvo {

namespace {

const StateRow &kState = stateRow("BackgroundImageRenderPass");

enum Input {
    kViewport,
    kFrame,
    kDepth,
    kFadeImageUrl1,
    kFadeImageUrl2,
    kFadeRatio,
    kFadeRatio2,
    kNormal,
    kFloorMaterialId,
    kFadeRatioFloor
};
enum Output { kFrameOut };

const QString kFragmentHead = QStringLiteral(R"(#version 150

uniform sampler2D u_EnvTexture;
uniform sampler2D u_FadeTexture;
uniform sampler2D u_NormalAndMatIdTex;
uniform sampler2D u_ColorTexture;
uniform int u_FloorMatId;
uniform float u_fade1;
uniform float u_fade2;
uniform float u_fadeFloor;

in vec2 vo_TexCoord;

out vec4 out_FragColor;
)");

// The first test comes first, so that a floor of -1 is none.
const QString kFragmentMain = QStringLiteral(R"(
vec4 background()
{
  return texture(u_EnvTexture, vo_TexCoord) * u_fade1 + texture(u_FadeTexture, vo_TexCoord) * u_fade2;
}

void main()
{
  int id = int(exactTexture(u_NormalAndMatIdTex, vo_TexCoord).a);
  id = id * sign(id) - 1;
  float share = id == -1 ? 0.0 : id == u_FloorMatId ? u_fadeFloor : 1.0;
  vec4 color = texture(u_ColorTexture, vo_TexCoord);
  out_FragColor = color;
  // A loop of at most one round: rasterisers on the CPU pay for both sides of a condition, but not for a
  // loop that no pixel enters.
  for(int rounds = share == 1.0 ? 0 : 1; rounds > 0; --rounds)
    out_FragColor = id == -1 ? background() : color * share + (1.0 - share) * background();
}
)");

const ProgramRecipe &fadeProgram()
{
    static const ProgramRecipe recipe{
        QStringLiteral("BackgroundImageRenderPass"),
        {QStringLiteral("out_FragColor")},
        {{GL_VERTEX_SHADER, ShaderSource::Text, kScreenVertexShader},
         {GL_FRAGMENT_SHADER, ShaderSource::Text, kFragmentHead + kExactTexture + kFragmentMain}}};
    return recipe;
}

// Null until the file can be read.
void loadOnce(Held<Texture> &image, const QVariant &path)
{
    if (image)
        return;
    if (const QString file = path.toString(); !file.isEmpty())
        image.borrowHere(TextureManager::Instance().textureFromFile(file, {0, 1.0f, false}));
}

// What is sampled where an image is missing.
Texture *orTransparent(Texture *texture)
{
    return texture ? texture : TextureManager::Instance().solidTexture(QColor(Qt::transparent));
}

constexpr SlotInfo kInputInfo[] = {
    {.name = "Kvo_QRect_Viewport", .meaning = "size of the result", .kind = SlotKind::Area, .unit = "pixels"},
    {.name = "Kvo_KvoTexture*_Frame",
     .meaning = "the frame; required (none: transparent black)",
     .kind = SlotKind::Texture},
    {.name = "Kvo_KvoTexture*_Depth",
     .meaning = "depth and stencil of the frame; has no effect on the picture",
     .kind = SlotKind::Texture,
     .hasEffect = false},
    {.name = "Kvo_string_FadeImageUrl1", .meaning = "path of the first image", .kind = SlotKind::Path},
    {.name = "Kvo_string_FadeImageUrl2", .meaning = "path of the second image", .kind = SlotKind::Path},
    {.name = "Kvo_float_FadeRatio",
     .meaning = "weight of the first image",
     .kind = SlotKind::Factor,
     .range = {0, 1, 0.05}},
    {.name = "Kvo_float_FadeRatio2",
     .meaning = "weight of the second image",
     .kind = SlotKind::Factor,
     .range = {0, 1, 0.05}},
    {.name = "Kvo_KvoTexture*_Normal",
     .meaning = "alpha: material id plus 1, with either sign; 0: nothing was drawn. None: nothing was drawn anywhere",
     .kind = SlotKind::Texture},
    {.name = "Kvo_int_FloorMaterialId",
     .meaning = "material of the floor; -1: there is none",
     .kind = SlotKind::Index,
     .range = {-1, 65535, 1}},
    {.name = "Kvo_float_FadeRatioFloor",
     .meaning = "share of the frame on the floor",
     .kind = SlotKind::Factor,
     .range = {0, 1, 0.05}},
};

constexpr SlotInfo kOutputInfo[] = {
    {.name = "Kvo_KvoTexture*_Frame",
     .meaning = "the frame in front of its background",
     .kind = SlotKind::Texture,
     .format = "pool format 7"},
};

constexpr PassInfo kInfo = {"BackgroundImageRenderPass", "puts a cross-fade of two image files behind a finished frame",
                            Reach::texels(0), kInputInfo, kOutputInfo};

} // namespace

BackgroundImageRenderPass::BackgroundImageRenderPass()
{
    setTextureForm(TextureForm::Typed);
    addInput(QStringLiteral("Kvo_QRect_Viewport"), QVariant(), kViewport);
    addInput(QStringLiteral("Kvo_KvoTexture*_Frame"), QVariant(), kFrame);
    addInput(QStringLiteral("Kvo_KvoTexture*_Depth"), QVariant(), kDepth);
    addInput(QStringLiteral("Kvo_string_FadeImageUrl1"), QVariant(), kFadeImageUrl1);
    addInput(QStringLiteral("Kvo_string_FadeImageUrl2"), QVariant(), kFadeImageUrl2);
    addInput(QStringLiteral("Kvo_float_FadeRatio"), QVariant(), kFadeRatio);
    addInput(QStringLiteral("Kvo_float_FadeRatio2"), QVariant(), kFadeRatio2);
    addInput(QStringLiteral("Kvo_KvoTexture*_Normal"), QVariant(), kNormal);
    addInput(QStringLiteral("Kvo_int_FloorMaterialId"), -1, kFloorMaterialId);
    addInput(QStringLiteral("Kvo_float_FadeRatioFloor"), QVariant(), kFadeRatioFloor);
    addOutput(QStringLiteral("Kvo_KvoTexture*_Frame"), kFrameOut);
    describe(kInfo);
}

BackgroundImageRenderPass::BackgroundImageRenderPass(const BackgroundImageRenderPass &other) = default;
BackgroundImageRenderPass &BackgroundImageRenderPass::operator=(const BackgroundImageRenderPass &other) = default;

BackgroundImageRenderPass::~BackgroundImageRenderPass() = default;

void BackgroundImageRenderPass::setup(RenderCallbacks *)
{
    if (!ContextScope())
        return;
    _fbo.giveUp();
    made(_fbo, "BackgroundImageRenderPass");
    buildOnce(_program, fadeProgram());
    fetchOnce(_quad, Quad::Screen, _program);
}

void BackgroundImageRenderPass::teardown(RenderCallbacks *) {}

void BackgroundImageRenderPass::start(RenderCallbacks *callbacks)
{
    const BindingScope scope;
    if (!scope)
        return;
    const Extent extent = extentOf(*this, kViewport);
    const float fade1 = _inputs[kFadeRatio].value.toFloat();
    const float fade2 = _inputs[kFadeRatio2].value.toFloat();
    const float fadeFloor = _inputs[kFadeRatioFloor].value.toFloat();
    const int floorMaterial = _inputs[kFloorMaterialId].value.toInt();
    Texture *depth = typedTexture(_inputs[kDepth].value);
    Texture *frame = typedTexture(*this, kFrame);
    Texture *normal = typedTexture(*this, kNormal);

    loadOnce(_fadeTexture1, _inputs[kFadeImageUrl1].value);
    loadOnce(_fadeTexture2, _inputs[kFadeImageUrl2].value);
    const bool isWhole = _fbo && _program;
    if (!isWhole || extent != Extent{_width, _height}) {
        _width = extent.width;
        _height = extent.height;
        if (!isWhole) {
            const HostCode hostCode; // may be overridden
            setup(callbacks);
        }
        if (!_fbo || !_program)
            return; // the context was lost on the way
    }

    Texture *result = tempTexture(TextureFormat::Frame, extent);
    GLenum depthPoint = GL_DEPTH_STENCIL_ATTACHMENT;
    if (depth && (depthPoint = depthAttachmentOf(*this, kDepth, depth, GL_TEXTURE_2D)) == GL_NONE) {
        release(std::exchange(depth, nullptr));
        depthPoint = GL_DEPTH_STENCIL_ATTACHMENT;
    }
    if (!depth)
        depth = tempTexture(TextureFormat::DepthStencil, extent);
    // Without material ids nothing says that there is anything in front of the background.
    normal = orTransparent(normal);
    {
        AutoBinder fbo(_fbo);
        _fbo->attach(result, GL_COLOR_ATTACHMENT0, 0);
        _fbo->attach(depth, depthPoint, 0);
    }

    {
        const NeutralState neutral(kState);
        AutoBinder fbo(_fbo);
        _fbo->setDrawBuffers();
        glViewport(0, 0, extent.width, extent.height);

        Texture *env = orTransparent(_fadeTexture1);
        Texture *fade = orTransparent(_fadeTexture2);
        Texture *color = orTransparent(frame);
        AutoBinder program(_program);
        AutoBinder boundDepth(depth); // has a unit, though no sampler reads it
        AutoBinder boundEnv(env);
        AutoBinder boundFade(fade);
        AutoBinder boundNormal(normal);
        AutoBinder boundColor(color);
        _program->setUniform(QStringLiteral("u_EnvTexture"), env->unit());
        _program->setUniform(QStringLiteral("u_FadeTexture"), fade->unit());
        _program->setUniform(QStringLiteral("u_NormalAndMatIdTex"), normal->unit());
        _program->setUniform(QStringLiteral("u_ColorTexture"), color->unit());
        _program->setUniform(QStringLiteral("u_FloorMatId"), floorMaterial);
        _program->setUniform(QStringLiteral("u_fade1"), fade1);
        _program->setUniform(QStringLiteral("u_fade2"), fade2);
        _program->setUniform(QStringLiteral("u_fadeFloor"), fadeFloor);

        AutoBinder quad(_quad);
        glDisable(GL_DEPTH_TEST);
        glDepthMask(GL_FALSE);
        // The stencil state is for whoever draws next: the test stays off here.
        glDisable(GL_STENCIL_TEST);
        glStencilFunc(GL_EQUAL, 0, 0xff);
        glStencilOp(GL_KEEP, GL_KEEP, GL_KEEP);
        glStencilMask(0);
        if (!extent.isEmpty() && _quad)
            _quad->draw();
    }

    publish(_outputs[kFrameOut], _fbo->attachment(GL_COLOR_ATTACHMENT0), _numOutputUsers[kFrameOut]);
    AutoBinder fbo(_fbo);
    release(_fbo->detach(GL_COLOR_ATTACHMENT0));
    release(_fbo->detach(depthPoint));
    release(frame);
    release(normal);
}

} // namespace Brevane::Kvo
