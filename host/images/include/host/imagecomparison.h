#pragma once

#include "host/export.h"

#include <QImage>
#include <QString>

namespace Brevane::Kvo {

struct TexturePixels;

/// How much two pictures of the same size differ, in their red, green and blue.
struct KVO_IMAGES_EXPORT ImageComparison
{
    double meanError = 0.0; ///< Mean over pixels and channels of the absolute difference.
    double rmsError = 0.0;
    double worstError = 0.0;
    int worstX = 0; ///< Pixel of the worst, from the lower left.
    int worstY = 0;
    double differingShare = 0.0; ///< Pixels in which a channel differs by more than 1/255, as a share of all.
    QImage picture; ///< Absolute differences, upright, four times as bright.

    /// All numbers in one line.
    QString summary() const;
};

/// Compares what readTexture read. False with the reason, for different sizes or kinds.
KVO_IMAGES_EXPORT bool comparePixels(const TexturePixels &a, const TexturePixels &b, ImageComparison *comparison,
                                     QString *error = nullptr);

} // namespace Brevane::Kvo
