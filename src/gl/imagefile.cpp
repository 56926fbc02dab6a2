#include "gl/imagefile.h"

#include <QFile>
#include <QImageReader>
#include <QtEndian>

namespace Brevane::Kvo {

namespace {

// Bytes of the decoded image, by what its header says; 0 when that is not known.
qint64 decodedBytes(const QImageReader &reader)
{
    const QSize size = reader.size();
    if (size.isEmpty())
        return 0;
    const int depth = qMax(32, int(QImage::toPixelFormat(reader.imageFormat()).bitsPerPixel()));
    return qint64(size.width()) * size.height() * depth / 8;
}

// Whether the end of the file is missing, in the formats of which Qt then makes up the rest of the image.
bool isCutOff(const QString &path, const QByteArray &format)
{
    QFile file(path);
    if (format == "jpeg" && file.open(QIODevice::ReadOnly)) {
        // Behind the last start of a scan an end of image can only be that.
        const QByteArray bytes = file.readAll();
        return bytes.lastIndexOf("\xff\xd9") < bytes.lastIndexOf("\xff\xda");
    }
    if (format == "bmp" && file.open(QIODevice::ReadOnly)) {
        const QByteArray header = file.read(6);
        return header.size() < 6 || qFromLittleEndian<quint32>(header.constData() + 2) > file.size();
    }
    return false;
}

} // namespace

QImage readImageFile(const QString &path, ImageTurn turn, QString *error)
{
    QImageReader reader(path);
    reader.setAutoTransform(turn == ImageTurn::AsMetadataSays);
    const int megabytes = QImageReader::allocationLimit();
    if (const qint64 bytes = decodedBytes(reader); megabytes > 0 && bytes > qint64(megabytes) << 20) {
        const QSize size = reader.size();
        *error = QStringLiteral("%1x%2 pixels take more than the %3 megabytes that QImageReader allows")
                     .arg(size.width())
                     .arg(size.height())
                     .arg(megabytes);
        return QImage();
    }
    if (isCutOff(path, reader.format())) {
        *error = QStringLiteral("the end of the file is missing");
        return QImage();
    }
    QImage image = reader.read();
    if (image.isNull())
        *error = reader.errorString();
    return image;
}

} // namespace Brevane::Kvo
