#include "host/surfacepass.h"

#include "core/hostcode.h"
#include "core/liveobjects.h"
#include "gl/contextscope.h"
#include "gl/framebufferobject.h"
#include "gl/guards.h"
#include "gl/hoststate.h"
#include "gl/sampling.h"
#include "gl/shaderprogram.h"
#include "gl/texture.h"
#include "gl/texturemanager.h"
#include "model/gpumodel.h"
#include "model/instancedataplan.h"
#include "model/instancedataregistry.h"
#include "pooledoutput.h"

#include <epoxy/gl.h>

#include <QMatrix4x4>
#include <QRect>

#include <algorithm>
#include <array>

namespace Brevane::Kvo {

namespace {

const QString kVertexShader = QStringLiteral(R"(#version 150
#instancedata "InstanceInfo"

uniform mat4 u_CameraMatrix;
uniform mat4 u_ProjectionMatrix;
uniform mat4 u_NormalMatrix;

in vec3 va_Vertex;
in vec3 va_Normal;
in vec2 va_TexCoord;
in vec4 va_Tangent;

out vec3 vo_Normal;
out vec4 vo_Tangent;
out vec2 vo_TexCoord;
flat out float vo_Handedness; // -1 where the transforms mirror

void main()
{
  mat4 toCamera = u_CameraMatrix * getModelMatrix();
  gl_Position = u_ProjectionMatrix * toCamera * vec4(va_Vertex, 1.0);
  vo_Handedness = determinant(mat3(toCamera)) < 0.0 ? -1.0 : 1.0;
  vo_Normal = normalize(mat3(u_NormalMatrix) * mat3(getModelNormalMatrix()) * va_Normal);
  vo_Tangent = vec4(mat3(toCamera) * va_Tangent.xyz, va_Tangent.w * vo_Handedness);
  vo_TexCoord = va_TexCoord;
}
)");

// Maps are read before anything is discarded: their levels of detail need the neighbouring pixels.
const QString kFragmentShader = QStringLiteral(R"(#version 150
#instancedata "SurfaceMaterial"
#include "ManagedColor.glslh"
#include "TextureManager.glslh"

const int kMask = 1;
const int kBlend = 2;

in vec3 vo_Normal;
in vec4 vo_Tangent;
in vec2 vo_TexCoord;
flat in float vo_Handedness;

out vec4 out_BaseColor;
out vec4 out_Surface;
out vec4 out_Emission;
out vec4 out_Normal;
out vec4 out_Id;

vec3 mappedNormal(vec3 normal, vec3 fromMap)
{
  vec3 tangent = vo_Tangent.xyz - normal * dot(normal, vo_Tangent.xyz);
  float size = length(tangent);
  if(!(size > 0.0))
    return normal;
  tangent /= size;
  vec3 bitangent = cross(normal, tangent) * vo_Tangent.w;
  vec3 bent = vec3((fromMap.xy * 2.0 - 1.0) * getNormalScale(), fromMap.z * 2.0 - 1.0);
  return normalize(tangent * bent.x + bitangent * bent.y + normal * bent.z);
}

void main()
{
  vec4 base = managedColor(getMap_BaseColor(), vo_TexCoord);
  vec3 emitted = managedColor(getMap_Emission(), vo_TexCoord).rgb;
  vec2 roughnessMetal = managedTexture(getMap_MetalRoughness(), vo_TexCoord).gb;
  vec3 bent = managedTexture(getMap_Normal(), vo_TexCoord).xyz;
  float occlusion = managedTexture(getMap_Occlusion(), vo_TexCoord).r;

  bool isFront = gl_FrontFacing == (vo_Handedness > 0.0);
  int mode = getAlphaMode();
  if(!isFront && !isTwoSided())
    discard;
  if(mode == kMask && base.a * getOpacity() < getAlphaCutoff())
    discard;
  if(mode == kBlend && base.a < 0.5)
    discard;

  vec3 normal = normalize(vo_Normal);
  if(getMap_Normal() > 0)
    normal = mappedNormal(normal, bent);
  out_BaseColor = vec4(getBaseColor() * base.rgb, getOpacity() * (mode == kBlend ? base.a : 1.0));
  out_Surface = vec4(getRoughness() * roughnessMetal.x, getMetalness() * roughnessMetal.y,
                     1.0 + getOcclusionStrength() * (occlusion - 1.0), isUnlit() ? 0.0 : 1.0);
  out_Emission = vec4(getEmission() * emitted, 1.0);
  out_Normal = vec4(isFront ? normal : -normal, 1.0);
  out_Id = vec4(gl_PrimitiveID + 1.0);
}
)");

/// A target: the fragment output that fills it, the pool's format, where it is attached.
struct Target
{
    const char *fragmentOutput; ///< Null for depth.
    TextureFormat format;
    GLenum attachment;
};

// By output.
constexpr std::array<Target, 6> kTargets{{
    {"out_BaseColor", TextureFormat::Frame, GL_COLOR_ATTACHMENT0},
    {"out_Surface", TextureFormat::Color8, GL_COLOR_ATTACHMENT1},
    {"out_Emission", TextureFormat::PackedFloat, GL_COLOR_ATTACHMENT2},
    {"out_Normal", TextureFormat::Frame, GL_COLOR_ATTACHMENT3},
    {nullptr, TextureFormat::Depth32, GL_DEPTH_ATTACHMENT},
    {"out_Id", TextureFormat::Scalar32, GL_COLOR_ATTACHMENT4},
}};

ShaderProgram *surfaceProgram()
{
    auto *program = new ShaderProgram;
    program->setLabel(QStringLiteral("SurfacePass"));
    // What of the managed textures it reads is compiled in; see ShaderProgram::refresh.
    program->setMayShare(true);
    QStringList outputs;
    for (const Target &target : kTargets) {
        if (target.fragmentOutput)
            outputs << QLatin1StringView(target.fragmentOutput);
    }
    program->setFragDataLocations(outputs);
    const auto addPlan = [program](int stage, const char *name) {
        if (const InstanceDataPlan *plan = InstanceDataRegistry::Instance().getPlan(QLatin1StringView(name)))
            program->addShader(stage, plan->glslc());
    };
    program->addShader(GL_VERTEX_SHADER, kVertexShader);
    addPlan(GL_VERTEX_SHADER, "InstanceInfo");
    program->addShader(GL_FRAGMENT_SHADER, kFragmentShader);
    addPlan(GL_FRAGMENT_SHADER, "SurfaceMaterial");
    program->addShaderFromFile(GL_FRAGMENT_SHADER, QStringLiteral("TextureManager.glslc"));
    program->addShaderFromFile(GL_FRAGMENT_SHADER, QStringLiteral("ManagedColor.glslc"));
    program->compile();
    program->link();
    return program;
}

constexpr SlotInfo kInputInfo[] = {
    {.name = "Kvo_QRect_Viewport", .meaning = "size of the targets", .kind = SlotKind::Area, .unit = "pixels"},
    {.name = "Kvo_QMatrix4x4_ProjectionMatrix", .meaning = "camera to clip space", .kind = SlotKind::Matrix},
    {.name = "Kvo_QMatrix4x4_CameraMatrix", .meaning = "world to camera space", .kind = SlotKind::Matrix},
    {.name = "Kvo_KvoGPUModel*_Geometry",
     .meaning = "what to draw; none: the targets are cleared",
     .kind = SlotKind::Model},
};

constexpr SlotInfo kOutputInfo[] = {
    {.name = "Kvo_KvoTexture*_BaseColor",
     .meaning = "base colour in linear light, opacity in alpha",
     .kind = SlotKind::Texture,
     .format = "pool format 7 (GL_RGBA16F)"},
    {.name = "Kvo_KvoTexture*_Surface",
     .meaning = "roughness, metalness, occlusion; alpha 0 where the base colour is what one sees",
     .kind = SlotKind::Texture,
     .format = "pool format 2 (GL_RGBA8)"},
    {.name = "Kvo_KvoTexture*_Emission",
     .meaning = "radiance that is sent out",
     .kind = SlotKind::Texture,
     .format = "pool format 13 (GL_R11F_G11F_B10F)"},
    {.name = "Kvo_KvoTexture*_Normal",
     .meaning = "unit normal in camera space, normal map applied, of the side that is seen",
     .kind = SlotKind::Texture,
     .format = "pool format 7 (GL_RGBA16F)"},
    {.name = "Kvo_KvoTexture*_Depth",
     .meaning = "window depth; 1 is background",
     .kind = SlotKind::Texture,
     .format = "pool format 20 (GL_DEPTH_COMPONENT32F)"},
    {.name = "Kvo_KvoTexture*_Id",
     .meaning = "number of the triangle in its draw plus 1; 0 is background",
     .kind = SlotKind::Texture,
     .format = "pool format 1 (GL_R32F)"},
};

constexpr PassInfo kInfo = {"SurfacePass", "draws a model into the targets that physically based shading reads",
                            Reach::texels(0), kInputInfo, kOutputInfo};

} // namespace

SurfacePass::SurfacePass()
{
    addInput(QStringLiteral("Kvo_QRect_Viewport"), QVariant(), InViewport);
    addInput(QStringLiteral("Kvo_QMatrix4x4_ProjectionMatrix"), QVariant(), InProjectionMatrix);
    addInput(QStringLiteral("Kvo_QMatrix4x4_CameraMatrix"), QVariant(), InCameraMatrix);
    addInput(QStringLiteral("Kvo_KvoGPUModel*_Geometry"), QVariant(), InGeometry);
    addOutput(QStringLiteral("Kvo_KvoTexture*_BaseColor"), OutBaseColor);
    addOutput(QStringLiteral("Kvo_KvoTexture*_Surface"), OutSurface);
    addOutput(QStringLiteral("Kvo_KvoTexture*_Emission"), OutEmission);
    addOutput(QStringLiteral("Kvo_KvoTexture*_Normal"), OutNormal);
    addOutput(QStringLiteral("Kvo_KvoTexture*_Depth"), OutDepth);
    addOutput(QStringLiteral("Kvo_KvoTexture*_Id"), OutId);
    describe(kInfo);
}

SurfacePass::SurfacePass(const SurfacePass &other) = default;
SurfacePass &SurfacePass::operator=(const SurfacePass &other) = default;
SurfacePass::~SurfacePass() = default;

void SurfacePass::start(RenderCallbacks *)
{
    const ContextScope scope;
    if (!scope)
        return;
    for (PassSlot &output : _outputs)
        output.value = QVariant();
    const QSize size = _inputs[InViewport].value.toRect().size();
    if (size.isEmpty())
        return;

    // It binds with plain GL, of which a pipeline that the pass runs in knows nothing.
    const HostCode hostCode;
    const DefaultState state;
    auto &pool = TextureManager::Instance();
    std::array<Texture *, kTargets.size()> textures{};
    for (std::size_t i = 0; i < kTargets.size(); ++i)
        textures[i] = pool.tempTexture(kTargets[i].format, size.width(), size.height());
    // Beyond what the driver has room for, which the pool has said, a single texel stands in: nothing to look at.
    const auto hasRoom = [size](Texture *texture) {
        const LevelInfo level = levelInfo(texture, GL_TEXTURE_2D);
        return QSize(level.width, level.height) == size;
    };
    if (!std::all_of(textures.begin(), textures.end(), hasRoom)) {
        for (Texture *texture : textures)
            pool.releaseTempTextureRef(texture, 1);
        return;
    }
    if (!_fbo) {
        _fbo = new FramebufferObject;
        _fbo->setLabel(QStringLiteral("SurfacePass"));
    }
    {
        const AutoBinder fbo(_fbo);
        for (std::size_t i = 0; i < kTargets.size(); ++i)
            _fbo->attach(textures[i], kTargets[i].attachment, 0);
        _fbo->setDrawBuffers();
        glViewport(0, 0, size.width(), size.height());
        glClearColor(0.0f, 0.0f, 0.0f, 0.0f);
        glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
        auto *model = qvariant_cast<GPUModel *>(_inputs[InGeometry].value);
        if (liveKindOf(model) == LiveKind::Model)
            draw(*model);
        _fbo->detachAll();
    }
    for (std::size_t i = 0; i < kTargets.size(); ++i)
        handOut(_outputs[qsizetype(i)], textures[i], _numOutputUsers[qsizetype(i)]);
}

void SurfacePass::draw(GPUModel &model)
{
    // Before the program, which is built for the maps that there are.
    model.surfaceData(0);
    if (ShaderProgram *const known = _program)
        known->refresh();
    else
        _program = surfaceProgram();
    const auto camera = qvariant_cast<QMatrix4x4>(_inputs[InCameraMatrix].value);
    glEnable(GL_DEPTH_TEST);
    const AutoBinder program(_program);
    _program->setUniform(QStringLiteral("u_ProjectionMatrix"), _inputs[InProjectionMatrix].value);
    _program->setUniform(QStringLiteral("u_CameraMatrix"), camera);
    _program->setUniform(QStringLiteral("u_NormalMatrix"), camera.inverted().transposed());
    model.draw(_program, 0, 0, CounterClockwiseWinding, false);
}

} // namespace Brevane::Kvo
