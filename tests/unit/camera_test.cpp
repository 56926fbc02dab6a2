#include <host/camera.h>

#include <QVector4D>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

using namespace Brevane::Kvo;

namespace {

// Rounding of a few operations on numbers around 1.
constexpr float kRounding = 1e-5f;

const GPUModel::BoundingBox kBox{{-1, -2, -3}, {4, 5, 6}};

QString s(const char *text)
{
    return QString::fromLatin1(text);
}

::testing::AssertionResult isNear(const QVector3D &actual, const QVector3D &expected, float tolerance = kRounding)
{
    if ((actual - expected).length() <= tolerance)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "(" << actual.x() << ", " << actual.y() << ", " << actual.z()
                                         << ") instead of (" << expected.x() << ", " << expected.y() << ", "
                                         << expected.z() << ")";
}

// The largest |x|, |y| and the range of z of a box on the screen, -1 to 1 each.
struct OnScreen
{
    float side = 0;
    float nearest = 2;
    float farthest = -2;
};

OnScreen project(const Camera &camera, const GPUModel::BoundingBox &box, float aspect)
{
    const QMatrix4x4 matrix = camera.projectionMatrix(aspect) * camera.cameraMatrix();
    OnScreen result;
    for (int i = 0; i < 8; ++i) {
        const QVector4D p =
            matrix
            * QVector4D(i & 1 ? box.maximum.x() : box.minimum.x(), i & 2 ? box.maximum.y() : box.minimum.y(),
                        i & 4 ? box.maximum.z() : box.minimum.z(), 1);
        result.side = std::max({result.side, std::abs(p.x() / p.w()), std::abs(p.y() / p.w())});
        result.nearest = std::min(result.nearest, p.z() / p.w());
        result.farthest = std::max(result.farthest, p.z() / p.w());
    }
    return result;
}

QString parseError(const char *text)
{
    Camera camera;
    QString error;
    EXPECT_FALSE(Camera::parse(s(text), kBox, 1.0f, &camera, &error)) << text;
    return error;
}

} // namespace

TEST(Camera, OrbitBeginsOnThePositiveZSide)
{
    Camera camera;
    camera.orbit({1, 1, 1}, 0, 0, 5);
    EXPECT_TRUE(isNear(camera.eye, {1, 1, 6}));
    EXPECT_TRUE(isNear(camera.cameraMatrix().map(QVector3D(1, 1, 1)), {0, 0, -5}));
}

TEST(Camera, YawTurnsTowardsXAndPitchLifts)
{
    Camera camera;
    camera.orbit({}, 90, 0, 2);
    EXPECT_TRUE(isNear(camera.eye, {2, 0, 0}));
    camera.orbit({}, 0, 30, 2);
    EXPECT_TRUE(isNear(camera.eye, {0, 1, std::sqrt(3.0f)}));
}

TEST(Camera, StraightAboveStillHasAnUpOnThePicture)
{
    Camera camera;
    camera.orbit({}, 0, 90, 2);
    const QMatrix4x4 matrix = camera.cameraMatrix();
    EXPECT_NEAR(std::abs(matrix.determinant()), 1.0, 1e-4);
}

TEST(Camera, OrbitsAroundAnotherUp)
{
    Camera camera;
    camera.up = {0, 0, 1};
    camera.orbit({}, 0, 0, 2);
    EXPECT_TRUE(isNear(camera.eye, {0, -2, 0}));
    EXPECT_TRUE(isNear(camera.cameraMatrix().mapVector(QVector3D(0, 0, 1)), {0, 1, 0}));
}

TEST(Camera, FitTouchesTheEdgeOfThePictureButForALittleAir)
{
    for (const float aspect : {0.5f, 1.0f, 16.0f / 9.0f}) {
        for (const float yaw : {-30.0f, 0.0f, 75.0f, 180.0f}) {
            Camera camera;
            camera.fit(kBox, yaw, 20, aspect);
            const OnScreen box = project(camera, kBox, aspect);
            EXPECT_LE(box.side, 1.0f) << "aspect " << aspect << " yaw " << yaw;
            // 5 % of distance, which near corners see as up to twice as much.
            EXPECT_GE(box.side, 0.85f) << "aspect " << aspect << " yaw " << yaw;
            EXPECT_GE(box.nearest, -1.0f);
            EXPECT_LE(box.farthest, 1.0f);
        }
    }
}

TEST(Camera, ZoomOfTwoHalvesTheDistance)
{
    Camera one, two;
    one.fit(kBox, 10, 10, 1, 1);
    two.fit(kBox, 10, 10, 1, 2);
    EXPECT_NEAR((one.eye - one.target).length() / (two.eye - two.target).length(), 2.0f, kRounding);
}

TEST(Camera, FitsAPointAndNothing)
{
    for (const QVector3D &corner : {QVector3D(), QVector3D(7, 8, 9)}) {
        Camera camera;
        camera.fit({corner, corner}, 30, 20, 1);
        EXPECT_TRUE(isNear(camera.target, corner));
        EXPECT_GT((camera.eye - camera.target).length(), 0.1f);
        EXPECT_GT(camera.nearPlane, 0.0f);
        EXPECT_GT(camera.farPlane, camera.nearPlane);
    }
}

// A model in metres of something that is seen under a microscope, and one in millimetres of a continent.
TEST(Camera, ViewsOfVerySmallAndVeryLargeModelsAreTheSame)
{
    constexpr float kYaw = 35, kPitch = 20, kAspect = 1.5f;
    Camera one;
    one.up = QVector3D(0, 0.6f, 0.8f);
    one.fit(kBox, kYaw, kPitch, kAspect);
    const OnScreen expected = project(one, kBox, kAspect);
    for (const float scale : {1e-12f, 1e-7f, 1e-6f, 1e-3f, 1e9f}) {
        const GPUModel::BoundingBox box{kBox.minimum * scale, kBox.maximum * scale};
        Camera camera;
        camera.up = one.up * scale;
        camera.fit(box, kYaw, kPitch, kAspect);
        EXPECT_TRUE(isNear((camera.eye - camera.target) / scale, one.eye - one.target, 1e-4f)) << double(scale);
        const OnScreen seen = project(camera, box, kAspect);
        EXPECT_NEAR(double(seen.side), double(expected.side), 1e-4) << double(scale);
        EXPECT_NEAR(double(seen.nearest), double(expected.nearest), 1e-3) << double(scale);
        EXPECT_NEAR(double(seen.farthest), double(expected.farthest), 1e-3) << double(scale);
        const QVector3D middle = camera.cameraMatrix().map((box.minimum + box.maximum) / 2) / scale;
        EXPECT_TRUE(isNear(middle, QVector3D(0, 0, -(one.eye - one.target).length()), 1e-4f)) << double(scale);
    }
}

TEST(Camera, TheNearPlaneStaysInFrontOfAnEyeInsideTheBox)
{
    Camera camera;
    camera.lookAt({0, 0, 0}, {0, 0, -1});
    camera.setDepthRange({{-10, -10, -10}, {10, 10, 10}});
    EXPECT_GT(camera.nearPlane, 0.0f);
    EXPECT_GE(camera.farPlane, std::sqrt(300.0f));
}

TEST(CameraText, DefaultsFitTheModel)
{
    Camera fitted, parsed;
    fitted.fit(kBox, -30, 20, 1.5f);
    QString error;
    for (const char *text : {"", "fit", " fit "}) {
        ASSERT_TRUE(Camera::parse(s(text), kBox, 1.5f, &parsed, &error)) << qPrintable(error);
        EXPECT_TRUE(isNear(parsed.eye, fitted.eye));
        EXPECT_EQ(parsed.nearPlane, fitted.nearPlane);
    }
}

TEST(CameraText, ReadsEverySetting)
{
    Camera camera;
    QString error;
    ASSERT_TRUE(
        Camera::parse(s("yaw=90:pitch=0:distance=7:target=1,2,3:fov=60:near=0.5:far=50"), kBox, 1, &camera, &error))
        << qPrintable(error);
    EXPECT_TRUE(isNear(camera.eye, {8, 2, 3}));
    EXPECT_EQ(camera.fieldOfView, 60.0f);
    EXPECT_EQ(camera.nearPlane, 0.5f);
    EXPECT_EQ(camera.farPlane, 50.0f);
    ASSERT_TRUE(Camera::parse(s("eye=0, 0, 10; up=1,0,0"), kBox, 1, &camera, &error)) << qPrintable(error);
    EXPECT_TRUE(isNear(camera.eye, {0, 0, 10}));
    EXPECT_TRUE(isNear(camera.target, {1.5f, 1.5f, 1.5f}));
    EXPECT_TRUE(isNear(camera.up, {1, 0, 0}));
}

// A plan: the view runs along up itself, and the yaw alone says how the picture is turned. Up on the picture is what
// points away from the eye's place at pitch 0 from above, and towards it from below.
TEST(CameraText, LooksFromStraightAboveAndBelow)
{
    for (const float pitch : {90.0f, -90.0f, 89.7f})
        for (const float yaw : {0.0f, 30.0f, -100.0f})
            for (const char *more : {"", ":zoom=2", ":distance=30", ":up=0,3,0"}) {
                SCOPED_TRACE(::testing::Message() << "pitch " << pitch << ", yaw " << yaw << more);
                const double lift = double(pitch) * M_PI / 180, turn = double(yaw) * M_PI / 180;
                const QVector3D towardsEye(float(std::cos(lift) * std::sin(turn)), float(std::sin(lift)),
                                           float(std::cos(lift) * std::cos(turn)));
                const QVector3D upwards(float(-std::sin(lift) * std::sin(turn)), float(std::cos(lift)),
                                        float(-std::sin(lift) * std::cos(turn)));
                Camera camera;
                QString error;
                ASSERT_TRUE(Camera::parse(s("pitch=%1:yaw=%2%3").arg(pitch).arg(yaw).arg(QLatin1StringView(more)), kBox,
                                          1, &camera, &error))
                    << qPrintable(error);
                EXPECT_TRUE(isNear((camera.eye - camera.target).normalized(), towardsEye));
                EXPECT_TRUE(isNear(camera.cameraMatrix().row(1).toVector3D(), upwards));
                EXPECT_TRUE(isNear(camera.cameraMatrix().row(2).toVector3D(), towardsEye));
                EXPECT_TRUE(isNear(camera.target, QVector3D(1.5f, 1.5f, 1.5f)));
                if (*more == 0) {
                    const float side = project(camera, kBox, 1).side; // as of any other direction
                    EXPECT_LE(side, 1.0f);
                    EXPECT_GE(side, 0.85f);
                }
            }
    // With another axis, too; and a place to look from has its up as it was given.
    Camera camera;
    QString error;
    ASSERT_TRUE(Camera::parse(s("pitch=90:yaw=0:up=0,0,1"), kBox, 1, &camera, &error)) << qPrintable(error);
    EXPECT_TRUE(isNear(camera.cameraMatrix().row(2).toVector3D(), QVector3D(0, 0, 1)));
    EXPECT_TRUE(isNear(camera.cameraMatrix().row(1).toVector3D(), QVector3D(0, 1, 0)));
    ASSERT_TRUE(Camera::parse(s("pitch=90:eye=9,0,0:target=0,0,0"), kBox, 1, &camera, &error)) << qPrintable(error);
    EXPECT_EQ(camera.up, QVector3D(0, 1, 0));
}

TEST(CameraText, NamesWhatIsWrong)
{
    EXPECT_EQ(parseError("yaw=left"), s("camera: 'yaw' takes a number, not 'left'"));
    EXPECT_EQ(parseError("yaw"), s("camera: 'yaw' takes a number, not ''"));
    EXPECT_EQ(parseError("yaw=nan"), s("camera: 'yaw' takes a number, not 'nan'"));
    EXPECT_EQ(parseError("eye=1,2"), s("camera: 'eye' takes x,y,z, not '1,2'"));
    EXPECT_EQ(parseError("ptich=3"), s("camera: there is no setting 'ptich'; did you mean 'pitch'?"));
    EXPECT_EQ(parseError("fov=180"), s("camera: 'fov' runs from 0.1 to 179, not 180"));
    EXPECT_EQ(parseError("distance=-1"), s("camera: 'distance' has to be above 0, not -1"));
    EXPECT_EQ(parseError("near=5:far=5"), s("camera: 'near' (5) has to be below 'far' (5)"));
    EXPECT_EQ(parseError("eye=1,1,1:target=1,1,1"), s("camera: 'eye' and 'target' are the same place"));
    EXPECT_EQ(parseError("eye=0,5,0:target=0,0,0"), s("camera: 'up' points along the view"));
    EXPECT_EQ(parseError("up=0,0,0"), s("camera: 'up' has no direction"));
}

TEST(Camera, OfASettingThatIsGivenTwiceTheLastCountsAndAnEyeGoesBeforeADirection)
{
    const auto eyeOf = [](const char *text) {
        Camera camera;
        QString error;
        EXPECT_TRUE(Camera::parse(s(text), kBox, 1.0f, &camera, &error)) << qPrintable(error);
        return camera.eye;
    };
    EXPECT_EQ(eyeOf("yaw=1:yaw=70"), eyeOf("yaw=70"));
    EXPECT_NE(eyeOf("yaw=1:yaw=70"), eyeOf("yaw=1"));
    EXPECT_EQ(eyeOf("eye=9,8,7:yaw=70:distance=3"), QVector3D(9, 8, 7));
}
