#include "texels.h"

#include "gl/guards.h"
#include "gl/texture.h"
#include "glnames.h"

#include <epoxy/gl.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>

using namespace Brevane::Kvo;
using namespace Qt::StringLiterals;

namespace {

constexpr QRgb kNotANumber = qRgb(255, 0, 255);
constexpr QRgb kInfinity = qRgb(255, 220, 0);
constexpr QRgb kMinusInfinity = qRgb(0, 220, 255);
constexpr int kCheckSide = 8;

int byteOf(double value)
{
    return int(std::lround(std::clamp(value, 0.0, 1.0) * 255.0));
}

QString targetName(GLenum target)
{
    switch (target) {
    case GL_TEXTURE_2D: return u"2D"_s;
    case GL_TEXTURE_2D_ARRAY: return u"array"_s;
    case GL_TEXTURE_CUBE_MAP: return u"cube"_s;
    case GL_TEXTURE_3D: return u"3D"_s;
    default: return u"0x%1"_s.arg(target, 4, 16, QChar(u'0'));
    }
}

int levelsOf(GLenum level0, const QSize &size)
{
    int levels = 1;
    for (int side = std::max(size.width(), size.height()); side > 1; side /= 2) {
        GLint width = 0;
        glGetTexLevelParameteriv(level0, levels, GL_TEXTURE_WIDTH, &width);
        if (width < 1)
            break;
        ++levels;
    }
    return levels;
}

TextureFacts factsOf(Texture *texture)
{
    TextureFacts facts;
    const GLenum target = texture->target();
    facts.target = targetName(target);
    const AutoBinder binder(texture);
    const bool isCube = target == GL_TEXTURE_CUBE_MAP;
    const GLenum level0 = isCube ? GL_TEXTURE_CUBE_MAP_POSITIVE_X : target;
    GLint width = 0, height = 0, depth = 1, format = 0, redType = 0;
    glGetTexLevelParameteriv(level0, 0, GL_TEXTURE_WIDTH, &width);
    glGetTexLevelParameteriv(level0, 0, GL_TEXTURE_HEIGHT, &height);
    glGetTexLevelParameteriv(level0, 0, GL_TEXTURE_INTERNAL_FORMAT, &format);
    glGetTexLevelParameteriv(level0, 0, GL_TEXTURE_RED_TYPE, &redType);
    if (!isCube)
        glGetTexLevelParameteriv(level0, 0, GL_TEXTURE_DEPTH, &depth);
    facts.format = formatName(GLenum(format));
    facts.size = QSize(width, height);
    facts.layers = isCube ? 6 : depth;
    facts.levels = levelsOf(level0, facts.size);
    facts.isSigned = redType == GL_INT;
    return facts;
}

} // namespace

QString TextureFacts::text() const
{
    QString text = u"%1 %2x%3 %4"_s.arg(target).arg(size.width()).arg(size.height()).arg(format);
    if (layers > 1)
        text += target == u"cube" ? u", 6 faces"_s : u", %1 layers"_s.arg(layers);
    if (levels > 1)
        text += u", %1 levels"_s.arg(levels);
    return text;
}

bool Texels::read(Texture *texture, int level, Texels *texels, QString *error)
{
    *texels = Texels();
    if (!readTexture(texture, &texels->_pixels, error, level)) {
        texels->_pixels = TexturePixels();
        return false;
    }
    texels->_facts = factsOf(texture);
    return true;
}

QSize Texels::size() const
{
    return isEmpty() ? QSize() : QSize(_pixels.width, _pixels.height / std::max(1, _pixels.layers));
}

qsizetype Texels::indexOf(int x, int y, int layer) const
{
    const int height = size().height();
    // Rows of the texture run upwards.
    return (qsizetype(layer * height + height - 1 - y) * _pixels.width + x) * _pixels.channels;
}

double Texels::value(qsizetype index) const
{
    if (!isInteger())
        return double(_pixels.values[index]);
    const quint32 word = _pixels.integers[index];
    return _facts.isSigned ? double(std::bit_cast<qint32>(word)) : double(word);
}

QVector<double> Texels::at(const QPoint &position, int layer) const
{
    QVector<double> values;
    if (!QRect(QPoint(), size()).contains(position) || layer < 0 || layer >= layers())
        return values;
    const qsizetype index = indexOf(position.x(), position.y(), layer);
    for (int channel = 0; channel < channels(); ++channel)
        values.append(value(index + channel));
    return values;
}

double Texels::linearDepth(double depth, const QMatrix4x4 &projection)
{
    // The point on the axis of view that has this depth, back in camera space.
    const double a = double(projection(2, 2));
    const double b = double(projection(2, 3));
    const double c = double(projection(3, 2));
    const double d = double(projection(3, 3));
    const double ndc = 2.0 * depth - 1.0;
    // ndc = (a z + b) / (c z + d)
    return -(ndc * d - b) / (a - ndc * c);
}

QRgb Texels::colorOfId(quint32 id)
{
    if (id == 0)
        return qRgb(0, 0, 0);
    // Neighbours lie far apart on the circle of hues, by the golden section.
    const double hue = std::fmod(double(id) * 0.61803398874989484, 1.0);
    const double value = id % 3 == 0 ? 0.7 : id % 3 == 1 ? 0.95 : 0.82;
    return QColor::fromHsvF(float(hue), 0.65f, float(value)).rgb();
}

// The channels that a look shows side by side, from the first on.
int Texels::shownChannels(const Look &look, int *first) const
{
    const int last = std::max(0, channels() - 1);
    *first = 0;
    switch (look.channels) {
    case Look::Channels::Color:
    case Look::Channels::Blended: return std::min(channels(), 3);
    case Look::Channels::Green: *first = std::min(1, last); break;
    case Look::Channels::Blue: *first = std::min(2, last); break;
    case Look::Channels::Alpha: *first = last; break;
    default: break;
    }
    return 1;
}

double Texels::shownAt(const QPoint &position, int layer, const Look &look, int channel) const
{
    const QVector<double> values = at(position, layer);
    if (values.isEmpty())
        return std::numeric_limits<double>::quiet_NaN();
    int first = 0;
    shownChannels(look, &first);
    const double raw = values[std::min(first + channel, int(values.size()) - 1)];
    return look.channels == Look::Channels::LinearDepth ? linearDepth(raw, look.projection) : raw;
}

TexelStatistics Texels::statistics(int layer, const Look &look) const
{
    TexelStatistics result;
    if (isEmpty() || layer < 0 || layer >= layers())
        return result;
    int first = 0;
    const int count = shownChannels(look, &first);
    const QSize extent = size();
    const qsizetype from = qsizetype(layer) * extent.height() * _pixels.width * channels();
    const qsizetype to = from + qsizetype(extent.height()) * _pixels.width * channels();
    const bool isLinear = look.channels == Look::Channels::LinearDepth;
    const auto shown = [&](qsizetype index) {
        const double raw = value(index);
        return isLinear ? linearDepth(raw, look.projection) : raw;
    };
    result.least = std::numeric_limits<double>::max();
    result.most = std::numeric_limits<double>::lowest();
    double sum = 0.0;
    for (qsizetype texel = from; texel < to; texel += channels()) {
        for (int channel = first; channel < first + count; ++channel) {
            const double v = shown(texel + channel);
            if (std::isnan(v)) {
                ++result.notNumbers;
            } else if (std::isinf(v)) {
                ++result.infinities;
            } else {
                ++result.finite;
                result.least = std::min(result.least, v);
                result.most = std::max(result.most, v);
                sum += v;
            }
        }
    }
    if (result.finite == 0) {
        result.least = result.most = 0.0;
        return result;
    }
    result.mean = sum / double(result.finite);
    const double width = result.most - result.least;
    for (qsizetype texel = from; texel < to; texel += channels()) {
        for (int channel = first; channel < first + count; ++channel) {
            const double v = shown(texel + channel);
            if (!std::isfinite(v))
                continue;
            const int bin = width > 0.0 ? int((v - result.least) / width * TexelStatistics::kBins) : 0;
            ++result.histogram[size_t(std::clamp(bin, 0, TexelStatistics::kBins - 1))];
        }
    }
    return result;
}

QRgb Texels::colorAt(int x, int y, int layer, const Look &look) const
{
    int first = 0;
    const int count = shownChannels(look, &first);
    const qsizetype index = indexOf(x, y, layer);
    double shown[3] = {};
    for (int channel = 0; channel < count; ++channel) {
        const double raw = value(index + first + channel);
        const double v = look.channels == Look::Channels::LinearDepth ? linearDepth(raw, look.projection) : raw;
        if (look.marksSpecials && std::isnan(v))
            return kNotANumber;
        if (look.marksSpecials && std::isinf(v))
            return v > 0 ? kInfinity : kMinusInfinity;
        if (look.channels == Look::Channels::Ids)
            return colorOfId(std::isfinite(v) ? quint32(std::clamp(v, 0.0, 4294967295.0)) : 0);
        shown[channel] = look.high > look.low ? (v - look.low) / (look.high - look.low) : v >= look.high ? 1.0 : 0.0;
    }
    if (count == 1)
        shown[1] = shown[2] = shown[0];
    if (look.channels == Look::Channels::Blended && channels() == 4) {
        const double alpha = std::clamp(value(index + 3), 0.0, 1.0);
        const double ground = (x / kCheckSide + y / kCheckSide) % 2 == 0 ? 0.4 : 0.6;
        for (double &c : shown)
            c = std::clamp(c, 0.0, 1.0) * alpha + ground * (1.0 - alpha);
    }
    return qRgb(byteOf(shown[0]), byteOf(shown[1]), byteOf(shown[2]));
}

QImage Texels::picture(int layer, const Look &look) const
{
    if (isEmpty() || layer < 0 || layer >= layers())
        return QImage();
    const QSize extent = size();
    QImage image(extent, QImage::Format_RGB32);
    for (int y = 0; y < extent.height() && !image.isNull(); ++y) {
        auto *line = reinterpret_cast<QRgb *>(image.scanLine(y));
        for (int x = 0; x < extent.width(); ++x)
            line[x] = colorAt(x, y, layer, look);
    }
    return image;
}

TexturePixels Texels::layer(int layer) const
{
    TexturePixels one = _pixels;
    const int height = size().height();
    const qsizetype count = qsizetype(height) * _pixels.width * channels();
    one.height = height;
    one.layers = 1;
    one.values = _pixels.values.mid(_pixels.values.isEmpty() ? 0 : layer * count, count);
    one.integers = _pixels.integers.mid(_pixels.integers.isEmpty() ? 0 : layer * count, count);
    return one;
}

bool Texels::difference(const Texels &a, const Texels &b, Texels *result, QString *error)
{
    if (a.size() != b.size() || a.layers() != b.layers() || a.channels() != b.channels()) {
        *error = u"%1 and %2 cannot be compared"_s.arg(a.facts().text(), b.facts().text());
        return false;
    }
    Texels both = a;
    both._pixels.kind = TexturePixels::Kind::Color;
    both._pixels.integers.clear();
    const qsizetype count = qsizetype(a._pixels.width) * a._pixels.height * a.channels();
    both._pixels.values.resize(count);
    for (qsizetype i = 0; i < count; ++i)
        both._pixels.values[i] = float(std::abs(a.value(i) - b.value(i)));
    *result = both;
    return true;
}
