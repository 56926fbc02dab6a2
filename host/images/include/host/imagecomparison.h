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
    double rmsError = 0.0; ///< Root of the mean of the squared differences.
    double worstError = 0.0; ///< The largest difference.
    int worstX = 0; ///< Pixel of the worst, from the lower left.
    int worstY = 0; ///< See worstX.
    double differingShare = 0.0; ///< Pixels in which a channel differs by more than 1/255, as a share of all.
    QImage picture; ///< Absolute differences, upright, four times as bright.

    /// All numbers in one line.
    QString summary() const;
};

/// Compares what readTexture read. False with the reason, for different sizes or kinds.
KVO_IMAGES_EXPORT bool comparePixels(const TexturePixels &a, const TexturePixels &b, ImageComparison *comparison,
                                     QString *error = nullptr);

} // namespace Brevane::Kvo
