#pragma once

#include <QString>

namespace Brevane::Kvo {

/// Looks at a model file before the importer does, for damage that the importer does not get over: it
/// never comes back from a PLY file whose header has no end, takes memory for as many elements as a
/// header announces, and takes all there is at what is none among the numbers of a Collada file. An empty text when there is none.
QString damageOf(const QString &path);

} // namespace Brevane::Kvo
