#include "support/modelreference.h"

#include <algorithm>
#include <cmath>

namespace Brevane::Kvo::Test {

namespace {

using Vector4 = std::array<double, 4>;
using Matrix4 = std::array<std::array<double, 4>, 4>;

Matrix4 toDouble(const QMatrix4x4 &m)
{
    Matrix4 out{};
    for (int row = 0; row < 4; ++row)
        for (int column = 0; column < 4; ++column)
            out[size_t(row)][size_t(column)] = double(m(row, column));
    return out;
}

Matrix4 product(const Matrix4 &a, const Matrix4 &b)
{
    Matrix4 out{};
    for (size_t row = 0; row < 4; ++row)
        for (size_t column = 0; column < 4; ++column)
            for (size_t k = 0; k < 4; ++k)
                out[row][column] += a[row][k] * b[k][column];
    return out;
}

Vector4 transformed(const Matrix4 &m, const Vector4 &v)
{
    Vector4 out{};
    for (size_t row = 0; row < 4; ++row)
        for (size_t k = 0; k < 4; ++k)
            out[row] += m[row][k] * v[k];
    return out;
}

// Inverse transpose of the upper left 3 by 3 part, by cofactors.
std::array<Vector3, 3> normalMatrix(const Matrix4 &m)
{
    std::array<Vector3, 3> out{};
    for (size_t r = 0; r < 3; ++r)
        for (size_t c = 0; c < 3; ++c) {
            const size_t r1 = (r + 1) % 3;
            const size_t r2 = (r + 2) % 3;
            const size_t c1 = (c + 1) % 3;
            const size_t c2 = (c + 2) % 3;
            out[r][c] = m[r1][c1] * m[r2][c2] - m[r1][c2] * m[r2][c1];
        }
    const double determinant = m[0][0] * out[0][0] + m[0][1] * out[0][1] + m[0][2] * out[0][2];
    for (Vector3 &row : out)
        for (double &value : row)
            value /= determinant;
    return out;
}

struct Corner
{
    double x;
    double y;
    double depth;
    double w;
    Vector3 normal;
    double u;
    double v;
};

double cross(double ax, double ay, double bx, double by)
{
    return ax * by - ay * bx;
}

// Rasterisers move vertices onto a grid of 1/256 pixel, so an edge may pass this near on either side.
constexpr double kEdge = 1.0 / 64;
constexpr double kDepth = 1e-5;

double distanceToEdge(const Corner &a, const Corner &b, double x, double y)
{
    const double dx = b.x - a.x;
    const double dy = b.y - a.y;
    const double length = std::hypot(dx, dy);
    if (length == 0)
        return std::hypot(x - a.x, y - a.y);
    const double t = std::clamp(((x - a.x) * dx + (y - a.y) * dy) / (length * length), 0.0, 1.0);
    return std::hypot(x - a.x - t * dx, y - a.y - t * dy);
}

} // namespace

Vector3 normalized(const Vector3 &v)
{
    const double length = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
    return {v[0] / length, v[1] / length, v[2] / length};
}

Vector3 blinnPhong(const Vector3 &Kd, const Vector3 &Ks, double Ns, const Vector3 &N)
{
    const Vector3 L = normalized({100, 100, 100});
    const Vector3 H = normalized({L[0], L[1], L[2] + 1});
    const double nDotL = std::max(0.0, N[0] * L[0] + N[1] * L[1] + N[2] * L[2]);
    const double nDotH = std::max(0.0, N[0] * H[0] + N[1] * H[1] + N[2] * H[2]);
    Vector3 out{};
    for (size_t c = 0; c < 3; ++c)
        out[c] = nDotL * Kd[c] + std::pow(nDotH, Ns) * Ks[c];
    return out;
}

ModelReference::ModelReference(const ModelData &model, const QMatrix4x4 &projection, const QMatrix4x4 &camera,
                               int width, int height)
    : _width(width), _height(height), _fragments(qsizetype(width) * height), _layers(qsizetype(width) * height)
{
    const Matrix4 projectionMatrix = toDouble(projection);
    const Matrix4 cameraMatrix = toDouble(camera);
    for (int item = 0; item < model.items.size(); ++item) {
        const ModelItem &drawn = model.items[item];
        const ModelMesh &mesh = model.meshes[drawn.mesh];
        const Matrix4 modelView = product(cameraMatrix, toDouble(drawn.transform));
        const Matrix4 toClip = product(projectionMatrix, modelView);
        const auto normals = normalMatrix(modelView);

        QVector<Corner> corners;
        for (qsizetype i = 0; i < mesh.positions.size(); ++i) {
            const QVector3D p = mesh.positions[i];
            const Vector4 clip = transformed(toClip, {double(p.x()), double(p.y()), double(p.z()), 1});
            const QVector3D n = mesh.normals[i];
            Vector3 normal{};
            for (size_t row = 0; row < 3; ++row)
                normal[row] =
                    normals[row][0] * double(n.x()) + normals[row][1] * double(n.y()) + normals[row][2] * double(n.z());
            const QVector2D t = mesh.texCoords.isEmpty() ? QVector2D() : mesh.texCoords[i];
            EXPECT_GT(clip[3], 0) << "the reference does not clip";
            corners.append({(clip[0] / clip[3] + 1) / 2 * width, (clip[1] / clip[3] + 1) / 2 * height,
                            (clip[2] / clip[3] + 1) / 2, clip[3], normal, double(t.x()), double(t.y())});
        }

        for (qsizetype first = 0; first + 2 < mesh.indices.size(); first += 3) {
            const Corner &a = corners[mesh.indices[first]];
            const Corner &b = corners[mesh.indices[first + 1]];
            const Corner &c = corners[mesh.indices[first + 2]];
            const double area = cross(b.x - a.x, b.y - a.y, c.x - a.x, c.y - a.y);
            // Nothing of a triangle is seen a pixel away from it.
            const auto begin = [](double least, int end) { return int(std::clamp(least - 1, 0.0, double(end))); };
            const auto behind = [](double most, int end) { return int(std::clamp(most + 2, 0.0, double(end))); };
            const int left = begin(std::min({a.x, b.x, c.x}), width), right = behind(std::max({a.x, b.x, c.x}), width);
            const int low = begin(std::min({a.y, b.y, c.y}), height), high = behind(std::max({a.y, b.y, c.y}), height);
            for (int y = low; y < high; ++y) {
                for (int x = left; x < right; ++x) {
                    ModelFragment &fragment = _fragments[qsizetype(y) * width + x];
                    const double px = x + 0.5;
                    const double py = y + 0.5;
                    const bool nearEdge = std::min({distanceToEdge(a, b, px, py), distanceToEdge(b, c, px, py),
                                                    distanceToEdge(c, a, px, py)})
                                          < kEdge;
                    if (area == 0) {
                        fragment.ambiguous = fragment.ambiguous || nearEdge;
                        continue;
                    }
                    const double wa = cross(b.x - px, b.y - py, c.x - px, c.y - py) / area;
                    const double wb = cross(c.x - px, c.y - py, a.x - px, a.y - py) / area;
                    const double wc = 1 - wa - wb;
                    if (nearEdge)
                        fragment.ambiguous = true;
                    if (wa < 0 || wb < 0 || wc < 0)
                        continue;
                    const double depth = wa * a.depth + wb * b.depth + wc * c.depth;
                    if (depth < 0 || depth > 1)
                        continue;
                    QVector<ModelFragment> &layers = _layers[qsizetype(y) * width + x];
                    const bool isTied = std::any_of(layers.cbegin(), layers.cend(), [&](const ModelFragment &other) {
                        return std::abs(depth - other.depth) < kDepth;
                    });
                    if (fragment.covered && std::abs(depth - fragment.depth) < kDepth)
                        fragment.ambiguous = true;
                    const double ia = wa / a.w;
                    const double ib = wb / b.w;
                    const double ic = wc / c.w;
                    const double sum = ia + ib + ic;
                    const auto interpolated = [&](double va, double vb, double vc) {
                        return (ia * va + ib * vb + ic * vc) / sum;
                    };
                    ModelFragment layer;
                    layer.covered = true;
                    layer.ambiguous = isTied;
                    layer.depth = depth;
                    layer.item = item;
                    layer.triangle = int(first / 3);
                    for (size_t k = 0; k < 3; ++k)
                        layer.normal[k] = interpolated(a.normal[k], b.normal[k], c.normal[k]);
                    layer.u = interpolated(a.u, b.u, c.u);
                    layer.v = interpolated(a.v, b.v, c.v);
                    layers.append(layer);
                    if (fragment.covered && depth >= fragment.depth)
                        continue;
                    layer.ambiguous = fragment.ambiguous;
                    fragment = layer;
                }
            }
        }
    }
}

int ModelReference::coveredCount() const
{
    return int(std::count_if(_fragments.cbegin(), _fragments.cend(), [](const ModelFragment &f) { return f.covered; }));
}

int ModelReference::ambiguousCount() const
{
    return int(
        std::count_if(_fragments.cbegin(), _fragments.cend(), [](const ModelFragment &f) { return f.ambiguous; }));
}

} // namespace Brevane::Kvo::Test
