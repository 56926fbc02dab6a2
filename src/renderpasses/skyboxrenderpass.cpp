#include "renderpasses/skyboxrenderpass.h"

#include "core/hostcode.h"
#include "gl/bindings.h"
#include "gl/contextscope.h"
#include "gl/drawbuffers.h"
#include "gl/framebufferobject.h"
#include "gl/guards.h"
#include "gl/sampling.h"
#include "gl/shaderprogram.h"
#include "gl/texture.h"
#include "passkit/limits.h"
#include "passkit/pool.h"
#include "passkit/programs.h"
#include "passkit/slots.h"
#include "passkit/statetable.h"
#include "passkit/targets.h"

#include <QMatrix4x4>

#include <epoxy/gl.h>

#include <optional>

namespace Brevane::Kvo {

namespace {

const StateRow &kState = stateRow("SkyboxRenderPass");

enum Input { kViewport, kProjectionMatrix, kCameraMatrix, kCubemap, kLatLongMap, kBackground, kFrame, kDepth };
enum Output { kFrameOut };

// The place of the camera drops out of the direction: only its rotation shows.
const QString kVertexShader = QStringLiteral(R"(#version 150

uniform mat4 u_InvCameraMatrix;
uniform mat4 u_NDCCoordToDirection;

in vec3 va_Vertex;
in vec2 va_TexCoord;

out vec3 vo_Vertex;
out vec3 vo_ViewDir;
out vec2 vo_TexCoord;

void main()
{
  gl_Position = vec4(va_Vertex, 1.0);
%1;
  vec4 point = u_NDCCoordToDirection * vec4(va_Vertex, 1.0);
  vec3 viewDir = normalize(point.xyz / point.w);
  vec3 origin = (u_InvCameraMatrix * vec4(0.0, 0.0, 0.0, 1.0)).xyz;
  vo_ViewDir = normalize((u_InvCameraMatrix * vec4(viewDir, 1.0)).xyz - origin);
}
)");

const QString kTexCoordAsIs = QStringLiteral("  vo_TexCoord = va_TexCoord");
const QString kTexCoordFlipped = QStringLiteral("  vo_TexCoord = vec2(1.0, -1.0) * va_TexCoord + vec2(0.0, 1.0)");

const QString kCubeFragmentShader = QStringLiteral(R"(#version 150

uniform samplerCube u_EnvTexture;

in vec3 vo_ViewDir;

out vec4 out_FragColor;

void main()
{
  out_FragColor = texture(u_EnvTexture, normalize(vo_ViewDir));
}
)");

const QString kLatLongFragmentShader = QStringLiteral(R"(#version 150
#include "KvoUtilities.glslh"

uniform sampler2D u_EnvTexture;

in vec3 vo_ViewDir;

out vec4 out_FragColor;

void main()
{
  out_FragColor = texture(u_EnvTexture, directionToLatLong_Tarn(normalize(vo_ViewDir)));
}
)");

const QString kBackgroundFragmentShader = QStringLiteral(R"(#version 150

uniform sampler2D u_EnvTexture;

in vec2 vo_TexCoord;

out vec4 out_FragColor;

void main()
{
  vec4 color = texture(u_EnvTexture, vo_TexCoord);
  out_FragColor = vec4(pow(color.rgb, vec3(2.2)), color.a);
}
)");

ProgramRecipe skyProgram(const char *source, const QString &texCoord, const QString &fragmentShader)
{
    return {QStringLiteral("SkyboxRenderPass %1").arg(QLatin1StringView(source)),
            {QStringLiteral("out_FragColor")},
            {{GL_VERTEX_SHADER, ShaderSource::Text, kVertexShader.arg(texCoord)},
             {GL_FRAGMENT_SHADER, ShaderSource::Text, fragmentShader}}};
}

const ProgramRecipe &cubeProgram()
{
    static const ProgramRecipe recipe = skyProgram("cube map", kTexCoordAsIs, kCubeFragmentShader);
    return recipe;
}

const ProgramRecipe &latLongProgram()
{
    static const ProgramRecipe recipe = [] {
        ProgramRecipe program = skyProgram("latitude-longitude map", kTexCoordAsIs, kLatLongFragmentShader);
        program.sources.push_back({GL_FRAGMENT_SHADER, ShaderSource::File, QStringLiteral("KvoUtilities.glslc")});
        return program;
    }();
    return recipe;
}

const ProgramRecipe &backgroundProgram()
{
    static const ProgramRecipe recipe = skyProgram("background", kTexCoordFlipped, kBackgroundFragmentShader);
    return recipe;
}

// For a depth target without a stencil: lets the quad, put at the far end of the depth range, pass only
// where nothing is nearer. GL's depth state is the default before and after.
class FarPlaneTest
{
public:
    FarPlaneTest() : _test(GL_DEPTH_TEST)
    {
        glDepthRange(1.0, 1.0);
        glDepthFunc(GL_LEQUAL);
        glDepthMask(GL_FALSE);
    }
    ~FarPlaneTest()
    {
        glDepthRange(0.0, 1.0);
        glDepthFunc(GL_LESS);
        glDepthMask(GL_TRUE);
    }
    FarPlaneTest(const FarPlaneTest &) = delete;
    FarPlaneTest &operator=(const FarPlaneTest &) = delete;

private:
    AutoEnabler _test;
};

constexpr SlotInfo kInputInfo[] = {
    {.name = "Kvo_QRect_Viewport",
     .meaning = "size of what the pass makes itself",
     .kind = SlotKind::Area,
     .unit = "pixels"},
    {.name = "Kvo_QMatrix4x4_ProjectionMatrix",
     .meaning = "camera to clip space; none: identity",
     .kind = SlotKind::Matrix},
    {.name = "Kvo_QMatrix4x4_CameraMatrix",
     .meaning = "world to camera space; none: identity",
     .kind = SlotKind::Matrix},
    {.name = "Kvo_KvoTexture*_Cubemap", .meaning = "second choice: a cube map", .kind = SlotKind::Texture},
    {.name = "Kvo_KvoTexture*_LatLongMap",
     .meaning = "third choice: see directionToLatLong_Tarn",
     .kind = SlotKind::Texture},
    {.name = "Kvo_KvoTexture*_Background",
     .meaning = "first choice: an image that fills the frame, top row first",
     .kind = SlotKind::Texture},
    {.name = "Kvo_KvoTexture*_Frame",
     .meaning = "colour target; none: a pool texture of format 7, opaque black",
     .kind = SlotKind::Texture},
    {.name = "Kvo_KvoTexture*_Depth", .meaning = "tells what is covered; none: nothing is", .kind = SlotKind::Texture},
};

constexpr SlotInfo kOutputInfo[] = {
    {.name = "Kvo_KvoTexture*_Frame",
     .meaning = "the frame with what was painted",
     .kind = SlotKind::Texture,
     .format = "the frame that came in, or a pool texture of format 7"},
};

constexpr PassInfo kInfo = {"SkyboxRenderPass",
                            "fills what a frame does not cover with an image, a cube map or a panorama",
                            Reach::wholeFrame(), kInputInfo, kOutputInfo};

} // namespace

SkyboxRenderPass::SkyboxRenderPass()
{
    setTextureForm(TextureForm::Typed);
    addInput(QStringLiteral("Kvo_QRect_Viewport"), QVariant(), kViewport);
    addInput(QStringLiteral("Kvo_QMatrix4x4_ProjectionMatrix"), QVariant(), kProjectionMatrix);
    addInput(QStringLiteral("Kvo_QMatrix4x4_CameraMatrix"), QVariant(), kCameraMatrix);
    addInput(QStringLiteral("Kvo_KvoTexture*_Cubemap"), QVariant(), kCubemap);
    addInput(QStringLiteral("Kvo_KvoTexture*_LatLongMap"), QVariant(), kLatLongMap);
    addInput(QStringLiteral("Kvo_KvoTexture*_Background"), QVariant(), kBackground);
    addInput(QStringLiteral("Kvo_KvoTexture*_Frame"), QVariant(), kFrame);
    addInput(QStringLiteral("Kvo_KvoTexture*_Depth"), QVariant(), kDepth);
    addOutput(QStringLiteral("Kvo_KvoTexture*_Frame"), kFrameOut);
    describe(kInfo);
}

SkyboxRenderPass::SkyboxRenderPass(const SkyboxRenderPass &other) = default;
SkyboxRenderPass &SkyboxRenderPass::operator=(const SkyboxRenderPass &other) = default;

SkyboxRenderPass::~SkyboxRenderPass() = default;

void SkyboxRenderPass::setup(RenderCallbacks *)
{
    if (!ContextScope())
        return;
    made(_fbo, "SkyboxRenderPass");
    buildOnce(_cubeProgram, cubeProgram());
    buildOnce(_latLongProgram, latLongProgram());
    buildOnce(_backgroundProgram, backgroundProgram());
    fetchOnce(_quad, Quad::Screen);
}

void SkyboxRenderPass::start(RenderCallbacks *callbacks)
{
    const BindingScope scope;
    if (!scope)
        return;
    const Extent extent = extentOf(*this, kViewport);
    const bool isWhole = _fbo && _cubeProgram && _latLongProgram && _backgroundProgram;
    if (!isWhole || extent != Extent{_width, _height}) {
        const HostCode hostCode; // either may be overridden
        teardown(callbacks);
        _width = extent.width;
        _height = extent.height;
        setup(callbacks);
    }
    if (!_fbo)
        return; // the context was lost on the way
    const auto projection = qvariant_cast<QMatrix4x4>(_inputs[kProjectionMatrix].value);
    const auto camera = qvariant_cast<QMatrix4x4>(_inputs[kCameraMatrix].value);
    Texture *const givenCubemap = typedTexture(_inputs[kCubemap].value);
    Texture *cubemap = ofKind(*this, kCubemap, givenCubemap, TextureKind::Cube);
    Texture *latLongMap = typedTexture(*this, kLatLongMap);
    Texture *background = typedTexture(*this, kBackground);
    Texture *frame = typedTexture(_inputs[kFrame].value);
    Texture *depth = typedTexture(_inputs[kDepth].value);

    const bool ownsFrame = !frame;
    GLenum depthPoint = GL_DEPTH_STENCIL_ATTACHMENT;
    if (depth
        && (depthPoint = depthAttachmentOf(*this, kDepth, depth, frame ? frame->target() : GLenum(GL_TEXTURE_2D)))
               == GL_NONE) {
        release(std::exchange(depth, nullptr));
        depthPoint = GL_DEPTH_STENCIL_ATTACHMENT;
    }
    const bool ownsDepth = !depth;
    if (ownsFrame)
        frame = tempTexture(TextureFormat::Frame, extent);
    if (ownsDepth)
        depth = tempTexture(TextureFormat::DepthStencil, extent);

    NeutralState neutral(kState);
    AutoBinder fbo(_fbo);
    const bool hasTarget = _fbo->attach(frame, GL_COLOR_ATTACHMENT0, 0);
    _fbo->attach(depth, depthPoint, 0);
    const bool isEmpty = extent.isEmpty() && (ownsFrame || ownsDepth);
    const bool canDraw =
        hasTarget && _quad && !isEmpty && ((ownsFrame && ownsDepth) || canDrawTo(*this, ownsFrame ? kDepth : kFrame));
    if (cubemap || latLongMap || background) {
        _fbo->setDrawBuffers();
        if (ownsFrame && canDraw) {
            constexpr GLfloat kOpaqueBlack[] = {0.0f, 0.0f, 0.0f, 1.0f};
            glClearBufferfv(GL_COLOR, 0, kOpaqueBlack);
        }
        if (ownsDepth && canDraw) {
            glStencilMask(0xff); // the mask that this pass leaves would hold off the clear
            glClearBufferfi(GL_DEPTH_STENCIL, 0, 1.0f, 0);
        }
        neutral.leave({StatePiece::DepthTest});
        glDisable(GL_DEPTH_TEST);
    }
    glEnable(GL_STENCIL_TEST);
    glStencilFunc(GL_EQUAL, 0, 0xff);
    glStencilOp(GL_KEEP, GL_KEEP, GL_KEEP);
    glStencilMask(0);

    Texture *source = nullptr;
    ShaderProgram *program = nullptr;
    if (background) {
        source = background;
        program = _backgroundProgram;
        setSampling(source, GL_LINEAR, 0);
    } else if (cubemap) {
        source = cubemap;
        program = _cubeProgram;
    } else if (latLongMap) {
        source = latLongMap;
        program = _latLongProgram;
        setSampling(source, GL_LINEAR, 0, GL_REPEAT, GL_CLAMP_TO_EDGE);
    }
    if (source && canDraw) {
        AutoBinder boundProgram(program);
        AutoBinder boundSource(source);
        enableArrays(*_quad, program);
        program->setUniform(QStringLiteral("u_EnvTexture"), source->unit());
        if (!background) {
            program->setUniform(QStringLiteral("u_InvCameraMatrix"), camera.inverted());
            program->setUniform(QStringLiteral("u_NDCCoordToDirection"), projection.inverted());
        }
        std::optional<FarPlaneTest> uncovered;
        if (depthPoint == GL_DEPTH_ATTACHMENT)
            uncovered.emplace();
        AutoBinder quad(_quad);
        _quad->draw();
    }
    glDisable(GL_STENCIL_TEST);

    publish(_outputs[kFrameOut], _fbo->attachment(GL_COLOR_ATTACHMENT0), _numOutputUsers[kFrameOut]);
    release(givenCubemap); // also one of the pool, which is none
    release(latLongMap);
    release(background);
    release(_fbo->detach(GL_COLOR_ATTACHMENT0));
    release(_fbo->detach(depthPoint));
}

void SkyboxRenderPass::teardown(RenderCallbacks *)
{
    if (_fbo) {
        {
            AutoBinder fbo(_fbo);
            for (GLenum point : {GL_COLOR_ATTACHMENT0, GL_DEPTH_STENCIL_ATTACHMENT}) {
                if (_fbo->hasAttachment(point))
                    release(_fbo->detach(point));
            }
        }
        _fbo = nullptr;
    }
    for (Held<ShaderProgram> *program : {&_cubeProgram, &_latLongProgram, &_backgroundProgram})
        *program = nullptr;
    _quad.reset();
}

} // namespace Brevane::Kvo
