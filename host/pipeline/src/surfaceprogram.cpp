#include "surfaceprogram.h"

#include "gl/shaderprogram.h"
#include "model/instancedataplan.h"
#include "model/instancedataregistry.h"

#include <QStringList>

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
const QString kFragmentShader = QStringLiteral(R"(#instancedata "SurfaceMaterial"
#include "ManagedColor.glslh"
#include "TextureManager.glslh"

const int kMask = 1;
const int kBlend = 2;
const float kSolid = 254.5 / 255.0; // an alpha that no display tells from 1

in vec3 vo_Normal;
in vec4 vo_Tangent;
in vec2 vo_TexCoord;
flat in float vo_Handedness;

#ifdef LAYER
uniform uint u_DrawID;
uniform bool u_HasBefore;
uniform sampler2D u_BeforeDepth;
uniform sampler2D u_BeforeId;
uniform bool u_HasSolid;
uniform sampler2D u_SolidDepth;
#else
uniform bool u_SolidOnly;
#endif

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

#ifdef LAYER
// Depth and id, in this order, are a key that no two fragments of a pixel share.
bool isVisible(vec2 id)
{
  ivec2 texel = ivec2(gl_FragCoord.xy);
  float depth = gl_FragCoord.z;
  if(u_HasSolid && depth > texelFetch(u_SolidDepth, texel, 0).r)
    return false;
  if(!u_HasBefore)
    return true;
  float before = texelFetch(u_BeforeDepth, texel, 0).r;
  vec2 idBefore = texelFetch(u_BeforeId, texel, 0).rg;
  bool isLater = id.y > idBefore.y || (id.y == idBefore.y && id.x > idBefore.x);
  return depth > before || (depth == before && isLater);
}
#endif

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
  float alpha = mode == kBlend ? base.a : 1.0;
#ifdef LAYER
  vec2 id = vec2(gl_PrimitiveID + 1, u_DrawID + 1u);
  // What is solid of a material that blends is drawn as such.
  if(getOpacity() >= 1.0 && alpha >= kSolid)
    discard;
  if(getOpacity() * alpha <= 0.0 || !isVisible(id))
    discard;
  // The next layer compares with this very number, whatever precision the depth test has.
  gl_FragDepth = gl_FragCoord.z;
#else
  vec2 id = vec2(gl_PrimitiveID + 1, 0.0);
  if(mode == kBlend && alpha < (u_SolidOnly ? kSolid : 0.5))
    discard;
  if(u_SolidOnly && getOpacity() < 1.0)
    discard;
#endif

  vec3 normal = normalize(vo_Normal);
  if(getMap_Normal() > 0)
    normal = mappedNormal(normal, bent);
  out_BaseColor = vec4(getBaseColor() * base.rgb, getOpacity() * alpha);
  out_Surface = vec4(getRoughness() * roughnessMetal.x, getMetalness() * roughnessMetal.y,
                     1.0 + getOcclusionStrength() * (occlusion - 1.0), isUnlit() ? 0.0 : 1.0);
  out_Emission = vec4(getEmission() * emitted, 1.0);
  out_Normal = vec4(isFront ? normal : -normal, 1.0);
  out_Id = vec4(id, 0.0, 1.0);
}
)");

} // namespace

ShaderProgram *surfaceProgram(const QString &label, SurfacePart part)
{
    auto *program = new ShaderProgram;
    program->setLabel(label);
    // What of the managed textures it reads is compiled in; see ShaderProgram::refresh.
    program->setMayShare(true);
    QStringList outputs;
    for (const SurfaceTarget &target : kSurfaceTargets) {
        if (target.fragmentOutput)
            outputs << QLatin1StringView(target.fragmentOutput);
    }
    program->setFragDataLocations(outputs);
    const auto addPlan = [program](int stage, const char *name) {
        if (const InstanceDataPlan *plan = InstanceDataRegistry::Instance().getPlan(QLatin1StringView(name)))
            program->addShader(stage, plan->glslc());
    };
    const QString head =
        part == SurfacePart::Layer ? QStringLiteral("#version 150\n#define LAYER\n") : QStringLiteral("#version 150\n");
    program->addShader(GL_VERTEX_SHADER, kVertexShader);
    addPlan(GL_VERTEX_SHADER, "InstanceInfo");
    program->addShader(GL_FRAGMENT_SHADER, head + kFragmentShader);
    addPlan(GL_FRAGMENT_SHADER, "SurfaceMaterial");
    program->addShaderFromFile(GL_FRAGMENT_SHADER, QStringLiteral("TextureManager.glslc"));
    program->addShaderFromFile(GL_FRAGMENT_SHADER, QStringLiteral("ManagedColor.glslc"));
    program->compile();
    program->link();
    return program;
}

} // namespace Brevane::Kvo
