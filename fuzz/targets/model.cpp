#include "fuzz/targets.h"

#include <host/isolatedimport.h>
#include <model/gpumodel.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <cmath>

// A model file of the kind that the first byte chooses, through the process that imports. The importer's own faults end
// that process, which is no fault of ours; ours are told by the report of the sanitizer, whose path scripts/fuzz puts
// into KVO_FUZZ_CHILD_REPORTS: the first function there is of this tree.

using namespace Brevane::Kvo;
using namespace Qt::StringLiterals;

namespace {

bool isFinite(const QVector3D &v)
{
    return std::isfinite(v.x()) && std::isfinite(v.y()) && std::isfinite(v.z());
}

// Whether a sanitizer found a fault in the tree's own code. Reports are taken away.
bool tellsOfUs(const QString &prefix)
{
    const QFileInfo place(prefix);
    QDir folder(place.path());
    bool ours = false;
    for (const QString &name : folder.entryList({place.fileName() + u'*'}, QDir::Files)) {
        QFile file(folder.filePath(name));
        if (file.open(QIODevice::ReadOnly)) {
            while (!file.atEnd()) {
                const QByteArray line = file.readLine();
                if (line.contains("libassimp"))
                    break;
                if (line.contains("/host/") || line.contains("/src/gl/") || line.contains("runtime error")) {
                    ours = true;
                    std::fputs(line.constData(), stderr);
                }
            }
        }
        file.remove();
    }
    return ours;
}

} // namespace

void Fuzz::model(const QByteArray &bytes)
{
    static const QTemporaryDir folder;
    static const char *const kKinds[] = {"obj", "ply", "stl", "gltf", "glb", "off", "dae", "3ds"};
    if (bytes.isEmpty())
        return;
    const QString path =
        folder.filePath(u"model."_s + QLatin1StringView(kKinds[uchar(bytes[0]) % std::size(kKinds)]));
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return;
    file.write(bytes.mid(1));
    file.close();

    ImportLimits limits;
    limits.seconds = 10;
    limits.megabytes = 2048;
    ImportReport report;
    const ModelData data = importSceneIsolated(path, {}, limits, &report);
    QFile::remove(path);
    static const QString reports = qEnvironmentVariable("KVO_FUZZ_CHILD_REPORTS");
    promise(reports.isEmpty() || !tellsOfUs(reports), "an import that ends the process does so in the importer");
    promise(report.ok() || data.items.isEmpty(), "a model that is not read leaves nothing");
    for (const ModelMesh &mesh : data.meshes) {
        for (const quint32 index : mesh.indices)
            promise(index < quint32(mesh.positions.size()), "indices are in range");
        for (const QVector<QVector3D> &list : {mesh.positions, mesh.normals})
            for (const QVector3D &v : list)
                promise(isFinite(v), "all numbers are finite");
    }
}
