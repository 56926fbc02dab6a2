#pragma once

#include "shadows/shadowmaprenderdata.h"

#include <QMatrix4x4>
#include <QPair>
#include <QSize>
#include <QString>
#include <QVariantList>
#include <QVector3D>

#include <optional>

namespace Brevane::Kvo {

class GPUModel;
class ShaderProgram;
class Texture;

/// Flags of draw items, as the shadow passes select them: those with bit 62 or 63 cast no shadow, those
/// with bit 60 are drawn with both faces.
constexpr unsigned long long kNoCaster = 0xC000000000000000;
constexpr unsigned long long kUnculled = 0x1000000000000000;
constexpr unsigned long long kCasterGroup = kNoCaster | kUnculled;

/// What a texel of a shadow map without a caster holds.
constexpr float kNoDepth = 1e9f;
/// Added to the depth of casters, so that they do not shadow themselves.
constexpr double kDepthBias = 0.0005;

/// GLSL main of the gradient filter: a texel that is empty is extrapolated from the two next ones of the
/// first direction (+x, -x, +y, -y) where both are there; others become the mean of their 3 by 3 block as
/// far as it is there. The second moment is always the square of the first, so depths are all it reads. The text
/// ahead of it has out_FragColor and
/// - `float depthAt(vec2 offset)`: the depth so many texels away, anything beyond the map;
/// - FILTER_SOURCE: the sampler that this reads;
/// - IS_THERE(depth): whether a depth, which is then above 0, counts for means;
/// - FILLERS(depths): a vec4 of depths, with 0 in place of what fills nothing and is to be filled itself.
extern const QString kGradientFilter;

/// The matrix in a slot; nothing for a value that is none.
std::optional<QMatrix4x4> matrixIn(const QVariant &value);
template <typename T>
const T *pointerTo(const std::optional<T> &value)
{
    return value ? &*value : nullptr;
}

/// The scene's box: that of the two slots when both hold a vector, else that of the model if it has one.
std::optional<QPair<QVector3D, QVector3D>> sceneBoxOf(const QVariant &minimum, const QVariant &maximum,
                                                      const GPUModel *model);

/// Whether there is nothing to draw; a null model has nothing.
bool hasNoCasters(GPUModel *model);

/// What of a model's casters there is: some that are culled, and some that are drawn with both faces.
struct CasterGroups
{
    bool culled;
    bool unculled;
};
CasterGroups casterGroupsOf(GPUModel &model);
/// Draws the casters into what is attached: those that are culled first, with face culling on for them only,
/// and then the others.
void drawCasterGroups(GPUModel &model, ShaderProgram *program, const CasterGroups &groups);

/// Whether a plan places casters where the data of their model says. Of another one only its shaders know.
bool placesByModel(const QString &plan);
/// Lets a model leave out casters that draw nothing in so many layers of a record, until its resetCulling. What
/// stands in front of a layer's range is among them, so this is not for passes that clamp depths.
void cullToLayers(GPUModel &model, const ShadowMapRenderData &record, int firstLayer, int count);

/// The layers of a record that belong to a light, light by light, for a loop over them.
class LayersOfLights
{
public:
    class Iterator
    {
    public:
        using Light = QVector<ShadowMapRenderData::ProjectorInfo>::const_iterator;

        Iterator(Light light, Light end) : _light(light), _end(end) { skipThoseWithout(); }
        int operator*() const { return _light->firstLayer + _layer; }
        Iterator &operator++()
        {
            if (++_layer >= _light->layerCount) {
                ++_light;
                skipThoseWithout();
            }
            return *this;
        }
        bool operator!=(const Iterator &other) const { return _light != other._light; }

    private:
        void skipThoseWithout()
        {
            _layer = 0;
            while (_light != _end && _light->layerCount <= 0)
                ++_light;
        }

        Light _light;
        Light _end;
        int _layer = 0;
    };

    explicit LayersOfLights(const ShadowMapRenderData &record)
        : _first(record.projectors.cbegin()), _end(record.projectors.cend())
    {}
    Iterator begin() const { return {_first, _end}; }
    Iterator end() const { return {_end, _end}; }

private:
    Iterator::Light _first;
    Iterator::Light _end;
};

/// Binds what is an InstanceDataCollection in a list, in order.
void bindInstanceData(const QVariantList &list, ShaderProgram *program);
/// Unbinds the same, in the same order.
void unbindInstanceData(const QVariantList &list, ShaderProgram *program);

/// Checks a program that was just linked against the plan that places its casters.
void checkPlan(const QString &plan, const ShaderProgram *program);

/// An array for depth, with nearest filters.
Texture *makeDepthArray(const char *label, const QSize &size, int layers);
/// An array for moments, with linear filters; its wrap is still to be set.
Texture *makeMomentsArray(const char *label, const QSize &size, int layers);
/// Lets what lies outside of the bound array read as kNoDepth.
void wrapToNoDepth();
/// Lets what lies outside of the bound array repeat its edge.
void wrapToEdge();

/// Sets the clear colour that marks a texel without a caster.
void clearToNoDepth();

/// The model in a slot. A value of another kind is reported as a failed assertion at a place in the
/// source; null is what is left.
GPUModel *castersIn(const QVariant &value, const char *file, int line);

} // namespace Brevane::Kvo
