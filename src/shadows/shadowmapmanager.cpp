#include "shadows/shadowmapmanager.h"

#include "core/hostcode.h"
#include "core/slottypes.h"
#include "shadows/lightframes.h"

#include "gl/contextstate.h"
#include "gl/direction.h"
#include "gl/glslmacroprocessor.h"
#include "gl/shaderprogram.h"
#include "gl/texture.h"

#include <QMatrix4x4>
#include <QVarLengthArray>
#include <QVector2D>

#include <epoxy/gl.h>

#include <algorithm>
#include <cmath>
#include <iterator>
#include <numbers>

namespace Brevane::Kvo {

namespace {

// What every driver of OpenGL 3.2 has.
constexpr int kLeastLayerLimit = 256;

int layerLimit()
{
    GLint limit = 0;
    if (ContextState::current())
        glGetIntegerv(GL_MAX_ARRAY_TEXTURE_LAYERS, &limit);
    return limit > 0 ? limit : kLeastLayerLimit;
}

// The light in an element of the list; null when there is none.
const ShadowMapLight *lightOf(const QVariant &value)
{
    if (value.metaType() == QMetaType::fromType<ShadowMapLight>())
        return static_cast<const ShadowMapLight *>(value.constData());
    if (value.metaType() == QMetaType::fromType<ShadowMapLight *>())
        return *static_cast<ShadowMapLight *const *>(value.constData());
    return nullptr;
}

const char *typeName(ShadowMapLight::Type type)
{
    switch (type) {
    case ShadowMapLight::Type::Directional: return "directional";
    case ShadowMapLight::Type::Spot: return "spot";
    case ShadowMapLight::Type::Point: return "point";
    }
    return "unknown";
}

// Takes up the place of what gives no light.
ShadowMapLight unlit(ShadowMapLight light)
{
    light.enabled = false;
    return light;
}

/// Takes the list apart without copying it, where it is one.
QVariantList listOf(const QVariant &lights)
{
    if (lightOf(lights))
        return {lights};
    return listIn(lights);
}

/// Layers as they come, compared with those of before.
class LayerWriter
{
public:
    explicit LayerWriter(ShadowMapRenderData &data) : _data(data) {}

    int count() const { return _layers; }

    void add(const ShadowMapRenderData::Transform &transform)
    {
        if (_layers >= _data.transforms.size()) {
            _data.transforms.append(transform);
            changed = true;
        } else if (!std::equal(std::begin(transform.m), std::end(transform.m), _data.transforms.at(_layers).m)) {
            _data.transforms[_layers] = transform;
            changed = true;
        }
        ++_layers;
    }

    void add(const ShadowMapLight &light, const ShadowMapRenderData::ProjectorInfo &info)
    {
        if (_lights >= _data.projectors.size()) {
            _data.projectors.append(info);
            _data.lights.append(light);
            changed = true;
        } else {
            const ShadowMapRenderData::ProjectorInfo &before = _data.projectors.at(_lights);
            if (before.layerCount != info.layerCount || before.firstLayer != info.firstLayer) {
                _data.projectors[_lights] = info;
                changed = true;
            }
            _data.lights[_lights] = light; // colours may have changed
        }
        ++_lights;
    }

    void finish()
    {
        if (_data.layerCount != _layers || _data.transforms.size() != _layers || _data.projectors.size() != _lights) {
            _data.layerCount = _layers;
            _data.transforms.resize(_layers);
            _data.projectors.resize(_lights);
            _data.lights.resize(_lights);
            changed = true;
        }
    }

    bool changed = false;

private:
    ShadowMapRenderData &_data;
    int _layers = 0;
    int _lights = 0;
};

/// What was wrong with the lights of this call; printed when it is new to the record.
class Complaints
{
public:
    explicit Complaints(QStringList &before) : _before(before) {}
    ~Complaints()
    {
        if (_more > 0)
            say(QtCriticalMsg, QStringLiteral("Shadows: %1 more lights have such faults").arg(_more));
        if (_now != _before)
            _before = _now;
    }
    Complaints(const Complaints &) = delete;
    Complaints &operator=(const Complaints &) = delete;

    /// The first ones are said one by one; of the rest, how many there are.
    void add(QtMsgType type, const QString &message)
    {
        constexpr int kMost = 200;
        if (_now.size() < kMost)
            say(type, message);
        else
            ++_more;
    }
    /// A message that is given once per record, even when its cause comes back.
    void addOnce(const QString &message) { say(QtWarningMsg, message); }
    /// Keeps a message of before as said.
    void keep(const QString &message)
    {
        if (_before.contains(message) && !_now.contains(message))
            _now.append(message);
    }

private:
    void say(QtMsgType type, const QString &message)
    {
        const bool isKnown = _before.contains(message);
        _now.append(message);
        if (isKnown)
            return;
        const HostCode hostCode;
        if (type == QtCriticalMsg)
            qCritical("%s", qPrintable(message));
        else
            qWarning("%s", qPrintable(message));
    }

    QStringList &_before;
    QStringList _now;
    qsizetype _more = 0;
};

// Uniforms of ShadowMap.glslc.
const QString kMaps = QStringLiteral("kvo_ShadowMaps");
const QString kTransforms = QStringLiteral("kvo_ShadowTransforms");
const QString kProjectors = QStringLiteral("kvo_ShadowProjectors");
const QString kPositions = QStringLiteral("kvo_ShadowPositions");
const QString kDirections = QStringLiteral("kvo_ShadowDirections");
const QString kColors = QStringLiteral("kvo_ShadowColors");
const QString kLightCount = QStringLiteral("kvo_ShadowLightCount");
const QString kSampling = QStringLiteral("kvo_ShadowSampling");

using Vectors = QVarLengthArray<float, 64>;

void append(Vectors &values, const QVector3D &v, float w)
{
    for (const float f : {v.x(), v.y(), v.z(), w})
        values.append(f);
}

void setVectors(const ShaderProgram &program, const QString &name, const Vectors &values)
{
    const int location = program.getUniformLocation(name);
    if (location >= 0)
        glUniform4fv(location, GLsizei(values.size() / 4), values.constData());
}

float bounded(float value, float least, float most, float ifNotANumber)
{
    return std::isnan(value) ? ifNotANumber : std::clamp(value, least, most);
}

bool endsBefore(const ShaderProgram &program, const QString &array, int count)
{
    return count > 1 && program.getUniformLocation(array) >= 0
           && program.getUniformLocation(QStringLiteral("%1[%2]").arg(array).arg(count - 1)) < 0;
}

void warnOfMissingRoom(const ShaderProgram &program, const ShadowMapRenderData &data)
{
    const HostCode hostCode;
    if (endsBefore(program, kTransforms, data.layerCount))
        qWarning("Shadows: program '%s' has no room for %d layers; the last ones cast no shadow (see "
                 "ShadowMapManager::setup)",
                 qPrintable(program.label()), data.layerCount);
    const auto count = int(data.lights.size());
    for (const QString &array : {kProjectors, kPositions, kDirections, kColors}) {
        if (!endsBefore(program, array, count))
            continue;
        int room = count - 1;
        while (endsBefore(program, array, room))
            --room;
        constexpr int kMostNames = 8;
        QStringList left;
        for (int i = room; i < std::min(count, room + kMostNames); ++i)
            left << QStringLiteral("%1 (%2)").arg(i).arg(QLatin1StringView(typeName(data.lights.at(i).type)));
        if (count - room > kMostNames)
            left << QStringLiteral("and %1 more").arg(count - room - kMostNames);
        qWarning("Shadows: program '%s' has room for %d lights of %d; these do not shine: %s (see "
                 "ShadowMapManager::setup)",
                 qPrintable(program.label()), room, count, qPrintable(left.join(QStringLiteral(", "))));
        return;
    }
}

float cosineOfHalf(float degrees)
{
    return std::cos(std::max(degrees, 0.0f) * std::numbers::pi_v<float> / 360.0f);
}

const QString kDefaultBoxMessage = QStringLiteral(
    "Shadows: neither scene bounds nor a camera are given; a box of 20 units around the origin stands in");

} // namespace

// The list is taken by value: it is shared, not copied, and stays as it is whatever a host does meanwhile.
bool ShadowMapManager::processLights(QVariant lights, // NOLINT(performance-unnecessary-value-param)
                                     RenderData &data, const QMatrix4x4 *projection, const QMatrix4x4 *camera,
                                     const QPair<QVector3D, QVector3D> *bounds)
{
    Complaints complaints(data._complaints);
    LightFrames frames;
    if (bounds && !frames.setBounds(bounds->first, bounds->second))
        complaints.add(QtCriticalMsg,
                       QStringLiteral("Shadows: the scene bounds are not finite, or turned inside out; they are left "
                                      "out"));
    if (projection && camera && !frames.setCamera(*projection, *camera))
        complaints.add(QtCriticalMsg,
                       QStringLiteral("Shadows: the camera and its projection show no finite part of the world; "
                                      "directional lights cover the scene"));

    int limit = layerLimit();
    const char *limiting = "this context's textures have";
    if (data.mostLayers > 0 && data.mostLayers < limit) {
        limit = data.mostLayers;
        limiting = "the uniforms of its programs have room for";
    }
    LayerWriter writer(data);
    const QVariantList list = listOf(lights);
    if (list.isEmpty() && lights.isValid() && !isList(lights))
        complaints.add(QtWarningMsg, QStringLiteral("Shadows: the lights are no list of ShadowMapLight, their type is "
                                                    "'%1'; there are none")
                                         .arg(QLatin1StringView(lights.typeName())));
    for (qsizetype i = 0; i < list.size(); ++i) {
        const ShadowMapLight *light = lightOf(list.at(i));
        const qint32 first = writer.count();
        if (!light) {
            complaints.add(QtCriticalMsg, QStringLiteral("Shadows: light %1 is not a ShadowMapLight, its type is '%2'")
                                              .arg(i)
                                              .arg(QLatin1StringView(list.at(i).typeName())));
            writer.add(unlit(ShadowMapLight()), {0, first});
            continue;
        }
        const char *fault = frames.process(*light);
        const int layers = frames.layerCount();
        if (fault) {
            complaints.add(QtCriticalMsg, QStringLiteral("Shadows: light %1 (%2) is left out: %3")
                                              .arg(i)
                                              .arg(QLatin1StringView(typeName(light->type)), QLatin1StringView(fault)));
            writer.add(unlit(*light), {0, first});
            continue;
        }
        if (first + layers > limit) {
            complaints.add(QtCriticalMsg,
                           QStringLiteral("Shadows: light %1 (%2) casts no shadow: with its %3 layers there would be "
                                          "%4, and %5 %6 at most")
                               .arg(i)
                               .arg(QLatin1StringView(typeName(light->type)))
                               .arg(layers)
                               .arg(first + layers)
                               .arg(QLatin1StringView(limiting))
                               .arg(limit));
            writer.add(*light, {0, first});
            continue;
        }
        for (int layer = 0; layer < layers; ++layer)
            writer.add(frames.transform(layer));
        writer.add(*light, {light->enabled ? layers : 0, first});
    }
    if (frames.usedDefaultBox())
        complaints.addOnce(kDefaultBoxMessage);
    else
        complaints.keep(kDefaultBoxMessage);
    writer.finish();
    return writer.changed;
}

void ShadowMapManager::setup(GLSLMacroProcessor *processor, int mostLayers, int mostLights)
{
    if (!processor)
        return;
    processor->addDefine(QStringLiteral("KVO_SHADOW_LAYERS"), QString::number(std::max(mostLayers, 1)));
    processor->addDefine(QStringLiteral("KVO_SHADOW_LIGHTS"), QString::number(std::max(mostLights, 1)));
}

bool ShadowMapManager::bindRecord(ShaderProgram *program, const RenderData *data)
{
    return bindRecord(program, data, Sampling());
}

bool ShadowMapManager::bindRecord(ShaderProgram *program, const RenderData *data, const Sampling &sampling)
{
    const ContextState *state = ContextState::current();
    if (!program || !program->isLinked() || !state)
        return false;
    Texture *maps = data ? data->projectionTexture() : nullptr;
    // Lights without a map shine too, so a record without layers counts.
    if (!maps || !maps->bind()) {
        program->setUniform(kLightCount, 0);
        // Samplers of two kinds must not name one unit, even when nothing is read.
        program->setUniform(kMaps, state->unitCount() - 1);
        return false;
    }
    program->setUniform(kMaps, maps->unit());
    program->setUniform(kLightCount, int(data->projectors.size()));
    const Sampling usual;
    program->setUniform(kSampling, QVector2D(bounded(sampling.minimumVariance, 0.0f, 1.0f, usual.minimumVariance),
                                             bounded(sampling.lightBleeding, 0.0f, 0.99f, usual.lightBleeding)));
    // Values beyond the end of an array are left out by GL.
    if (const int location = program->getUniformLocation(kTransforms); location >= 0 && !data->transforms.isEmpty())
        glUniformMatrix4fv(location, GLsizei(data->transforms.size()), GL_FALSE, data->transforms.constData()->m);
    const QPair<int, int> needed(data->layerCount, int(data->lights.size()));
    if (data->_roomKnownFor.value(program->programID()) != needed) {
        data->_roomKnownFor.insert(program->programID(), needed);
        warnOfMissingRoom(*program, *data);
    }
    QVarLengthArray<GLint, 32> projectors;
    Vectors positions;
    Vectors directions;
    Vectors colors;
    for (qsizetype i = 0; i < data->projectors.size(); ++i) {
        const ProjectorInfo &info = data->projectors.at(i);
        // What is off may hold any numbers, and black times no number is none.
        Light light;
        if (i < data->lights.size() && data->lights.at(i).enabled)
            light = data->lights.at(i);
        else
            light.color = QVector3D();
        projectors.append(info.layerCount);
        projectors.append(info.firstLayer);
        append(positions, light.position, float(int(light.type)));
        append(directions, directionOf(light.direction), cosineOfHalf(light.angle));
        append(colors, light.color * light.intensity, cosineOfHalf(light.angle - light.softAngle));
    }
    if (const int location = program->getUniformLocation(kProjectors); location >= 0)
        glUniform2iv(location, GLsizei(data->projectors.size()), projectors.constData());
    setVectors(*program, kPositions, positions);
    setVectors(*program, kDirections, directions);
    setVectors(*program, kColors, colors);
    return true;
}

void ShadowMapManager::unbindRecord(const RenderData *data)
{
    if (Texture *maps = data ? data->projectionTexture() : nullptr)
        maps->unbind();
}

} // namespace Brevane::Kvo
