#pragma once

#include "support/image.h"

#include <QMatrix4x4>
#include <QString>
#include <QVector>

#include <optional>

// What ScalableAmbientObscuranceRenderPass draws, computed on the CPU in double precision.

namespace Brevane::Kvo::Test {

struct DoubleVector
{
    double x = 0, y = 0, z = 0;

    DoubleVector operator+(const DoubleVector &o) const { return {x + o.x, y + o.y, z + o.z}; }
    DoubleVector operator-(const DoubleVector &o) const { return {x - o.x, y - o.y, z - o.z}; }
    DoubleVector operator*(double f) const { return {x * f, y * f, z * f}; }
};

inline double dot(const DoubleVector &a, const DoubleVector &b)
{
    return a.x * b.x + a.y * b.y + a.z * b.z;
}

enum class ObscuranceNormals { Calculated, World, CameraSpace };

/// All that a picture depends on.
struct ObscuranceScene
{
    int width = 48;
    int height = 32;
    double near = 0; // distances, as the projection has them
    double far = 0;
    QMatrix4x4 projection;
    QMatrix4x4 camera;
    Image<float> depth; // window depth in channel 0; a fetch beyond it gives 0
    std::optional<Image<float>> positions;
    QVector<bool> doubtful; ///< Texels whose depth may be another one too; empty: none.
    bool linearPositions = false;
    ObscuranceNormals normals = ObscuranceNormals::Calculated;
    Image<float> normalImage;
    float radius = 0.35f;
    float bias = 0.01f;
    float intensity = 1.0f;
    float samples = 11.0f;
    float turns = 3.0f;
    float divider = 1.0f;
    double turn = 6.28; // to see that another constant is told apart

    int outputWidth() const { return int(float(width) / (divider == 0.0f ? 1.0f : divider)); }
    int outputHeight() const { return int(float(height) / (divider == 0.0f ? 1.0f : divider)); }
};

/// Fills in positions as CameraSpaceZBufferRenderPass makes them of the depth.
void addPositions(ObscuranceScene &scene);

/// The range that a pixel may have: a tap next to the border of a texel may read either.
struct ObscuranceRange
{
    double low = 0;
    double high = 0;
    bool mayBeWhite = false;
    bool doubtful = false; ///< A texel that it reads is.
};

/// Of every pixel of the picture, line by line.
QVector<ObscuranceRange> obscuranceRanges(const ObscuranceScene &scene);

struct ObscuranceComparison
{
    int pixels = 0;
    int wrong = 0;
    int uncertain = 0; // ranges that are wider than a tenth, or may be white
    int obscured = 0;
    double worst = 0;
    QString where;
};

/// Half floats in the target, and float sums over differences of positions.
constexpr double kObscuranceTolerance = 2e-3;

ObscuranceComparison compareObscurance(const Image<float> &image, const ObscuranceScene &scene);

} // namespace Brevane::Kvo::Test
