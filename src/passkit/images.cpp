#include "passkit/images.h"

#include "core/hostcode.h"
#include "gl/imagefile.h"

#include <QFileInfo>

#include <algorithm>

namespace Brevane::Kvo {

QImage loadBgraImage(const QString &path, int largest)
{
    if (!QFileInfo(path).isFile())
        return QImage();
    QString error;
    QImage image = readImageFile(path, ImageTurn::AsStored, &error);
    if (std::max(image.width(), image.height()) > largest) {
        error = QStringLiteral("it has %1x%2 texels, and this driver takes %3 a side")
                    .arg(image.width())
                    .arg(image.height())
                    .arg(largest);
        image = QImage();
    }
    switch (image.format()) {
    case QImage::Format_RGB32:
    case QImage::Format_ARGB32:
    case QImage::Format_ARGB32_Premultiplied: return image;
    default: break;
    }
    image = std::move(image).convertToFormat(QImage::Format_ARGB32);
    if (image.isNull()) {
        const HostCode hostCode;
        qWarning("Image '%s' cannot be read: %s", qPrintable(path), qPrintable(error));
    }
    return image;
}

QImage bgraTexel(QRgb color)
{
    QImage texel(1, 1, QImage::Format_ARGB32);
    texel.fill(color);
    return texel;
}

} // namespace Brevane::Kvo
