#pragma once

#include <QByteArray>

/// What fuzzers and tests call with bytes: whatever they hold, it comes back, and keeps its promises.
namespace Fuzz {

void batch(const QByteArray &bytes);
void glsl(const QByteArray &bytes);
void image(const QByteArray &bytes);
void jobfiles(const QByteArray &bytes);
void model(const QByteArray &bytes);
void modelbytes(const QByteArray &bytes);
void options(const QByteArray &bytes);
void pipelinefile(const QByteArray &bytes);
void slotvalue(const QByteArray &bytes);

/// Told by the targets: something that has to be true whatever the bytes are. Whoever runs them defines it.
void promise(bool kept, const char *what);

} // namespace Fuzz
