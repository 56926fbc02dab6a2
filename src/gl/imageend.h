#pragma once

#include "gl/export.h"

#include <QByteArray>

class QIODevice;
class QString;

namespace Brevane::Kvo {

/// Whether an image file holds its whole image, for the formats of which Qt makes up the rest of one that was cut
/// off ("jpeg" and "bmp"): others say so themselves, and are whole here. What stands behind the image does not
/// matter, nor a size in the header that is not the file's.
///
/// A JPEG file may lack its end mark, as some software writes it, if it is a sequential one with all of its data;
/// of a progressive one without the mark nobody can say, and it counts as cut off. What is not whole is so with
/// the reason in \a error. The file is left at the place where it was.
KVO_GL_EXPORT bool holdsWholeImage(QIODevice &file, const QByteArray &format, QString *error);

} // namespace Brevane::Kvo
