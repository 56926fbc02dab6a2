#include "renderpasses/camerajitterpass.h"

#include <QRect>

#include <algorithm>
#include <cstdlib>
#include <limits>

namespace Brevane::Kvo {

namespace {

enum Input { kViewport, kProjectionMatrix, kCameraMatrix, kDirty, kJitterMode };
enum Output { kProjectionOut, kJitterIndex };
enum Mode { kNone, kRandomAfterChange, kTable };

constexpr int kRandomFrames = 30;

// Between -0.5 and 0.5. RAND_MAX differs between platforms; the low 15 bits are what all have.
double randomOffset()
{
    return double(float(std::rand() % 32768)) / 32767.0 - 0.5;
}

// Corners are inclusive, and may be as far apart as two ints are.
double sideOf(int first, int last)
{
    return double(last) - double(first) + 1.0;
}

int toInt(double side)
{
    return int(std::clamp(side, double(std::numeric_limits<int>::min()), double(std::numeric_limits<int>::max())));
}

// Into the memory that the variant has, unless something shares it.
void assign(QVariant &variant, const QMatrix4x4 &matrix)
{
    if (variant.metaType() == QMetaType::fromType<QMatrix4x4>())
        *static_cast<QMatrix4x4 *>(variant.data()) = matrix;
    else
        variant = matrix;
}

constexpr SlotChoice kModes[] = {
    {0, "none", "the true projection"},
    {1, "randomAfterChange", "random for 30 frames after a change"},
    {2, "alternating", "two positions in turn"},
    {3, "random", "random in every frame"},
};

constexpr SlotInfo kInputInfo[] = {
    {.name = "Kvo_QRect_Viewport",
     .meaning = "its size turns pixels into clip space",
     .kind = SlotKind::Area,
     .unit = "pixels"},
    {.name = "Kvo_QMatrix4x4_ProjectionMatrix", .meaning = "the true projection", .kind = SlotKind::Matrix},
    {.name = "Kvo_QMatrix4x4_CameraMatrix", .meaning = "only to notice motion", .kind = SlotKind::Matrix},
    {.name = "Kvo_bool_Dirty", .meaning = "the image has changed for another reason", .kind = SlotKind::Switch},
    {.name = "Kvo_int_JitterMode",
     .meaning = "where the samples of a pixel lie; others: random",
     .kind = SlotKind::Choice,
     .choices = kModes},
};

constexpr SlotInfo kOutputInfo[] = {
    {.name = "Kvo_QMatrix4x4_ProjectionMatrix", .meaning = "the jittered projection", .kind = SlotKind::Matrix},
    {.name = "Kvo_int_JitterIndex",
     .meaning = "0 or 1 in mode 2, else -1; SMAARenderPass reads it",
     .kind = SlotKind::Index},
};

constexpr PassInfo kInfo = {"CameraJitterPass",
                            "shifts a projection by a part of a pixel from frame to frame, for temporal antialiasing",
                            Reach::texels(0), kInputInfo, kOutputInfo};

} // namespace

CameraJitterPass::CameraJitterPass() : _jitterTable{QVector2D(0.25f, -0.25f), QVector2D(-0.25f, 0.25f)}
{
    addInput(QStringLiteral("Kvo_QRect_Viewport"), QVariant(), kViewport);
    addInput(QStringLiteral("Kvo_QMatrix4x4_ProjectionMatrix"), QVariant(), kProjectionMatrix);
    addInput(QStringLiteral("Kvo_QMatrix4x4_CameraMatrix"), QVariant(), kCameraMatrix);
    addInput(QStringLiteral("Kvo_bool_Dirty"), true, kDirty);
    addInput(QStringLiteral("Kvo_int_JitterMode"), int(kTable), kJitterMode);
    addOutput(QStringLiteral("Kvo_QMatrix4x4_ProjectionMatrix"), kProjectionOut);
    addOutput(QStringLiteral("Kvo_int_JitterIndex"), kJitterIndex);
    describe(kInfo);
}

CameraJitterPass::CameraJitterPass(const CameraJitterPass &other) = default;
CameraJitterPass &CameraJitterPass::operator=(const CameraJitterPass &other) = default;
CameraJitterPass::~CameraJitterPass() = default;

void CameraJitterPass::start(RenderCallbacks *)
{
    // Nothing is drawn, so no limit of a driver's counts.
    const auto viewport = qvariant_cast<QRect>(_inputs[kViewport].value);
    const double width = sideOf(viewport.left(), viewport.right());
    const double height = sideOf(viewport.top(), viewport.bottom());
    const auto projection = qvariant_cast<QMatrix4x4>(_inputs[kProjectionMatrix].value);
    const auto camera = qvariant_cast<QMatrix4x4>(_inputs[kCameraMatrix].value);
    const auto dirty = qvariant_cast<bool>(_inputs[kDirty].value);
    const auto mode = qvariant_cast<int>(_inputs[kJitterMode].value);

    const bool changed = dirty || projection != _lastProjection || camera != _lastCamera || toInt(width) != _lastWidth
                         || toInt(height) != _lastHeight;
    if (changed) {
        _lastProjection = projection;
        _lastCamera = camera;
        _lastWidth = toInt(width);
        _lastHeight = toInt(height);
        _framesLeft = kRandomFrames;
    }
    --_framesLeft;

    double x = 0.0;
    double y = 0.0;
    if (mode == kNone || (mode == kRandomAfterChange && !changed && _framesLeft < 0)) {
        _jitterIndex = -1;
    } else if (mode == kTable) {
        _jitterIndex = (_jitterIndex + 1) % int(_jitterTable.size());
        x = double(_jitterTable[_jitterIndex].x());
        y = double(_jitterTable[_jitterIndex].y());
    } else {
        y = randomOffset();
        x = randomOffset();
        _jitterIndex = -1;
    }

    // In front of the projection, so that after the perspective divide every point moves alike.
    QMatrix4x4 shift;
    shift.translate(float(x * 2.0 / width), float(y * 2.0 / height), 0.0f);
    // Written over the value of two frames ago: consumers still share that of the last one.
    QVariant &jittered = _outputs[kProjectionOut].value;
    jittered.swap(_earlierProjection);
    assign(jittered, shift * projection);
    _outputs[kJitterIndex].value = _jitterIndex;
}

} // namespace Brevane::Kvo
