#pragma once

#include "gl/export.h"

#include <QString>
#include <QStringList>

#include <map>

namespace Brevane::Kvo {

class InstanceDataPlan;

/// The instance-data plans of the process by name. It starts with
/// - "InstanceInfo": getModelMatrix() and getModelNormalMatrix(), both mat4;
/// - "OBJMaterial": getKd() and getKs() (vec3), getNs() and getD() (float), getMap_Kd() and getMap_Ks()
///   (int handles for managedTexture);
/// - "SurfaceMaterial": materials in physical terms, see ModelSurface: getBaseColor() and getEmission() (vec3),
///   getOpacity(), getMetalness(), getRoughness(), getNormalScale(), getOcclusionStrength() and getAlphaCutoff()
///   (float), getAlphaMode() (int, as AlphaMode), isTwoSided() and isUnlit() (bool), getMap_BaseColor() and
///   getMap_Emission() (handles for managedColor), getMap_MetalRoughness(), getMap_Normal() and getMap_Occlusion()
///   (handles for managedTexture). A model has data for it from GPUModel::surfaceData on;
/// - "TarnInstance": the getters of "InstanceInfo", for shadow casters.
class KVO_GL_EXPORT InstanceDataRegistry
{
public:
    /// The one of the process.
    static InstanceDataRegistry &Instance();
    ~InstanceDataRegistry();

    /// The plan of that name, or null with a message.
    InstanceDataPlan *getPlan(const QString &name) const;
    /// Whether a plan of that name exists.
    bool hasPlan(const QString &name) const;
    /// Of all plans.
    QStringList planNames() const;
    /// Adds a plan, which the registry owns from then on. False when the name is taken.
    bool addPlan(InstanceDataPlan *plan);

private:
    InstanceDataRegistry();
    Q_DISABLE_COPY(InstanceDataRegistry)

    std::map<QString, InstanceDataPlan *> _plans;
};

} // namespace Brevane::Kvo
