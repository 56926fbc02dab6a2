#include "passkit/shadowcasters.h"

#include "core/liveobjects.h"
#include "core/log.h"
#include "gl/bindings.h"
#include "gl/fallenshort.h"
#include "gl/guards.h"
#include "gl/pixelstore.h"
#include "gl/sampling.h"
#include "gl/storage.h"
#include "gl/texture.h"
#include "model/gpumodel.h"
#include "model/instancedatacollection.h"
#include "model/instancedataplan.h"
#include "model/instancedataregistry.h"
#include "passkit/slots.h"

#include <epoxy/gl.h>

#include <algorithm>
#include <array>
#include <iterator>

namespace Brevane::Kvo {

namespace {

constexpr int kMostLayersToCullTo = 8;

Texture *makeArray(const char *label, GLint filter, GLenum internalFormat, GLenum format, const QSize &size, int layers)
{
    auto *texture = new Texture(nullptr);
    texture->setLabel(QLatin1String(label));
    texture->setTarget(GL_TEXTURE_2D_ARRAY);
    keepNoSampling(*texture); // its wraps change for each use, see wrapToNoDepth
    StorageBinder bound(texture);
    if (bound.isBound())
        texture->setFilter(GLenum(filter));
    const DefaultPixelStore pixelStore;
    if (!bound.isBound()
        || !allocateImage(internalFormat, {size.width(), size.height(), layers}, format, GL_FLOAT, nullptr,
                          QLatin1String(label)))
        noteFallenShort(texture);
    return texture;
}

} // namespace

// Each tap is taken once, and what the texels need differs only in what becomes of the taps: rasterisers on the
// CPU run both sides of a condition and, at least once, the body of every loop. So the taps two texels away, which
// only empty texels at a caster's edge look at, are a second round of the loop that takes those one texel away.
// Sums keep their order, and quotients stay quotients: floats are not to be rounded in another way.
const QString kGradientFilter = QStringLiteral(R"(
// What is beyond the map reads as nothing, as samplers of the map find it.
float tap(vec2 offset, bool isInside)
{
  float depth = depthAt(offset);
  return IS_THERE(depth) && isInside ? depth : 0.0;
}

void add(float depth, inout vec2 sum, inout float count)
{
  sum += vec2(depth, depth * depth);
  count += depth > 0.0 ? 1.0 : 0.0;
}

void main()
{
  vec2 size = vec2(textureSize(FILTER_SOURCE, 0).xy);
  float own = tap(vec2(0.0), true);
  bool isEmpty = FILLERS(vec4(own)).x == 0.0;

  // At right, at left, above and below, one texel away and then two. A limit that depends on the texel keeps
  // compilers from writing both rounds out.
  vec4 nearer;
  vec4 farther = vec4(0.0);
  float away = 0.0;
  float most = isEmpty ? 2.0 : 1.0;
  bool mayBeFilled;
  do
  {
    away += 1.0;
    nearer = farther;
    vec2 low = gl_FragCoord.xy - away;
    vec2 high = gl_FragCoord.xy + away;
    farther = vec4(tap(vec2(away, 0.0), high.x < size.x), tap(vec2(-away, 0.0), low.x > 0.0),
                   tap(vec2(0.0, away), high.y < size.y), tap(vec2(0.0, -away), low.y > 0.0));
    mayBeFilled = any(greaterThan(FILLERS(farther), vec4(0.0)));
  } while(mayBeFilled && away < most);

  // Of texels that are there, the loop has left the neighbours in "farther".
  bvec2 hasLower = greaterThan(gl_FragCoord.xy, vec2(1.0));
  bvec2 hasHigher = lessThan(gl_FragCoord.xy, size - 1.0);
  vec2 sum = vec2(own, own * own);
  float count = 1.0;
  add(tap(vec2(-1.0, -1.0), hasLower.x && hasLower.y), sum, count);
  add(farther.w, sum, count);
  add(tap(vec2(1.0, -1.0), hasHigher.x && hasLower.y), sum, count);
  add(farther.y, sum, count);
  add(farther.x, sum, count);
  add(tap(vec2(-1.0, 1.0), hasLower.x && hasHigher.y), sum, count);
  add(farther.z, sum, count);
  add(tap(vec2(1.0, 1.0), hasHigher.x && hasHigher.y), sum, count);

  // The first direction in which both are there, or any other where there is none.
  vec4 both = min(FILLERS(nearer), FILLERS(farther));
  vec2 line = both.x > 0.0 ? vec2(nearer.x, farther.x)
            : both.y > 0.0 ? vec2(nearer.y, farther.y)
            : both.z > 0.0 ? vec2(nearer.z, farther.z)
                           : vec2(nearer.w, farther.w);
  vec2 squares = line * line;
  vec2 filled = vec2(line.x - (line.y - line.x), squares.x - (squares.y - squares.x));
  bool isFilled = any(greaterThan(both, vec4(0.0)));

  vec2 nothing = vec2(own > 0.0 ? own : 1e9);
  vec2 result = isEmpty ? (isFilled ? filled : nothing) : sum / count;
  out_FragColor = vec4(result, 0.0, 0.0);
}
)");

std::optional<QMatrix4x4> matrixIn(const QVariant &value)
{
    if (!hasValue(value) || !value.canConvert<QMatrix4x4>())
        return std::nullopt;
    return qvariant_cast<QMatrix4x4>(value);
}

std::optional<QPair<QVector3D, QVector3D>> sceneBoxOf(const QVariant &minimum, const QVariant &maximum,
                                                      const GPUModel *model)
{
    if (hasValue(minimum) && hasValue(maximum) && minimum.canConvert<QVector3D>() && maximum.canConvert<QVector3D>())
        return qMakePair(qvariant_cast<QVector3D>(minimum), qvariant_cast<QVector3D>(maximum));
    if (model && model->hasFeatureFlags(GPUModel::kSceneBoundsFeature)) {
        const GPUModel::BoundingBox box = model->sceneBounds();
        return qMakePair(box.minimum, box.maximum);
    }
    return std::nullopt;
}

bool hasNoCasters(GPUModel *model)
{
    return !model || model->isDrawEmpty(0, kNoCaster);
}

CasterGroups casterGroupsOf(GPUModel &model)
{
    return {!model.isDrawEmpty(0, kUnculled), !model.isDrawEmpty(kUnculled, kUnculled)};
}

void drawCasterGroups(GPUModel &model, ShaderProgram *program, const CasterGroups &groups)
{
    if (groups.culled) {
        glEnable(GL_CULL_FACE);
        model.draw(program, nullptr, 0, kCasterGroup);
        glDisable(GL_CULL_FACE);
    }
    if (groups.unculled)
        model.draw(program, nullptr, kUnculled, kCasterGroup);
}

bool placesByModel(const QString &plan)
{
    const InstanceDataRegistry &registry = InstanceDataRegistry::Instance();
    const InstanceDataPlan *ofModels = registry.getPlan(QStringLiteral("InstanceInfo"));
    const InstanceDataPlan *used = registry.hasPlan(plan) ? registry.getPlan(plan) : nullptr;
    return used && used->glslc() == ofModels->glslc();
}

void cullToLayers(GPUModel &model, const ShadowMapRenderData &record, int firstLayer, int count)
{
    std::array<QMatrix4x4, kMostLayersToCullTo> matrices;
    if (count > kMostLayersToCullTo || firstLayer + count > record.transforms.size()) {
        model.resetCulling();
        return;
    }
    for (int i = 0; i < count; ++i) {
        const ShadowMapRenderData::Transform &transform = record.transforms.at(firstLayer + i);
        std::copy(std::begin(transform.m), std::end(transform.m), matrices[std::size_t(i)].data());
    }
    model.cull(matrices.data(), count);
}

void bindInstanceData(const QVariantList &list, ShaderProgram *program)
{
    for (const QVariant &entry : list)
        if (InstanceDataCollection *data = liveObjectIn<InstanceDataCollection>(entry, LiveKind::InstanceData))
            data->bind(program, nullptr);
}

void unbindInstanceData(const QVariantList &list, ShaderProgram *program)
{
    for (const QVariant &entry : list)
        if (InstanceDataCollection *data = liveObjectIn<InstanceDataCollection>(entry, LiveKind::InstanceData))
            data->unbind(program, nullptr);
}

void checkPlan(const QString &plan, const ShaderProgram *program)
{
    if (const InstanceDataPlan *known = InstanceDataRegistry::Instance().getPlan(plan))
        known->assertShaderProgram(program);
}

Texture *makeDepthArray(const char *label, const QSize &size, int layers)
{
    return makeArray(label, GL_NEAREST, GL_DEPTH_COMPONENT32F, GL_DEPTH_COMPONENT, size, layers);
}

Texture *makeMomentsArray(const char *label, const QSize &size, int layers)
{
    return makeArray(label, GL_LINEAR, GL_RG32F, GL_RG, size, layers);
}

void wrapToNoDepth()
{
    settleActiveUnit();
    constexpr float kBorder[4] = {kNoDepth, kNoDepth, kNoDepth, 1.0f};
    glTexParameterfv(GL_TEXTURE_2D_ARRAY, GL_TEXTURE_BORDER_COLOR, kBorder);
    glTexParameteri(GL_TEXTURE_2D_ARRAY, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_BORDER);
    glTexParameteri(GL_TEXTURE_2D_ARRAY, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_BORDER);
}

void wrapToEdge()
{
    settleActiveUnit();
    glTexParameteri(GL_TEXTURE_2D_ARRAY, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
    glTexParameteri(GL_TEXTURE_2D_ARRAY, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
}

void clearToNoDepth()
{
    glClearColor(kNoDepth, kNoDepth, kNoDepth, 1.0f);
}

GPUModel *castersIn(const QVariant &value, const char *file, int line)
{
    GPUModel *model = modelOf(value);
    if (model || value.metaType() == QMetaType::fromType<GPUModel *>())
        return model;
    const auto report = [&](const char *condition, const QString &message) {
        reportFailedAssertion(file, line, condition, message);
    };
    if (value.isNull())
        report("false == modelAsQVariant.isNull()", QStringLiteral("Input Geometry is NULL"));
    if (!value.canConvert<GPUModel *>())
        report("true == modelAsQVariant.canConvert<GPUModel*>()",
               QStringLiteral("Input Geometry is not a 'GPUModel*', type is '%1'")
                   .arg(QLatin1String(value.isValid() ? value.typeName() : "")));
    return model;
}

} // namespace Brevane::Kvo
