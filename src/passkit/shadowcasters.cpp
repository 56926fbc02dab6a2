#include "passkit/shadowcasters.h"

#include "core/liveobjects.h"
#include "core/log.h"
#include "gl/guards.h"
#include "gl/pixelstore.h"
#include "gl/storage.h"
#include "gl/texture.h"
#include "model/gpumodel.h"
#include "model/instancedatacollection.h"
#include "model/instancedataplan.h"
#include "model/instancedataregistry.h"
#include "passkit/slots.h"

#include <epoxy/gl.h>

namespace Brevane::Kvo {

namespace {

InstanceDataCollection *instanceDataIn(const QVariant &value)
{
    // Any pointer to a QObject, which may be gone.
    QObject *object = value.metaType().flags() & QMetaType::PointerToQObject
                          ? *static_cast<QObject *const *>(value.constData())
                          : nullptr;
    return liveKindOf(object) == LiveKind::InstanceData ? static_cast<InstanceDataCollection *>(object) : nullptr;
}

Texture *makeArray(const char *label, GLint filter, GLenum internalFormat, GLenum format, const QSize &size, int layers)
{
    auto *texture = new Texture(nullptr);
    texture->setLabel(QLatin1String(label));
    texture->setTarget(GL_TEXTURE_2D_ARRAY);
    StorageBinder bound(texture);
    texture->setFilter(GLenum(filter));
    const DefaultPixelStore pixelStore;
    allocateImage(internalFormat, {size.width(), size.height(), layers}, format, GL_FLOAT);
    return texture;
}

} // namespace

// The search is a loop whose length depends on the texel: drivers without branches per pixel run the whole
// of an "if" for every block of pixels, but leave a loop that no pixel of the block is in.
const QString kGradientFilter = QStringLiteral(R"(
void main()
{
  vec2 tO = tap(ivec2(0, 0));
  bool empty = IS_EMPTY(tO.r);
  vec2 result = tO;

  int directions = empty ? 4 : 0;
  for(int i = 0; i < directions; ++i)
  {
    ivec2 direction = i < 2 ? ivec2(1 - 2 * i, 0) : ivec2(0, 5 - 2 * i);
    vec2 tA = tap(direction);
    vec2 tB = tap(2 * direction);
    if(!IS_EMPTY(tA.r) && !IS_EMPTY(tB.r))
    {
      vec2 m = tB - tA;
      result = tA - m;
      directions = 0;
    }
  }

  float count = 1.0;
  if(!empty)
  {
    ivec2 offsets[8] = ivec2[8](ivec2(-1, -1), ivec2(0, -1), ivec2(1, -1), ivec2(-1, 0), ivec2(1, 0), ivec2(-1, 1),
                                ivec2(0, 1), ivec2(1, 1));
    for(int i = 0; i < 8; ++i)
    {
      vec2 t = tap(offsets[i]);
      if(t.r <= 1.0)
      {
        result += t;
        count += 1.0;
      }
    }
  }
  out_FragColor = vec4(result / count, 0.0, 0.0);
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

void bindInstanceData(const QVariantList &list, ShaderProgram *program)
{
    for (const QVariant &entry : list)
        if (InstanceDataCollection *data = instanceDataIn(entry))
            data->bind(program, nullptr);
}

void unbindInstanceData(const QVariantList &list, ShaderProgram *program)
{
    for (const QVariant &entry : list)
        if (InstanceDataCollection *data = instanceDataIn(entry))
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
    constexpr float kBorder[4] = {kNoDepth, kNoDepth, kNoDepth, 1.0f};
    glTexParameterfv(GL_TEXTURE_2D_ARRAY, GL_TEXTURE_BORDER_COLOR, kBorder);
    glTexParameteri(GL_TEXTURE_2D_ARRAY, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_BORDER);
    glTexParameteri(GL_TEXTURE_2D_ARRAY, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_BORDER);
}

void wrapToEdge()
{
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
