#include "host/registration.h"

#include "host/passfactory.h"
#include "host/shadowlightingpass.h"
#include "lightsjson.h"
#include "listreaders.h"

namespace Brevane::Kvo {

void registerScene()
{
    registerPass<ShadowLightingPass>(QStringLiteral("ShadowLightingPass"));
    addListReader(QStringLiteral("lights"), [](const Json &json, QVariant *element, int *line, QString *error) {
        ShadowMapLight light;
        if (!lightFromJson(json, &light, line, error))
            return false;
        *element = QVariant::fromValue(light);
        return true;
    });
}

namespace {

[[maybe_unused]] const bool isRegistered = (registerScene(), true);

} // namespace

} // namespace Brevane::Kvo
