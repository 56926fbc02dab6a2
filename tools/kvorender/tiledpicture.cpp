#include "tiledpicture.h"

#include "gl/guards.h"
#include "gl/texture.h"
#include "scene.h"

#include <epoxy/gl.h>

#include <algorithm>
#include <cmath>

using namespace Brevane::Kvo;
using namespace Qt::StringLiterals;

namespace {

// A frame of which only an average is wanted.
constexpr int kOverviewSide = 4096;

// The planes of DepthOfFieldRenderPass, whose units are metres.
constexpr float kLensNear = 0.1f;
constexpr float kLensFar = 100.0f;

float distanceOf(float depth)
{
    return -kLensFar * kLensNear / (depth * (kLensFar - kLensNear) - kLensFar);
}

bool isFilteredLinearly(Texture *texture)
{
    const AutoBinder bound(texture);
    GLint filter = GL_NEAREST;
    glGetTexParameteriv(texture->target(), GL_TEXTURE_MAG_FILTER, &filter);
    return filter == GL_LINEAR;
}

QString fullName(const QString &pass, const QString &slot)
{
    return pass + u'.' + slot;
}

} // namespace

TiledPicture::TiledPicture(const TilePlan &plan, const CommandLine &commandLine, const Camera &camera,
                           ScreenTarget *screen, PipelineSource source)
    : _plan(plan), _commandLine(commandLine), _camera(camera), _screen(screen), _source(std::move(source))
{}

QVariant TiledPicture::value(const QString &pass, const QString &slot) const
{
    QString full;
    if (!_pipeline || !_pipeline->outputSlot(pass, slot, &full))
        return QVariant();
    return _outputs.value(fullName(pass, full), _pipeline->output(pass, slot));
}

bool TiledPicture::render(const std::function<void(qsizetype tile, qsizetype tiles)> &before, QString *error)
{
    if (!hold(error) || !openFiles(error))
        return false;
    const QVector<Tile> tiles = _plan.tiles();
    for (qsizetype i = 0; i < tiles.size(); ++i) {
        before(i, tiles.size());
        const Tile &tile = tiles[i];
        QString reason;
        const auto observer = [&](const QString &pass) {
            for (const SlotArgument &one : _commandLine.dumps)
                if (one.pass == pass && reason.isEmpty())
                    dump(tile, one, &reason);
        };
        if (!draw(tile.window, _plan.picture(), observer, error))
            return false;
        if (!reason.isEmpty()) {
            *error = reason;
            return false;
        }
        if (!write(tile, error))
            return false;
    }
    return commit(error);
}

// Every frame of a window, the observer on the last.
bool TiledPicture::draw(const QRect &window, const QSize &picture, const std::function<void(const QString &)> &observer,
                        QString *error)
{
    if (_screen->size() != window.size() && !_screen->resize(window.size(), error))
        return false;
    _pipeline = _source(error);
    if (!_pipeline || (_isHeld && !applyHeld(_pipeline, error)))
        return false;
    aim(_pipeline, *_screen, _camera, picture);
    _pipeline->setWindow(window, window.size() == picture ? QSize() : picture);
    const int last = _commandLine.frames - 1;
    const auto before = [&](int frame) {
        _pipeline->setPassObserver({});
        if (frame == last && observer)
            _pipeline->setPassObserver([&](const QString &pass, RenderPass *) { observer(pass); });
    };
    const bool done = renderFrames(_pipeline, _screen, _commandLine.frames, before, error);
    _pipeline->setPassObserver({});
    for (const QString &fault : _pipeline->faults())
        if (!_faults.contains(fault))
            _faults << fault;
    return done;
}

bool TiledPicture::hold(QString *error)
{
    bool hasOutputs = false;
    for (const TilePlan::Held &held : _plan.held()) {
        hasOutputs = hasOutputs || held.kind == TilePlan::Held::Kind::Output;
        if (held.kind == TilePlan::Held::Kind::Focus && !holdFocus(held, error))
            return false;
    }
    if (hasOutputs && !holdOutputs(error))
        return false;
    _isHeld = true;
    return true;
}

// What the whole picture would read there: by the filter that passes before have left on the depth.
bool TiledPicture::holdFocus(const TilePlan::Held &held, QString *error)
{
    const QSize size = _plan.picture();
    const QPoint pixel(std::clamp(int(std::floor(held.point.x() * size.width())), 0, size.width() - 1),
                       std::clamp(int(std::floor(held.point.y() * size.height())), 0, size.height() - 1));
    const QPoint fromAbove(pixel.x(), size.height() - 1 - pixel.y());
    const QVector<Tile> tiles = _plan.tiles();
    const auto tile =
        std::find_if(tiles.cbegin(), tiles.cend(), [&](const Tile &one) { return one.part.contains(fromAbove); });
    TexturePixels pixels;
    bool isLinear = false;
    QString reason;
    const auto observer = [&](const QString &pass) {
        if (pass != held.pass)
            return;
        Texture *depth = textureFromVariant(_pipeline->output(held.depthPass, held.depthSlot));
        isLinear = depth && isFilteredLinearly(depth);
        readTexture(depth, &pixels, &reason);
    };
    if (!draw(tile->window, size, observer, error))
        return false;
    if (pixels.values.isEmpty()) {
        *error = u"cannot read the depth that pass '%1' focuses on: %2"_s.arg(held.pass, reason);
        return false;
    }
    const auto depthAt = [&](int x, int y) {
        x = std::clamp(x - tile->window.x(), 0, pixels.width - 1);
        y = std::clamp(y - tile->window.y(), 0, pixels.height - 1);
        return pixels.values[(qsizetype(y) * pixels.width + x) * pixels.channels];
    };
    float depth = depthAt(pixel.x(), pixel.y());
    if (isLinear) {
        const double x = held.point.x() * size.width() - 0.5, y = held.point.y() * size.height() - 0.5;
        const int left = int(std::floor(x)), below = int(std::floor(y));
        const auto across = float(x - left), up = float(y - below);
        const float lower = std::lerp(depthAt(left, below), depthAt(left + 1, below), across);
        const float upper = std::lerp(depthAt(left, below + 1), depthAt(left + 1, below + 1), across);
        depth = std::lerp(lower, upper, up);
    }
    _focus[held.pass] = distanceOf(depth);
    return true;
}

// In one piece where there is room, else smaller.
bool TiledPicture::holdOutputs(QString *error)
{
    const QSize whole = _plan.picture();
    const QSize size = std::max(whole.width(), whole.height()) <= kOverviewSide
                           ? whole
                           : whole.scaled(kOverviewSide, kOverviewSide, Qt::KeepAspectRatio).expandedTo({1, 1});
    _isHeld = true; // the focus is
    const bool done = draw(QRect(QPoint(0, 0), size), size, {}, error);
    if (!done)
        return false;
    for (const TilePlan::Held &held : _plan.held()) {
        QString full;
        if (held.kind == TilePlan::Held::Kind::Output && _pipeline->outputSlot(held.pass, held.slot, &full))
            _outputs[fullName(held.pass, full)] = _pipeline->output(held.pass, full);
    }
    return true;
}

bool TiledPicture::applyHeld(Pipeline *pipeline, QString *error) const
{
    for (auto focus = _focus.cbegin(); focus != _focus.cend(); ++focus)
        if (!pipeline->setValue(focus.key(), u"AutoFocus"_s, false, error)
            || !pipeline->setValue(focus.key(), u"FocalDepth"_s, *focus, error))
            return false;
    for (const QString &pass : pipeline->passNames()) {
        for (const PassInput &input : pipeline->inputs(pass)) {
            const QString source = fullName(input.sourcePass, input.source);
            if (input.kind == PassInput::Kind::Link && _outputs.contains(source)
                && !pipeline->setValue(pass, input.slot, _outputs[source], error))
                return false;
        }
    }
    return true;
}

bool TiledPicture::openFiles(QString *error)
{
    return _commandLine.output.isEmpty()
           || _png.open(_commandLine.output, _plan.picture(), !_commandLine.settings.background.isValid(), error);
}

bool TiledPicture::write(const Tile &tile, QString *error)
{
    if (_commandLine.output.isEmpty())
        return true;
    const QImage window = _screen->image(error);
    if (window.isNull()) {
        *error = u"cannot read the picture back: %1"_s.arg(*error);
        return false;
    }
    const QImage part = window.copy(tile.partOfWindow(_plan.picture()));
    return _png.write(tile.part.topLeft(), onBackground(part, _commandLine.settings.background), error);
}

bool TiledPicture::dump(const Tile &tile, const SlotArgument &dump, QString *error)
{
    TexturePixels pixels;
    if (!readTexture(textureFromVariant(_pipeline->output(dump.pass, dump.slot)), &pixels, error)) {
        *error = u"%1: %2"_s.arg(dump.option, *error);
        return false;
    }
    if (QSize(pixels.width, pixels.height) != tile.window.size()) {
        *error =
            u"%1: its texture of %2x%3 is not of the size of the picture, which is made of tiles"_s.arg(dump.option)
                .arg(pixels.width)
                .arg(pixels.height);
        return false;
    }
    std::unique_ptr<ExrTileWriter> &exr = _exrs[dump.text];
    if (!exr) {
        exr = std::make_unique<ExrTileWriter>();
        if (!exr->open(dump.text, _plan.picture(), _plan.side(), pixels, error))
            return false;
    }
    return exr->write(tile.part.topLeft(), pixels, tile.partOfWindow(_plan.picture()), error);
}

bool TiledPicture::commit(QString *error)
{
    for (const auto &[file, exr] : _exrs) {
        if (!exr->commit(error))
            return false;
        _files << file;
    }
    if (_commandLine.output.isEmpty())
        return true;
    if (!_png.commit(error))
        return false;
    _files << _commandLine.output;
    return true;
}
