#pragma once

#include "failure.h"
#include "host/imageoutput.h"

namespace Brevane::Kvo {

/// Whether there are as many numbers as the size asks for. False with the reason.
inline bool areWhole(const TexturePixels &pixels, QString *error = nullptr)
{
    if (pixels.width < 1 || pixels.height < 1 || pixels.channels < 1)
        return fail(error, QStringLiteral("there are no pixels"));
    const bool isInteger = pixels.kind == TexturePixels::Kind::Integer;
    const qsizetype numbers = isInteger ? pixels.integers.size() : pixels.values.size();
    const qint64 needed = qint64(pixels.width) * pixels.height * pixels.channels;
    return numbers >= needed
           || fail(error, QStringLiteral("%1x%2 pixels with %3 channels take %4 numbers, and there are %5")
                              .arg(pixels.width)
                              .arg(pixels.height)
                              .arg(pixels.channels)
                              .arg(needed)
                              .arg(numbers));
}

} // namespace Brevane::Kvo
