#include "fuzz/targets.h"

#include <host/imageinput.h>

#include <QBuffer>
#include <QImageReader>

// An image of any kind.

using namespace Brevane::Kvo;

void Fuzz::image(const QByteArray &bytes)
{
    // Megabytes: what a small file may unfold to.
    QImageReader::setAllocationLimit(16);
    QBuffer buffer;
    buffer.setData(bytes);
    buffer.open(QIODevice::ReadOnly);
    QString error;
    const QImage image = readImage(&buffer, &error);
    promise(image.isNull() == !error.isEmpty(), "an image that is not read has a reason, and one that is has none");
    const QImage shown = displayImage(image);
    promise(shown.size() == image.size(), "an image is shown in its size");
}
