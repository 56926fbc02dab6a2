#include "fuzz/targets.h"

#include <host/modeltransport.h>
#include <host/sceneimport.h>

#include <QBuffer>

#include <cmath>
#include <cstring>

// What the process that imports models hands over. The checksum is made right, so that the rest is looked at.

using namespace Brevane::Kvo;

namespace {

constexpr qsizetype kWord = 8;

// As modeltransport.cpp sums up.
quint64 checksumOf(const QByteArray &bytes)
{
    quint64 sum = 0x243f6a8885a308d3u;
    for (qsizetype i = 0; i + kWord <= bytes.size(); i += kWord) {
        quint64 word;
        std::memcpy(&word, bytes.constData() + i, sizeof word);
        sum = (sum ^ word) * 0x9e3779b97f4a7c15u;
        sum ^= sum >> 29;
    }
    return sum;
}

} // namespace

void Fuzz::modelbytes(const QByteArray &bytes)
{
    QByteArray whole = bytes.first(bytes.size() / kWord * kWord);
    const quint64 sum = checksumOf(whole);
    whole.append(reinterpret_cast<const char *>(&sum), sizeof sum);
    ModelData data;
    ImportReport report;
    QString error;
    if (!readModel(whole, &data, &report, &error)) {
        promise(!error.isEmpty() && data.meshes.isEmpty() && data.items.isEmpty(),
                "a model that is not read has a reason, and leaves nothing");
        return;
    }
    for (const ModelMesh &mesh : data.meshes)
        for (const quint32 index : mesh.indices)
            promise(index < quint32(mesh.positions.size()), "indices are in range");
    for (const ModelItem &item : data.items)
        promise(item.mesh >= 0 && item.mesh < data.meshes.size() && item.material >= 0
                    && item.material < data.materials.size(),
                "items name what is there");
    opaquePartOf(data);
    addFloor(&data);
    QBuffer written;
    written.open(QIODevice::WriteOnly);
    promise(writeModel(&written, data, report, &error), "what was read can be written");
}
