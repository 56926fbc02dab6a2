#include "support/exrfile.h"

#include <OpenEXR/ImfChannelList.h>
#include <OpenEXR/ImfFrameBuffer.h>
#include <OpenEXR/ImfHeader.h>
#include <OpenEXR/ImfInputFile.h>
#include <OpenEXR/ImfTiledInputFile.h>

namespace Brevane::Kvo::Test {

QVector<float> exrChannel(const QString &path, const char *channel)
{
    Imf::InputFile file(path.toUtf8().constData());
    const Imath::Box2i window = file.header().dataWindow();
    const int width = window.max.x + 1;
    const int height = window.max.y + 1;
    QVector<float> values(qsizetype(width) * height);
    Imf::FrameBuffer frame;
    frame.insert(channel, Imf::Slice(Imf::FLOAT, reinterpret_cast<char *>(values.data()), sizeof(float),
                                     sizeof(float) * size_t(width)));
    file.setFrameBuffer(frame);
    file.readPixels(0, height - 1);
    return values;
}

unsigned int exrTileSize(const QString &path)
{
    return Imf::TiledInputFile(path.toUtf8().constData()).tileXSize();
}

} // namespace Brevane::Kvo::Test
