#pragma once

#include "host/export.h"
#include "host/sceneimport.h"

class QIODevice;

namespace Brevane::Kvo {

/// Writes a model, and what its import found, as bytes for another process of the same version on the same machine:
/// everything bit for bit, of images the pixels, the format and the colour table, each image once. False, with the
/// reason, when the device takes no more.
KVO_SCENE_EXPORT bool writeModel(QIODevice *device, const ModelData &data, const ImportReport &report,
                                 QString *error = nullptr);

/// Reads what writeModel wrote. Nothing in the bytes is believed: a version, a length or a checksum that is not right,
/// an index that is out of range and a number that is not finite are refused with the reason, and model and report
/// stay as they are.
KVO_SCENE_EXPORT bool readModel(const QByteArray &bytes, ModelData *data, ImportReport *report,
                                QString *error = nullptr);

/// How the program kvo-import ends.
enum class ImportExit {
    Done = 0, ///< What it found, a model or an error, was written.
    Usage = 2,
    NoMemory = 3,
    NotWritten = 4,
};

} // namespace Brevane::Kvo
