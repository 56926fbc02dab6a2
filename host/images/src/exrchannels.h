#pragma once

#include "host/imageoutput.h"

#include <QByteArray>
#include <QList>

namespace Brevane::Kvo {

/// What the channels of an OpenEXR file with such pixels are called.
inline QList<QByteArray> exrChannels(const TexturePixels &pixels)
{
    if (pixels.kind == TexturePixels::Kind::Depth)
        return {"Z"};
    if (pixels.channels == 1)
        return {"Y"};
    return QList<QByteArray>{"R", "G", "B", "A"}.mid(0, pixels.channels);
}

} // namespace Brevane::Kvo
