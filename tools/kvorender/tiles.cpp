#include "tiles.h"

#include "core/renderpasshelper.h"
#include "core/slotinfo.h"
#include "host/slotname.h"

#include <QVector2D>

#include <QtMath>

#include <algorithm>
#include <cmath>

using namespace Brevane::Kvo;
using namespace Qt::StringLiterals;

namespace {

// Windows begin at multiples of this, so that passes at a part of the resolution find the same pixels together.
constexpr int kGrid = 16;
constexpr int kUsualTarget = 2048; // what passes take for a window of that side is some hundred megabytes
constexpr int kLargeTarget = 4096;
constexpr int kLeastSide = 512;
constexpr double kShaderReach = 16.0;
constexpr double kLensReach = 32.0; // three rings of a pixel each, their drift, and noise that grows with the picture
constexpr double kSmaaReach = 80.0; // 32 steps of two pixels to find an end, and what it finds there

bool fails(QString *error, const QString &reason)
{
    *error = reason;
    return false;
}

int downToGrid(int value)
{
    return (value >= 0 ? value : value - kGrid + 1) / kGrid * kGrid;
}

int upToGrid(int value)
{
    return downToGrid(value + kGrid - 1);
}

const PassInput *inputOf(const QVector<PassInput> &inputs, const QString &name)
{
    for (const PassInput &input : inputs)
        if (SlotName::parse(input.slot).name == name || input.slot == name)
            return &input;
    return nullptr;
}

// The number in an input; NaN where it is known only when the pass runs.
double numberIn(const QVector<PassInput> &inputs, const QString &slot)
{
    const PassInput *input = inputOf(inputs, slot);
    if (!input || (input->kind != PassInput::Kind::Default && input->kind != PassInput::Kind::Value))
        return NAN;
    bool ok = true;
    const double number = input->value.isValid() ? input->value.toDouble(&ok) : 0.0;
    return ok ? number : NAN;
}

QString named(const Pipeline &pipeline, const QString &pass)
{
    return u"pass '%1' (%2)"_s.arg(pass,
                                   pipeline.className(pass).isEmpty() ? u"of its own"_s : pipeline.className(pass));
}

// Those that fill what they draw with an image, whatever its size.
bool fillsWithImages(const QString &className)
{
    static const QStringList kClasses{u"TextureToScreenRenderPass"_s,
                                      u"BlendRenderPass"_s,
                                      u"BlurAndCombineRenderPass"_s,
                                      u"GaussianBlurRenderPass"_s,
                                      u"StencilBlurAndBlendRenderPass"_s,
                                      u"FastApproximateAntiAliasingRenderPass"_s,
                                      u"SMAARenderPass"_s,
                                      u"TemporalAARenderPass"_s,
                                      u"DepthOfFieldRenderPass"_s,
                                      u"LuminanceAverageRenderPass"_s,
                                      u"LayerCompositionPass"_s};
    return kClasses.contains(className);
}

bool isTexture(const QString &slot)
{
    return slotTypesMatch(slot, u"Kvo_KvoTexture*_Any"_s);
}

} // namespace

QRect Tile::partOfWindow(const QSize &picture) const
{
    const int windowTop = picture.height() - window.y() - window.height();
    return part.translated(-window.x(), -windowTop);
}

// Classes whose reach is the whole frame by the book, and less by what they do with it.
bool TilePlan::reachOf(const Pipeline &pipeline, double pixelsPerUnit, double *reach, QStringList *warnings,
                       QString *error)
{
    QHash<QString, double> reaches; // from the picture's inputs to a pass, all passes on the way added up
    *reach = 0.0;
    for (const QString &pass : pipeline.order()) {
        const QString className = pipeline.className(pass);
        const QVector<PassInput> inputs = pipeline.inputs(pass);
        const auto *helper = dynamic_cast<const RenderPassHelper *>(pipeline.pass(pass));
        const PassInfo *info = helper ? helper->passInfo() : nullptr;
        double own = 0.0;
        if (className == "SMAARenderPass"_L1) {
            own = kSmaaReach;
        } else if (className == "ScalableAmbientObscuranceRenderPass"_L1) {
            if (inputOf(inputs, u"CameraSpacePosition"_s)->kind != PassInput::Kind::Link)
                return fails(error, u"%1 has no positions, which it needs to be right beside the middle"_s.arg(
                                        named(pipeline, pass)));
            own = numberIn(inputs, u"SAORadius"_s) * pixelsPerUnit + 2.0;
        } else if (className == "DepthOfFieldRenderPass"_L1) {
            own = kLensReach;
        } else if (className == "ShaderRenderPass"_L1 || className == "DepthPeelingPass"_L1) {
            const bool readsImages = std::any_of(inputs.cbegin(), inputs.cend(), [](const PassInput &input) {
                return input.kind == PassInput::Kind::Link && isTexture(input.slot);
            });
            if (readsImages) {
                own = kShaderReach;
                *warnings << u"%1: its shader is taken to look no further than %2 pixels, and not to ask where in the "
                             u"picture it is"_s.arg(named(pipeline, pass))
                                 .arg(kShaderReach);
            }
        } else if (className == "LuminanceAverageRenderPass"_L1 || className == "SkyboxRenderPass"_L1
                   || className == "TextureToScreenRenderPass"_L1) {
            own = 0.0;
        } else if (!info || info->reach.isWholeFrame) {
            return fails(error, u"%1 may read the whole frame for every pixel"_s.arg(named(pipeline, pass)));
        } else {
            own = info->reach.fixed;
            if (info->reach.slot)
                own += info->reach.perUnit * std::max(0.0, numberIn(inputs, QString::fromLatin1(info->reach.slot)));
            if (info->reach.times)
                own *= std::max(1.0, numberIn(inputs, QString::fromLatin1(info->reach.times)));
        }
        if (!std::isfinite(own))
            return fails(error, u"%1 gets its radius from another pass"_s.arg(named(pipeline, pass)));
        double before = 0.0;
        for (const PassInput &input : inputs)
            if (input.kind == PassInput::Kind::Link && isTexture(input.slot))
                before = std::max(before, reaches.value(input.sourcePass));
        reaches[pass] = before + own;
        *reach = std::max(*reach, before + own);
    }
    return true;
}

bool TilePlan::check(const Pipeline &pipeline, const TileLimits &limits, QString *error) const
{
    const bool isBeyondViewport = _picture.width() > limits.viewport || _picture.height() > limits.viewport;
    for (const QString &pass : pipeline.order()) {
        const QString className = pipeline.className(pass);
        const QVector<PassInput> inputs = pipeline.inputs(pass);
        if (className == "BackgroundImageRenderPass"_L1)
            return fails(error, u"%1 spreads an image over the picture"_s.arg(named(pipeline, pass)));
        if (isBeyondViewport && (className == "SkyboxRenderPass"_L1 || className == "CameraJitterPass"_L1))
            return fails(error, u"%1 needs a viewport of the whole picture, and here they end at %2 pixels"_s
                                    .arg(named(pipeline, pass))
                                    .arg(limits.viewport));
        for (const PassInput &input : inputs) {
            const QString name = SlotName::parse(input.slot).name;
            if (input.source.startsWith("@viewport["_L1))
                return fails(error,
                             u"%1 draws to a part of the picture: %2"_s.arg(named(pipeline, pass), input.source));
            const bool isPlace =
                className == "TextureToScreenRenderPass"_L1 && (name == "Rects"_L1 || name == "ViewportOut"_L1);
            if (isPlace && input.kind != PassInput::Kind::Default)
                return fails(error, u"%1 draws to a part of the picture: %2"_s.arg(named(pipeline, pass), name));
            if (input.kind != PassInput::Kind::Link)
                continue;
            const QString sourceClass = pipeline.className(input.sourcePass);
            // A jittered projection is that of the whole picture.
            const bool drawsWhole = className == "ForwardRenderPass"_L1 || className == "ModelRenderPass"_L1
                                    || className == "GBufferRenderPass"_L1 || className == "SkyboxRenderPass"_L1
                                    || className == "SurfacePass"_L1 || className == "DepthPeelingPass"_L1
                                    || className == "TransparencyRenderPass"_L1
                                    || className == "VisibilityBufferRenderPass"_L1;
            if (sourceClass == "CameraJitterPass"_L1 && name == "ProjectionMatrix"_L1 && !drawsWhole)
                return fails(error, u"%1 takes a jittered projection, which is that of the whole picture"_s.arg(
                                        named(pipeline, pass)));
            if (!isTexture(input.slot) || !fillsWithImages(className))
                continue;
            const QVector<PassInput> sources = pipeline.inputs(input.sourcePass);
            const PassInput *viewport = inputOf(sources, u"Viewport"_s);
            if (!viewport || viewport->source != "@viewport"_L1)
                return fails(error, u"%1 spreads the texture of pass '%2' over the picture"_s.arg(named(pipeline, pass),
                                                                                                  input.sourcePass));
        }
    }
    return true;
}

bool TilePlan::findHeld(const Pipeline &pipeline, const QStringList &prints, QString *error)
{
    _held.clear();
    for (const QString &pass : pipeline.order()) {
        const QString className = pipeline.className(pass);
        const QVector<PassInput> inputs = pipeline.inputs(pass);
        for (const PassInput &input : inputs) {
            if (input.kind != PassInput::Kind::Link || isTexture(input.slot)
                || pipeline.className(input.sourcePass) != "LuminanceAverageRenderPass"_L1)
                continue;
            _held.append({Held::Kind::Output, input.sourcePass, input.source, {}, {}, {}});
        }
        if (className == "LuminanceAverageRenderPass"_L1) {
            for (const QString &print : prints)
                if (print.section(u'.', 0, 0) == pass)
                    _held.append({Held::Kind::Output, pass, print.section(u'.', 1), {}, {}, {}});
        }
        if (className != "DepthOfFieldRenderPass"_L1)
            continue;
        const PassInput *automatic = inputOf(inputs, u"AutoFocus"_s);
        if (automatic->kind != PassInput::Kind::Default && automatic->kind != PassInput::Kind::Value)
            return fails(error, u"%1 learns only when it runs whether it focuses"_s.arg(named(pipeline, pass)));
        const PassInput *depth = inputOf(inputs, u"Depth"_s);
        const PassInput *focus = inputOf(inputs, u"Focus"_s);
        if (!automatic->value.toBool() || depth->kind != PassInput::Kind::Link)
            continue;
        const auto point = qvariant_cast<QVector2D>(focus->value);
        _held.append({Held::Kind::Focus, pass, {}, depth->sourcePass, depth->source, point.toPointF()});
    }
    return true;
}

bool TilePlan::make(const Pipeline &pipeline, const QSize &picture, int side, const TileLimits &limits,
                    double pixelsPerUnit, const QStringList &prints, QString *error)
{
    _picture = picture;
    _warnings.clear();
    double reach = 0.0;
    QString reason;
    if (!pipeline.inOnePiece().isEmpty())
        return fails(error, u"a picture of %1x%2 cannot be put together from tiles: %3"_s.arg(picture.width())
                                .arg(picture.height())
                                .arg(pipeline.inOnePiece()));
    if (!reachOf(pipeline, pixelsPerUnit, &reach, &_warnings, &reason) || !check(pipeline, limits, &reason)
        || !findHeld(pipeline, prints, &reason))
        return fails(error, u"a picture of %1x%2 cannot be put together from tiles: %3"_s.arg(picture.width())
                                .arg(picture.height())
                                .arg(reason));
    // Beyond a texture's side it does not matter how far.
    _margin = upToGrid(int(std::ceil(std::min(reach, double(limits.target)))));
    _side = side;
    for (const int target : {kUsualTarget, kLargeTarget, limits.target})
        if (_side == 0 && std::min(target, limits.target) - 2 * _margin - kGrid >= kLeastSide)
            _side = std::min(target, limits.target) - 2 * _margin - kGrid;
    if (_side == 0 || windowSide() > limits.target)
        return fails(error, u"a picture of %1x%2 cannot be put together from tiles%3: its passes read %4 pixels around "
                            u"them, and textures end at %5"_s.arg(picture.width())
                                .arg(picture.height())
                                .arg(side > 0 ? u" of %1"_s.arg(side) : QString())
                                .arg(int(std::ceil(reach)))
                                .arg(limits.target));
    return true;
}

// A power of two, by which coordinates divide without a rest: what rounding decides comes out as in a picture of such a
// size.
int TilePlan::windowSide() const
{
    const int least = _side + 2 * _margin + (_picture.height() % kGrid == 0 ? 0 : kGrid);
    return _margin == 0 ? _side : int(qNextPowerOfTwo(quint32(least - 1)));
}

// All windows have one size, where the picture has it; at its edges they lie further inside.
QVector<Tile> TilePlan::tiles() const
{
    QVector<Tile> tiles;
    const int width = _picture.width(), height = _picture.height();
    const QSize window(windowSide(), windowSide());
    for (int top = 0; top < height; top += _side) {
        for (int left = 0; left < width; left += _side) {
            Tile tile;
            tile.part = QRect(left, top, std::min(_side, width - left), std::min(_side, height - top));
            const int bottom = downToGrid(height - top - tile.part.height() - _margin);
            const int x = std::clamp(left - _margin, 0, std::max(0, width - window.width()));
            const int y = std::clamp(bottom, 0, upToGrid(std::max(0, height - window.height())));
            tile.window = QRect(x, y, std::min(window.width(), width - x), std::min(window.height(), height - y));
            if (_margin == 0)
                tile.window = QRect(left, height - top - tile.part.height(), tile.part.width(), tile.part.height());
            tiles << tile;
        }
    }
    return tiles;
}
