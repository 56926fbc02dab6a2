#pragma once

#include <QImage>
#include <QString>

namespace Brevane::Kvo {

/// The image of a file as glTexImage2D takes it with GL_BGRA and GL_UNSIGNED_BYTE, top row first: Qt's
/// three 32-bit formats as they come, every other one converted. Null where there is no file, without a
/// word, and where the file cannot be read or has a side of more than \a largest texels, with one message.
QImage loadBgraImage(const QString &path, int largest);

/// A single texel in the same layout.
QImage bgraTexel(QRgb color);

} // namespace Brevane::Kvo
