#include "support/allocations.h"
#include "support/gltest.h"
#include "support/imagefiles.h"
#include "support/messages.h"
#include "support/passes.h"

#include <gl/texture.h>
#include <gl/texturemanager.h>
#include <renderpasses/cubemaploaderrenderpass.h>

#include <epoxy/gl.h>

#include <memory>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

// Inputs, which are in the order of GL's faces.
enum Face { kPosX, kNegX, kPosY, kNegY, kPosZ, kNegZ };
constexpr int kFaces = 6;
// Half a step of 8 bits; reading back is exact to less.
constexpr double kExact = 0.5 / 255;
// Where 16 bits become 8: Qt rounds to one of two neighbours, by the road that it takes.
constexpr double kStep = 1.5 / 255;

bool isTyped(const QVariant &value)
{
    return value.metaType() == QMetaType::fromType<Texture *>();
}

bool isObject(const QVariant &value)
{
    return value.metaType() == QMetaType(QMetaType::QObjectStar);
}

class CubemapLoader : public GLTest
{
protected:
    void SetUp() override
    {
        GLTest::SetUp();
        owned = std::make_unique<CubemapLoaderRenderPass>();
    }
    void TearDown() override
    {
        owned.reset();
        GLTest::TearDown();
    }
    // Six files of one set, each another picture.
    QStringList writeSet(const char *set, int size, int seed = 0)
    {
        QStringList paths;
        for (int face = 0; face < kFaces; ++face)
            paths << files.write(qPrintable(QStringLiteral("%1%2.png").arg(QLatin1StringView(set)).arg(face)),
                                 facePattern(size, face, seed));
        return paths;
    }
    static QImage facePattern(int size, int face, int seed = 0)
    {
        return ImageFiles::pattern(size, size, 40 * face + seed);
    }
    Texture *start(const QStringList &paths)
    {
        for (int face = 0; face < kFaces; ++face)
            owned->setInput(face, paths[face]);
        runFrame(*owned);
        return textureFromVariant(owned->output(0));
    }
    static Image<float> face(const Texture *texture, int index) { return readTexture<float>(texture, 0, index); }
    static int parameter(Texture *texture, unsigned int name)
    {
        texture->bind();
        GLint value = 0;
        glGetTexParameteriv(texture->target(), name, &value);
        texture->unbind();
        return value;
    }

    const Image<float> clear{1, 1, {0, 0, 0, 0}};
    ImageFiles files;
    std::unique_ptr<CubemapLoaderRenderPass> owned;
};

} // namespace

TEST_F(CubemapLoader, SlotsHaveTheirNamesOrderAndDefaults)
{
    expectSlots(CubemapLoaderRenderPass(),
                {{"Kvo_QString_CubemapPathPosX"},
                 {"Kvo_QString_CubemapPathNegX"},
                 {"Kvo_QString_CubemapPathPosY"},
                 {"Kvo_QString_CubemapPathNegY"},
                 {"Kvo_QString_CubemapPathPosZ"},
                 {"Kvo_QString_CubemapPathNegZ"}},
                {"Kvo_KvoTexture*_Cubemap"});
}

TEST_F(CubemapLoader, ConstructingCopyingAndDestroyingMakesNoGLCall)
{
    expectNoGLCallBeforeStart<CubemapLoaderRenderPass>();
}

TEST_F(CubemapLoader, EveryPathGoesToItsFaceTopRowFirst)
{
    Texture *cube = start(writeSet("a", 6));
    EXPECT_EQ(cube->target(), unsigned(GL_TEXTURE_CUBE_MAP));
    for (int i = 0; i < kFaces; ++i) {
        EXPECT_TRUE(sameImage(face(cube, i), texelsOf(facePattern(6, i), false), within(kExact))) << "face " << i;
        EXPECT_FALSE(isSameImage(face(cube, i), texelsOf(facePattern(6, i), true), within(kExact))) << "not flipped";
    }
}

TEST_F(CubemapLoader, AnOrientationInTheMetadataIsNotFollowed)
{
    QStringList paths = writeSet("a", 8);
    const QByteArray bytes = ImageFiles::turnedJpeg(ImageFiles::pattern(8, 8));
    paths[2] = files.write("turned.jpg", bytes);
    EXPECT_TRUE(sameImage(face(start(paths), 2), texelsOf(QImage::fromData(bytes, "jpg"), false), within(kExact)));
}

TEST_F(CubemapLoader, SamplingIsLinearAndClampedAndThereAreMipLevels)
{
    Texture *cube = start(writeSet("a", 4));
    EXPECT_EQ(parameter(cube, GL_TEXTURE_MIN_FILTER), GL_LINEAR);
    EXPECT_EQ(parameter(cube, GL_TEXTURE_MAG_FILTER), GL_LINEAR);
    EXPECT_EQ(parameter(cube, GL_TEXTURE_WRAP_S), GL_CLAMP_TO_EDGE);
    EXPECT_EQ(parameter(cube, GL_TEXTURE_WRAP_T), GL_CLAMP_TO_EDGE);
    EXPECT_EQ(parameter(cube, GL_TEXTURE_WRAP_R), GL_CLAMP_TO_EDGE);
    EXPECT_EQ(readTexture<float>(cube, 2, 5).width, 1);
}

TEST_F(CubemapLoader, UploadsGoThroughPixelBuffersThatAreGoneAfterwards)
{
    const QStringList paths = writeSet("a", 4);
    const int buffers = GlCalls::live(GlKind::Buffer);
    const GlCalls calls;
    start(paths);
    EXPECT_EQ(calls.created(GlKind::Buffer), kFaces);
    EXPECT_EQ(calls.count("glBufferData", {GL_PIXEL_UNPACK_BUFFER, 64}), kFaces);
    EXPECT_EQ(calls.count("glMapBuffer", {GL_PIXEL_UNPACK_BUFFER, GL_WRITE_ONLY}), kFaces);
    for (unsigned int i = 0; i < kFaces; ++i)
        EXPECT_EQ(calls.count("glTexImage2D", {double(GL_TEXTURE_CUBE_MAP_POSITIVE_X + i), 0, GL_RGBA, 4, 4, 0, GL_BGRA,
                                               GL_UNSIGNED_BYTE, 0}),
                  1)
            << "face " << i;
    EXPECT_EQ(calls.count("glGenerateMipmap", {GL_TEXTURE_CUBE_MAP}), 1);
    EXPECT_EQ(GlCalls::live(GlKind::Buffer), buffers);
}

TEST_F(CubemapLoader, EveryFormatOfAnImageUploadsItsColours)
{
    const std::vector<QImage::Format> formats = pngFormats();
    for (size_t first = 0; first < formats.size(); first += kFaces) {
        QStringList paths;
        for (size_t i = 0; i < kFaces; ++i)
            paths << files.write(qPrintable(QStringLiteral("format%1.png").arg(formats[first + i])),
                                 facePattern(5, int(i)).convertToFormat(formats[first + i]));
        Texture *cube = start(paths);
        for (int i = 0; i < kFaces; ++i) {
            const QImage image(paths[i]);
            EXPECT_TRUE(sameImage(face(cube, i), texelsOf(image, false), within(image.depth() > 32 ? kStep : kExact)))
                << "format " << formats[first + size_t(i)];
        }
    }
}

TEST_F(CubemapLoader, SixEmptyPathsInTheFirstFrameGiveSixTransparentTexels)
{
    const MessageCapture messages;
    runFrame(*owned);
    const auto *cube = textureFromVariant(owned->output(0));
    ASSERT_NE(cube, nullptr);
    for (int i = 0; i < kFaces; ++i)
        EXPECT_TRUE(sameImage(face(cube, i), clear, within(0))) << "face " << i;
    EXPECT_EQ(messages.texts(), QStringList());

    // Its key is the empty text.
    start(writeSet("a", 4));
    const QStringList empty{QString(), QString(), QString(), QString(), QString(), QString()};
    EXPECT_EQ(start(empty), cube);
    EXPECT_TRUE(isObject(owned->output(0)));
}

TEST_F(CubemapLoader, EachPathAloneMakesAnotherSet)
{
    QStringList paths = writeSet("a", 4);
    const QStringList others = writeSet("b", 4, 7);
    start(paths);
    for (int i = 0; i < kFaces; ++i) {
        paths[i] = others[i];
        EXPECT_TRUE(sameImage(face(start(paths), i), texelsOf(facePattern(4, i, 7), false), within(kExact)))
            << "face " << i;
    }
}

TEST_F(CubemapLoader, AMissingFileCostsItsFaceWithoutAWord)
{
    QStringList paths = writeSet("a", 4);
    paths[kPosY] = files.path("missing.png");
    const MessageCapture messages;
    Texture *cube = start(paths);
    EXPECT_TRUE(sameImage(face(cube, kPosY), clear, within(0)));
    for (const int i : {kPosX, kNegX, kNegY, kPosZ, kNegZ})
        EXPECT_TRUE(sameImage(face(cube, i), texelsOf(facePattern(4, i), false), within(kExact))) << "face " << i;
    EXPECT_EQ(messages.texts(), QStringList());
}

TEST_F(CubemapLoader, FacesOfDifferentSizesAreNoErrorOfGL)
{
    QStringList paths = writeSet("a", 4);
    paths[kNegZ] = files.write("other size.png", facePattern(8, kNegZ));
    const GlCalls calls;
    Texture *cube = start(paths); // the fixture fails on errors of GL
    EXPECT_EQ(calls.count("glGenerateMipmap"), 0);
    EXPECT_EQ(face(cube, kNegZ).width, 8);
    EXPECT_EQ(face(cube, kPosX).width, 4);
}

TEST_F(CubemapLoader, AFileThatIsNoImageCostsItsFaceAndGivesOneMessage)
{
    const QStringList good = writeSet("a", 4);
    for (const auto &[name, bytes] : ImageFiles::badFiles()) {
        QStringList paths = good;
        paths[kNegX] = files.write(name, bytes);
        const MessageCapture messages;
        Texture *cube = start(paths);
        runFrame(*owned);
        EXPECT_TRUE(sameImage(face(cube, kNegX), clear, within(0))) << name;
        EXPECT_EQ(face(cube, kPosX).width, 4) << name;
        ASSERT_EQ(messages.all().size(), 1) << name << '\n' << qPrintable(messages.texts().join(u'\n'));
        EXPECT_EQ(messages.all().first().type, QtWarningMsg) << name;
        EXPECT_TRUE(messages.all().first().text.contains(paths[kNegX])) << qPrintable(messages.all().first().text);
    }
}

TEST_F(CubemapLoader, OneBadFileForAllFacesGivesOneMessage)
{
    const QString bad = files.write("bad.png", QByteArrayLiteral("no image"));
    const MessageCapture messages;
    start({bad, bad, bad, bad, bad, bad});
    EXPECT_EQ(messages.all().size(), 1);
}

TEST_F(CubemapLoader, AnImageThatIsNotSquareIsNoFace)
{
    QStringList paths = writeSet("a", 4);
    paths[kPosZ] = files.write("oblong.png", ImageFiles::pattern(4, 2));
    const MessageCapture messages;
    Texture *cube = start(paths);
    EXPECT_TRUE(sameImage(face(cube, kPosZ), clear, within(0)));
    EXPECT_EQ(messages.containing(QStringLiteral("4x2")), 1);
    EXPECT_EQ(messages.all().size(), 1);
}

TEST_F(CubemapLoader, AnImageLargerThanTheDriverTakesCostsItsFace)
{
    QStringList paths = writeSet("a", 4);
    paths[kPosX] = files.write("large.png", ImageFiles::pattern(65, 65));
    const GlCalls::ForcedInteger limit(GL_MAX_CUBE_MAP_TEXTURE_SIZE, 64);
    const MessageCapture messages;
    Texture *cube = start(paths);
    EXPECT_TRUE(sameImage(face(cube, kPosX), clear, within(0)));
    EXPECT_EQ(messages.all().size(), 1);
}

TEST_F(CubemapLoader, ReturningToAnEarlierSetTakesItFromMemoryInObjectForm)
{
    const QStringList a = writeSet("a", 4, 1), b = writeSet("b", 4, 2);
    Texture *first = start(a);
    EXPECT_TRUE(isTyped(owned->output(0)));
    Texture *second = start(b);
    EXPECT_TRUE(isTyped(owned->output(0)));
    EXPECT_NE(second, first);
    {
        const GlCalls calls;
        EXPECT_EQ(start(a), first);
        EXPECT_TRUE(calls.all().empty()) << qPrintable(calls.toString());
    }
    EXPECT_TRUE(isObject(owned->output(0)));
    runFrame(*owned);
    EXPECT_TRUE(isTyped(owned->output(0))) << "the next frame writes typed form again";
    EXPECT_EQ(textureFromVariant(owned->output(0)), first);
    {
        const GlCalls calls;
        EXPECT_EQ(start(b), second) << "now B is in memory";
        EXPECT_EQ(start(a), first) << "and A still is";
        EXPECT_TRUE(calls.all().empty());
    }
    EXPECT_TRUE(sameImage(face(first, 0), texelsOf(facePattern(4, 0, 1), false), within(kExact)));
    EXPECT_TRUE(sameImage(face(second, 0), texelsOf(facePattern(4, 0, 2), false), within(kExact)));
}

// The fixture fails when a map is deleted twice or not at all.
TEST_F(CubemapLoader, AMapThatIsCurrentAndInMemoryIsDeletedOnce)
{
    const QStringList a = writeSet("a", 4, 1), b = writeSet("b", 4, 2);
    start(a);
    start(b);
    start(a);
    const int textures = GlCalls::live(GlKind::Texture);
    owned.reset();
    EXPECT_EQ(GlCalls::live(GlKind::Texture), textures - 2);
}

TEST_F(CubemapLoader, TheSamePathsInAnotherOrderAreAnotherSet)
{
    QStringList paths = writeSet("a", 4);
    Texture *first = start(paths);
    std::swap(paths[kPosX], paths[kNegZ]);
    Texture *second = start(paths);
    EXPECT_NE(second, first);
    EXPECT_TRUE(isTyped(owned->output(0)));
    EXPECT_TRUE(sameImage(face(second, kPosX), texelsOf(facePattern(4, kNegZ), false), within(kExact)));
}

TEST_F(CubemapLoader, SetsWhosePathsRunTogetherToOneTextCountAsOne)
{
    // Keys are put together as +x, +y, +z, -x, -y, -z.
    const QStringList a{QStringLiteral("no"), QString(), QStringLiteral("where"), QString(), QString(), QString()};
    const QStringList b{QStringLiteral("nowh"), QString(), QStringLiteral("ere"), QString(), QString(), QString()};
    const QStringList c{QStringLiteral("no"), QStringLiteral("where"), QString(), QString(), QString(), QString()};
    Texture *first = start(a);
    EXPECT_EQ(start(b), first);
    EXPECT_TRUE(isObject(owned->output(0)));
    EXPECT_EQ(start(c), first) << "-x comes behind +x, +y and +z, of which the last two are empty here";
}

TEST_F(CubemapLoader, TheKeyTakesThePositiveFacesFirst)
{
    const QStringList a{QStringLiteral("1"), QStringLiteral("4"), QStringLiteral("2"),
                        QStringLiteral("5"), QStringLiteral("3"), QStringLiteral("6")};
    Texture *first = start(a); // "123456"
    const QStringList b{QStringLiteral("123456"), QString(), QString(), QString(), QString(), QString()};
    EXPECT_EQ(start(b), first);
    const QStringList c{QStringLiteral("142536"), QString(), QString(), QString(), QString(), QString()};
    EXPECT_NE(start(c), first);
}

TEST_F(CubemapLoader, AFileThatChangesUnderItsPathIsNotReadAgain)
{
    const QStringList paths = writeSet("a", 4, 1);
    Texture *cube = start(paths);
    writeSet("a", 8, 2);
    const GlCalls calls;
    EXPECT_EQ(start(paths), cube);
    EXPECT_TRUE(calls.all().empty());
    EXPECT_EQ(face(cube, 0).width, 4);
}

TEST_F(CubemapLoader, TheHostsUnpackStateNeitherCountsNorChanges)
{
    const QStringList paths = writeSet("a", 5);
    GLuint buffer = 0;
    glGenBuffers(1, &buffer);
    glBindBuffer(GL_PIXEL_UNPACK_BUFFER, buffer);
    glPixelStorei(GL_UNPACK_ALIGNMENT, 8);
    glPixelStorei(GL_UNPACK_ROW_LENGTH, 50);
    const GLStateSnapshot before;
    Texture *cube = start(paths);
    EXPECT_EQ(GLStateSnapshot().changedSince(before), QStringList());
    glPixelStorei(GL_UNPACK_ROW_LENGTH, 0);
    glDeleteBuffers(1, &buffer);
    for (int i = 0; i < kFaces; ++i)
        EXPECT_TRUE(sameImage(face(cube, i), texelsOf(facePattern(5, i), false), within(kExact))) << "face " << i;
}

TEST_F(CubemapLoader, TeardownFreesNothing)
{
    start(writeSet("a", 4));
    expectTeardownKeepsEverything(*owned);
}

TEST_F(CubemapLoader, SteadyFrameMakesNoGLCallAndTakesNothingFromTheHeap)
{
    start(writeSet("a", 4));
    {
        const GlCalls calls;
        runFrame(*owned);
        EXPECT_TRUE(calls.all().empty()) << qPrintable(calls.toString());
    }
    KVO_EXPECT_STEADY_FRAME_TAKES_NOTHING_FROM_THE_HEAP(*owned);
}
