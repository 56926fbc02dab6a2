#include "support/allocations.h"
#include "support/gltest.h"
#include "support/imagefiles.h"
#include "support/messages.h"
#include "support/passes.h"

#include <gl/texture.h>
#include <gl/texturemanager.h>
#include <renderpasses/textureloaderrenderpass.h>

#include <epoxy/gl.h>

#include <memory>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

// Half a step of 8 bits; reading back is exact to less.
constexpr double kExact = 0.5 / 255;
// Where 16 bits become 8: Qt rounds to one of two neighbours, by the road that it takes.
constexpr double kStep = 1.5 / 255;

class TextureLoader : public GLTest
{
protected:
    void SetUp() override
    {
        GLTest::SetUp();
        owned = std::make_unique<TextureLoaderRenderPass>();
    }
    void TearDown() override
    {
        owned.reset();
        GLTest::TearDown();
    }
    Texture *loaded(const QString &path)
    {
        owned->setInput(0, path);
        runFrame(*owned);
        return outputTexture(*owned, 0);
    }
    Image<float> texels(const QString &path) { return readTexture<float>(loaded(path)); }

    const Image<float> white{1, 1, {1, 1, 1, 1}};
    ImageFiles files;
    std::unique_ptr<TextureLoaderRenderPass> owned;
};

} // namespace

TEST_F(TextureLoader, SlotsHaveTheirNamesOrderAndDefaults)
{
    expectSlots(TextureLoaderRenderPass(), {{"Kvo_QString_TexturePath"}}, {"Kvo_KvoTexture*_Texture"});
}

TEST_F(TextureLoader, ConstructingCopyingAndDestroyingMakesNoGLCall)
{
    expectNoGLCallBeforeStart<TextureLoaderRenderPass>();
}

TEST_F(TextureLoader, TheImageIsFlippedSoThatItsBottomRowComesFirst)
{
    const QImage image = ImageFiles::pattern(7, 5);
    const Image<float> actual = texels(files.write("image.png", image));
    EXPECT_TRUE(sameImage(actual, texelsOf(image, true), within(kExact)));
    EXPECT_FALSE(isSameImage(actual, texelsOf(image, false), within(kExact)));
}

TEST_F(TextureLoader, AnOrientationInTheMetadataIsNotFollowed)
{
    const QByteArray bytes = ImageFiles::turnedJpeg(ImageFiles::pattern(24, 8));
    const QImage stored = QImage::fromData(bytes, "jpg");
    ASSERT_EQ(stored.size(), QSize(24, 8));
    EXPECT_TRUE(sameImage(texels(files.write("turned.jpg", bytes)), texelsOf(stored, true), within(kExact)));
}

TEST_F(TextureLoader, EveryFormatOfAnImageUploadsItsColours)
{
    for (const QImage::Format format : pngFormats()) {
        // A width that pads the rows of every format that has fewer than 32 bits.
        files.write("image.png", ImageFiles::pattern(5, 6).convertToFormat(format));
        owned = std::make_unique<TextureLoaderRenderPass>();
        EXPECT_TRUE(sameImage(texels(files.path("image.png")), texelsOf(QImage(files.path("image.png")), true),
                              within(QImage(files.path("image.png")).depth() > 32 ? kStep : kExact)))
            << "format " << format;
    }
    for (const char *name : {"image.bmp", "image.ppm", "image.pgm", "image.pbm", "image.xpm", "image.jpg"}) {
        files.write(name, ImageFiles::pattern(5, 6).convertToFormat(QImage::Format_RGB32));
        EXPECT_TRUE(sameImage(texels(files.path(name)), texelsOf(QImage(files.path(name)), true), within(kExact)))
            << name;
    }
}

TEST_F(TextureLoader, TheTextureHasMipLevelsAndGLsOwnSampling)
{
    Texture *texture = loaded(files.write("image.png", ImageFiles::pattern(8, 4)));
    EXPECT_EQ(texture->target(), unsigned(GL_TEXTURE_2D));
    EXPECT_TRUE(texture->isReadOnly());
    const TextureState state = stateOf(texture);
    EXPECT_EQ(state.width, 8);
    EXPECT_EQ(state.height, 4);
    EXPECT_EQ(state.minFilter, unsigned(GL_NEAREST_MIPMAP_LINEAR));
    EXPECT_EQ(state.magFilter, unsigned(GL_LINEAR));
    const Image<float> last = readTexture<float>(texture, 3);
    EXPECT_EQ(last.width, 1);
    EXPECT_EQ(last.height, 1);
    std::array<double, 4> mean{};
    for (const auto &pixel : readTexture<float>(texture).pixels)
        for (size_t c = 0; c < 4; ++c)
            mean[c] += double(pixel[c]) / 32;
    EXPECT_TRUE(isPixel(last, 0, 0, mean, 2.0 / 255)) << "the levels round two or three times";
}

TEST_F(TextureLoader, AnEmptyPathInTheFirstFrameUploadsNothing)
{
    for (const QVariant &path : {QVariant(), QVariant(QString()), QVariant(QStringLiteral(""))}) {
        owned = std::make_unique<TextureLoaderRenderPass>();
        owned->setInput(0, path);
        const GlCalls calls;
        runFrame(*owned);
        EXPECT_EQ(calls.textureAllocations(), 0);
        EXPECT_EQ(stateOf(outputTexture(*owned, 0)).width, -1) << "a texture without content";
    }
}

TEST_F(TextureLoader, AMissingFileGivesWhiteWithoutAWord)
{
    const MessageCapture messages;
    EXPECT_TRUE(sameImage(texels(files.path("missing.png")), white, within(0)));
    EXPECT_TRUE(sameImage(texels(files.path(".")), white, within(0))) << "a folder is no file";
    EXPECT_EQ(messages.texts(), QStringList());
}

TEST_F(TextureLoader, APathThatTurnsFromAGoodFileToAMissingOneGivesWhiteInTheSameTexture)
{
    Texture *first = loaded(files.write("image.png", ImageFiles::pattern(8, 8)));
    EXPECT_EQ(stateOf(first).width, 8);
    Texture *second = loaded(files.path("missing.png"));
    EXPECT_EQ(second, first);
    EXPECT_TRUE(sameImage(readTexture<float>(second), white, within(0)));
    EXPECT_TRUE(sameImage(texels(QString()), white, within(0))) << "the empty path is a path like others now";
}

TEST_F(TextureLoader, AnImageOfAnotherSizeReplacesTheOldOne)
{
    files.write("a.png", ImageFiles::pattern(8, 8));
    const QImage image = ImageFiles::pattern(3, 9, 5);
    files.write("b.png", image);
    Texture *first = loaded(files.path("a.png"));
    EXPECT_EQ(loaded(files.path("b.png")), first);
    EXPECT_TRUE(sameImage(readTexture<float>(first), texelsOf(image, true), within(kExact)));
}

TEST_F(TextureLoader, AFileThatChangesUnderItsPathIsNotReadAgain)
{
    const QImage image = ImageFiles::pattern(4, 4);
    const QString path = files.write("image.png", image);
    loaded(path);
    files.write("image.png", ImageFiles::pattern(6, 6, 9));
    const GlCalls calls;
    EXPECT_TRUE(sameImage(texels(path), texelsOf(image, true), within(kExact)));
    EXPECT_EQ(calls.textureAllocations(), 0);
}

TEST_F(TextureLoader, AFileThatTurnsUpLaterIsNotTriedAgain)
{
    const QString path = files.path("late.png");
    loaded(path);
    files.write("late.png", ImageFiles::pattern(4, 4));
    EXPECT_TRUE(sameImage(texels(path), white, within(0)));
}

TEST_F(TextureLoader, AFileThatIsNoImageGivesWhiteAndOneMessage)
{
    for (const auto &[name, bytes] : ImageFiles::badFiles()) {
        const QString path = files.write(name, bytes);
        const MessageCapture messages;
        EXPECT_TRUE(sameImage(texels(path), white, within(0))) << name;
        runFrame(*owned);
        ASSERT_EQ(messages.all().size(), 1) << name << '\n' << qPrintable(messages.texts().join(u'\n'));
        EXPECT_EQ(messages.all().first().type, QtWarningMsg) << name;
        EXPECT_TRUE(messages.all().first().text.contains(path)) << qPrintable(messages.all().first().text);
    }
}

TEST_F(TextureLoader, AnImageLargerThanTheDriverTakesGivesWhiteAndOneMessage)
{
    files.write("wide.png", ImageFiles::pattern(65, 2));
    files.write("high.png", ImageFiles::pattern(2, 65));
    files.write("fits.png", ImageFiles::pattern(64, 64));
    const GlCalls::ForcedInteger limit(GL_MAX_TEXTURE_SIZE, 64);
    for (const char *name : {"wide.png", "high.png"}) {
        const MessageCapture messages;
        EXPECT_TRUE(sameImage(texels(files.path(name)), white, within(0))) << name;
        EXPECT_EQ(messages.containing(files.path(name)), 1);
        EXPECT_EQ(messages.all().size(), 1);
    }
    EXPECT_EQ(stateOf(loaded(files.path("fits.png"))).width, 64);
}

TEST_F(TextureLoader, TheHostsUnpackStateNeitherCountsNorChanges)
{
    GLuint buffer = 0;
    glGenBuffers(1, &buffer);
    glBindBuffer(GL_PIXEL_UNPACK_BUFFER, buffer);
    glBufferData(GL_PIXEL_UNPACK_BUFFER, 16, nullptr, GL_STATIC_DRAW);
    glPixelStorei(GL_UNPACK_ALIGNMENT, 8);
    glPixelStorei(GL_UNPACK_ROW_LENGTH, 50);
    glPixelStorei(GL_UNPACK_SKIP_ROWS, 2);
    const QImage image = ImageFiles::pattern(5, 3);
    files.write("image.png", image);
    const GLStateSnapshot before;
    Texture *texture = loaded(files.path("image.png"));
    EXPECT_EQ(GLStateSnapshot().changedSince(before), QStringList());
    GLint rowLength = 0;
    glGetIntegerv(GL_UNPACK_ROW_LENGTH, &rowLength);
    EXPECT_EQ(rowLength, 50);
    glPixelStorei(GL_UNPACK_ROW_LENGTH, 0);
    glPixelStorei(GL_UNPACK_SKIP_ROWS, 0);
    glDeleteBuffers(1, &buffer);
    EXPECT_TRUE(sameImage(readTexture<float>(texture), texelsOf(image, true), within(kExact)));
}

TEST_F(TextureLoader, AResourceIsAFileToo)
{
    const MessageCapture messages;
    loaded(QStringLiteral(":/Media/Shaders/KvoUtilities.glslh")); // a file, though no image
    EXPECT_EQ(messages.all().size(), 1);
}

TEST_F(TextureLoader, APathOfAnotherTypeIsReadAsText)
{
    const MessageCapture messages;
    owned->setInput(0, 17); // "17", which is no file
    runFrame(*owned);
    EXPECT_TRUE(sameImage(readTexture<float>(outputTexture(*owned, 0)), white, within(0)));
    EXPECT_EQ(messages.texts(), QStringList());
    owned->setInput(0, QVariant::fromValue(QRect(1, 2, 3, 4))); // no text, so an empty path
    runFrame(*owned);
    EXPECT_TRUE(sameImage(readTexture<float>(outputTexture(*owned, 0)), white, within(0)));
    EXPECT_EQ(messages.texts().size(), 1) << "of the type";
}

TEST_F(TextureLoader, TeardownFreesNothing)
{
    owned->setInput(0, files.write("image.png", ImageFiles::pattern(4, 4)));
    expectTeardownKeepsEverything(*owned);
}

TEST_F(TextureLoader, SteadyFrameMakesNoGLCallAndTakesNothingFromTheHeap)
{
    owned->setInput(0, files.write("image.png", ImageFiles::pattern(4, 4)));
    runFrame(*owned);
    {
        const GlCalls calls;
        runFrame(*owned);
        EXPECT_TRUE(calls.all().empty()) << qPrintable(calls.toString());
        EXPECT_NE(outputTexture(*owned, 0), nullptr) << "written on every start";
    }
    KVO_EXPECT_STEADY_FRAME_TAKES_NOTHING_FROM_THE_HEAP(*owned);
}
