#include "renderpasses/scalableambientobscurancerenderpass.h"

#include "core/log.h"
#include "gl/bindings.h"
#include "gl/drawbuffers.h"
#include "gl/framebufferobject.h"
#include "gl/glinfo.h"
#include "gl/glslmacroprocessor.h"
#include "gl/guards.h"
#include "gl/opengldevicecontext.h"
#include "gl/picturewindow.h"
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
#include <QVector2D>
#include <QVector3D>
#include <QVector4D>

#include <epoxy/gl.h>

#include <cmath>

namespace Brevane::Kvo {

namespace {

const StateRow &kState = stateRow("ScalableAmbientObscuranceRenderPass");

enum Input {
    kViewport,
    kProjectionMatrix,
    kCameraMatrix,
    kNearPlane,
    kFarPlane,
    kDepth,
    kRadius,
    kBias,
    kIntensity,
    kPosition,
    kNormal,
    kNumSamples,
    kNumLogMaxOffset,
    kNumSpiralTurns,
    kResolutionDivider
};
enum Output { kFrame };

// For those who want positions from depth; nothing here calls it.
const QString kUnprojection = QStringLiteral(R"(#version 150

uniform mat4 u_InvProjMatrix;

in vec2 vo_TexCoord;

out vec4 out_FragColor;

vec4 positionFromDepth(vec2 uv, float depth)
{
  vec2 xy = uv.xy * 2.0 - vec2(1.0);
  float z = (2.0 * depth) - 1.0;
  vec4 projectedPos = vec4(xy, z, 1.0);
  vec4 pos = u_InvProjMatrix * projectedPos;
  return pos / pos.w;
}
)");

const QString kFragmentShader = QStringLiteral(R"(#version 400
#define gl_FragColor out_FragColor

#define FAR_PLANE_Z (-50.0)
#define MAX_MIP_LEVEL (5)

#define NUM_SAMPLES (7)
#define LOG_MAX_OFFSET (3)
#define NUM_SPIRAL_TURNS (3)

#ifdef MSAA_TEXTURES
#define SAMPLER sampler2DMS
#else
#define SAMPLER sampler2D
#endif

uniform sampler2D u_SamplerDepth;
uniform SAMPLER CS_Z_buffer;
#if defined(NORMAL_TRANSPOSE_INVERT) || defined(NORMAL_SCREENSPACE)
uniform SAMPLER u_Normals;
#endif

uniform mat4 u_Camera;
uniform float projScale;
uniform float radius;
uniform float radius2;
uniform float invRadius2;
uniform float bias;
uniform float intensity;
uniform vec3 u_ClipInfo;
uniform vec4 u_ProjInfo;
uniform vec4 projInfo;
uniform float u_NumSamples;
uniform int u_LogMaxOffset;
uniform float u_NumSpiralTurns;
uniform vec2 u_Origin; // whole texels, of the part of a picture that this is

in vec2 vo_TexCoord;

out vec4 out_FragColor;

// S in pixels, z as the depth buffer has it. The background ends the fragment, also where only a tap
// meets it.
vec3 reconstructCSPosition(vec2 S, float z)
{
  if(z==1.0)
    discard;
  z = u_ClipInfo[0] / (u_ClipInfo[1]*z + u_ClipInfo[2]);
  return vec3((S.xy * u_ProjInfo.xy + u_ProjInfo.zw) * z, z);
}

vec3 getPosition(ivec2 ssP)
{
#ifdef CS_POS_CALCULATE
  return vec3(0.0) -reconstructCSPosition(vec2(ssP) + vec2(0.5), texelFetch(CS_Z_buffer, ssP, 0).x);
#else
  return texture(CS_Z_buffer, vo_TexCoord).xyz;
#endif
}

// The level for a tap so far away. texel is the size of a pixel as a fraction of the image, so what is
// taken the logarithm of is a fraction too and not a number of pixels: levels above 0 are for radii of
// many images.
int mipLevelOf(float ssR, vec2 texel)
{
#if defined(MSAA_TEXTURES)
  return 0;
#elif defined(GL_EXT_gpu_shader5)
  return clamp(findMSB(int(ssR * texel )) - u_LogMaxOffset, 0, MAX_MIP_LEVEL);
#else
  return clamp(int(floor(log2(ssR * texel ))) - u_LogMaxOffset, 0, MAX_MIP_LEVEL);
#endif
}

vec3 getOffsetPosition(ivec2 ssC, vec2 unitOffset, float ssR, vec2 texel, int mipLevel)
{
#ifdef CS_POS_CALCULATE
  vec2 ssP = (ssR * unitOffset) + vec2(ssC);
  return vec3(0.0) - reconstructCSPosition(vec2(ssP) + vec2(0.5), texelFetch(CS_Z_buffer, ivec2(ssP), mipLevel).x);
#else
  vec2 ssP = ssR * unitOffset * texel + vo_TexCoord;
  return texture(CS_Z_buffer, ssP, float(mipLevel)).xyz;
#endif
}

vec3 reconstructCSFaceNormal(vec3 C)
{
  return normalize (cross(dFdy(C), dFdx(C)));
}

vec2 tapLocation(float sampleNumber, float spinAngle, float divAll, out float ssR)
{
  float alpha = float(sampleNumber + 0.5) * divAll;
  float angle = alpha * (u_NumSpiralTurns * 6.28) + spinAngle;
  ssR = alpha;
  return vec2(cos(angle), sin(angle));
}

// The share of a tap whose direction is a unit vector as it comes.
float sampleAO(ivec2 ssC, vec3 C, vec3 n_C, vec2 unitOffset, float ssR, vec2 texel, int mipLevel)
{
  vec3 Q = getOffsetPosition(ssC, unitOffset, ssR, texel, mipLevel);
  vec3 v = Q - C;
  float vv = dot(v, v);
  float vn = dot(v, n_C);
  return 4.0 * max(1.0 - vv * invRadius2, 0.0) * max(vn - bias, 0.0);
}

void main()
{
  ivec2 ssC = ivec2(gl_FragCoord.xy);
  vec3 C = getPosition(ssC);
  if(C.z < FAR_PLANE_Z)
    discard;
  ivec2 place = ssC + ivec2(u_Origin);
  float randomPatternRotationAngle = (3.0 * float(place.x ^ place.y) + float(place.x * place.y)) * 10.0;

#if defined(NORMAL_CALCULATE)
  vec3 n_C = -reconstructCSFaceNormal(C);
#elif defined(NORMAL_TRANSPOSE_INVERT)
  vec3 n_C = transpose(inverse(mat3(u_Camera))) * texelFetch(u_Normals, ssC, 0).xyz;
#elif defined(NORMAL_SCREENSPACE)
  vec3 n_C = normalize( texelFetch(u_Normals, ssC, 0).xyz);
  n_C = (n_C.z < 0.0) ? -n_C : n_C;
#else
#error Not know Normal processing
#endif

  float ssDiskRadius = -projScale * radius / C.z;
  float sum = 0.0;
  float divAll = 1.0 / u_NumSamples;
  vec2 texel = fwidth (vo_TexCoord);
  float ssR;
  float i = 0.0;
  // Where the widest tap stays on level 0 all do, so that no tap need take a logarithm.
  float numFine = mipLevelOf(ssDiskRadius, texel) == 0 ? u_NumSamples : 0.0;
  for(; i < numFine; i += 1.0)
  {
    vec2 unitOffset = tapLocation(i, randomPatternRotationAngle, divAll, ssR);
    sum += sampleAO(ssC, C, n_C, unitOffset, ssR * ssDiskRadius, texel, 0);
  }
  for(; i < u_NumSamples; i += 1.0)
  {
    vec2 unitOffset = tapLocation(i, randomPatternRotationAngle, divAll, ssR);
    ssR *= ssDiskRadius;
    sum += sampleAO(ssC, C, n_C, unitOffset, ssR, texel, mipLevelOf(ssR, texel));
  }
  float A = max(0.0, 1.0 - sum * intensity * (5.0 / u_NumSamples));
  out_FragColor = vec4(vec3(A),1);
}
)");

// In texels of the target.
QVector2D originIn(const PictureWindow &window, const QRect &viewport, int width, int height)
{
    if (!window.isPart() || viewport.isEmpty())
        return {};
    return QVector2D(float(qint64(window.x) * width / viewport.width()),
                     float(qint64(window.y) * height / viewport.height()));
}

constexpr int kGLSL400 = 40; // the OpenGL version that brought it
constexpr int kMostLogOffset = 1000; // more than any float has an exponent

unsigned int attachmentOf(Texture *depth)
{
    switch (formatFromInternalFormat(levelInfo(depth, depth->target()).internalFormat)) {
    case GL_DEPTH_COMPONENT: return GL_DEPTH_ATTACHMENT;
    case GL_DEPTH_STENCIL: return GL_DEPTH_STENCIL_ATTACHMENT;
    default: KVO_ASSERT(false, "Unhandled depth format"); return GL_NONE;
    }
}

// One program reads both, so normals have samples where the depth has.
TextureKind kindOfNormals(Texture *depth)
{
    if (!depth)
        return TextureKind::PlainOrSamples;
    return depth->target() == GL_TEXTURE_2D_MULTISAMPLE ? TextureKind::Samples : TextureKind::Plain;
}

constexpr SlotInfo kInputInfo[] = {
    {.name = "Kvo_QRect_Viewport", .meaning = "size before the divider", .kind = SlotKind::Area, .unit = "pixels"},
    {.name = "Kvo_QMatrix4x4_ProjectionMatrix", .meaning = "camera to clip space", .kind = SlotKind::Matrix},
    {.name = "Kvo_QMatrix4x4_CameraMatrix",
     .meaning = "world to camera space, for world normals",
     .kind = SlotKind::Matrix},
    {.name = "Kvo_float_NearPlane",
     .meaning = "distance of the near plane",
     .kind = SlotKind::Distance,
     .unit = "units of the scene",
     .range = {0.0}},
    {.name = "Kvo_float_FarPlane",
     .meaning = "distance of the far plane",
     .kind = SlotKind::Distance,
     .unit = "units of the scene",
     .range = {0.0}},
    {.name = "Kvo_KvoTexture*_Depth",
     .meaning = "window depth, may be multisampled; none: nothing is obscured",
     .kind = SlotKind::Texture},
    {.name = "Kvo_float_SAORadius",
     .meaning = "how far away things hide",
     .kind = SlotKind::Radius,
     .unit = "units of the scene",
     .range = {0, 50, 0.01}},
    {.name = "Kvo_float_SAOBias",
     .meaning = "distance that does not count, against obscurance of smooth surfaces",
     .kind = SlotKind::Distance,
     .unit = "units of the scene",
     .range = {0, 50, 0.01}},
    {.name = "Kvo_float_SAOIntensity", .meaning = "strength", .kind = SlotKind::Factor, .range = {0, 100, 0.1}},
    {.name = "Kvo_KvoTexture*_CameraSpacePosition",
     .meaning = "positions of CameraSpaceZBufferRenderPass; none: from the depth",
     .kind = SlotKind::Texture},
    {.name = "Kvo_KvoTexture*_Normal",
     .meaning = "normals, see setNormalProcessing, multisampled where the depth is; none: from the positions",
     .kind = SlotKind::Texture},
    {.name = "Kvo_float_SaoNumSamples",
     .meaning = "taps per pixel, without its fraction",
     .kind = SlotKind::Count,
     .unit = "taps",
     .range = {0, kMostObscuranceTaps, 1}},
    {.name = "Kvo_float_SaoNumLogMaxOffset",
     .meaning = "radii of 2 to this power read finer levels of the depth, if it has any",
     .kind = SlotKind::Plain,
     .range = {0, 16, 1}},
    {.name = "Kvo_float_SaoNumSpiralTurns",
     .meaning = "turns of the spiral, without its fraction",
     .kind = SlotKind::Count,
     .unit = "turns",
     .range = {0, kMostSpiralTurns, 1}},
    {.name = "Kvo_float_ResolutionDivider",
     .meaning = "the output is the viewport divided by this; 0 counts as 1",
     .kind = SlotKind::Divider,
     .range = {0, 64, 0.5}},
};

constexpr SlotInfo kOutputInfo[] = {
    {.name = "Kvo_KvoTexture*_Frame",
     .meaning = "1 where nothing is hidden",
     .kind = SlotKind::Texture,
     .format = "pool format 3, size of the viewport divided by the divider, rounded down"},
};

constexpr PassInfo kInfo = {"ScalableAmbientObscuranceRenderPass",
                            "how much of the surroundings of each pixel is hidden by geometry nearby",
                            Reach::wholeFrame(), kInputInfo, kOutputInfo};

} // namespace

ScalableAmbientObscuranceRenderPass::ScalableAmbientObscuranceRenderPass()
{
    addInput(QStringLiteral("Kvo_QRect_Viewport"), QVariant(), kViewport);
    addInput(QStringLiteral("Kvo_QMatrix4x4_ProjectionMatrix"), QVariant(), kProjectionMatrix);
    addInput(QStringLiteral("Kvo_QMatrix4x4_CameraMatrix"), QVariant(), kCameraMatrix);
    addInput(QStringLiteral("Kvo_float_NearPlane"), QVariant(), kNearPlane);
    addInput(QStringLiteral("Kvo_float_FarPlane"), QVariant(), kFarPlane);
    addInput(QStringLiteral("Kvo_KvoTexture*_Depth"), QVariant(), kDepth);
    addInput(QStringLiteral("Kvo_float_SAORadius"), 0.08f, kRadius);
    addInput(QStringLiteral("Kvo_float_SAOBias"), 0.03f, kBias);
    addInput(QStringLiteral("Kvo_float_SAOIntensity"), 1.0f, kIntensity);
    addInput(QStringLiteral("Kvo_KvoTexture*_CameraSpacePosition"), QVariant(), kPosition);
    addInput(QStringLiteral("Kvo_KvoTexture*_Normal"), QVariant(), kNormal);
    addInput(QStringLiteral("Kvo_float_SaoNumSamples"), 11.0f, kNumSamples);
    addInput(QStringLiteral("Kvo_float_SaoNumLogMaxOffset"), 3.0f, kNumLogMaxOffset);
    addInput(QStringLiteral("Kvo_float_SaoNumSpiralTurns"), 3.0f, kNumSpiralTurns);
    addInput(QStringLiteral("Kvo_float_ResolutionDivider"), 1.0f, kResolutionDivider);
    addOutput(QStringLiteral("Kvo_KvoTexture*_Frame"), kFrame);
    describe(kInfo);
}

ScalableAmbientObscuranceRenderPass::ScalableAmbientObscuranceRenderPass(
    const ScalableAmbientObscuranceRenderPass &other) = default;
ScalableAmbientObscuranceRenderPass &ScalableAmbientObscuranceRenderPass::operator=(
    const ScalableAmbientObscuranceRenderPass &other) = default;

ScalableAmbientObscuranceRenderPass::~ScalableAmbientObscuranceRenderPass() = default;

void ScalableAmbientObscuranceRenderPass::start(RenderCallbacks *)
{
    const BindingScope scope;
    if (!scope)
        return;
    const Extent viewport = extentOf(*this, kViewport);
    float divider = _inputs[kResolutionDivider].value.toFloat();
    if (divider == 0.0f)
        divider = 1.0f;
    const Extent extent = dividedExtent(*this, kResolutionDivider, viewport, divider);
    Texture *depth = anyTexture(*this, kDepth, TextureKind::PlainOrSamples);
    Texture *position = anyTexture(*this, kPosition);
    Texture *normal = anyTexture(*this, kNormal, kindOfNormals(depth));

    made(_fbo, "ScalableAmbientObscuranceRenderPass");
    _width = extent.width;
    _height = extent.height;
    AutoBinder fbo(_fbo);
    Texture *target = tempTexture(TextureFormat::Result, extent);
    _fbo->attach(target, GL_COLOR_ATTACHMENT0, 0);
    if (!_shaderProgramSS)
        _shaderProgramSS = build(false, position, normal);
    if (!_shaderProgramMS)
        _shaderProgramMS = build(true, position, normal);
    fetchOnce(_screenQuad, Quad::Gradient);

    if (depth)
        draw(depth, position, normal);
    else if (!extent.isEmpty())
        clearToUnobscured();

    publish(_outputs[kFrame], target, _numOutputUsers[kFrame]);
    _fbo->detach(GL_COLOR_ATTACHMENT0);
    release(target);
    release(depth);
    release(position);
    release(normal);
}

// Without a depth there is nothing that could obscure. With the framebuffer bound.
void ScalableAmbientObscuranceRenderPass::clearToUnobscured()
{
    const NeutralState neutral(kState);
    _fbo->setDrawBuffers();
    constexpr float kUnobscured[4] = {1.0f, 1.0f, 1.0f, 1.0f};
    glClearBufferfv(GL_COLOR, 0, kUnobscured);
}

// With the framebuffer bound.
void ScalableAmbientObscuranceRenderPass::draw(Texture *depth, Texture *position, Texture *normal)
{
    const auto projection = qvariant_cast<QMatrix4x4>(_inputs[kProjectionMatrix].value);
    const float nearPlane = _inputs[kNearPlane].value.toFloat();
    const float farPlane = _inputs[kFarPlane].value.toFloat();
    const auto camera = qvariant_cast<QMatrix4x4>(_inputs[kCameraMatrix].value);
    const float radius = _inputs[kRadius].value.toFloat();
    const float bias = _inputs[kBias].value.toFloat();
    const float intensity = _inputs[kIntensity].value.toFloat();
    const float numSamples = std::trunc(numberOf(*this, kNumSamples, -kMostObscuranceTaps, kMostObscuranceTaps, 11.0f));
    const int logMaxOffset = integerOf(*this, kNumLogMaxOffset, -kMostLogOffset, kMostLogOffset, 3);
    const float numSpiralTurns =
        std::trunc(numberOf(*this, kNumSpiralTurns, -kMostSpiralTurns, kMostSpiralTurns, 3.0f));

    const bool canDraw = _width > 0 && _height > 0 && _screenQuad;
    NeutralState neutral(kState);
    neutral.leave({StatePiece::StencilTest, StatePiece::DepthMask, StatePiece::ClearColor, StatePiece::Viewport,
                   StatePiece::FurtherViewports, StatePiece::StencilFunction, StatePiece::StencilOperation,
                   StatePiece::StencilMask});
    AutoBinder boundDepth(depth);
    const bool multisampled = depth->target() == GL_TEXTURE_2D_MULTISAMPLE;
    ShaderProgram *const program = multisampled ? _shaderProgramMS : _shaderProgramSS;
    // The test is off, so the depth is safe to sample while it is attached.
    const unsigned int depthAttachment = multisampled || !canDraw ? unsigned(GL_NONE) : attachmentOf(depth);
    if (depthAttachment != GL_NONE)
        _fbo->attach(depth, depthAttachment, 0);
    {
        _fbo->setDrawBuffers();
        AutoDisabler depthTest(GL_DEPTH_TEST);
        glViewport(0, 0, _width, _height);
        // What the shader discards stays unobscured.
        glClearColor(1.0f, 1.0f, 1.0f, 1.0f);
        if (canDraw)
            glClear(GL_COLOR_BUFFER_BIT);
        glClearColor(0.0f, 0.0f, 0.0f, 0.0f);

        AutoBinder boundProgram(program);
        const double p00 = double(projection(0, 0));
        const double p11 = double(projection(1, 1));
        const auto projScale = float(_height * p11 * 0.5);
        const QVector3D clipInfo(farPlane * nearPlane, nearPlane - farPlane, farPlane);
        const QVector4D projInfo(float(-2.0 / (_width * p00)), float(-2.0 / (_height * p11)),
                                 float((1.0 - double(projection(0, 2))) / p00),
                                 float((double(projection(1, 2)) + 1.0) / p11));
        AutoBinder boundPosition(position);
        program->setUniform(QStringLiteral("CS_Z_buffer"), position ? position->unit() : depth->unit());
        AutoBinder boundNormal(normal);
        if (normal)
            program->setUniform(QStringLiteral("u_Normals"), normal->unit());
        program->setUniform(QStringLiteral("u_Camera"), camera);
        program->setUniform(QStringLiteral("projScale"), projScale);
        program->setUniform(QStringLiteral("radius"), radius);
        program->setUniform(QStringLiteral("radius2"), radius * radius);
        program->setUniform(QStringLiteral("invRadius2"), float(1.0 / double(radius * radius)));
        program->setUniform(QStringLiteral("bias"), bias);
        program->setUniform(QStringLiteral("intensity"), intensity);
        program->setUniform(QStringLiteral("u_ClipInfo"), clipInfo);
        program->setUniform(QStringLiteral("u_ProjInfo"), projInfo);
        program->setUniform(QStringLiteral("u_NumSamples"), numSamples);
        program->setUniform(QStringLiteral("u_LogMaxOffset"), logMaxOffset);
        program->setUniform(QStringLiteral("u_NumSpiralTurns"), numSpiralTurns);
        program->setUniform(QStringLiteral("u_Origin"),
                            originIn(PictureWindow::current(), _inputs[kViewport].value.toRect(), _width, _height));

        // Every time: the program may be another one than in the frame before.
        if (canDraw)
            enableArrays(*_screenQuad, program);
        AutoBinder quad(_screenQuad);
        glDisable(GL_DEPTH_TEST);
        glDepthMask(GL_FALSE);
        glDisable(GL_STENCIL_TEST);
        glStencilFunc(GL_EQUAL, 1, 0xff);
        glStencilOp(GL_KEEP, GL_KEEP, GL_KEEP);
        glStencilMask(0);
        if (canDraw)
            _screenQuad->draw();
    }
    if (depthAttachment != GL_NONE)
        _fbo->detach(depthAttachment);
}

ShaderProgram *ScalableAmbientObscuranceRenderPass::build(bool multisampled, bool positions, bool normals) const
{
    // Positions are read in proportion, which multisampled textures do not have: there is no such program.
    if (multisampled && positions)
        return new ShaderProgram(nullptr);

    const QString on = QStringLiteral("1");
    GLSLMacroProcessor defines;
    if (multisampled)
        defines.addDefine(QStringLiteral("MSAA_TEXTURES"), on);
    if (!normals)
        defines.addDefine(QStringLiteral("NORMAL_CALCULATE"), on);
    else if (_normalProcessing == NormalTransposeInvert)
        defines.addDefine(QStringLiteral("NORMAL_TRANSPOSE_INVERT"), on);
    else if (_normalProcessing == NormalScreenSpace)
        defines.addDefine(QStringLiteral("NORMAL_SCREENSPACE"), on);
    if (!positions)
        defines.addDefine(QStringLiteral("CS_POS_CALCULATE"), on);

    QString text = kFragmentShader;
    const QSharedPointer<OpenGLDeviceContext> context = OpenGLDeviceContext::current();
    if (!context || context->version() < kGLSL400)
        text.replace(QStringLiteral("#version 400"), QStringLiteral("#version 150"));
    ProgramRecipe recipe{QStringLiteral("ScalableAmbientObscuranceRenderPass"),
                         {QStringLiteral("out_FragColor")},
                         {{GL_VERTEX_SHADER, ShaderSource::Text, kScreenVertexShader},
                          {GL_FRAGMENT_SHADER, ShaderSource::Text, kUnprojection},
                          {GL_FRAGMENT_SHADER, ShaderSource::Text, text}}};
    recipe.mayFail = true;
    ShaderProgram *program = buildProgram(recipe, &defines);
    if (program->isLinked())
        return program;
    // A driver may refuse texts of two versions in one stage. Nothing calls the first one.
    delete program;
    recipe.sources.erase(recipe.sources.begin() + 1);
    recipe.mayFail = false;
    return buildProgram(recipe, &defines);
}

void ScalableAmbientObscuranceRenderPass::setNormalProcessing(NormalProcessing processing)
{
    // NOLINTBEGIN(modernize-use-nullptr): the condition stands in the message as it is written here.
    KVO_ASSERT(NULL == _shaderProgramSS, "Do not set the normal processing once a shader has been created.");
    KVO_ASSERT(NULL == _shaderProgramMS, "Do not set the normal processing once a shader has been created.");
    // NOLINTEND(modernize-use-nullptr)
    _normalProcessing = processing;
}

} // namespace Brevane::Kvo
