#include "host/environmentpass.h"

#include "core/hostcode.h"
#include "gl/bindings.h"
#include "gl/fallenshort.h"
#include "gl/pixelstore.h"
#include "gl/storage.h"
#include "gl/texture.h"
#include "host/lights.h"

#include <QImageReader>
#include <QMatrix4x4>

#include <epoxy/gl.h>

#include <cmath>

using namespace Qt::StringLiterals;

namespace Brevane::Kvo {

namespace {

const QString kStudio = u"studio"_s;
constexpr int kTableSide = 32;

constexpr SlotInfo kInputInfo[] = {
    {.name = "Kvo_QString_Source", .meaning = "studio, overcast, sun, night, or a latitude-longitude image file"},
    {.name = "Kvo_float_Rotation",
     .meaning = "how far it is turned about the axis +y",
     .unit = "degrees",
     .range = {-360, 360, 1}},
    {.name = "Kvo_float_Intensity",
     .meaning = "factor on all light",
     .kind = SlotKind::Factor,
     .range = {0, 100, 0.05}},
};

constexpr SlotInfo kOutputInfo[] = {
    {.name = "Kvo_KvoTexture*_Radiance",
     .meaning = "the picture, as a latitude-longitude map",
     .kind = SlotKind::Texture,
     .format = "GL_RGBA16F"},
    {.name = "Kvo_KvoTexture*_Specular",
     .meaning = "what surfaces of nine degrees of roughness mirror",
     .kind = SlotKind::Texture,
     .format = "GL_RGBA16F, 512 by 896"},
    {.name = "Kvo_KvoTexture*_Table",
     .meaning = "how much of it they mirror, and from where",
     .kind = SlotKind::Texture,
     .format = "GL_RGBA16F, 32 by 32"},
    {.name = "Kvo_QMatrix4x4_Rotation",
     .meaning = "from the world to the directions of the maps",
     .kind = SlotKind::Matrix},
    {.name = "Kvo_QMatrix4x4_IrradianceRed",
     .meaning = "irradiance by pi as a form of the normal in the world",
     .kind = SlotKind::Matrix},
    {.name = "Kvo_QMatrix4x4_IrradianceGreen", .meaning = "likewise", .kind = SlotKind::Matrix},
    {.name = "Kvo_QMatrix4x4_IrradianceBlue", .meaning = "likewise", .kind = SlotKind::Matrix},
    {.name = "Kvo_float_Intensity", .meaning = "factor on what the maps hold", .kind = SlotKind::Factor},
    {.name = "Kvo_QList_Lights", .meaning = "the key light, as shadow passes take it", .kind = SlotKind::List},
};

constexpr PassInfo kInfo = {"EnvironmentPass", "light from all around, of an image file or computed", Reach::texels(0),
                            kInputInfo, kOutputInfo};

QImage readWithQt(const QString &path, QString *error)
{
    QImageReader reader(path);
    const QImage image = reader.read();
    if (image.isNull())
        *error = u"'%1': %2"_s.arg(path, reader.errorString());
    return image;
}

EnvironmentPass::ImageReader &imageReader()
{
    static EnvironmentPass::ImageReader reader = readWithQt;
    return reader;
}

struct MapImage
{
    QSize size;
    GLenum internalFormat;
    GLenum format;
    GLenum type;
    const void *pixels;
};

// Made anew in the next frame where the driver has no room for it or no name.
void makeMap(Held<Texture> &texture, const QString &label, const MapImage &image)
{
    // A new one each time: copies of the pass may go on with the one before.
    texture = new Texture(nullptr);
    texture->setTarget(GL_TEXTURE_2D);
    texture->setLabel(label);
    const StorageBinder bound(texture);
    if (!bound.isBound()) {
        noteFallenShort(texture);
        return;
    }
    {
        const DefaultPixelStore pixelStore;
        if (!allocateImage(image.internalFormat, {image.size.width(), image.size.height()}, image.format, image.type,
                           image.pixels, label))
            noteFallenShort(texture);
    }
    texture->setFilter(GL_LINEAR);
    texture->setWrap(GL_CLAMP_TO_EDGE);
    texture->setReadOnly();
}

// The sum of the harmonics as a quadratic form of (x, y, z, 1), for directions of length 1.
QMatrix4x4 formOf(const std::array<QVector3D, 9> &coefficients, int channel)
{
    const auto c = [&](size_t i) { return coefficients[i][channel]; };
    const float xx = 0.546274f * c(8);
    const float zz = 0.315392f * c(6);
    const float xy = 0.546274f * c(4);
    const float yz = 0.546274f * c(5);
    const float xz = 0.546274f * c(7);
    const float x = 0.2443015f * c(3);
    const float y = 0.2443015f * c(1);
    const float z = 0.2443015f * c(2);
    // clang-format off
    return {xx - zz, xy,       xz,         x,
            xy,      -xx - zz, yz,         y,
            xz,      yz,       2.0f * zz,  z,
            x,       y,        z,          0.282095f * c(0)};
    // clang-format on
}

} // namespace

void EnvironmentPass::setImageReader(ImageReader reader)
{
    imageReader() = reader ? reader : readWithQt;
}

EnvironmentPass::EnvironmentPass()
{
    addInput(u"Kvo_QString_Source"_s, kStudio, InSource);
    addInput(u"Kvo_float_Rotation"_s, 0.0f, InRotation);
    addInput(u"Kvo_float_Intensity"_s, 1.0f, InIntensity);
    addOutput(u"Kvo_KvoTexture*_Radiance"_s, OutRadiance);
    addOutput(u"Kvo_KvoTexture*_Specular"_s, OutSpecular);
    addOutput(u"Kvo_KvoTexture*_Table"_s, OutTable);
    addOutput(u"Kvo_QMatrix4x4_Rotation"_s, OutRotation);
    addOutput(u"Kvo_QMatrix4x4_IrradianceRed"_s, OutIrradianceRed);
    addOutput(u"Kvo_QMatrix4x4_IrradianceGreen"_s, OutIrradianceGreen);
    addOutput(u"Kvo_QMatrix4x4_IrradianceBlue"_s, OutIrradianceBlue);
    addOutput(u"Kvo_float_Intensity"_s, OutIntensity);
    addOutput(u"Kvo_QList_Lights"_s, OutLights);
    describe(kInfo);
}

EnvironmentPass::EnvironmentPass(const EnvironmentPass &other) = default;
EnvironmentPass &EnvironmentPass::operator=(const EnvironmentPass &other) = default;

EnvironmentPass::~EnvironmentPass() = default;

Environment EnvironmentPass::_load(const QString &source)
{
    if (std::optional<Environment> known = environmentNamed(source)) {
        acceptInput(InSource);
        return std::move(*known);
    }
    QString error;
    QImage picture;
    {
        const HostCode hostCode;
        picture = imageReader()(source, &error);
    }
    if (!picture.isNull()) {
        acceptInput(InSource);
        return environmentOf(picture);
    }
    acceptInput(InSource); // another file is another message
    reportInput(InSource, u"is neither %1 nor an image that can be read: %2; %3 is used"_s.arg(
                              environmentNames().join(", "_L1),
                              error.contains(source) ? error : source + u": "_s + error, kStudio));
    return *environmentNamed(kStudio);
}

void EnvironmentPass::_upload(const Environment &environment)
{
    makeMap(_radiance, u"EnvironmentPass radiance"_s,
            {{environment.width, environment.height},
             GL_RGBA16F,
             GL_RGBA,
             GL_HALF_FLOAT,
             environment.radiance.constData()});
    makeMap(_specular, u"EnvironmentPass specular"_s,
            {{Environment::kAtlasWidth, Environment::kAtlasHeight},
             GL_RGBA16F,
             GL_RGBA,
             GL_HALF_FLOAT,
             environment.specular.constData()});
    if (!_table) {
        static const QVector<float> table = specularTable(kTableSide);
        makeMap(_table, u"EnvironmentPass table"_s,
                {{kTableSide, kTableSide}, GL_RGBA16F, GL_RGBA, GL_FLOAT, table.constData()});
    }
}

float EnvironmentPass::_finite(int index)
{
    const float value = qvariant_cast<float>(_inputs[index].value);
    if (std::isfinite(value)) {
        acceptInput(index);
        return value;
    }
    const float instead = qvariant_cast<float>(defaultValue(index));
    reportInput(index, u"is no finite number; %1 is used"_s.arg(instead));
    return instead;
}

void EnvironmentPass::start(RenderCallbacks *)
{
    const BindingScope scope;
    if (!scope)
        return;
    const QString source = _inputs[InSource].value.toString();
    if (!_radiance || !_specular || !_table || source != _source) {
        _source = source;
        const Environment environment = _load(source);
        _irradiance = environment.irradiance;
        _key = environment.key;
        _upload(environment);
    }

    const float intensity = std::max(_finite(InIntensity), 0.0f);
    const float turn = _finite(InRotation);
    QMatrix4x4 toMaps;
    toMaps.rotate(-turn, 0.0f, 1.0f, 0.0f);
    ShadowMapLight key = _key;
    key.direction = toMaps.inverted().mapVector(key.direction);
    key.color *= intensity;

    _outputs[OutRadiance].value = QVariant::fromValue<Texture *>(_radiance);
    _outputs[OutSpecular].value = QVariant::fromValue<Texture *>(_specular);
    _outputs[OutTable].value = QVariant::fromValue<Texture *>(_table);
    _outputs[OutRotation].value = toMaps;
    for (int channel = 0; channel < 3; ++channel)
        _outputs[OutIrradianceRed + channel].value =
            intensity * (toMaps.transposed() * formOf(_irradiance, channel) * toMaps);
    _outputs[OutIntensity].value = intensity;
    _outputs[OutLights].value = lightsToVariant({key});
}

} // namespace Brevane::Kvo
