#include "frameprobe.h"

#include "gl/texture.h"
#include "gl/texturemanager.h"
#include "glnames.h"
#include "host/pipeline.h"
#include "host/slotname.h"
#include "host/slotvalue.h"
#include "host/viewportwidget.h"
#include "session.h"
#include "shadows/shadowmaprenderdata.h"

#include <algorithm>

using namespace Brevane::Kvo;
using namespace Qt::StringLiterals;

namespace {

QString nameOf(const PoolTexture &texture)
{
    return u"%1x%2 %3"_s.arg(texture.width).arg(texture.height).arg(formatName(internalFormatOf(texture.format)));
}

// Shadow maps come as a record.
Texture *textureIn(const QVariant &value)
{
    if (const ShadowMapRenderData *shadows = ShadowMapRenderData::fromVariant(value))
        return shadows->layerCount > 0 ? shadows->projectionTexture() : nullptr;
    return textureFromVariant(value);
}

} // namespace

bool isLookable(const QString &slot)
{
    const SlotName name = SlotName::parse(slot);
    return name.type == u"KvoTexture*" || name.name == u"ShadowMapData";
}

FrameProbe::FrameProbe(Session *session) : QObject(session), _session(session)
{
    connect(session, &Session::structureChanged, this, [this] {
        _isInstalled = false;
        install();
    });
    connect(session->view(), &ViewportWidget::frameDrawn, this, &FrameProbe::finish);
}

FrameProbe::~FrameProbe() = default;

void FrameProbe::setTaps(const QVector<Tap> &taps)
{
    if (taps == _taps)
        return;
    _taps = taps;
    _results.clear();
    _results.resize(taps.size());
    install();
}

void FrameProbe::setRecording(bool recording)
{
    if (recording == _isRecording)
        return;
    _isRecording = recording;
    install();
}

void FrameProbe::setCheckingErrors(bool checking)
{
    _isChecking = checking;
    install();
}

void FrameProbe::setVisitor(std::function<void(const QString &)> visitor)
{
    _visitor = std::move(visitor);
    install();
}

void FrameProbe::install()
{
    Pipeline *pipeline = _session->pipeline();
    if (!pipeline)
        return;
    const bool isWanted = _isRecording || _isChecking || _visitor
                          || std::any_of(_taps.cbegin(), _taps.cend(), [](const Tap &tap) { return tap.isValid(); });
    if (isWanted)
        pipeline->setPassObserver([this](const QString &pass, RenderPass *) { look(pass); });
    else if (_isInstalled)
        pipeline->setPassObserver({});
    _isInstalled = isWanted;
    if (isWanted)
        _session->view()->invalidate();
}

void FrameProbe::fill(int index)
{
    const Tap &tap = _taps[index];
    TapResult &result = _results[index];
    result = TapResult();
    const QVariant value = _session->pipeline()->output(tap.pass, tap.slot, &result.error);
    if (Texture *texture = textureIn(value))
        Texels::read(texture, tap.level, &result.texels, &result.error);
    else if (result.error.isEmpty())
        result.text = describeSlotValue(value);
}

void FrameProbe::look(const QString &pass)
{
    // What came before is the host's, or was said.
    if (_isChecking)
        for (const QString &error : takeGlErrors())
            _nextErrors << u"%1 in pass '%2'"_s.arg(error, pass);
    for (int i = 0; i < _taps.size(); ++i)
        if (_taps[i].isValid() && pass == (_taps[i].moment.isEmpty() ? _taps[i].pass : _taps[i].moment))
            fill(i);
    if (_visitor)
        _visitor(pass);
    _hasLooked = true;
    if (!_isRecording)
        return;
    const QVector<PoolTexture> pool = TextureManager::Instance().poolTextures();
    _next.passes << pass;
    for (const PoolTexture &texture : pool) {
        qsizetype row = _known.indexOf(texture.texture);
        if (row < 0) {
            row = _known.size();
            _known << texture.texture;
            // Taken for the first time in this frame, unless it is the first that is looked at.
            _taken << (_next.passes.size() == 1 ? texture.timesTaken : 0);
            _next.rows.emplace_back();
        }
        ResourceRow &one = _next.rows[row];
        one.name = nameOf(texture);
        one.bytes = texture.bytes;
        one.uses.resize(_next.passes.size());
        const bool isTaken = texture.timesTaken != _taken[row] || (texture.references > 0 && texture.taker == pass);
        one.takers += int(texture.timesTaken - _taken[row]);
        _taken[row] = texture.timesTaken;
        one.uses.last() = {texture.references, isTaken, texture.taker};
    }
}

void FrameProbe::finish()
{
    if (!std::exchange(_hasLooked, false))
        return;
    if (_isRecording) {
        for (ResourceRow &row : _next.rows)
            row.uses.resize(_next.passes.size());
        const TexturePoolStatistics pool = TextureManager::Instance().statistics();
        _next.bytes = pool.bytes;
        _next.peakBytes = pool.peakBytes;
        _next.peakBytesInUse = pool.peakBytesInUse;
        _record = std::exchange(_next, ResourceRecord());
        // The counts stay, so that the first pass of the next frame is told apart too; textures that are gone do not.
        QVector<const void *> known;
        QVector<qint64> taken;
        for (const PoolTexture &texture : TextureManager::Instance().poolTextures()) {
            known << texture.texture;
            taken << texture.timesTaken;
            _next.rows.emplace_back();
        }
        _known = known;
        _taken = taken;
    }
    if (_errors != _nextErrors)
        Q_EMIT glErrors(_nextErrors);
    _errors = std::exchange(_nextErrors, {});
    Q_EMIT looked();
}
