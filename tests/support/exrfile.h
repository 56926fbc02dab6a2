#pragma once

#include <QString>
#include <QVector>

namespace Brevane::Kvo::Test {

/// A channel of an OpenEXR file, the first row first. Throws what OpenEXR throws.
QVector<float> exrChannel(const QString &path, const char *channel);
/// Texels of a side of its tiles. Throws where it has none.
unsigned int exrTileSize(const QString &path);

} // namespace Brevane::Kvo::Test
