#include "gl/imagefile.h"

#include "core/hostcode.h"
#include "gl/imageend.h"

#include <QFile>
#include <QFileInfo>
#include <QImageReader>

#include <new>

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

// The most bytes that a file of an image takes: more than any format makes of it, and room for what cameras
// write behind it. What is longer would only be searched for its end.
qint64 mostFileBytes(qint64 decoded)
{
    constexpr qint64 kRoom = qint64(64) << 20;
    return kRoom + 8 * decoded;
}

QImage readByQt(const QString &path, ImageTurn turn, QString *error)
{
    QImageReader reader(path);
    reader.setAutoTransform(turn == ImageTurn::AsMetadataSays);
    const int megabytes = QImageReader::allocationLimit();
    const qint64 fileBytes = QFileInfo(path).size();
    const auto isTooLong = [&](qint64 decoded) {
        if (fileBytes <= mostFileBytes(decoded))
            return false;
        *error = QStringLiteral("the file has %1 bytes, and an image that could be in it %2 at most")
                     .arg(fileBytes)
                     .arg(mostFileBytes(decoded));
        return true;
    };
    // Before anything is read, as some formats are read whole to know their size.
    if (megabytes > 0 && isTooLong(qint64(megabytes) << 20))
        return QImage();
    const qint64 bytes = decodedBytes(reader);
    if (megabytes > 0 && bytes > qint64(megabytes) << 20) {
        const QSize size = reader.size();
        *error = QStringLiteral("%1x%2 pixels take more than the %3 megabytes that QImageReader allows")
                     .arg(size.width())
                     .arg(size.height())
                     .arg(megabytes);
        return QImage();
    }
    if (bytes > 0 && isTooLong(bytes))
        return QImage();
    if (QFile file(path); file.open(QIODevice::ReadOnly) && !holdsWholeImage(file, reader.format(), error))
        return QImage();
    QImage image = reader.read();
    if (image.isNull())
        *error = reader.errorString();
    return image;
}

} // namespace

QImage readImageFile(const QString &path, ImageTurn turn, QString *error)
{
    const HostCode hostCode; // a host may have brought the format, and Qt tells its message handler of faults
    // Qt throws where it has no memory.
    try {
        return readByQt(path, turn, error);
    } catch (const std::bad_alloc &) {
        *error = QStringLiteral("there is not enough memory for it");
        return QImage();
    }
}

} // namespace Brevane::Kvo
