#include "support/gltest.h"

#include <gl/guards.h>
#include <gl/texture.h>
#include <host/imageoutput.h>
#include <shadows/shadowmaprenderdata.h>

#include <QFile>
#include <QTemporaryDir>

#include <epoxy/gl.h>

#include <limits>
#include <memory>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

constexpr int kWidth = 3;
constexpr int kHeight = 2;

class TextureOutput : public GLTest
{
protected:
    void TearDown() override
    {
        texture.reset();
        GLTest::TearDown();
    }
    template <typename T>
    Texture *make(GLenum internalFormat, GLenum format, GLenum type, const QVector<T> &data)
    {
        texture = std::make_unique<Texture>();
        texture->setTarget(GL_TEXTURE_2D);
        const AutoBinder binder(texture.get());
        glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
        glPixelStorei(GL_UNPACK_ALIGNMENT, 1);
        glTexImage2D(GL_TEXTURE_2D, 0, GLint(internalFormat), kWidth, kHeight, 0, format, type, data.constData());
        glPixelStorei(GL_UNPACK_ALIGNMENT, 4);
        return texture.get();
    }
    TexturePixels read()
    {
        TexturePixels pixels;
        QString error;
        EXPECT_TRUE(readTexture(texture.get(), &pixels, &error)) << qPrintable(error);
        EXPECT_EQ(pixels.width, kWidth);
        EXPECT_EQ(pixels.height, kHeight);
        return pixels;
    }

    std::unique_ptr<Texture> texture;
};

} // namespace

TEST_F(TextureOutput, ReadsFloatsAsTheyAre)
{
    const QVector<float> values{-1, 2, 3e10f, 4, 5, 6.5f, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18};
    make(GL_RGB32F, GL_RGB, GL_FLOAT, values);
    const TexturePixels pixels = read();
    EXPECT_EQ(pixels.kind, TexturePixels::Kind::Color);
    EXPECT_FALSE(pixels.normalized);
    EXPECT_EQ(pixels.channels, 3);
    EXPECT_EQ(pixels.values, values) << "bottom row first";
}

TEST_F(TextureOutput, ReadsFixedPointFromZeroToOne)
{
    make(GL_RGBA8, GL_RGBA, GL_UNSIGNED_BYTE, QVector<quint8>(kWidth * kHeight * 4, 51));
    const TexturePixels pixels = read();
    EXPECT_TRUE(pixels.normalized);
    ASSERT_EQ(pixels.values.size(), kWidth * kHeight * 4);
    EXPECT_FLOAT_EQ(pixels.values[5], 0.2f);
}

TEST_F(TextureOutput, ReadsDepthIntegersAndOneChannel)
{
    make(GL_DEPTH_COMPONENT32F, GL_DEPTH_COMPONENT, GL_FLOAT, QVector<float>{0, 0.25f, 0.5f, 0.75f, 1, 1});
    TexturePixels pixels = read();
    EXPECT_EQ(pixels.kind, TexturePixels::Kind::Depth);
    EXPECT_EQ(pixels.values.value(3), 0.75f);

    make(GL_R32UI, GL_RED_INTEGER, GL_UNSIGNED_INT, QVector<quint32>{0, 1, 2, 3, 4, 4000000000u});
    pixels = read();
    EXPECT_EQ(pixels.kind, TexturePixels::Kind::Integer);
    EXPECT_EQ(pixels.integers, (QVector<quint32>{0, 1, 2, 3, 4, 4000000000u}));

    make(GL_R32F, GL_RED, GL_FLOAT, QVector<float>{0, 1, 2, 3, 4, 5});
    pixels = read();
    EXPECT_EQ(pixels.channels, 1);
    EXPECT_EQ(pixels.values.value(5), 5.0f);
}

TEST_F(TextureOutput, ReadsDepthOfADepthStencilTexture)
{
    // 24 bits of depth above 8 of stencil.
    make(GL_DEPTH24_STENCIL8, GL_DEPTH_STENCIL, GL_UNSIGNED_INT_24_8,
         QVector<quint32>(kWidth * kHeight, 0x80000000u | 7u));
    const TexturePixels pixels = read();
    EXPECT_EQ(pixels.kind, TexturePixels::Kind::Depth);
    EXPECT_NEAR(pixels.values.value(0), 0.5f, 1e-6f);
}

// As drivers read them in ways of their own.
TEST_F(TextureOutput, RefusesStencilsWithoutAnErrorOfGL)
{
    KVO_REQUIRE_EXTENSION("GL_ARB_texture_stencil8");
    TexturePixels pixels;
    QString error;
    Texture *stencil = make<quint8>(GL_STENCIL_INDEX8, GL_STENCIL_INDEX, GL_UNSIGNED_BYTE, {0, 1, 2, 127, 254, 255});
    EXPECT_FALSE(readTexture(stencil, &pixels, &error));
    EXPECT_TRUE(error.contains(QStringLiteral("stencils alone"))) << qPrintable(error);
    EXPECT_EQ(glGetError(), GLenum(GL_NO_ERROR));
}

TEST_F(TextureOutput, StacksTheLayersOfAnArray)
{
    texture = std::make_unique<Texture>();
    texture->setTarget(GL_TEXTURE_2D_ARRAY);
    {
        const AutoBinder binder(texture.get());
        glTexParameteri(GL_TEXTURE_2D_ARRAY, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
        const float values[4] = {1, 2, 3, 4};
        glTexImage3D(GL_TEXTURE_2D_ARRAY, 0, GL_R32F, 2, 1, 2, 0, GL_RED, GL_FLOAT, values);
    }
    TexturePixels pixels;
    ASSERT_TRUE(readTexture(texture.get(), &pixels));
    EXPECT_EQ(pixels.width, 2);
    EXPECT_EQ(pixels.height, 2);
    EXPECT_EQ(pixels.layers, 2);
    EXPECT_EQ(pixels.values, (QVector<float>{1, 2, 3, 4}));
}

TEST_F(TextureOutput, ShadowMapsAreReadFromTheirRecord)
{
    texture = std::make_unique<Texture>();
    texture->setTarget(GL_TEXTURE_2D_ARRAY);
    {
        const AutoBinder binder(texture.get());
        const float values[4] = {0.5f, 0.25f, 1e9f, 1e9f};
        glTexImage3D(GL_TEXTURE_2D_ARRAY, 0, GL_RG32F, 1, 1, 2, 0, GL_RG, GL_FLOAT, values);
    }
    ShadowMapRenderData record;
    TexturePixels pixels;
    QString error;
    EXPECT_FALSE(readShadowMaps(nullptr, &pixels, &error));
    EXPECT_FALSE(readShadowMaps(&record, &pixels, &error));
    EXPECT_EQ(error, QStringLiteral("there are no shadow maps"));
    record.layerCount = 2;
    EXPECT_FALSE(readShadowMaps(&record, &pixels, &error)) << "no texture";
    record.setProjectionTexture(texture.get());
    ASSERT_TRUE(readShadowMaps(&record, &pixels, &error)) << qPrintable(error);
    EXPECT_EQ(pixels.kind, TexturePixels::Kind::Moments);
    EXPECT_EQ(pixels.values, (QVector<float>{0.5f, 0.25f, 1e9f, 1e9f}));
}

TEST_F(TextureOutput, StacksTheFacesOfACubeMap)
{
    texture = std::make_unique<Texture>();
    texture->setTarget(GL_TEXTURE_CUBE_MAP);
    {
        const AutoBinder binder(texture.get());
        for (int face = 0; face < 6; ++face) {
            const float value = float(face);
            glTexImage2D(GL_TEXTURE_CUBE_MAP_POSITIVE_X + face, 0, GL_R32F, 1, 1, 0, GL_RED, GL_FLOAT, &value);
        }
    }
    TexturePixels pixels;
    ASSERT_TRUE(readTexture(texture.get(), &pixels));
    EXPECT_EQ(pixels.values, (QVector<float>{0, 1, 2, 3, 4, 5}));
    EXPECT_EQ(pixels.layers, 6);
}

TEST_F(TextureOutput, LeavesThePackStateOfTheHost)
{
    make(GL_R32F, GL_RED, GL_FLOAT, QVector<float>(kWidth * kHeight, 1.0f));
    GLuint buffer = 0;
    glGenBuffers(1, &buffer);
    glBindBuffer(GL_PIXEL_PACK_BUFFER, buffer);
    glPixelStorei(GL_PACK_ALIGNMENT, 8);
    glPixelStorei(GL_PACK_ROW_LENGTH, 100);
    EXPECT_EQ(read().values, QVector<float>(kWidth * kHeight, 1.0f));
    GLint bound = 0, alignment = 0, length = 0;
    glGetIntegerv(GL_PIXEL_PACK_BUFFER_BINDING, &bound);
    glGetIntegerv(GL_PACK_ALIGNMENT, &alignment);
    glGetIntegerv(GL_PACK_ROW_LENGTH, &length);
    EXPECT_EQ(GLuint(bound), buffer);
    EXPECT_EQ(alignment, 8);
    EXPECT_EQ(length, 100);
    glPixelStorei(GL_PACK_ALIGNMENT, 4);
    glPixelStorei(GL_PACK_ROW_LENGTH, 0);
    glBindBuffer(GL_PIXEL_PACK_BUFFER, 0);
    glDeleteBuffers(1, &buffer);
}

TEST_F(TextureOutput, NamesTexturesWithoutAPicture)
{
    TexturePixels pixels;
    QString error;
    EXPECT_FALSE(readTexture(nullptr, &pixels, &error));
    EXPECT_EQ(error, QStringLiteral("there is no texture"));
    Texture untouched;
    EXPECT_FALSE(readTexture(&untouched, &pixels, &error));
    Texture empty;
    empty.setTarget(GL_TEXTURE_2D);
    EXPECT_FALSE(readTexture(&empty, &pixels, &error));
    EXPECT_EQ(error, QStringLiteral("the texture is empty (0x0)"));
    Texture buffer;
    buffer.setTarget(GL_TEXTURE_BUFFER);
    EXPECT_FALSE(readTexture(&buffer, &pixels, &error));
    EXPECT_EQ(error, QStringLiteral("a texture of target 0x8c2a has no picture"));
}

TEST_F(TextureOutput, LevelsThatAreNotThereAreToldWithoutAnErrorOfGL)
{
    Texture *one = make<quint8>(GL_RGBA8, GL_RGBA, GL_UNSIGNED_BYTE, QVector<quint8>(kWidth * kHeight * 4, 7));
    TexturePixels pixels;
    for (const int level : {-1, 1, 12, 20, 30, 31, 32, 1000, std::numeric_limits<int>::max()}) {
        QString error;
        EXPECT_FALSE(readTexture(one, &pixels, &error, level)) << level;
        EXPECT_FALSE(error.isEmpty()) << level;
        EXPECT_EQ(glGetError(), GLenum(GL_NO_ERROR)) << level;
    }
    EXPECT_TRUE(readTexture(one, &pixels));
}

TEST_F(TextureOutput, WritesPngAndExrByTheEndingOfTheName)
{
    const QTemporaryDir folder;
    QVector<float> values(kWidth * kHeight * 4, 0.0f);
    for (int i = 0; i < kWidth * kHeight; ++i)
        values[i * 4 + 3] = 1.0f;
    values[0] = 1.0f; // The bottom left texel is red.
    make(GL_RGBA32F, GL_RGBA, GL_FLOAT, values);
    QString error;
    const QString png = folder.filePath(QStringLiteral("t.png"));
    ASSERT_TRUE(writeTexture(texture.get(), png, &error)) << qPrintable(error);
    const QImage image(png);
    EXPECT_EQ(image.pixel(0, kHeight - 1), qRgb(255, 0, 0));
    EXPECT_EQ(image.pixel(0, 0), qRgb(0, 0, 0));

    const QString exr = folder.filePath(QStringLiteral("t.EXR"));
    ASSERT_TRUE(writeTexture(texture.get(), exr, &error)) << qPrintable(error);
    QFile file(exr);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_EQ(file.read(4), QByteArray("\x76\x2f\x31\x01", 4));

    EXPECT_FALSE(writeTexture(texture.get(), folder.filePath(QStringLiteral("t.doc")), &error));
    EXPECT_TRUE(error.endsWith(QStringLiteral(" or .exr"))) << qPrintable(error);
}
