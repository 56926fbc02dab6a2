#pragma once

#include "gl/export.h"

#include <QImage>
#include <QString>

namespace Brevane::Kvo {

/// Whether an image is turned and mirrored as the metadata of its file says.
enum class ImageTurn { AsStored, AsMetadataSays };

/// An image file as Qt decodes it; null, with the reason, when it cannot be read. A size beyond the
/// allocation limit of QImageReader is such a reason, without the message of Qt's own, and so is a file
/// whose end is missing, or that is longer than an image of its size can be: such a file is not read.
KVO_GL_EXPORT QImage readImageFile(const QString &path, ImageTurn turn, QString *error);

} // namespace Brevane::Kvo
