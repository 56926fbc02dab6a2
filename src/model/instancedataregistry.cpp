#include "model/instancedataregistry.h"

#include "core/hostcode.h"
#include "model/instancedataplan.h"
#include "model/materialtexels.h"

namespace Brevane::Kvo {

namespace {

const QString kMatrixDeclarations = QStringLiteral(R"(mat4 getModelMatrix();
mat4 getModelNormalMatrix();
)");

// Eight texels a draw: the columns of the model matrix, then those of its inverse transpose.
const QString kMatrixDefinitions = QStringLiteral(R"(#version 150
#instancedata "InstanceInfo"
#include "InstanceData.glslh"

uniform samplerBuffer kvo_InstanceInfoData;

mat4 kvo_instanceMatrix(int first)
{
  return mat4(texelFetch(kvo_InstanceInfoData, first),
              texelFetch(kvo_InstanceInfoData, first + 1),
              texelFetch(kvo_InstanceInfoData, first + 2),
              texelFetch(kvo_InstanceInfoData, first + 3));
}

mat4 getModelMatrix()
{
  return kvo_instanceMatrix(KVO_CURRENT_DRAW * 8);
}

mat4 getModelNormalMatrix()
{
  return kvo_instanceMatrix(KVO_CURRENT_DRAW * 8 + 4);
}
)");

const QString kMaterialDeclarations = QStringLiteral(R"(vec3 getKd();
vec3 getKs();
float getNs();
float getD();
int getMap_Kd();
int getMap_Ks();
)");

const QString kSurfaceDeclarations = QStringLiteral(R"(vec3 getBaseColor();
float getOpacity();
float getMetalness();
float getRoughness();
float getNormalScale();
float getOcclusionStrength();
vec3 getEmission();
float getAlphaCutoff();
int getMap_BaseColor();
int getMap_Emission();
int getMap_MetalRoughness();
int getMap_Normal();
int getMap_Occlusion();
int getAlphaMode();
bool isTwoSided();
bool isUnlit();
)");

const QString kSurfaceSampler = QStringLiteral("kvo_SurfaceMaterialData");
const QString kMaterialSampler = QStringLiteral("kvo_OBJMaterialData");

const QString kTexelFetch = QStringLiteral(R"(#version 150
#instancedata "%1"
#include "InstanceData.glslh"

uniform samplerBuffer %2;

vec4 kvo_%1(int texel)
{
  return texelFetch(%2, KVO_CURRENT_DRAW * %3 + texel);
}

)");

/// Writes the getters of a plan whose draws are a struct of floats.
class GetterWriter
{
public:
    GetterWriter(const QString &plan, const QString &sampler, int texels)
        : _plan(plan), _text(kTexelFetch.arg(plan, sampler, QString::number(texels)))
    {}

    /// A getter of what begins at an offset into the struct.
    GetterWriter &add(const char *type, const char *name, std::size_t offset, int components = 1)
    {
        const int first = materialFloat(offset);
        const QString swizzle = QStringLiteral("rgba").mid(first % kFloatsPerTexel, components);
        _text += QStringLiteral("%1 %2() { return %1(kvo_%3(%4).%5); }\n")
                     .arg(QLatin1String(type), QLatin1String(name), _plan, QString::number(first / kFloatsPerTexel),
                          swizzle);
        return *this;
    }
    QString text() const { return _text; }

private:
    QString _plan;
    QString _text;
};

QString materialDefinitions()
{
    return GetterWriter(QStringLiteral("OBJMaterial"), kMaterialSampler, kMaterialTexels)
        .add("vec3", "getKd", offsetof(MaterialTexels, Kd), 3)
        .add("float", "getNs", offsetof(MaterialTexels, Ns))
        .add("vec3", "getKs", offsetof(MaterialTexels, Ks), 3)
        .add("float", "getD", offsetof(MaterialTexels, D))
        .add("int", "getMap_Kd", offsetof(MaterialTexels, map_Kd))
        .add("int", "getMap_Ks", offsetof(MaterialTexels, map_Ks))
        .text();
}

QString surfaceDefinitions()
{
    return GetterWriter(QStringLiteral("SurfaceMaterial"), kSurfaceSampler, kSurfaceTexels)
        .add("vec3", "getBaseColor", offsetof(SurfaceTexels, baseColor), 3)
        .add("float", "getOpacity", offsetof(SurfaceTexels, opacity))
        .add("float", "getMetalness", offsetof(SurfaceTexels, metalness))
        .add("float", "getRoughness", offsetof(SurfaceTexels, roughness))
        .add("float", "getNormalScale", offsetof(SurfaceTexels, normalScale))
        .add("float", "getOcclusionStrength", offsetof(SurfaceTexels, occlusionStrength))
        .add("vec3", "getEmission", offsetof(SurfaceTexels, emission), 3)
        .add("float", "getAlphaCutoff", offsetof(SurfaceTexels, alphaCutoff))
        .add("int", "getMap_BaseColor", offsetof(SurfaceTexels, map_baseColor))
        .add("int", "getMap_Emission", offsetof(SurfaceTexels, map_emission))
        .add("int", "getMap_MetalRoughness", offsetof(SurfaceTexels, map_metalRoughness))
        .add("int", "getMap_Normal", offsetof(SurfaceTexels, map_normal))
        .add("int", "getMap_Occlusion", offsetof(SurfaceTexels, map_occlusion))
        .add("int", "getAlphaMode", offsetof(SurfaceTexels, alphaMode))
        .add("bool", "isTwoSided", offsetof(SurfaceTexels, isTwoSided))
        .add("bool", "isUnlit", offsetof(SurfaceTexels, isUnlit))
        .text();
}

} // namespace

InstanceDataRegistry::InstanceDataRegistry()
{
    const QString matrixSampler = QStringLiteral("kvo_InstanceInfoData");
    for (const char *name : {"InstanceInfo", "TarnInstance"})
        addPlan(new InstanceDataPlan(QLatin1String(name), matrixSampler, 8, kMatrixDeclarations, kMatrixDefinitions));
    addPlan(new InstanceDataPlan(QStringLiteral("OBJMaterial"), kMaterialSampler, kMaterialTexels,
                                 kMaterialDeclarations, materialDefinitions()));
    addPlan(new InstanceDataPlan(QStringLiteral("SurfaceMaterial"), kSurfaceSampler, kSurfaceTexels,
                                 kSurfaceDeclarations, surfaceDefinitions()));
}

InstanceDataRegistry::~InstanceDataRegistry()
{
    for (const auto &[name, plan] : _plans)
        delete plan;
}

InstanceDataRegistry &InstanceDataRegistry::Instance()
{
    static InstanceDataRegistry registry;
    return registry;
}

InstanceDataPlan *InstanceDataRegistry::getPlan(const QString &name) const
{
    const auto found = _plans.find(name);
    if (found != _plans.end())
        return found->second;
    const HostCode hostCode;
    qCritical("Instance data plan \"%s\" does not exist, there are: %s", qPrintable(name),
              qPrintable(planNames().join(QLatin1String(", "))));
    return nullptr;
}

bool InstanceDataRegistry::hasPlan(const QString &name) const
{
    return _plans.contains(name);
}

QStringList InstanceDataRegistry::planNames() const
{
    QStringList names;
    for (const auto &[name, plan] : _plans)
        names.append(name);
    return names;
}

bool InstanceDataRegistry::addPlan(InstanceDataPlan *plan)
{
    return plan && _plans.emplace(plan->name(), plan).second;
}

} // namespace Brevane::Kvo
