#include "support/draw.h"
#include "support/gltest.h"
#include "support/messages.h"

#include <gl/guards.h>
#include <gl/opengldevicecontext.h>
#include <gl/texturemanager.h>

#include <QColor>
#include <QFile>
#include <QImage>
#include <QTemporaryDir>

#include <epoxy/gl.h>

#include <vector>

namespace Brevane::Kvo {

using namespace Test;

namespace {

TextureManager &manager()
{
    return TextureManager::Instance();
}

GLint parameter(Texture *texture, GLenum name)
{
    const AutoBinder guard(texture);
    GLint value = 0;
    glGetTexParameteriv(texture->target(), name, &value);
    return value;
}

GLint levelParameter(Texture *texture, GLenum name, int level = 0)
{
    const AutoBinder guard(texture);
    GLint value = 0;
    glGetTexLevelParameteriv(texture->target(), level, name, &value);
    return value;
}

constexpr TextureFormat kFrame = TextureFormat::Frame;

} // namespace

// ---------------------------------------------------------------------------------------------- pool

class TexturePoolTest : public GLTest
{
protected:
    void SetUp() override
    {
        GLTest::SetUp();
        before = manager().statistics();
        ASSERT_EQ(before.textures, 0);
        ASSERT_EQ(before.bytes, 0);
    }
    TexturePoolStatistics before;
};

TEST_F(TexturePoolTest, TextureComesWithTheFormatAndSizeAskedForAndOneReference)
{
    Texture *texture = manager().tempTexture(TextureFormat::Position, 7, 5, -1);
    ASSERT_NE(texture, nullptr);
    EXPECT_EQ(texture->target(), GLenum(GL_TEXTURE_2D));
    EXPECT_EQ(levelParameter(texture, GL_TEXTURE_WIDTH), 7);
    EXPECT_EQ(levelParameter(texture, GL_TEXTURE_HEIGHT), 5);
    EXPECT_EQ(levelParameter(texture, GL_TEXTURE_INTERNAL_FORMAT), GL_RGBA32F);
    EXPECT_EQ(manager().tempTextureRefs(texture), 1);
    EXPECT_EQ(texture->unit(), -1) << "it is handed out unbound";
    manager().releaseTempTextureRef(texture, 1);
}

TEST_F(TexturePoolTest, FormatsThatPassesNameByNumberAreWhatTheyWereChosenToBe)
{
    const std::pair<int, GLenum> formats[] = {{0, GL_R16F},    {3, GL_RGBA16F}, {5, GL_RG16F},
                                              {6, GL_RGBA32F}, {7, GL_RGBA16F}, {21, GL_DEPTH24_STENCIL8}};
    for (const auto &[number, internalFormat] : formats) {
        EXPECT_EQ(internalFormatOf(TextureFormat(number)), internalFormat) << number;
        Texture *texture = manager().tempTexture(TextureFormat(number), 2, 2);
        EXPECT_EQ(GLenum(levelParameter(texture, GL_TEXTURE_INTERNAL_FORMAT)), internalFormat) << number;
        manager().releaseTempTextureRef(texture, 1);
    }
}

TEST_F(TexturePoolTest, EveryFormatCanBeTakenAndAttached)
{
    for (int number = 0; number <= 22; ++number) {
        Texture *texture = manager().tempTexture(TextureFormat(number), 4, 4);
        const GLenum internalFormat = internalFormatOf(TextureFormat(number));
        const GLenum format = levelParameter(texture, GL_TEXTURE_DEPTH_SIZE) == 0 ? GL_COLOR_ATTACHMENT0
                              : levelParameter(texture, GL_TEXTURE_STENCIL_SIZE)  ? GL_DEPTH_STENCIL_ATTACHMENT
                                                                                  : GL_DEPTH_ATTACHMENT;
        FramebufferObject fbo;
        const AutoBinder guard(&fbo);
        fbo.attach(texture, format, 0);
        fbo.setDrawBuffers();
        EXPECT_EQ(glCheckFramebufferStatus(GL_FRAMEBUFFER), GLenum(GL_FRAMEBUFFER_COMPLETE))
            << number << " " << internalFormat;
        fbo.detachAll();
        manager().releaseTempTextureRef(texture, 1);
    }
}

TEST_F(TexturePoolTest, TextureIsFreeWhenItsLastReferenceIsReleased)
{
    Texture *texture = manager().tempTexture(kFrame, 8, 8);
    manager().addTempTextureRef(texture, 2);
    EXPECT_EQ(manager().tempTextureRefs(texture), 3);
    manager().releaseTempTextureRef(texture, 1);
    Texture *other = manager().tempTexture(kFrame, 8, 8);
    EXPECT_NE(other, texture) << "it is in use";
    manager().releaseTempTextureRef(texture, 2);
    EXPECT_EQ(manager().tempTextureRefs(texture), 0);
    EXPECT_EQ(manager().tempTexture(kFrame, 8, 8), texture);
    manager().releaseTempTextureRef(texture, 1);
    manager().releaseTempTextureRef(other, 1);
}

TEST_F(TexturePoolTest, TextureJustReleasedIsTheOneThatComesNext)
{
    Texture *a = manager().tempTexture(kFrame, 8, 8);
    Texture *b = manager().tempTexture(kFrame, 8, 8);
    for (int i = 0; i < 4; ++i) {
        manager().releaseTempTextureRef(a, 1);
        Texture *next = manager().tempTexture(kFrame, 8, 8);
        EXPECT_EQ(next, a);
        std::swap(a, b);
    }
    manager().releaseTempTextureRef(a, 1);
    manager().releaseTempTextureRef(b, 1);
}

TEST_F(TexturePoolTest, OfSeveralFreeTexturesTheOneReleasedLastComesFirst)
{
    constexpr int kCount = 4;
    std::array<Texture *, kCount> textures{};
    for (Texture *&texture : textures)
        texture = manager().tempTexture(kFrame, 9, 8);
    // In no order that has to do with that of their making.
    for (const std::array<int, kCount> order :
         {std::array{2, 0, 3, 1}, std::array{1, 3, 0, 2}, std::array{0, 1, 2, 3}}) {
        for (const int i : order)
            manager().releaseTempTextureRef(textures[std::size_t(i)], 1);
        for (auto at = order.rbegin(); at != order.rend(); ++at)
            EXPECT_EQ(manager().tempTexture(kFrame, 9, 8), textures[std::size_t(*at)]);
    }
    for (Texture *texture : textures)
        manager().releaseTempTextureRef(texture, 1);
}

TEST_F(TexturePoolTest, OnlyTheSameFormatAndSizeAreReused)
{
    Texture *texture = manager().tempTexture(TextureFormat::Frame, 8, 4);
    manager().releaseTempTextureRef(texture, 1);
    for (Texture *other :
         {manager().tempTexture(TextureFormat::Result, 8, 4), manager().tempTexture(TextureFormat::Frame, 4, 8),
          manager().tempTexture(TextureFormat::Frame, 8, 5)}) {
        EXPECT_NE(other, texture);
        manager().releaseTempTextureRef(other, 1);
    }
    EXPECT_EQ(manager().tempTexture(TextureFormat::Frame, 8, 4), texture);
    manager().releaseTempTextureRef(texture, 1);
}

TEST_F(TexturePoolTest, TextureOfAnOutputWithoutUsersIsFreedInTheSameStartAndStaysReadable)
{
    // what a pass does at the end of its start with no users on the output
    Texture *texture = manager().tempTexture(kFrame, 2, 2);
    FramebufferObject fbo;
    {
        const AutoBinder guard(&fbo);
        fbo.attach(texture, GL_COLOR_ATTACHMENT0, 0);
        glClearColor(0.25f, 0.5f, 0.75f, 1);
        glClear(GL_COLOR_BUFFER_BIT);
        manager().addTempTextureRef(texture, 0);
        EXPECT_EQ(manager().tempTextureRefs(texture), 1);
        fbo.detach(GL_COLOR_ATTACHMENT0);
    }
    manager().releaseTempTextureRef(texture, 1);
    EXPECT_EQ(manager().tempTextureRefs(texture), 0);
    EXPECT_EQ(manager().statistics().free, 1);
    EXPECT_TRUE(isPixel(readTexture<float>(texture), 1, 1, {0.25, 0.5, 0.75, 1}, 1e-3));
    EXPECT_EQ(manager().tempTexture(kFrame, 2, 2), texture);
    manager().releaseTempTextureRef(texture, 1);
}

TEST_F(TexturePoolTest, ReleasingWhatThePoolDoesNotOwnDoesNothing)
{
    const auto owned = makeSolidTexture(1, 1, {1, 1, 1, 1});
    Texture *solid = manager().solidTexture(QColor(10, 20, 30));
    manager().setDebug(true);
    MessageCapture messages;
    for (Texture *texture : {owned.get(), solid, static_cast<Texture *>(nullptr)}) {
        manager().addTempTextureRef(texture, 2);
        manager().releaseTempTextureRef(texture, 1);
        manager().releaseTempTextureRef(texture, 5);
        EXPECT_EQ(manager().tempTextureRefs(texture), -1);
    }
    manager().setDebug(false);
    EXPECT_TRUE(messages.all().isEmpty());
    EXPECT_TRUE(glIsTexture(owned->textureID()));
    EXPECT_EQ(manager().solidTexture(QColor(10, 20, 30)), solid);
    EXPECT_EQ(manager().statistics().textures, 0);
}

TEST_F(TexturePoolTest, FilterAndWrapAreDefaultWhateverTheLastUserSet)
{
    for (const auto &[format, filter] :
         {std::pair{TextureFormat::Frame, GL_LINEAR}, std::pair{TextureFormat::DepthStencil, GL_NEAREST},
          std::pair{TextureFormat::Index32, GL_NEAREST}}) {
        Texture *texture = nullptr;
        for (int round = 0; round < 2; ++round) {
            Texture *next = manager().tempTexture(format, 4, 4);
            EXPECT_TRUE(round == 0 || next == texture);
            texture = next;
            EXPECT_EQ(parameter(texture, GL_TEXTURE_MIN_FILTER), filter);
            EXPECT_EQ(parameter(texture, GL_TEXTURE_MAG_FILTER), filter);
            EXPECT_EQ(parameter(texture, GL_TEXTURE_WRAP_S), GL_CLAMP_TO_EDGE);
            EXPECT_EQ(parameter(texture, GL_TEXTURE_WRAP_T), GL_CLAMP_TO_EDGE);
            EXPECT_EQ(parameter(texture, GL_TEXTURE_COMPARE_MODE), GL_NONE);
            const AutoBinder guard(texture);
            glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_NEAREST_MIPMAP_NEAREST);
            glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, filter == GL_LINEAR ? GL_NEAREST : GL_LINEAR);
            glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_REPEAT);
            glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_MIRRORED_REPEAT);
            manager().releaseTempTextureRef(texture, 1);
        }
    }
}

TEST_F(TexturePoolTest, SizeZeroIsATextureToo)
{
    Texture *texture = manager().tempTexture(kFrame, 0, 0);
    ASSERT_NE(texture, nullptr);
    EXPECT_NE(texture->textureID(), 0u);
    manager().releaseTempTextureRef(texture, 1);
    Texture *flat = manager().tempTexture(kFrame, 16, 0);
    EXPECT_NE(flat, nullptr);
    manager().releaseTempTextureRef(flat, 1);
    EXPECT_EQ(manager().statistics().bytes, 0);
}

TEST_F(TexturePoolTest, ReusedTextureCostsNoAllocation)
{
    const auto frame = [] {
        Texture *a = manager().tempTexture(kFrame, 16, 16);
        Texture *b = manager().tempTexture(TextureFormat::DepthStencil, 16, 16);
        manager().releaseTempTextureRef(a, 1);
        manager().releaseTempTextureRef(b, 1);
    };
    frame();
    GlCalls calls;
    frame();
    EXPECT_EQ(calls.created(), 0);
    EXPECT_EQ(calls.textureAllocations(), 0);
}

TEST_F(TexturePoolTest, StatisticsCountTexturesBytesHitsAndMisses)
{
    Texture *a = manager().tempTexture(TextureFormat::Frame, 10, 10);
    Texture *b = manager().tempTexture(TextureFormat::Position, 10, 10);
    TexturePoolStatistics now = manager().statistics();
    EXPECT_EQ(now.textures, 2);
    EXPECT_EQ(now.inUse, 2);
    EXPECT_EQ(now.free, 0);
    EXPECT_EQ(now.bytes, 100 * 8 + 100 * 16);
    EXPECT_EQ(now.misses - before.misses, 2);
    EXPECT_EQ(now.hits - before.hits, 0);
    EXPECT_GE(now.peakBytes, now.bytes);
    manager().releaseTempTextureRef(a, 1);
    EXPECT_EQ(manager().tempTexture(TextureFormat::Frame, 10, 10), a);
    manager().releaseTempTextureRef(b, 1);
    now = manager().statistics();
    EXPECT_EQ(now.hits - before.hits, 1);
    EXPECT_EQ(now.misses - before.misses, 2);
    EXPECT_EQ(now.inUse, 1);
    EXPECT_EQ(now.free, 1);
    manager().releaseTempTextureRef(a, 1);
}

TEST_F(TexturePoolTest, StatisticsCountWhatHasReferencesAndTheMostThatHad)
{
    const qint64 inUse = manager().statistics().bytesInUse;
    const qint64 peak = manager().statistics().peakBytesInUse;
    // larger than what other tests held at one time
    constexpr qint64 kBytes = qint64(1024) * 1024 * 16;
    Texture *a = manager().tempTexture(TextureFormat::Position, 1024, 1024);
    EXPECT_EQ(manager().statistics().bytesInUse, inUse + kBytes);
    Texture *b = manager().tempTexture(TextureFormat::Frame, 10, 10);
    manager().addTempTextureRef(a, 2);
    manager().addTempTextureRef(a, 0);
    EXPECT_EQ(manager().statistics().bytesInUse, inUse + kBytes + 800) << "references of one texture count once";
    manager().releaseTempTextureRef(b, 1);
    manager().releaseTempTextureRef(b, 1); // one too many
    manager().releaseTempTextureRef(a, 2);
    EXPECT_EQ(manager().statistics().bytesInUse, inUse + kBytes);
    manager().releaseTempTextureRef(a, 5);
    EXPECT_EQ(manager().statistics().bytesInUse, inUse);
    EXPECT_EQ(manager().tempTexture(TextureFormat::Frame, 10, 10), b);
    EXPECT_EQ(manager().statistics().bytesInUse, inUse + 800);
    // An output that its users come to after it was free counts again.
    manager().releaseTempTextureRef(b, 1);
    manager().addTempTextureRef(b, 1);
    EXPECT_EQ(manager().statistics().bytesInUse, inUse + 800);
    manager().releaseTempTextureRef(b, 1);
    EXPECT_EQ(manager().statistics().bytesInUse, inUse);
    EXPECT_EQ(manager().statistics().peakBytesInUse, std::max(peak, inUse + kBytes + 800));
    manager().trim(0, 0);
}

TEST_F(TexturePoolTest, HighWaterMarkOutlivesTheTextures)
{
    Texture *large = manager().tempTexture(TextureFormat::Position, 512, 512);
    manager().releaseTempTextureRef(large, 1);
    const qint64 peak = manager().statistics().peakBytes;
    EXPECT_GE(peak, 512 * 512 * 16);
    EXPECT_EQ(manager().trim(0, 0), 1);
    EXPECT_EQ(manager().statistics().bytes, 0);
    EXPECT_EQ(manager().statistics().peakBytes, peak);
}

TEST_F(TexturePoolTest, TrimFreesWhatNobodyTookForTooManyFrames)
{
    Texture *old = manager().tempTexture(kFrame, 4, 4);
    manager().releaseTempTextureRef(old, 1);
    for (int frame = 0; frame < 3; ++frame) {
        manager().advanceFrame();
        Texture *busy = manager().tempTexture(kFrame, 8, 8);
        manager().releaseTempTextureRef(busy, 1);
        EXPECT_EQ(manager().trim(3), 0) << frame;
    }
    EXPECT_EQ(manager().statistics().textures, 2);
    manager().advanceFrame();
    GlCalls calls;
    EXPECT_EQ(manager().trim(3), 1);
    EXPECT_EQ(calls.count("glDeleteTextures"), 1);
    EXPECT_EQ(manager().statistics().textures, 1);
    EXPECT_EQ(manager().statistics().bytes, 8 * 8 * 8);
}

TEST_F(TexturePoolTest, TakingATextureMakesItYoungAgain)
{
    Texture *texture = manager().tempTexture(kFrame, 4, 4);
    manager().releaseTempTextureRef(texture, 1);
    for (int frame = 0; frame < 5; ++frame) {
        manager().advanceFrame();
        manager().releaseTempTextureRef(manager().tempTexture(kFrame, 4, 4), 1);
    }
    EXPECT_EQ(manager().trim(2), 0);
}

TEST_F(TexturePoolTest, TrimToABudgetFreesTheLongestIdleFirst)
{
    std::vector<Texture *> textures;
    textures.reserve(4);
    for (int i = 0; i < 4; ++i)
        textures.push_back(manager().tempTexture(kFrame, 10, 10 + i));
    const int order[] = {2, 0, 3, 1};
    for (const int i : order)
        manager().releaseTempTextureRef(textures[size_t(i)], 1);
    // 800 + 880 + 960 + 1040 bytes; the oldest two, 2 and 0, have to go
    EXPECT_EQ(manager().trim(1000, 2000), 2);
    EXPECT_EQ(manager().statistics().textures, 2);
    EXPECT_EQ(manager().statistics().bytes, 880 + 1040);
    const qint64 misses = manager().statistics().misses;
    EXPECT_EQ(manager().tempTexture(kFrame, 10, 13), textures[3]);
    EXPECT_EQ(manager().tempTexture(kFrame, 10, 11), textures[1]);
    EXPECT_EQ(manager().statistics().misses, misses);
    manager().releaseTempTextureRef(textures[3], 1);
    manager().releaseTempTextureRef(textures[1], 1);
    EXPECT_EQ(manager().trim(1000, -1), 0) << "a negative budget is none";
}

TEST_F(TexturePoolTest, TrimNeverFreesATextureWithReferences)
{
    Texture *used = manager().tempTexture(kFrame, 64, 64);
    Texture *idle = manager().tempTexture(kFrame, 32, 32);
    manager().releaseTempTextureRef(idle, 1);
    for (int frame = 0; frame < 10; ++frame)
        manager().advanceFrame();
    EXPECT_EQ(manager().trim(0, 0), 1);
    EXPECT_EQ(manager().statistics().inUse, 1);
    EXPECT_TRUE(glIsTexture(used->textureID()));
    EXPECT_EQ(manager().tempTextureRefs(used), 1);
    manager().releaseTempTextureRef(used, 1);
}

TEST_F(TexturePoolTest, DoubleReleaseIsReportedWithTheTexturesLabelWhenDebugging)
{
    Texture *texture = manager().tempTexture(kFrame, 4, 4);
    manager().releaseTempTextureRef(texture, 1);
    MessageCapture messages;
    manager().releaseTempTextureRef(texture, 1);
    EXPECT_TRUE(messages.all().isEmpty()) << "silent without debugging";
    manager().setDebug(true);
    manager().releaseTempTextureRef(texture, 1);
    manager().setDebug(false);
    ASSERT_EQ(messages.all().size(), 1);
    EXPECT_FALSE(texture->label().isEmpty());
    EXPECT_TRUE(messages.texts().first().contains(texture->label())) << qPrintable(messages.texts().first());
    EXPECT_EQ(manager().tempTextureRefs(texture), 0) << "the count does not go below zero";
}

TEST_F(TexturePoolTest, LeakedReferencesAreListedWithLabelAndCount)
{
    Texture *texture = manager().tempTexture(kFrame, 4, 6);
    manager().addTempTextureRef(texture, 2);
    Texture *fine = manager().tempTexture(kFrame, 5, 5);
    manager().releaseTempTextureRef(fine, 1);
    const QStringList leaked = manager().leakedReferences();
    ASSERT_EQ(leaked.size(), 1);
    EXPECT_TRUE(leaked.first().contains(texture->label())) << qPrintable(leaked.first());
    EXPECT_TRUE(leaked.first().contains(QStringLiteral("4x6"))) << qPrintable(leaked.first());
    EXPECT_TRUE(leaked.first().contains(QStringLiteral("3 "))) << qPrintable(leaked.first());
    texture->setLabel(QStringLiteral("half %2 %1"));
    EXPECT_EQ(manager().leakedReferences(), QStringList(QStringLiteral("half %2 %1: 3 references")));
    manager().releaseTempTextureRef(texture, 3);
    EXPECT_TRUE(manager().leakedReferences().isEmpty());
}

TEST_F(TexturePoolTest, WithoutAContextThereIsNoTexture)
{
    GLContext::doneCurrent();
    EXPECT_EQ(manager().tempTexture(kFrame, 4, 4), nullptr);
    EXPECT_EQ(manager().solidTexture(Qt::red), nullptr);
    EXPECT_EQ(manager().trim(0), 0);
    EXPECT_EQ(manager().statistics().textures, 0);
}

// ------------------------------------------------------------------------------------- solid and files

class CachedTextureTest : public GLTest
{
protected:
    void SetUp() override
    {
        GLTest::SetUp();
        ASSERT_TRUE(directory.isValid());
    }

    QString save(const char *name, const QImage &image) const
    {
        QString path = directory.filePath(QLatin1String(name));
        EXPECT_TRUE(image.save(path));
        return path;
    }

    QTemporaryDir directory;
};

TEST_F(CachedTextureTest, SolidTextureIsOneTexelOfTheColour)
{
    Texture *texture = manager().solidTexture(QColor(255, 128, 0, 64));
    ASSERT_NE(texture, nullptr);
    const auto image = readTexture<quint8>(texture);
    ASSERT_EQ(image.width, 1);
    ASSERT_EQ(image.height, 1);
    EXPECT_TRUE(isPixel(image, 0, 0, {255, 128, 0, 64}, 0));
    EXPECT_TRUE(texture->isReadOnly());
    EXPECT_TRUE(isPixel(readTexture<quint8>(manager().solidTexture(QColor(Qt::transparent))), 0, 0, {0, 0, 0, 0}, 0));
}

TEST_F(CachedTextureTest, SolidTextureIsMadeOncePerColour)
{
    Texture *red = manager().solidTexture(Qt::red);
    Texture *blue = manager().solidTexture(Qt::blue);
    EXPECT_NE(red, blue);
    GlCalls calls;
    EXPECT_EQ(manager().solidTexture(Qt::red), red);
    EXPECT_EQ(manager().solidTexture(QColor(255, 0, 0)), red);
    EXPECT_EQ(calls.created(), 0);
    EXPECT_NE(manager().solidTexture(QColor(255, 0, 0, 0)), red) << "alpha is part of the colour";
}

TEST_F(CachedTextureTest, FileArrivesBottomRowFirst)
{
    QImage image(3, 2, QImage::Format_RGBA8888);
    image.fill(QColor(10, 20, 30, 40));
    image.setPixelColor(0, 0, Qt::red); // upper left
    image.setPixelColor(2, 1, Qt::green); // lower right
    const QString path = save("rows.png", image);
    Texture *texture = manager().textureFromFile(path);
    ASSERT_NE(texture, nullptr);
    const auto read = readTexture<quint8>(texture);
    ASSERT_EQ(read.width, 3);
    ASSERT_EQ(read.height, 2);
    EXPECT_TRUE(isPixel(read, 0, 1, {255, 0, 0, 255}, 0));
    EXPECT_TRUE(isPixel(read, 2, 0, {0, 255, 0, 255}, 0));
    EXPECT_TRUE(isPixel(read, 1, 1, {10, 20, 30, 40}, 0));
    EXPECT_TRUE(texture->isReadOnly());
    EXPECT_TRUE(texture->label().contains(QStringLiteral("rows.png")));
}

TEST_F(CachedTextureTest, FileIsCachedUnderItsPathAndOptions)
{
    QImage image(4, 4, QImage::Format_RGBA8888);
    image.fill(Qt::white);
    const QString path = save("cached.png", image);
    TextureOptions options;
    Texture *texture = manager().textureFromFile(path, options);
    GlCalls calls;
    EXPECT_EQ(manager().textureFromFile(path, options), texture);
    EXPECT_EQ(calls.created(), 0);
    options.gamma = 2.0f;
    EXPECT_NE(manager().textureFromFile(path, options), texture);
}

TEST_F(CachedTextureTest, PathsThatLookLikeMarkersAreToldApart)
{
    const std::pair<const char *, QColor> files[] = {{"wall0.png", Qt::red},   {"wall1.png", Qt::green},
                                                     {"wall%2.png", Qt::blue}, {"wall%3.png", Qt::yellow},
                                                     {"wall%1.png", Qt::cyan}, {"wall%4.png", Qt::magenta}};
    for (const auto &[file, color] : files) {
        QImage image(1, 1, QImage::Format_RGBA8888);
        image.fill(color);
        save(file, image);
    }
    for (const auto &[file, color] : files) {
        Texture *texture = manager().textureFromFile(directory.filePath(QLatin1String(file)));
        ASSERT_NE(texture, nullptr) << file;
        EXPECT_TRUE(isPixel(readTexture<quint8>(texture), 0, 0,
                            {double(color.red()), double(color.green()), double(color.blue()), 255}, 0))
            << file;
    }
}

TEST_F(CachedTextureTest, UnreadableFileGivesNullAndOneMessage)
{
    const QString missing = directory.filePath(QStringLiteral("missing.png"));
    const QString broken = directory.filePath(QStringLiteral("broken.png"));
    QFile file(broken);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("\x89PNG\r\n\x1a\n this is no image");
    file.close();
    MessageCapture messages;
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(manager().textureFromFile(missing), nullptr);
        EXPECT_EQ(manager().textureFromFile(broken), nullptr);
    }
    EXPECT_EQ(messages.containing(missing), 1);
    EXPECT_EQ(messages.containing(broken), 1);
    EXPECT_EQ(messages.all().size(), 2) << qPrintable(messages.texts().join(u'\n'));
    EXPECT_EQ(manager().textureFromFile(QString()), nullptr);
}

TEST_F(CachedTextureTest, FileThatAppearsLaterIsLoaded)
{
    const QString path = directory.filePath(QStringLiteral("later.png"));
    {
        const MessageCapture messages;
        EXPECT_EQ(manager().textureFromFile(path), nullptr);
    }
    QImage image(1, 1, QImage::Format_RGBA8888);
    image.fill(Qt::blue);
    ASSERT_TRUE(image.save(path));
    Texture *texture = manager().textureFromFile(path);
    ASSERT_NE(texture, nullptr);
    EXPECT_TRUE(isPixel(readTexture<quint8>(texture), 0, 0, {0, 0, 255, 255}, 0));
}

TEST_F(CachedTextureTest, OptionsLimitSizeApplyGammaAndMakeMipmaps)
{
    QImage image(64, 32, QImage::Format_RGBA8888);
    image.fill(QColor(128, 0, 255, 128));
    const QString path = save("options.png", image);
    TextureOptions options;
    options.maxSize = 16;
    Texture *small = manager().textureFromFile(path, options);
    EXPECT_EQ(levelParameter(small, GL_TEXTURE_WIDTH), 16);
    EXPECT_EQ(levelParameter(small, GL_TEXTURE_HEIGHT), 8);
    EXPECT_EQ(parameter(small, GL_TEXTURE_MIN_FILTER), GL_LINEAR);

    options = TextureOptions();
    options.gamma = 2.0f;
    // 255 * (128 / 255)^2 = 64.25; alpha is no colour
    EXPECT_TRUE(isPixel(readTexture<quint8>(manager().textureFromFile(path, options)), 0, 0, {64, 0, 255, 128}, 0));

    options = TextureOptions();
    options.mipmaps = true;
    Texture *mipmapped = manager().textureFromFile(path, options);
    EXPECT_EQ(levelParameter(mipmapped, GL_TEXTURE_WIDTH, 3), 8);
    EXPECT_EQ(parameter(mipmapped, GL_TEXTURE_MIN_FILTER), GL_LINEAR_MIPMAP_LINEAR);
}

TEST_F(CachedTextureTest, HostsPixelStoreStateNeitherDisturbsAnUploadNorIsLost)
{
    QImage image(3, 3, QImage::Format_RGBA8888);
    image.fill(QColor(1, 2, 3, 4));
    const QString path = save("unpack.png", image);
    GLuint host = 0;
    glGenBuffers(1, &host);
    glBindBuffer(GL_PIXEL_UNPACK_BUFFER, host);
    glBufferData(GL_PIXEL_UNPACK_BUFFER, 16, nullptr, GL_STATIC_DRAW);
    glPixelStorei(GL_UNPACK_ROW_LENGTH, 17);
    glPixelStorei(GL_UNPACK_SKIP_PIXELS, 2);
    glPixelStorei(GL_UNPACK_ALIGNMENT, 8);
    Texture *file = manager().textureFromFile(path);
    Texture *solid = manager().solidTexture(QColor(9, 8, 7, 6));
    Texture *pooled = manager().tempTexture(kFrame, 3, 3);
    manager().releaseTempTextureRef(pooled, 1);
    GLint value = 0;
    glGetIntegerv(GL_UNPACK_ROW_LENGTH, &value);
    EXPECT_EQ(value, 17);
    glGetIntegerv(GL_UNPACK_SKIP_PIXELS, &value);
    EXPECT_EQ(value, 2);
    glGetIntegerv(GL_UNPACK_ALIGNMENT, &value);
    EXPECT_EQ(value, 8);
    glGetIntegerv(GL_PIXEL_UNPACK_BUFFER_BINDING, &value);
    EXPECT_EQ(GLuint(value), host);
    glPixelStorei(GL_UNPACK_ROW_LENGTH, 0);
    glPixelStorei(GL_UNPACK_SKIP_PIXELS, 0);
    glBindBuffer(GL_PIXEL_UNPACK_BUFFER, 0);
    glDeleteBuffers(1, &host);
    EXPECT_TRUE(isPixel(readTexture<quint8>(file), 2, 2, {1, 2, 3, 4}, 0));
    EXPECT_TRUE(isPixel(readTexture<quint8>(solid), 0, 0, {9, 8, 7, 6}, 0));
}

} // namespace Brevane::Kvo
