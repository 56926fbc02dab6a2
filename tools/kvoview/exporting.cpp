#include "exporting.h"

#include "host/camera.h"
#include "host/imageoutput.h"
#include "host/pipelinefile.h"
#include "host/slotname.h"
#include "host/slotvalue.h"
#include "host/viewportwidget.h"
#include "session.h"

#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <cmath>

using namespace Brevane::Kvo;
using namespace Qt::StringLiterals;

namespace {

QString quoted(const QString &text)
{
    static const QString kPlain = u"abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-+./:=,%@"_s;
    const bool isPlain =
        !text.isEmpty() && std::all_of(text.begin(), text.end(), [](QChar c) { return kPlain.contains(c); });
    return isPlain ? text : u'\'' + QString(text).replace(u'\'', u"'\\''"_s) + u'\'';
}

// Values that differ from those in the file.
QStringList changedValues(Session *session, QStringList *notes)
{
    QStringList options;
    Pipeline saved;
    if (!session->pipeline() || !loadPipeline(session->path(), &saved, nullptr))
        return options;
    for (const QString &pass : session->pipeline()->passNames()) {
        if (!session->pipeline()->isEnabled(pass))
            *notes << u"pass '%1' is off"_s.arg(pass);
        const QVector<PassInput> before = saved.inputs(pass);
        if (before.isEmpty() && !saved.pass(pass))
            *notes << u"pass '%1' is not in the file yet: save it"_s.arg(pass);
        for (const PassInput &input : session->pipeline()->inputs(pass)) {
            const auto same = std::find_if(before.cbegin(), before.cend(),
                                           [&](const PassInput &other) { return other.slot == input.slot; });
            if (same == before.cend()
                || (same->kind == input.kind && same->value == input.value && same->source == input.source
                    && same->sourcePass == input.sourcePass))
                continue;
            const QString end = pass + u'.' + SlotName::parse(input.slot).name;
            if (input.kind == PassInput::Kind::Link)
                *notes << u"the link into %1 is not in the file yet: save it"_s.arg(end);
            else if (input.kind == PassInput::Kind::Host)
                options << u"--set "_s + quoted(end + u'=' + input.source);
            else
                options << u"--set "_s
                               + quoted(end + u'='
                                        + (input.value.typeId() == QMetaType::QString
                                               ? input.value.toString()
                                               : describeSlotValue(input.value)));
        }
    }
    return options;
}

} // namespace

QString kvorenderCommand(Session *session, const ViewOptions &options, const QSize &size, QStringList *notes)
{
    QStringList parts{u"kvorender"_s};
    if (!options.model.isEmpty())
        parts << quoted(options.model);
    parts << u"-p"_s << quoted(session->path());
    parts << u"-s"_s << u"%1x%2"_s.arg(size.width()).arg(size.height());
    const OrbitCamera camera = session->view()->camera();
    if (camera.isOrthographic())
        *notes << u"kvorender has no picture without perspective"_s;
    parts << u"-c"_s << quoted(camera.settings());
    if (options.scene.scale == SceneSettings::kScaleToFit)
        parts << u"--scale fit"_s;
    else if (options.scene.scale != 1.0f)
        parts << u"--scale %1"_s.arg(double(options.scene.scale));
    if (options.scene.floor)
        parts << u"--floor"_s;
    for (const auto &[material, opacity] : options.scene.opacities)
        parts << u"--opacity"_s
              << quoted(material.isEmpty() ? QString::number(double(opacity))
                                           : u"%1=%2"_s.arg(material).arg(double(opacity)));
    for (const QString &light : options.pipeline.lightTexts)
        parts << u"--light"_s << quoted(light);
    for (const auto &[name, path] : options.pipeline.paths)
        parts << u"--path"_s << quoted(name + u'=' + path);
    if (options.pipeline.background.isValid())
        parts << u"--background"_s << quoted(options.pipeline.background.name());
    if (const int frames = session->view()->settlingFrames(); frames > 1)
        parts << u"-n %1"_s.arg(frames);
    parts << changedValues(session, notes) << u"-o picture.png"_s;
    return parts.join(u' ');
}

bool writeTurntable(Session *session, const QString &path, const QSize &size, int count,
                    const std::function<bool(int)> &progress, QString *error)
{
    const QFileInfo file(path);
    const OrbitCamera before = session->view()->camera();
    bool isDone = true;
    for (int i = 0; i < count && isDone; ++i) {
        OrbitCamera camera = before;
        camera.orbit(360.0f * float(i) / float(count), 0.0f);
        session->view()->setCamera(camera);
        const QImage picture = session->view()->grabPicture(size, error);
        const QString name = u"%1/%2-%3.%4"_s.arg(file.absolutePath(), file.completeBaseName())
                                 .arg(i, 3, 10, QChar(u'0'))
                                 .arg(file.suffix().isEmpty() ? u"png"_s : file.suffix());
        isDone = !picture.isNull() && writeImage(picture, name, error);
        if (isDone && !progress(i + 1)) {
            *error = u"cancelled after %1 pictures"_s.arg(i + 1);
            isDone = false;
        }
    }
    session->view()->setCamera(before);
    return isDone;
}

bool cameraOf(const QString &settings, const GPUModel::BoundingBox &bounds, float aspect, OrbitCamera *camera,
              QString *error)
{
    Camera parsed;
    if (!Camera::parse(settings, bounds, aspect, &parsed, error))
        return false;
    // Straight from above and below, the camera's own up is what is up on the picture; here it is the axis to turn
    // around, as from the side.
    Camera level = parsed;
    if (settings.contains("pitch"_L1) && !Camera::parse(settings + u":pitch=0"_s, bounds, aspect, &level, error))
        return false;
    OrbitCamera result;
    result.setScene(bounds);
    result.setUp(level.up);
    result.setAngles(0.0f, 0.0f);
    const QVector3D back = (parsed.eye - parsed.target).normalized();
    const auto part = [&](const QVector3D &direction) { return double(QVector3D::dotProduct(back, direction)); };
    const double lift = part(result.upward());
    const double pitch = std::atan2(lift, std::hypot(part(result.right()), part(result.forward())));
    // Where the eye would stand without its pitch: there, only what is up on the picture tells it.
    const QVector3D along = parsed.up == level.up ? back : lift > 0.0 ? -parsed.up : parsed.up;
    const double yaw = std::atan2(double(QVector3D::dotProduct(along, result.right())),
                                  double(QVector3D::dotProduct(along, -result.forward())));
    constexpr double kDegrees = 57.29577951308232;
    result.setAngles(float(yaw * kDegrees), float(pitch * kDegrees));
    result.setPivot(parsed.target);
    result.setDistance((parsed.eye - parsed.target).length());
    result.setFieldOfView(parsed.fieldOfView);
    *camera = result;
    return true;
}
