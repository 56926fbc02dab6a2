#include "fuzz/targets.h"

#include "batchjobs.h"
#include "commandline.h"

#include <host/camera.h>
#include <host/lights.h>
#include <host/slotname.h>

#include <cmath>

// Settings of a camera, a light, and a whole command line, one argument a line.

using namespace Brevane::Kvo;
using namespace Qt::StringLiterals;

namespace {

bool isFinite(const QVector3D &v)
{
    return std::isfinite(v.x()) && std::isfinite(v.y()) && std::isfinite(v.z());
}

} // namespace

void Fuzz::options(const QByteArray &bytes)
{
    const QString text = QString::fromUtf8(bytes);
    QString error;
    Camera camera;
    if (Camera::parse(text, {{-1, -1, -1}, {1, 2, 3}}, 1.5f, &camera, &error)) {
        promise(isFinite(camera.eye) && isFinite(camera.target) && isFinite(camera.up), "a camera has finite places");
        promise(camera.nearPlane > 0.0f && camera.nearPlane < camera.farPlane && std::isfinite(camera.farPlane),
                "a camera has clip planes in order");
        const QMatrix4x4 view = camera.cameraMatrix();
        for (int i = 0; i < 16; ++i)
            promise(std::isfinite(view.constData()[i]), "the matrix of a camera is finite");
    } else {
        promise(!error.isEmpty(), "a camera that is not read has a reason");
    }
    error.clear();
    ShadowMapLight light;
    promise(parseLight(text, &light, &error) || !error.isEmpty(), "a light that is not read has a reason");
    Shard shard;
    if (Shard::parse(text, &shard))
        promise(shard.index >= 1 && shard.index <= shard.count, "a shard is one of its number");

    // Through all options, as a line of a batch names them.
    BatchJob job;
    for (const QString &line : text.split(u'\n')) {
        const qsizetype equals = line.indexOf(u'=');
        job.options[line.left(equals)] << (equals < 0 ? QString() : line.mid(equals + 1));
    }
    CommandLine commandLine;
    error.clear();
    promise(commandLine.read(job, &error) || !error.isEmpty(), "a command line that is not read has a reason");
}
