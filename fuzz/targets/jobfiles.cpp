#include "fuzz/targets.h"

#include "batchjobs.h"
#include "manifest.h"

#include <QFile>
#include <QTemporaryDir>

// The files that tell whether a picture has to be made again: what models and pipelines name in turn, and what was
// noted of an earlier run. The first byte chooses the kind.

using namespace Qt::StringLiterals;

void Fuzz::jobfiles(const QByteArray &bytes)
{
    static const QTemporaryDir folder;
    static const char *const kNames[] = {"a.gltf", "a.obj", "a.json", "manifest"};
    if (bytes.isEmpty())
        return;
    const QString path = folder.filePath(QLatin1StringView(kNames[uchar(bytes[0]) % std::size(kNames)]));
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return;
    file.write(bytes.mid(1));
    file.close();

    if (path.endsWith("manifest"_L1)) {
        const QByteArray hash(64, 'a');
        Manifest manifest(path);
        manifest.readAll();
        manifest.isComplete(hash);
        promise(manifest.bytesOf(hash) >= 0, "files have no less than no bytes");
    } else {
        BatchJob job;
        job.model = path;
        const QByteArray hash = JobHasher("fuzz").hashOf(job, path.endsWith("json"_L1) ? path : QString());
        promise(hash == JobHasher("fuzz").hashOf(job, path.endsWith("json"_L1) ? path : QString()),
                "the same files have the same digest");
    }
    QFile::remove(path);
}
