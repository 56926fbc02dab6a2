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
/// - "TarnInstance": the getters of "InstanceInfo", for shadow casters.
class KVO_GL_EXPORT InstanceDataRegistry
{
public:
    static InstanceDataRegistry &Instance();
    ~InstanceDataRegistry();

    /// The plan of that name, or null with a message.
    InstanceDataPlan *getPlan(const QString &name) const;
    /// Whether a plan of that name exists.
    bool hasPlan(const QString &name) const;
    QStringList planNames() const;
    /// Adds a plan, which the registry owns from then on. False when the name is taken.
    bool addPlan(InstanceDataPlan *plan);

private:
    InstanceDataRegistry();
    Q_DISABLE_COPY(InstanceDataRegistry)

    std::map<QString, InstanceDataPlan *> _plans;
};

} // namespace Brevane::Kvo
