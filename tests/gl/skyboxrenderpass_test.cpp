#include "support/allocations.h"
#include "support/draw.h"
#include "support/gltest.h"
#include "support/messages.h"
#include "support/passes.h"

#include <gl/guards.h>
#include <gl/texturemanager.h>
#include <renderpasses/skyboxrenderpass.h>

#include <QMatrix4x4>
#include <QRect>
#include <QVector2D>
#include <QVector3D>

#include <epoxy/gl.h>

#include <cmath>
#include <functional>
#include <memory>
#include <numbers>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

enum Input { kViewport, kProjection, kCamera, kCubemap, kLatLongMap, kBackground, kFrame, kDepth };

// A half float of a value up to 1, cut by llvmpipe.
constexpr double kHalfFloat = 1e-3;
// Shaders' asin and atan are off by up to 4e-4 radians here (GLSL promises nothing); the maps of these
// tests change by less than 8 per radian.
constexpr double kByAngle = kHalfFloat + 8 * 4e-4;

QString s(const char *text)
{
    return QString::fromLatin1(text);
}

struct Direction
{
    double x, y, z;
};

Direction normalized(const Direction &d)
{
    const double length = std::sqrt(d.x * d.x + d.y * d.y + d.z * d.z);
    return {d.x / length, d.y / length, d.z / length};
}

// A camera by its angles in degrees, and everything that a pixel sees.
struct View
{
    double yaw, pitch, roll, fieldOfView;
    int width = 48, height = 32;

    QMatrix4x4 camera(const QVector3D &eye = {}) const
    {
        QMatrix4x4 matrix;
        matrix.rotate(float(roll), 0, 0, 1);
        matrix.rotate(float(pitch), 1, 0, 0);
        matrix.rotate(float(yaw), 0, 1, 0);
        matrix.translate(-eye);
        return matrix;
    }
    QMatrix4x4 projection() const
    {
        QMatrix4x4 matrix;
        matrix.perspective(float(fieldOfView), float(width) / float(height), 0.5f, 300.0f);
        return matrix;
    }
    // The direction through the middle of a pixel, undoing the rotations one by one.
    Direction at(int x, int y) const
    {
        const double tangent = std::tan(fieldOfView / 360 * std::numbers::pi);
        const double ndcX = (x + 0.5) / width * 2 - 1, ndcY = (y + 0.5) / height * 2 - 1;
        Direction d = normalized({ndcX * tangent * width / height, ndcY * tangent, -1});
        d = turned(d, &Direction::x, &Direction::y, -roll);
        d = turned(d, &Direction::y, &Direction::z, -pitch);
        return turned(d, &Direction::z, &Direction::x, -yaw);
    }

private:
    static Direction turned(Direction d, double Direction::*a, double Direction::*b, double degrees)
    {
        const double c = std::cos(degrees / 180 * std::numbers::pi), sine = std::sin(degrees / 180 * std::numbers::pi);
        const double first = d.*a * c - d.*b * sine;
        d.*b = d.*a * sine + d.*b * c;
        d.*a = first;
        return d;
    }
};

const View kViews[] = {{0, 0, 0, 60},   {90, 0, 0, 60},   {180, 0, 0, 90},    {-90, 0, 0, 30},      {0, 89, 0, 60},
                       {0, -89, 0, 60}, {37, 20, 10, 45}, {200, -35, 80, 75}, {-130, 60, -20, 110}, {175, 5, 0, 20}};

std::array<double, 4> mixed(const std::array<float, 4> &a, const std::array<float, 4> &b, double t)
{
    std::array<double, 4> out{};
    for (size_t c = 0; c < 4; ++c)
        out[c] = double(a[c]) * (1 - t) + double(b[c]) * t;
    return out;
}

// Bilinear look-up at texel coordinates; index(i, size) applies the wrap.
template <typename WrapX>
std::array<double, 4> bilinear(const Image<float> &image, double u, double v, WrapX &&wrapX)
{
    const double x = u * image.width - 0.5, y = v * image.height - 0.5;
    const int x0 = int(std::floor(x)), y0 = int(std::floor(y));
    const auto texel = [&](int i, int j) -> const std::array<float, 4> & {
        return image.at(wrapX(i), std::clamp(j, 0, image.height - 1));
    };
    const auto low = mixed(texel(x0, y0), texel(x0 + 1, y0), x - x0);
    const auto high = mixed(texel(x0, y0 + 1), texel(x0 + 1, y0 + 1), x - x0);
    std::array<double, 4> out{};
    for (size_t c = 0; c < 4; ++c)
        out[c] = low[c] * (1 - (y - y0)) + high[c] * (y - y0);
    return out;
}

// Where a direction lands: the centre looks along -z, u grows towards +x, v towards +y.
QPair<double, double> latLong(const Direction &d)
{
    return {std::atan2(d.x, -d.z) / (2 * std::numbers::pi) + 0.5, std::asin(d.y) / std::numbers::pi + 0.5};
}

Image<float> latLongMap(int width, int height)
{
    Image<float> map(width, height);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const double u = (x + 0.5) / width * 2 * std::numbers::pi, v = (y + 0.5) / height;
            map.at(x, y) = {float(0.5 + 0.5 * std::sin(u)), float(v), float(0.5 + 0.5 * std::cos(2 * u) * (1 - v)),
                            float(0.5 + 0.25 * std::cos(u))};
        }
    return map;
}

// Six faces in GL's order, each with a colour of its own and a slope in both directions.
std::array<Image<float>, 6> cubeFaces(int size)
{
    std::array<Image<float>, 6> faces;
    for (int f = 0; f < 6; ++f) {
        faces[size_t(f)] = Image<float>(size, size);
        for (int y = 0; y < size; ++y)
            for (int x = 0; x < size; ++x)
                faces[size_t(f)].at(x, y) = {float(f) / 6, float(x) / float(size), float(y) / float(size),
                                             f % 2 ? 0.5f : 1.0f};
    }
    return faces;
}

std::unique_ptr<Texture> makeCube(const std::array<Image<float>, 6> &faces)
{
    auto cube = std::make_unique<Texture>();
    cube->setTarget(GL_TEXTURE_CUBE_MAP);
    cube->bind();
    glTexParameteri(GL_TEXTURE_CUBE_MAP, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
    for (GLenum wrap : {GL_TEXTURE_WRAP_S, GL_TEXTURE_WRAP_T, GL_TEXTURE_WRAP_R})
        glTexParameteri(GL_TEXTURE_CUBE_MAP, wrap, GL_CLAMP_TO_EDGE);
    for (unsigned int f = 0; f < 6; ++f)
        glTexImage2D(GL_TEXTURE_CUBE_MAP_POSITIVE_X + f, 0, GL_RGBA32F, faces[f].width, faces[f].height, 0, GL_RGBA,
                     GL_FLOAT, faces[f].pixels.constData());
    cube->unbind();
    return cube;
}

// GL's table of faces: the major axis, and what runs along s and t.
std::array<double, 4> cubeLookUp(const std::array<Image<float>, 6> &faces, const Direction &d, bool *nearEdge)
{
    const double ax = std::abs(d.x), ay = std::abs(d.y), az = std::abs(d.z);
    int face = 0;
    double s = 0, t = 0, major = 0;
    if (ax >= ay && ax >= az) {
        face = d.x > 0 ? 0 : 1;
        s = d.x > 0 ? -d.z : d.z;
        t = -d.y;
        major = ax;
    } else if (ay >= az) {
        face = d.y > 0 ? 2 : 3;
        s = d.x;
        t = d.y > 0 ? d.z : -d.z;
        major = ay;
    } else {
        face = d.z > 0 ? 4 : 5;
        s = d.z > 0 ? d.x : -d.x;
        t = -d.y;
        major = az;
    }
    const Image<float> &image = faces[size_t(face)];
    *nearEdge = std::max(std::abs(s), std::abs(t)) > major * 0.9999;
    return bilinear(image, (s / major + 1) / 2, (t / major + 1) / 2,
                    [&](int i) { return std::clamp(i, 0, image.width - 1); });
}

Image<float> toImage(const View &view, const std::function<std::array<double, 4>(const Direction &)> &color)
{
    Image<float> image(view.width, view.height);
    for (int y = 0; y < view.height; ++y)
        for (int x = 0; x < view.width; ++x) {
            const auto value = color(view.at(x, y));
            for (size_t c = 0; c < 4; ++c)
                image.at(x, y)[c] = float(value[c]);
        }
    return image;
}

std::unique_ptr<Texture> linearTexture(const Image<float> &image)
{
    auto texture = makeTexture(image);
    texture->bind();
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
    texture->unbind();
    return texture;
}

class Skybox : public GLTest
{
protected:
    void SetUp() override
    {
        GLTest::SetUp();
        owned = std::make_unique<SkyboxRenderPass>();
    }
    void TearDown() override
    {
        owned.reset();
        GLTest::TearDown();
    }
    void set(int input, const std::unique_ptr<Texture> &texture)
    {
        owned->setInput(input, textureToVariant(texture.get()));
    }
    void look(const View &view, const QVector3D &eye = {})
    {
        owned->setInput(kViewport, QRect(0, 0, view.width, view.height));
        owned->setInput(kProjection, QVariant::fromValue(view.projection()));
        owned->setInput(kCamera, QVariant::fromValue(view.camera(eye)));
        glViewport(0, 0, view.width, view.height);
    }
    Image<float> drawn()
    {
        runFrame(*owned);
        return readTexture<float>(outputTexture(*owned, 0));
    }
    // A frame of one colour in a size, and GL's viewport for it.
    std::unique_ptr<Texture> frame(int width, int height, std::array<float, 4> color)
    {
        owned->setInput(kViewport, QRect(0, 0, width, height));
        glViewport(0, 0, width, height);
        return makeSolidTexture(width, height, color);
    }

    std::unique_ptr<SkyboxRenderPass> owned;
};

// Fills a pool texture, as a pass before this one would.
void fill(Texture *texture, std::array<float, 4> color)
{
    FramebufferObject fbo;
    const AutoBinder bound(&fbo);
    fbo.attach(texture, GL_COLOR_ATTACHMENT0, 0);
    fbo.setDrawBuffers();
    glClearBufferfv(GL_COLOR, 0, color.data());
    fbo.detachAll();
}

// A depth-stencil texture of depth 0 with one stencil in the left half and another in the right one.
std::unique_ptr<Texture> halfStencil(int width, int height, unsigned int left, unsigned int right,
                                     GLenum format = GL_DEPTH24_STENCIL8)
{
    std::vector<unsigned int> values(size_t(width * height));
    for (int i = 0; i < width * height; ++i)
        values[size_t(i)] = i % width < width / 2 ? left : right; // depth is in the upper 24 bits
    return makeTexture(format, width, height, values.data());
}

} // namespace

TEST_F(Skybox, SlotsHaveTheirNamesOrderAndDefaults)
{
    expectSlots(SkyboxRenderPass(),
                {{"Kvo_QRect_Viewport"},
                 {"Kvo_QMatrix4x4_ProjectionMatrix"},
                 {"Kvo_QMatrix4x4_CameraMatrix"},
                 {"Kvo_KvoTexture*_Cubemap"},
                 {"Kvo_KvoTexture*_LatLongMap"},
                 {"Kvo_KvoTexture*_Background"},
                 {"Kvo_KvoTexture*_Frame"},
                 {"Kvo_KvoTexture*_Depth"}},
                {"Kvo_KvoTexture*_Frame"});
}

TEST_F(Skybox, ConstructingCopyingAndDestroyingMakesNoGLCall)
{
    expectNoGLCallBeforeStart<SkyboxRenderPass>();
}

TEST_F(Skybox, EveryPixelOfACubeMapIsThatOfItsDirection)
{
    const auto faces = cubeFaces(16);
    const auto cube = makeCube(faces);
    set(kCubemap, cube);
    for (const View &view : kViews) {
        look(view, {3, -20, 7}); // the place of the camera has no effect
        Image<float> actual = drawn();
        int onEdges = 0;
        Image<float> expected(view.width, view.height);
        for (int y = 0; y < view.height; ++y)
            for (int x = 0; x < view.width; ++x) {
                bool nearEdge = false;
                const auto color = cubeLookUp(faces, view.at(x, y), &nearEdge);
                for (size_t c = 0; c < 4; ++c)
                    expected.at(x, y)[c] = float(color[c]);
                if (nearEdge) { // either face is right
                    ++onEdges;
                    expected.at(x, y) = actual.at(x, y);
                }
            }
        // Faces change by 1 over their width, which a float of the direction does not move by 1e-4.
        EXPECT_TRUE(sameImage(actual, expected, within(kHalfFloat + 1e-4))) << "yaw " << view.yaw;
        EXPECT_LE(onEdges, view.width) << "yaw " << view.yaw;
    }
}

TEST_F(Skybox, EveryPixelOfALatLongMapIsThatOfItsDirection)
{
    const Image<float> map = latLongMap(64, 32);
    const auto texture = linearTexture(map);
    set(kLatLongMap, texture);
    const auto color = [&](const Direction &d) {
        const auto [u, v] = latLong(d);
        return bilinear(map, u, v, [&](int i) { return (i + map.width) % map.width; });
    };
    for (const View &view : kViews) {
        look(view, {3, -20, 7});
        // Around a pole the longitude turns so fast that its error grows with 1 / cos(latitude); pixels
        // within half a degree of it are left out.
        Image<float> actual = drawn();
        Image<float> expected = toImage(view, color);
        int atPole = 0;
        for (int y = 0; y < view.height; ++y)
            for (int x = 0; x < view.width; ++x)
                if (std::abs(view.at(x, y).y) > std::cos(0.5 / 180 * std::numbers::pi)) {
                    expected.at(x, y) = actual.at(x, y);
                    ++atPole;
                }
        EXPECT_TRUE(sameImage(actual, expected, within(kByAngle))) << "yaw " << view.yaw << " pitch " << view.pitch;
        EXPECT_LE(atPole, 4);
    }
    look(kViews[6]);
    View other = kViews[6];
    other.yaw += 2;
    EXPECT_FALSE(isSameImage(drawn(), toImage(other, color), within(kByAngle))) << "two degrees are seen";
}

TEST_F(Skybox, TheFunctionBehindLatLongMapsPutsTheSixAxesAndTheSeamWhereItSays)
{
    const auto program = [] {
        auto made = std::make_unique<ShaderProgram>();
        made->setFragDataLocations({s("out_Color")});
        made->addShader(GL_VERTEX_SHADER, screenVertexText());
        made->addShader(
            GL_FRAGMENT_SHADER,
            s("#version 150\n#include \"KvoUtilities.glslh\"\nuniform vec3 direction;\nout vec4 out_Color;\n"
              "void main() { out_Color = vec4(directionToLatLong_Tarn(direction), 0.0, 1.0); }\n"));
        made->addShaderFromFile(GL_FRAGMENT_SHADER, s("KvoUtilities.glslc"));
        EXPECT_TRUE(made->compile() && made->link()) << qPrintable(made->log());
        return made;
    }();
    const Target target(GL_RGBA32F, 1, 1);
    const auto coordinates = [&](float x, float y, float z) {
        drawScreen(target, program.get(), [&](ShaderProgram *p) { p->setUniform(s("direction"), QVector3D(x, y, z)); });
        const auto pixel = target.read().at(0, 0);
        return QVector2D(pixel[0], pixel[1]);
    };
    // In coordinates, 4e-4 radians of error are half of that at most over pi.
    constexpr float kTolerance = 1.5e-4f;
    const auto isAt = [&](const QVector2D &actual, float u, float v) {
        return std::abs(actual.x() - u) <= kTolerance && std::abs(actual.y() - v) <= kTolerance;
    };
    EXPECT_TRUE(isAt(coordinates(0, 0, -1), 0.5f, 0.5f)) << "-z in the middle";
    EXPECT_TRUE(isAt(coordinates(1, 0, 0), 0.75f, 0.5f)) << "+x to the right of it";
    EXPECT_TRUE(isAt(coordinates(-1, 0, 0), 0.25f, 0.5f)) << "-x to the left";
    EXPECT_TRUE(isAt(coordinates(0, 1, 0), 0.5f, 1.0f)) << "+y at the top";
    EXPECT_TRUE(isAt(coordinates(0, -1, 0), 0.5f, 0.0f)) << "-y at the bottom";
    const QVector2D back = coordinates(0, 0, 1);
    EXPECT_TRUE(isAt(back, 0.0f, 0.5f) || isAt(back, 1.0f, 0.5f)) << "+z on the seam, at " << back.x();

    const float step = 1e-2f; // an angle, near enough to its sine
    EXPECT_TRUE(isAt(coordinates(step, 0, 1), 1.0f - step / float(2 * std::numbers::pi), 0.5f)) << "from +x";
    EXPECT_TRUE(isAt(coordinates(-step, 0, 1), step / float(2 * std::numbers::pi), 0.5f)) << "from -x";
    EXPECT_TRUE(isAt(coordinates(0, std::sqrt(0.5f), -std::sqrt(0.5f)), 0.5f, 0.75f)) << "half way up";
}

TEST_F(Skybox, TheSeamOfALatLongMapIsSmooth)
{
    const Image<float> map = latLongMap(64, 32);
    const auto texture = linearTexture(map);
    set(kLatLongMap, texture);
    const View back{180, 0, 0, 20};
    look(back);
    const Image<float> image = drawn();
    for (int x = 1; x < image.width; ++x)
        EXPECT_NEAR(image.at(x, 16)[0], image.at(x - 1, 16)[0], 0.02) << "column " << x;
}

TEST_F(Skybox, ABackgroundIsFlippedAndItsColoursAreRaisedToThePower2Point2)
{
    Image<float> map(8, 4);
    for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 8; ++x)
            map.at(x, y) = {float(x) / 8, float(y) / 4, 0.5f, float(x + y) / 16};
    const auto texture = makeTexture(map);
    set(kBackground, texture);
    look({37, 20, 10, 45, 8, 4}); // which has no effect
    Image<float> expected(8, 4), unflipped(8, 4);
    for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 8; ++x) {
            for (size_t c = 0; c < 3; ++c) {
                expected.at(x, y)[c] = float(std::pow(double(map.at(x, 3 - y)[c]), 2.2));
                unflipped.at(x, y)[c] = float(std::pow(double(map.at(x, y)[c]), 2.2));
            }
            expected.at(x, y)[3] = map.at(x, 3 - y)[3];
            unflipped.at(x, y)[3] = map.at(x, y)[3];
        }
    const Image<float> actual = drawn();
    // The driver's pow goes through log2 and exp2 of floats, and is off by less than 1e-3.
    EXPECT_TRUE(sameImage(actual, expected, within(kHalfFloat + 1e-3)));
    EXPECT_FALSE(isSameImage(actual, unflipped, within(kHalfFloat + 1e-3)));
}

TEST_F(Skybox, OfAllSourcesTheBackgroundWinsAndAllInputsAreReleased)
{
    TextureManager &pool = TextureManager::Instance();
    std::array<Texture *, 4> inputs{};
    for (Texture *&texture : inputs) {
        texture = pool.tempTexture(TextureFormat::Frame, 4, 4);
        fill(texture, {0, 0, 1, 1});
    }
    fill(inputs[kBackground - kCubemap], {1, 0, 0, 1});
    for (int i = 0; i < 4; ++i)
        owned->setInput(kCubemap + i, textureToVariant(inputs[size_t(i)])); // the last one is the frame
    owned->setInput(kViewport, QRect(0, 0, 4, 4));
    glViewport(0, 0, 4, 4);
    const GlCalls calls;
    EXPECT_TRUE(sameImage(drawn(), Image<float>(4, 4, {1, 0, 0, 1}), within(0)));
    EXPECT_EQ(calls.draws(), 1);
    for (Texture *texture : inputs)
        EXPECT_EQ(pool.tempTextureRefs(texture), 0);
}

TEST_F(Skybox, ACubeMapComesBeforeALatLongMap)
{
    const auto cube = makeCube(cubeFaces(1));
    const auto map = makeSolidTexture(4, 4, {0, 0, 0.25f, 1});
    set(kCubemap, cube);
    set(kLatLongMap, map);
    look({0, 0, 0, 30, 4, 4});
    EXPECT_TRUE(isPixel(drawn(), 0, 0, {5.0 / 6, 0, 0, 0.5}, kHalfFloat)) << "the face of -z";
}

TEST_F(Skybox, AFrameOfItsOwnIsOpaqueBlackWhereTheViewportEnds)
{
    const auto map = makeSolidTexture(4, 4, {0, 0.5f, 0, 0.25f});
    set(kLatLongMap, map);
    look({0, 0, 0, 60, 8, 8});
    glViewport(0, 0, 4, 8);
    const Image<float> image = drawn();
    EXPECT_TRUE(isPixel(image, 3, 3, {0, 0.5, 0, 0.25}, 0));
    EXPECT_TRUE(isPixel(image, 4, 3, {0, 0, 0, 1}, 0));
    EXPECT_EQ(stateOf(outputTexture(*owned, 0)).internalFormat, unsigned(GL_RGBA16F));
}

TEST_F(Skybox, TheViewportStaysAsItIs)
{
    const auto map = makeSolidTexture(4, 4, {0, 0.5f, 0, 0.25f});
    set(kLatLongMap, map);
    look({0, 0, 0, 60, 8, 8});
    const GlCalls calls;
    runFrame(*owned);
    EXPECT_EQ(calls.count("glViewport"), 0);
}

TEST_F(Skybox, WithoutSourceAndFrameThePoolFrameGoesOutAsItIs)
{
    TextureManager &pool = TextureManager::Instance();
    Texture *before = pool.tempTexture(TextureFormat::Frame, 5, 5);
    fill(before, {0.5f, 0.25f, 0.125f, 1});
    pool.releaseTempTextureRef(before, 1);
    owned->setInput(kViewport, QRect(0, 0, 5, 5));
    owned->setNumOutputUsers(0, 1);
    glEnable(GL_DEPTH_TEST);
    const GlCalls calls;
    EXPECT_TRUE(sameImage(drawn(), Image<float>(5, 5, {0.5f, 0.25f, 0.125f, 1}), within(0)));
    EXPECT_EQ(outputTexture(*owned, 0), before);
    EXPECT_EQ(pool.tempTextureRefs(before), 1);
    EXPECT_EQ(calls.draws() + calls.count("glClearBufferfv") + calls.count("glClearBufferfi"), 0);
    EXPECT_TRUE(glIsEnabled(GL_DEPTH_TEST)) << "left alone without a source";
    EXPECT_FALSE(glIsEnabled(GL_STENCIL_TEST));
    pool.releaseTempTextureRef(before, 1);
}

TEST_F(Skybox, WithoutASourceAFramePassesThroughWithItsReferencesRight)
{
    TextureManager &pool = TextureManager::Instance();
    Texture *image = pool.tempTexture(TextureFormat::Frame, 5, 5);
    owned->setInput(kViewport, QRect(0, 0, 5, 5));
    owned->setInput(kFrame, textureToVariant(image));
    owned->setNumOutputUsers(0, 2);
    const Image<float> before = readTexture<float>(image);
    EXPECT_TRUE(sameImage(drawn(), before, within(0)));
    EXPECT_EQ(outputTexture(*owned, 0), image);
    EXPECT_EQ(pool.tempTextureRefs(image), 2) << "one for each user; that of the producer is given back";
    pool.releaseTempTextureRef(image, 2);
}

TEST_F(Skybox, WhereTheStencilIsNotZeroTheFrameStays)
{
    const auto map = makeSolidTexture(4, 4, {0, 1, 0, 1});
    set(kLatLongMap, map);
    const auto image = frame(8, 2, {1, 0, 0, 1});
    set(kFrame, image);
    // Sized by the host or by GL.
    for (const GLenum format : {GL_DEPTH24_STENCIL8, GL_DEPTH_STENCIL}) {
        const auto everywhere = halfStencil(8, 2, 7, 1, format);
        set(kDepth, everywhere);
        const MessageCapture messages;
        EXPECT_TRUE(sameImage(drawn(), Image<float>(8, 2, {1, 0, 0, 1}), within(0))) << format;
        EXPECT_EQ(messages.texts(QtWarningMsg), QStringList());
    }

    const auto right = halfStencil(8, 2, 0, 1);
    set(kDepth, right);
    const Image<float> actual = drawn();
    EXPECT_TRUE(isPixel(actual, 3, 1, {0, 1, 0, 1}, 0));
    EXPECT_TRUE(isPixel(actual, 4, 1, {1, 0, 0, 1}, 0));
    EXPECT_EQ(readStencil(right.get()).at(7, 1)[0], 1) << "the stencil is only read";
    EXPECT_EQ(readStencil(right.get()).at(0, 0)[0], 0);
}

TEST_F(Skybox, TheStencilThatItMakesItselfIsClearedInEveryFrame)
{
    const auto map = makeSolidTexture(4, 4, {0, 1, 0, 1});
    set(kLatLongMap, map);
    look({0, 0, 0, 60, 6, 6});
    EXPECT_TRUE(isPixel(drawn(), 2, 2, {0, 1, 0, 1}, 0)); // leaves a stencil mask of 0
    {
        TextureManager &pool = TextureManager::Instance();
        Texture *stencil = pool.tempTexture(TextureFormat::DepthStencil, 6, 6);
        FramebufferObject fbo;
        const AutoBinder bound(&fbo);
        fbo.attach(stencil, GL_DEPTH_STENCIL_ATTACHMENT, 0);
        fbo.setDrawBuffers();
        glStencilMask(0xff);
        glClearBufferfi(GL_DEPTH_STENCIL, 0, 0.0f, 9);
        glStencilMask(0);
        fbo.detachAll();
        pool.releaseTempTextureRef(stencil, 1);
    }
    EXPECT_TRUE(sameImage(drawn(), Image<float>(6, 6, {0, 1, 0, 1}), within(0)));
}

TEST_F(Skybox, ADepthWithoutStencilCoversWhatIsNearerThanTheFarPlane)
{
    const float floats[] = {0.0f, 0.5f, 0.9999999f, 1.0f};
    const unsigned int integers[] = {0, 1u << 31, ~0u - 1000, ~0u};
    const auto map = makeSolidTexture(4, 4, {0, 1, 0, 1});
    set(kLatLongMap, map);
    for (const GLenum format : {GL_DEPTH_COMPONENT32F, GL_DEPTH_COMPONENT24}) {
        const void *depths = format == GL_DEPTH_COMPONENT24 ? static_cast<const void *>(integers) : floats;
        const auto depth = makeTexture(format, 4, 1, depths);
        const auto image = frame(4, 1, {1, 0, 0, 1});
        set(kFrame, image);
        set(kDepth, depth);
        glDepthFunc(GL_GREATER);
        glDepthRange(0.25, 0.75);
        runFrame(*owned);
        const GLStateSnapshot before;
        GLfloat range[2] = {};
        const Image<float> actual = drawn();
        EXPECT_EQ(GLStateSnapshot().changedSince(before), QStringList())
            << "depth function, mask and test are put back";
        glGetFloatv(GL_DEPTH_RANGE, range);
        EXPECT_EQ(range[0], 0.25f);
        EXPECT_EQ(range[1], 0.75f);
        glDepthRange(0, 1);
        for (int x = 0; x < 3; ++x)
            EXPECT_TRUE(isPixel(actual, x, 0, {1, 0, 0, 1}, 0)) << x;
        EXPECT_TRUE(isPixel(actual, 3, 0, {0, 1, 0, 1}, 0)) << "format " << format;
        EXPECT_EQ(readDepth(depth.get()).at(3, 0)[0], 1.0f) << "the depth is only read";
    }
}

TEST_F(Skybox, MatricesThatAreNotConnectedOrSingularCountAsTheIdentity)
{
    const auto faces = cubeFaces(1);
    const auto cube = makeCube(faces);
    set(kCubemap, cube);
    // The identity puts the quad at z 0, so that the middle of the picture has no direction but the rest
    // looks sideways: to the right of the diagonals to +x, above them to +y.
    const auto expectSideways = [&] {
        const Image<float> image = drawn();
        EXPECT_TRUE(isPixel(image, 7, 4, {0.0 / 6, 0, 0, 1}, kHalfFloat)) << "+x";
        EXPECT_TRUE(isPixel(image, 0, 4, {1.0 / 6, 0, 0, 0.5}, kHalfFloat)) << "-x";
        EXPECT_TRUE(isPixel(image, 4, 7, {2.0 / 6, 0, 0, 1}, kHalfFloat)) << "+y";
        EXPECT_TRUE(isPixel(image, 4, 0, {3.0 / 6, 0, 0, 0.5}, kHalfFloat)) << "-y";
    };
    owned->setInput(kViewport, QRect(0, 0, 8, 8));
    glViewport(0, 0, 8, 8);
    expectSideways();
    owned->setInput(kProjection, QVariant::fromValue(QMatrix4x4() * 0.0f));
    owned->setInput(kCamera, QVariant::fromValue(QMatrix4x4() * 0.0f));
    expectSideways();
    owned->setInput(kProjection, s("projection"));
    owned->setInput(kCamera, 3);
    expectSideways();
}

TEST_F(Skybox, ProgramsAndFramebufferAreMadeAnewWhenTheSizeChanges)
{
    const auto map = makeSolidTexture(4, 4, {0, 1, 0, 1});
    set(kLatLongMap, map);
    const auto linksOf = [&](int size) {
        look({0, 0, 0, 60, size, size});
        const GlCalls calls;
        EXPECT_TRUE(isPixel(drawn(), 1, 1, {0, 1, 0, 1}, 0));
        EXPECT_EQ(calls.created(GlKind::Framebuffer), calls.count("glLinkProgram") / 3);
        return calls.count("glLinkProgram");
    };
    EXPECT_EQ(linksOf(4), 3);
    EXPECT_EQ(linksOf(4), 0);
    const int live = GlCalls::live(GlKind::Program) + GlCalls::live(GlKind::Framebuffer);
    EXPECT_EQ(linksOf(5), 3);
    EXPECT_EQ(GlCalls::live(GlKind::Program) + GlCalls::live(GlKind::Framebuffer), live);
}

TEST_F(Skybox, TheSizeChangeRunsTheOperationsOfASubclass)
{
    class Counting : public SkyboxRenderPass
    {
    public:
        void setup(RenderCallbacks *callbacks) override
        {
            ++setups;
            SkyboxRenderPass::setup(callbacks);
        }
        void teardown(RenderCallbacks *callbacks) override
        {
            ++teardowns;
            SkyboxRenderPass::teardown(callbacks);
        }
        int setups = 0, teardowns = 0;
    };
    Counting pass;
    pass.setInput(kViewport, QRect(0, 0, 4, 4));
    runFrame(pass);
    runFrame(pass);
    EXPECT_EQ(pass.setups, 1);
    EXPECT_EQ(pass.teardowns, 1);
}

// The fixture fails on what is left, and on what is deleted twice.
TEST_F(Skybox, TeardownFreesEverythingAndMayComeTwice)
{
    const auto map = makeSolidTexture(4, 4, {0, 1, 0, 1});
    set(kLatLongMap, map);
    look({0, 0, 0, 60, 4, 4});
    const int programs = GlCalls::live(GlKind::Program), framebuffers = GlCalls::live(GlKind::Framebuffer);
    owned->setup(nullptr);
    runFrame(*owned);
    EXPECT_EQ(GlCalls::live(GlKind::Program), programs + 3);
    owned->teardown(nullptr);
    owned->teardown(nullptr);
    EXPECT_EQ(GlCalls::live(GlKind::Program), programs);
    EXPECT_EQ(GlCalls::live(GlKind::Framebuffer), framebuffers);
    EXPECT_TRUE(isPixel(drawn(), 1, 1, {0, 1, 0, 1}, 0)) << "start sets up again";
    owned->teardown(nullptr);
}

TEST_F(Skybox, ChangesOnlyTheStateThatItSays)
{
    const auto map = makeSolidTexture(4, 4, {0, 1, 0, 1});
    set(kLatLongMap, map);
    look({0, 0, 0, 60, 4, 4});
    runFrame(*owned);
    const auto dirty = [] {
        glEnable(GL_DEPTH_TEST);
        glEnable(GL_STENCIL_TEST);
        glStencilMask(0x3f);
        glStencilFunc(GL_NEVER, 3, 0x1f);
    };
    dirty();
    const GLStateSnapshot before;
    const GlCalls calls;
    runFrame(*owned);
    EXPECT_EQ(GLStateSnapshot().changedSince(before).join(s(", ")).toStdString(),
              "depth test, stencil test, stencil mask, stencil function, stencil value mask");
    EXPECT_FALSE(glIsEnabled(GL_STENCIL_TEST));
    EXPECT_EQ(calls.count("glStencilOp", {GL_KEEP, GL_KEEP, GL_KEEP}), 1);
    EXPECT_EQ(calls.count("glStencilFunc", {GL_EQUAL, 0, 0xff}), 1); // GL tells no reference without a stencil
    GLint mask = -1;
    glGetIntegerv(GL_STENCIL_WRITEMASK, &mask);
    EXPECT_EQ(mask, 0);

    owned->setInput(kLatLongMap, QVariant());
    dirty();
    const GLStateSnapshot withoutSource;
    runFrame(*owned);
    EXPECT_EQ(GLStateSnapshot().changedSince(withoutSource).join(s(", ")).toStdString(),
              "stencil test, stencil mask, stencil function, stencil value mask");
}

TEST_F(Skybox, SourcesKeepTheSamplingThatTheirDrawSets)
{
    const auto parameter = [](const std::unique_ptr<Texture> &texture, GLenum name) {
        texture->bind();
        GLint value = 0;
        glGetTexParameteriv(texture->target(), name, &value);
        texture->unbind();
        return value;
    };
    owned->setInput(kViewport, QRect(0, 0, 4, 4));
    const auto map = makeSolidTexture(4, 4, {}), background = makeSolidTexture(4, 4, {});
    const auto cube = makeCube(cubeFaces(1));
    cube->bind();
    glTexParameteri(GL_TEXTURE_CUBE_MAP, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
    cube->unbind();
    set(kLatLongMap, map);
    runFrame(*owned);
    EXPECT_EQ(parameter(map, GL_TEXTURE_WRAP_S), GL_REPEAT);
    EXPECT_EQ(parameter(map, GL_TEXTURE_WRAP_T), GL_CLAMP_TO_EDGE);
    EXPECT_EQ(parameter(map, GL_TEXTURE_MIN_FILTER), GL_LINEAR);
    EXPECT_EQ(parameter(map, GL_TEXTURE_MAG_FILTER), GL_NEAREST) << "stays";
    set(kCubemap, cube);
    runFrame(*owned);
    EXPECT_EQ(parameter(cube, GL_TEXTURE_MIN_FILTER), GL_NEAREST) << "stays";
    set(kBackground, background);
    runFrame(*owned);
    EXPECT_EQ(parameter(background, GL_TEXTURE_MIN_FILTER), GL_LINEAR);
    EXPECT_EQ(parameter(background, GL_TEXTURE_WRAP_S), GL_CLAMP_TO_EDGE) << "stays";
}

TEST_F(Skybox, EmptyViewportsRaiseNoError)
{
    const auto map = makeSolidTexture(4, 4, {0, 1, 0, 1});
    set(kLatLongMap, map);
    expectEmptyViewportsRaiseNoError(*owned);
}

TEST_F(Skybox, WithoutAViewportItDrawsIntoAFrameAndDepthOfTheHost)
{
    const auto map = makeSolidTexture(4, 4, {0, 1, 0, 1});
    const auto image = makeSolidTexture(4, 4, {1, 0, 0, 1});
    const auto depth = halfStencil(4, 4, 0, 1);
    set(kLatLongMap, map);
    set(kFrame, image);
    set(kDepth, depth);
    glViewport(0, 0, 4, 4);
    EXPECT_TRUE(isPixel(drawn(), 0, 0, {0, 1, 0, 1}, 0));
}

TEST_F(Skybox, AFrameWithoutContentIsNoTarget)
{
    const auto map = makeSolidTexture(4, 4, {0, 1, 0, 1});
    Texture empty;
    empty.setTarget(GL_TEXTURE_2D);
    owned->setInput(kViewport, QRect(0, 0, 4, 4));
    owned->setInput(kFrame, textureToVariant(&empty));
    set(kLatLongMap, map);
    const GlCalls calls;
    runFrame(*owned); // the fixture fails on errors of GL
    EXPECT_EQ(calls.draws(), 0);
}

TEST_F(Skybox, InputsOfWrongTypesCountAsMissing)
{
    for (int input = 0; input < owned->numInputs(); ++input)
        owned->setInput(input, s("nothing of use"));
    runFrame(*owned);
    const auto map = makeSolidTexture(4, 4, {0, 1, 0, 1});
    owned->setInput(kViewport, QRect(0, 0, 4, 4));
    set(kCubemap, map); // no cube map: reads black, as GL has it
    runFrame(*owned);
    EXPECT_NE(outputTexture(*owned, 0), nullptr);
}

TEST_F(Skybox, SteadyFrameCreatesNothing)
{
    const auto map = makeSolidTexture(4, 4, {0, 1, 0, 1});
    set(kLatLongMap, map);
    look({0, 0, 0, 60, 4, 4});
    expectSteadyFrameCreatesNothing(*owned);
}

TEST_F(Skybox, SteadyFrameTakesNothingFromTheHeap)
{
    const auto cube = makeCube(cubeFaces(4));
    set(kCubemap, cube);
    look({0, 0, 0, 60, 4, 4});
    KVO_EXPECT_STEADY_FRAME_TAKES_NOTHING_FROM_THE_HEAP(*owned);
}
