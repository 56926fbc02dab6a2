#include <host/orbitcamera.h>

#include <QVector4D>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <numbers>
#include <ostream>
#include <vector>

using namespace Brevane::Kvo;

namespace {

const GPUModel::BoundingBox kBox{{-1, -2, -3}, {4, 5, 6}};
const QSizeF kPicture(800, 500);
const QPointF kCursor(611, 127);

// Floats of a camera some ten units away, in pixels of a picture of 800: a few ulps of 10 by 80 pixels per unit.
constexpr double kPixels = 2e-3;

// The camera by its definition, in double precision, from the numbers that it shows.
struct Reference
{
    using Vector = std::array<double, 3>;

    explicit Reference(const OrbitCamera &camera) : isOrthographic(camera.isOrthographic())
    {
        const double yaw = radians(camera.yaw()), pitch = radians(camera.pitch());
        tangent = std::tan(radians(camera.fieldOfView()) / 2);
        distance = double(camera.distance());
        pivot = vector(camera.pivot());
        // +y up; +z up is that turned by a quarter around x.
        const bool zUp = camera.up().z() > 0.5f;
        const auto placed = [zUp](double x, double y, double z) { return zUp ? Vector{x, -z, y} : Vector{x, y, z}; };
        back = placed(std::cos(pitch) * std::sin(yaw), std::sin(pitch), std::cos(pitch) * std::cos(yaw));
        right = placed(std::cos(yaw), 0, -std::sin(yaw));
        upward = placed(-std::sin(pitch) * std::sin(yaw), std::cos(pitch), -std::sin(pitch) * std::cos(yaw));
    }

    static double radians(float degrees) { return double(degrees) * std::numbers::pi / 180; }
    static Vector vector(const QVector3D &v) { return {double(v.x()), double(v.y()), double(v.z())}; }
    static double dot(const Vector &a, const Vector &b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }

    // On the picture, from its upper left.
    QPointF project(const QVector3D &point, const QSizeF &picture = kPicture) const
    {
        const Vector p = vector(point);
        const Vector seen{p[0] - pivot[0], p[1] - pivot[1], p[2] - pivot[2]};
        const double depth = isOrthographic ? distance : distance - dot(seen, back);
        const double x = dot(seen, right) / (depth * tangent * picture.width() / picture.height());
        const double y = dot(seen, upward) / (depth * tangent);
        return {(x + 1) / 2 * picture.width(), (1 - y) / 2 * picture.height()};
    }

    bool isOrthographic;
    double tangent, distance;
    Vector pivot, back, right, upward;
};

double between(const QPointF &a, const QPointF &b)
{
    return std::hypot(a.x() - b.x(), a.y() - b.y());
}

// A point that is seen at the cursor, nearer or farther than the pivot.
QVector3D pointBehindCursor(const OrbitCamera &camera, float share)
{
    const QVector3D inPlane = camera.pointAt(kCursor, kPicture);
    return camera.isOrthographic() ? inPlane + camera.forward() * share * camera.distance()
                                   : camera.eye() + (inPlane - camera.eye()) * (1 + share);
}

struct Case
{
    const char *name;
    float yaw, pitch;
    bool orthographic;
    bool zUp;
};

void PrintTo(const Case &one, std::ostream *out)
{
    *out << one.name;
}

class OrbitCameraTest : public ::testing::TestWithParam<Case>
{
protected:
    OrbitCameraTest()
    {
        camera.setScene(kBox);
        camera.setUp(GetParam().zUp ? QVector3D(0, 0, 1) : QVector3D(0, 1, 0));
        camera.setOrthographic(GetParam().orthographic);
        camera.setAngles(GetParam().yaw, GetParam().pitch);
        camera.fit(1.6f);
    }

    OrbitCamera camera;
};

INSTANTIATE_TEST_SUITE_P(Views, OrbitCameraTest,
                         ::testing::Values(Case{"Oblique", -30, 20, false, false}, Case{"Above", 45, 90, false, false},
                                           Case{"Below", 10, -90, false, false}, Case{"Behind", 170, -40, false, true},
                                           Case{"Flat", -30, 20, true, false}, Case{"FlatAbove", 0, 90, true, true}),
                         [](const auto &row) { return std::string(row.param.name); });

} // namespace

TEST_P(OrbitCameraTest, MatricesShowPointsWhereTheDefinitionSays)
{
    const Reference reference(camera);
    const QMatrix4x4 toClip = camera.projectionMatrix(1.6f) * camera.cameraMatrix();
    for (const QVector3D &point : {kBox.minimum, kBox.maximum, QVector3D(1, 2, 3), QVector3D(4, -2, 0)}) {
        const QVector4D clip = toClip * QVector4D(point, 1);
        const QPointF shown(double(clip.x() / clip.w() + 1) / 2 * 800, double(1 - clip.y() / clip.w()) / 2 * 500);
        EXPECT_LT(between(shown, reference.project(point)), kPixels);
        ASSERT_TRUE(camera.project(point, kPicture).has_value());
        EXPECT_LT(between(*camera.project(point, kPicture), reference.project(point)), kPixels);
    }
}

TEST_P(OrbitCameraTest, ClipPlanesHoldTheScene)
{
    for (const float factor : {0.3f, 1.0f, 4.0f}) {
        camera.zoom(factor, kCursor, kPicture);
        const QMatrix4x4 toClip = camera.projectionMatrix(1.6f) * camera.cameraMatrix();
        EXPECT_GT(camera.nearPlane(), 0.0f);
        EXPECT_GT(camera.farPlane(), camera.nearPlane());
        for (int corner = 0; corner < 8; ++corner) {
            const QVector3D p(corner & 1 ? 4 : -1, corner & 2 ? 5 : -2, corner & 4 ? 6 : -3);
            const QVector4D clip = toClip * QVector4D(p, 1);
            EXPECT_LE(clip.z() / clip.w(), 1.0f) << factor;
            // With perspective what is behind the eye is out of any picture.
            if (camera.isOrthographic() || factor <= 1.0f) {
                EXPECT_GE(clip.z() / clip.w(), -1.0f) << factor;
            }
        }
    }
}

TEST_P(OrbitCameraTest, ZoomKeepsThePointUnderTheCursor)
{
    for (const float share : {-0.4f, 0.0f, 0.7f}) {
        for (const float factor : {0.25f, 0.9f, 1.15f, 6.0f}) {
            OrbitCamera zoomed = camera;
            const QVector3D point = pointBehindCursor(camera, share);
            ASSERT_LT(between(Reference(camera).project(point), kCursor), kPixels);
            zoomed.zoom(factor, kCursor, kPicture, point);
            EXPECT_LT(between(Reference(zoomed).project(point), kCursor), 2 * kPixels) << share << " " << factor;
            EXPECT_NEAR(double(zoomed.distance()), double(camera.distance()) / double(factor), 1e-4);
        }
    }
}

TEST_P(OrbitCameraTest, ZoomWithoutAPointKeepsThatInThePlaneOfThePivot)
{
    const QVector3D point = camera.pointAt(kCursor, kPicture);
    OrbitCamera zoomed = camera;
    zoomed.zoom(3, kCursor, kPicture);
    EXPECT_LT(between(Reference(zoomed).project(point), kCursor), kPixels);
    // What is elsewhere moves away from it.
    const QPointF before = Reference(camera).project(camera.pivot());
    EXPECT_GT(between(Reference(zoomed).project(camera.pivot()), kCursor), 2 * between(before, kCursor));
}

TEST_P(OrbitCameraTest, PanMovesThePickedPointWithTheCursor)
{
    const QPointF to(203, 444);
    for (const float share : {-0.4f, 0.0f, 0.7f}) {
        OrbitCamera moved = camera;
        const QVector3D point = pointBehindCursor(camera, share);
        moved.pan(kCursor, to, kPicture, point);
        EXPECT_LT(between(Reference(moved).project(point), to), 2 * kPixels) << share;
        EXPECT_EQ(moved.distance(), camera.distance());
        EXPECT_EQ(moved.yaw(), camera.yaw());
    }
}

TEST_P(OrbitCameraTest, FitHoldsTheSphereAtAnyAspect)
{
    const QVector3D center = (kBox.minimum + kBox.maximum) / 2;
    const double radius = double((kBox.maximum - kBox.minimum).length()) / 2;
    for (const float aspect : {0.2f, 0.75f, 1.0f, 1.6f, 5.0f}) {
        camera.fit(aspect);
        const Reference r(camera);
        EXPECT_LT((camera.pivot() - center).length(), 1e-5f);
        const QSizeF picture(double(aspect) * 500, 500);
        double most = 0;
        // Points all over the sphere, the reference's own way.
        for (int i = 0; i <= 60; ++i) {
            for (int j = 0; j < 120; ++j) {
                const double a = std::numbers::pi * i / 60, b = 2 * std::numbers::pi * j / 120;
                const QVector3D on(float(radius * std::sin(a) * std::cos(b)), float(radius * std::cos(a)),
                                   float(radius * std::sin(a) * std::sin(b)));
                const QPointF at = r.project(center + on, picture);
                most = std::max(
                    {most, std::abs(2 * at.x() / picture.width() - 1), std::abs(2 * at.y() / picture.height() - 1)});
            }
        }
        EXPECT_LE(most, 1.0) << aspect;
        // And not much smaller than it could be: without perspective its cosine is left.
        EXPECT_GE(most, 0.88) << aspect;
    }
}

TEST_P(OrbitCameraTest, WithAndWithoutPerspectiveThePlaneOfThePivotIsTheSame)
{
    OrbitCamera other = camera;
    other.setOrthographic(!camera.isOrthographic());
    for (const QPointF &at : {QPointF(0, 0), QPointF(400, 250), QPointF(799, 13)}) {
        const QVector3D point = camera.pointAt(at, kPicture);
        EXPECT_LT(between(Reference(camera).project(point), at), kPixels);
        EXPECT_LT(between(Reference(other).project(point), at), kPixels);
    }
    // Elsewhere it is not.
    const QVector3D nearer = camera.pointAt({0, 0}, kPicture) - camera.forward() * 2;
    EXPECT_GT(between(Reference(other).project(nearer), Reference(camera).project(nearer)), 10.0);
}

TEST(OrbitCamera, StandardViewsLookFromWhereTheySay)
{
    using View = OrbitCamera::View;
    struct Row
    {
        View view;
        QVector3D eye, upward;
    };
    const float third = 1 / std::sqrt(3.0f);
    const float sixth = 1 / std::sqrt(6.0f);
    const std::vector<Row> rows{{View::Front, {0, 0, 1}, {0, 1, 0}},
                                {View::Back, {0, 0, -1}, {0, 1, 0}},
                                {View::Left, {-1, 0, 0}, {0, 1, 0}},
                                {View::Right, {1, 0, 0}, {0, 1, 0}},
                                {View::Top, {0, 1, 0}, {0, 0, -1}},
                                {View::Bottom, {0, -1, 0}, {0, 0, 1}},
                                {View::Isometric, {third, third, third}, {-sixth, 2 * sixth, -sixth}}};
    OrbitCamera camera;
    camera.setPivot({1, 2, 3});
    camera.setDistance(7);
    for (const Row &row : rows) {
        camera.look(row.view);
        EXPECT_LT((camera.eye() - (QVector3D(1, 2, 3) + 7 * row.eye)).length(), 1e-5f) << int(row.view);
        EXPECT_LT((camera.upward() - row.upward).length(), 1e-6f) << int(row.view);
        EXPECT_LT((camera.cameraMatrix().map(camera.pivot()) - QVector3D(0, 0, -7)).length(), 1e-5f);
    }
    camera.setUp({0, 0, 1});
    camera.look(View::Front);
    EXPECT_LT((camera.eye() - QVector3D(1, -5, 3)).length(), 1e-5f);
    EXPECT_LT((camera.upward() - QVector3D(0, 0, 1)).length(), 1e-6f);
}

TEST(OrbitCamera, OrbitStopsAtThePolesAndGoesRoundTheEquator)
{
    OrbitCamera camera;
    camera.setAngles(170, 80);
    camera.orbit(20, 20);
    EXPECT_FLOAT_EQ(camera.yaw(), -170);
    EXPECT_FLOAT_EQ(camera.pitch(), 90);
    camera.orbit(0, -500);
    EXPECT_FLOAT_EQ(camera.pitch(), -90);
}

TEST(OrbitCamera, AgreesWithTheCameraThatReadsItsSettings)
{
    OrbitCamera camera;
    camera.setScene(kBox);
    camera.setAngles(-70, 35);
    camera.fit(1.6f);
    camera.zoom(1.7f, kCursor, kPicture);
    Camera read;
    QString error;
    ASSERT_TRUE(Camera::parse(camera.settings(), kBox, 1.6f, &read, &error)) << qPrintable(error);
    const QMatrix4x4 one = camera.projectionMatrix(1.6f) * camera.cameraMatrix();
    const QMatrix4x4 other = read.projectionMatrix(1.6f) * read.cameraMatrix();
    for (int i = 0; i < 16; ++i)
        EXPECT_NEAR(one.constData()[i], other.constData()[i], 1e-4f) << i;
}

TEST(OrbitCamera, RefusesWhatIsNoNumber)
{
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float infinite = std::numeric_limits<float>::infinity();
    const OrbitCamera before;
    OrbitCamera camera;
    camera.setPivot({nan, 0, 0});
    camera.setAngles(infinite, 0);
    camera.setAngles(0, nan);
    camera.setDistance(nan);
    camera.setFieldOfView(nan);
    camera.setUp({0, 0, 0});
    camera.setUp({nan, 0, 1});
    camera.setScene({{nan, 0, 0}, {1, 1, 1}});
    camera.zoom(0, kCursor, kPicture);
    camera.zoom(nan, kCursor, kPicture);
    camera.zoom(-2, kCursor, kPicture);
    camera.fit(nan);
    EXPECT_TRUE(camera == before);
    camera.setDistance(0);
    EXPECT_GT(camera.distance(), 0.0f);
    camera.setFieldOfView(500);
    EXPECT_LE(camera.fieldOfView(), 170.0f);
    // A picture of no size, as a window may have for a moment.
    camera.zoom(2, {0, 0}, {0, 0});
    camera.pan({0, 0}, {5, 5}, {0, 0});
    EXPECT_TRUE(std::isfinite(camera.pivot().x()));
}
