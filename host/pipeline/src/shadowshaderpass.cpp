#include "host/shadowshaderpass.h"

#include "gl/bindings.h"
#include "gl/guards.h"
#include "gl/shaderprogram.h"
#include "gl/texture.h"
#include "shadows/shadowmapmanager.h"

#include <algorithm>
#include <cmath>

using namespace Qt::StringLiterals;

namespace Brevane::Kvo {

ShadowShaderPass::ShadowShaderPass()
{
    setName(u"ShadowShaderPass"_s);
}

void ShadowShaderPass::start(RenderCallbacks *callbacks)
{
    const BindingScope scope;
    // Around all other textures: it goes last, and the unit that was active then is to be active again.
    const ShadowMapRenderData *data = _record();
    const AutoBinder maps(data ? data->projectionTexture() : nullptr);
    ShaderRenderPass::start(callbacks);
    releaseRecord();
}

void ShadowShaderPass::releaseRecord()
{
    ShadowMapManager::unbindRecord(_bound);
    _bound = nullptr;
}

const ShadowMapRenderData *ShadowShaderPass::_record() const
{
    const int index = findInput(u"Kvo_QVariant_ShadowMapData"_s);
    return index < 0 ? nullptr : ShadowMapRenderData::fromVariant(_inputs[index].value);
}

float ShadowShaderPass::_bounded(const QString &slot, float otherwise, float least, float most)
{
    const int index = findInput(slot);
    if (index < 0 || !_inputs[index].value.isValid())
        return otherwise;
    const float value = qvariant_cast<float>(_inputs[index].value);
    const float used = std::isnan(value) ? otherwise : std::clamp(value, least, most);
    if (used == value)
        acceptInput(index);
    else
        reportInput(index, u"%1 is not from %2 to %3; %4 is used"_s.arg(value).arg(least).arg(most).arg(used));
    return used;
}

void ShadowShaderPass::setUniforms()
{
    ShaderRenderPass::setUniforms();
    const ShadowMapManager::Sampling usual;
    const ShadowMapManager::Sampling sampling{
        _bounded(u"Kvo_float_MinimumVariance"_s, usual.minimumVariance, 0.0f, 1.0f),
        _bounded(u"Kvo_float_LightBleeding"_s, usual.lightBleeding, 0.0f, 0.99f)};
    const ShadowMapRenderData *data = _record();
    _bound = ShadowMapManager::bindRecord(_program, data, sampling) ? data : nullptr;
}

} // namespace Brevane::Kvo
