#pragma once

#include "gl/export.h"

#include <QImage>
#include <QString>

namespace Brevane::Kvo {

/// Whether an image is turned and mirrored as the metadata of its file says.
enum class ImageTurn { AsStored, AsMetadataSays };

/// An image file as Qt decodes it; null, with the reason, when it cannot be read. A size beyond the
/// allocation limit of QImageReader is such a reason, without the message of Qt's own, and so is a file that was
/// cut off (see holdsWholeImage), or that is longer than an image of its size can be: such a file is not read.
/// What stands behind the image, and a size in the header that is not the file's, do not matter.
KVO_GL_EXPORT QImage readImageFile(const QString &path, ImageTurn turn, QString *error);

} // namespace Brevane::Kvo
