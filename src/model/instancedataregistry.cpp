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

const QString kMaterialFetch = QStringLiteral(R"(#version 150
#instancedata "OBJMaterial"
#include "InstanceData.glslh"

uniform samplerBuffer kvo_OBJMaterialData;

vec4 kvo_material(int texel)
{
  return texelFetch(kvo_OBJMaterialData, KVO_CURRENT_DRAW * %1 + texel);
}

)");

// A getter of what begins at an offset into MaterialTexels.
QString materialGetter(const char *type, const char *name, std::size_t offset, int components = 1)
{
    const int first = materialFloat(offset);
    const QString swizzle = QStringLiteral("rgba").mid(first % kFloatsPerTexel, components);
    return QStringLiteral("%1 %2() { return %1(kvo_material(%3).%4); }\n")
        .arg(QLatin1String(type), QLatin1String(name), QString::number(first / kFloatsPerTexel), swizzle);
}

QString materialDefinitions()
{
    return kMaterialFetch.arg(kMaterialTexels) + materialGetter("vec3", "getKd", offsetof(MaterialTexels, Kd), 3)
           + materialGetter("float", "getNs", offsetof(MaterialTexels, Ns))
           + materialGetter("vec3", "getKs", offsetof(MaterialTexels, Ks), 3)
           + materialGetter("float", "getD", offsetof(MaterialTexels, D))
           + materialGetter("int", "getMap_Kd", offsetof(MaterialTexels, map_Kd))
           + materialGetter("int", "getMap_Ks", offsetof(MaterialTexels, map_Ks));
}

} // namespace

InstanceDataRegistry::InstanceDataRegistry()
{
    const QString matrixSampler = QStringLiteral("kvo_InstanceInfoData");
    for (const char *name : {"InstanceInfo", "TarnInstance"})
        addPlan(new InstanceDataPlan(QLatin1String(name), matrixSampler, 8, kMatrixDeclarations, kMatrixDefinitions));
    addPlan(new InstanceDataPlan(QStringLiteral("OBJMaterial"), QStringLiteral("kvo_OBJMaterialData"), kMaterialTexels,
                                 kMaterialDeclarations, materialDefinitions()));
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
