#include "support/obscurance.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <utility>
#include <vector>

namespace Brevane::Kvo::Test {

namespace {

DoubleVector cross(const DoubleVector &a, const DoubleVector &b)
{
    return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}

DoubleVector unit(const DoubleVector &v)
{
    return v * (1 / std::sqrt(dot(v, v)));
}

class Reference
{
public:
    explicit Reference(const ObscuranceScene &scene)
        : _scene(scene), _width(scene.outputWidth()), _height(scene.outputHeight()),
          _p00(double(scene.projection(0, 0))), _p11(double(scene.projection(1, 1)))
    {}

    QVector<ObscuranceRange> ranges() const
    {
        QVector<ObscuranceRange> out;
        for (int y = 0; y < _height; ++y)
            for (int x = 0; x < _width; ++x)
                out << pixel(x, y);
        return out;
    }
    int width() const { return _width; }
    int height() const { return _height; }

private:
    // What the depth buffer says, as the shader computes it.
    double depthAt(int x, int y) const
    {
        const bool inside = x >= 0 && y >= 0 && x < _scene.depth.width && y < _scene.depth.height;
        return inside ? double(_scene.depth.at(x, y)[0]) : 0.0;
    }
    DoubleVector reconstructed(double s, double t, double depth) const
    {
        const double z = _scene.far * _scene.near / ((_scene.near - _scene.far) * depth + _scene.far);
        const double x = (s * (-2 / (_width * _p00)) + (1 - double(_scene.projection(0, 2))) / _p00) * z;
        const double y = (t * (-2 / (_height * _p11)) + (1 + double(_scene.projection(1, 2))) / _p11) * z;
        return {-x, -y, -z};
    }
    DoubleVector stored(double u, double v) const
    {
        const Image<float> &image = *_scene.positions;
        const auto at = [&](int x, int y) {
            const auto &p = image.at(std::clamp(x, 0, image.width - 1), std::clamp(y, 0, image.height - 1));
            return DoubleVector{double(p[0]), double(p[1]), double(p[2])};
        };
        const double x = u * image.width, y = v * image.height;
        if (!_scene.linearPositions)
            return at(int(std::floor(x)), int(std::floor(y)));
        const int x0 = int(std::floor(x - 0.5)), y0 = int(std::floor(y - 0.5));
        const double fx = x - 0.5 - x0, fy = y - 0.5 - y0;
        return (at(x0, y0) * (1 - fx) + at(x0 + 1, y0) * fx) * (1 - fy)
               + (at(x0, y0 + 1) * (1 - fx) + at(x0 + 1, y0 + 1) * fx) * fy;
    }
    bool isDoubtful(int x, int y) const
    {
        const bool inside = x >= 0 && y >= 0 && x < _scene.depth.width && y < _scene.depth.height;
        return inside && !_scene.doubtful.isEmpty() && _scene.doubtful[qsizetype(y) * _scene.depth.width + x];
    }
    // One of the texels around a place among positions.
    bool isDoubtfulAround(double u, double v) const
    {
        const int x0 = int(std::floor(u * _scene.depth.width - 0.5)),
                  y0 = int(std::floor(v * _scene.depth.height - 0.5));
        return isDoubtful(x0, y0) || isDoubtful(x0 + 1, y0) || isDoubtful(x0, y0 + 1) || isDoubtful(x0 + 1, y0 + 1);
    }
    DoubleVector position(int x, int y) const
    {
        if (_scene.positions)
            return stored((x + 0.5) / _width, (y + 0.5) / _height);
        return reconstructed(x + 0.5, y + 0.5, depthAt(x, y));
    }
    bool isBackground(int x, int y) const { return !_scene.positions && depthAt(x, y) == 1; }

    DoubleVector normal(int x, int y) const
    {
        if (_scene.normals == ObscuranceNormals::Calculated) {
            // Differences within blocks of two by two pixels.
            const DoubleVector dx = position(x | 1, y) - position(x & ~1, y);
            const DoubleVector dy = position(x, y | 1) - position(x, y & ~1);
            return unit(cross(dy, dx)) * -1;
        }
        const auto &n = _scene.normalImage.at(x, y);
        if (_scene.normals == ObscuranceNormals::CameraSpace) {
            const DoubleVector v = unit({double(n[0]), double(n[1]), double(n[2])});
            return v.z < 0 ? v * -1 : v;
        }
        const QMatrix4x4 m = _scene.camera.inverted().transposed();
        const auto row = [&](int r) {
            return double(m(r, 0)) * double(n[0]) + double(m(r, 1)) * double(n[1]) + double(m(r, 2)) * double(n[2]);
        };
        return {row(0), row(1), row(2)};
    }

    // Texels, or with linear positions points, that a tap may read.
    struct Taps
    {
        std::vector<DoubleVector> positions;
        bool background = false;
        bool doubtful = false;
    };
    Taps tapsAt(int x, int y, double offsetX, double offsetY, double slack) const
    {
        Taps taps;
        std::vector<std::pair<int, int>> seen;
        for (const double dx : {-slack, slack, 0.0}) {
            for (const double dy : {-slack, slack, 0.0}) {
                if (_scene.positions) {
                    const double u = (x + 0.5 + offsetX + dx) / _width, v = (y + 0.5 + offsetY + dy) / _height;
                    taps.positions.push_back(stored(u, v));
                    taps.doubtful = taps.doubtful || isDoubtfulAround(u, v);
                    continue;
                }
                // Truncated towards zero, but reconstructed where the tap points.
                const double s = x + offsetX + dx, t = y + offsetY + dy;
                const int tx = int(s), ty = int(t);
                taps.doubtful = taps.doubtful || isDoubtful(tx, ty);
                if (isBackground(tx, ty))
                    taps.background = true;
                else
                    taps.positions.push_back(reconstructed(s + 0.5, t + 0.5, depthAt(tx, ty)));
            }
        }
        return taps;
    }

    ObscuranceRange pixel(int x, int y) const
    {
        if (isBackground(x, y))
            return {1, 1, false, isDoubtful(x, y)};
        const DoubleVector c = position(x, y);
        if (c.z < -50)
            return {1, 1, false, isDoubtful(x, y)};
        bool uncertain = false;
        // Where a neighbour of the block was discarded, derivatives are undefined.
        if (_scene.normals == ObscuranceNormals::Calculated)
            for (int ny : {y & ~1, y | 1})
                for (int nx : {x & ~1, x | 1})
                    uncertain = uncertain || isBackground(nx, ny);
        if (uncertain)
            return {0, 1, true, true};

        const DoubleVector n = normal(x, y);
        const double diskRadius = _height * _p11 * 0.5 * double(_scene.radius) / -c.z;
        const int samples = int(_scene.samples);
        const int turns = int(_scene.turns);
        // In float, as the shader adds these large numbers up.
        const float spin = (3.0f * float(x ^ y) + float(x * y)) * 10.0f;
        double lowSum = 0, highSum = 0;
        ObscuranceRange range;
        range.doubtful =
            _scene.positions ? isDoubtfulAround((x + 0.5) / _width, (y + 0.5) / _height) : isDoubtful(x, y);
        for (int i = 0; i < samples; ++i) {
            const float alpha = (float(i) + 0.5f) * (1.0f / float(samples));
            const float angle = alpha * (float(turns) * float(_scene.turn)) + spin;
            const double reach = double(alpha) * diskRadius;
            // The sum is rounded to a unit in its last place, and so may the sine of it be off.
            const double slack = 0.002 + reach * (2.0 * double(std::abs(angle)) * 1.2e-7 + 1e-3);
            const Taps taps = tapsAt(x, y, reach * std::cos(double(angle)), reach * std::sin(double(angle)), slack);
            range.doubtful = range.doubtful || taps.doubtful;
            if (taps.positions.empty())
                return {1, 1, false, range.doubtful}; // the tap lies on the background for sure
            range.mayBeWhite = range.mayBeWhite || taps.background;
            double low = 1e9, high = 0;
            for (const DoubleVector &q : taps.positions) {
                const DoubleVector v = q - c;
                const double falloff = std::max(1 - dot(v, v) / (double(_scene.radius) * double(_scene.radius)), 0.0);
                const double term = 4 * falloff * std::max(dot(v, n) - double(_scene.bias), 0.0);
                low = std::min(low, term);
                high = std::max(high, term);
            }
            lowSum += low;
            highSum += high;
        }
        const double scale = double(_scene.intensity) * 5 / samples;
        range.low = std::max(0.0, 1 - highSum * scale);
        range.high = std::max(0.0, 1 - lowSum * scale);
        return range;
    }

    const ObscuranceScene &_scene;
    const int _width;
    const int _height;
    const double _p00;
    const double _p11;
};

} // namespace

void addPositions(ObscuranceScene &scene)
{
    Image<float> positions(scene.width, scene.height);
    for (int y = 0; y < scene.height; ++y) {
        for (int x = 0; x < scene.width; ++x) {
            const double distance =
                scene.far * scene.near / (scene.far - double(scene.depth.at(x, y)[0]) * (scene.far - scene.near));
            const double ndcX = 2 * (x + 0.5) / scene.width - 1, ndcY = 2 * (y + 0.5) / scene.height - 1;
            positions.at(x, y) = {float(ndcX / double(scene.projection(0, 0)) * distance),
                                  float(ndcY / double(scene.projection(1, 1)) * distance), float(-distance), 1};
        }
    }
    scene.positions = positions;
}

QVector<ObscuranceRange> obscuranceRanges(const ObscuranceScene &scene)
{
    return Reference(scene).ranges();
}

ObscuranceComparison compareObscurance(const Image<float> &image, const ObscuranceScene &scene)
{
    const Reference reference(scene);
    const QVector<ObscuranceRange> ranges = reference.ranges();
    ObscuranceComparison result;
    EXPECT_EQ(image.width, reference.width());
    EXPECT_EQ(image.height, reference.height());
    if (image.width != reference.width() || image.height != reference.height())
        return result;
    for (int y = 0; y < image.height; ++y) {
        for (int x = 0; x < image.width; ++x) {
            const auto &[low, high, mayBeWhite, doubtful] = ranges[qsizetype(y) * image.width + x];
            const auto &p = image.at(x, y);
            EXPECT_TRUE(p[0] == p[1] && p[0] == p[2] && p[3] == 1) << "not a grey, opaque pixel";
            const auto value = double(p[0]);
            double off = std::max({low - value, value - high, 0.0});
            if (mayBeWhite && value == 1)
                off = 0;
            ++result.pixels;
            result.obscured += high < 0.9;
            result.uncertain += mayBeWhite || high - low > 0.1;
            if (!(off <= kObscuranceTolerance)) {
                ++result.wrong;
                if (off > result.worst)
                    result.where =
                        QStringLiteral("(%1, %2): %3, not from %4 to %5").arg(x).arg(y).arg(value).arg(low).arg(high);
            }
            result.worst = std::max(result.worst, off);
        }
    }
    return result;
}

} // namespace Brevane::Kvo::Test
