#pragma once

#include "host/export.h"

#include <QImage>
#include <QString>

class QIODevice;

namespace Brevane::Kvo {

/// Reads an image, upright: Radiance pictures (RGBE, ".hdr"), OpenEXR, and whatever Qt's plugins read. The content
/// decides, whatever the name says.
///
/// Values of the first two are linear and have no upper end. They come as floats, as they are in the file, in the
/// linear colour space of sRGB: of Radiance in Format_RGBX32FPx4, of OpenEXR, whose colours are multiplied by alpha, in
/// Format_RGBA32FPx4_Premultiplied, or Format_RGBX32FPx4 without alpha. Of OpenEXR the channels R, G, B and A are read,
/// or Y as grey, in the data window.
///
/// Null, with the reason, when there is no such file, when it is damaged or cut off, and when the picture would take
/// more memory than QImageReader::allocationLimit. The file's name is in the reason of the first.
KVO_IMAGES_EXPORT QImage readImage(const QString &path, QString *error = nullptr);
/// The same from a device that is open.
KVO_IMAGES_EXPORT QImage readImage(QIODevice *device, QString *error = nullptr);

/// A picture as 8-bit surfaces show it: linear values become display values, what is beyond white is white, what is not
/// a number black. Other images are given back as they are.
KVO_IMAGES_EXPORT QImage displayImage(const QImage &image);

} // namespace Brevane::Kvo
