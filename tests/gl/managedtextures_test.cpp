// Managed textures have to read like a repeating, mip-mapped, trilinear texture of their own. Each
// comparison draws both from one program, so that both get the same coordinates and derivatives.

#include "support/draw.h"
#include "support/gltest.h"
#include "support/messages.h"
#include "support/texturememory.h"

#include <gl/glinfo.h>
#include <gl/guards.h>
#include <gl/opengldevicecontext.h>
#include <gl/texturemanager.h>

#include <QColor>
#include <QImage>
#include <QVector2D>
#include <QVector4D>

#include <epoxy/gl.h>

#include <algorithm>
#include <cmath>
#include <iterator>
#include <numeric>
#include <random>
#include <utility>

namespace Brevane::Kvo {

using namespace Test;
using namespace Qt::StringLiterals;

namespace {

TextureManager &manager()
{
    return TextureManager::Instance();
}

/// Noise: neighbouring texels differ as much as they can, so that a wrong texel or weight shows.
QImage noise(int width, int height, unsigned int seed = 1)
{
    std::mt19937 random(seed);
    QImage image(width, height, QImage::Format_RGBA8888);
    for (int y = 0; y < height; ++y) {
        uchar *line = image.scanLine(y);
        for (int x = 0; x < width * 4; ++x)
            line[x] = uchar(random() & 0xff);
    }
    return image;
}

QImage solid(int width, int height, const QColor &color)
{
    QImage image(width, height, QImage::Format_RGBA8888);
    image.fill(color);
    return image;
}

/// A plain texture of the same image, set up as managed textures promise to read.
std::unique_ptr<Texture> plainTexture(const QImage &image)
{
    const QImage rows = image.convertToFormat(QImage::Format_RGBA8888).mirrored(false, true);
    auto texture = std::make_unique<Texture>();
    texture->setTarget(GL_TEXTURE_2D);
    const AutoBinder guard(texture.get());
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_REPEAT);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_REPEAT);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR_MIPMAP_LINEAR);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
    glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA8, rows.width(), rows.height(), 0, GL_RGBA, GL_UNSIGNED_BYTE,
                 rows.constBits());
    glGenerateMipmap(GL_TEXTURE_2D);
    return texture;
}

const QString kCompareFragment = QStringLiteral(R"(#version 150
#include "TextureManager.glslh"
uniform sampler2D u_Plain;
uniform int u_Map;
uniform bool u_Managed;
uniform vec4 u_Transform;
uniform vec2 u_Offset;
in vec2 vo_TexCoord;
out vec4 out_Color;
void main()
{
  vec2 texCoord = mat2(u_Transform.xy, u_Transform.zw) * (vo_TexCoord - 0.5) + u_Offset;
  vec4 plain = texture(u_Plain, texCoord);
  vec4 managed = managedTexture(u_Map, texCoord);
  out_Color = u_Managed ? managed : plain;
}
)");

std::unique_ptr<ShaderProgram> programWithManagedTextures(const QString &fragment)
{
    auto program = std::make_unique<ShaderProgram>();
    program->setFragDataLocations({QStringLiteral("out_Color")});
    program->addShader(GL_VERTEX_SHADER, screenVertexText());
    program->addShader(GL_FRAGMENT_SHADER, fragment);
    program->addShaderFromFile(GL_FRAGMENT_SHADER, QStringLiteral("TextureManager.glslc"));
    EXPECT_TRUE(program->compile() && program->link()) << qPrintable(program->log());
    return program;
}

/// Where the driver tells the level of detail that it would take, only roundings of filter weights are
/// left (llvmpipe weighs RGBA8 texels with 8 bits, within a level and between two): 1.7/255 was the most
/// that was seen on noise. Elsewhere the shader takes GL's own formula, of which llvmpipe is up to 0.09
/// levels off (it takes the logarithm of a mantissa for linear), on neighbouring levels that may differ
/// by half the range.
ImageLimits plainLimits()
{
    if (hasGLExtension("GL_ARB_texture_query_lod"))
        return {.worst = 2.5 / 255, .tolerance = 1.5 / 255, .share = 0.002};
    return {.worst = 12.0 / 255, .tolerance = 6.0 / 255, .share = 0.25};
}

struct View
{
    float scale; ///< Repeats of the texture over the target's width.
    float angle; ///< Radians.
    QVector2D offset{0.37f, -0.81f};
};

} // namespace

class ManagedTexturesTest : public GLTest
{
protected:
    struct Pair
    {
        Image<float> plain;
        Image<float> managed;
    };

    Pair drawBoth(Texture *plain, int handle, const View &view, int width = 96, int height = 80)
    {
        if (!program)
            program = programWithManagedTextures(kCompareFragment);
        Pair result;
        for (const bool managed : {false, true}) {
            Target target(GL_RGBA32F, width, height);
            const AutoBinder bound(plain);
            drawScreen(target, program.get(), [&](ShaderProgram *p) {
                const float c = view.scale * std::cos(view.angle);
                const float s = view.scale * std::sin(view.angle);
                p->setUniform(QStringLiteral("u_Transform"), QVector4D(c, s, -s, c));
                p->setUniform(QStringLiteral("u_Offset"), view.offset);
                p->setUniform(QStringLiteral("u_Plain"), plain->unit());
                p->setUniform(QStringLiteral("u_Map"), handle);
                p->setUniform(QStringLiteral("u_Managed"), managed);
                manager().bindManagedTextures(p);
            });
            program->bind();
            manager().unbindManagedTextures(program.get());
            program->unbind();
            (managed ? result.managed : result.plain) = target.read();
        }
        return result;
    }

    /// Reads the centre of a map, of handles laid out in a row.
    Image<float> drawHandles(const QVector<int> &handles)
    {
        const auto fetch = programWithManagedTextures(QStringLiteral(R"(#version 150
#include "TextureManager.glslh"
uniform sampler2D u_Handles;
out vec4 out_Color;
void main()
{
  int handle = int(texelFetch(u_Handles, ivec2(gl_FragCoord.xy), 0).x);
  out_Color = managedTexture(handle, vec2(0.5));
}
)"));
        const int width = 64;
        const int height = int((handles.size() + width - 1) / width);
        Image<float> numbers(width, height);
        for (qsizetype i = 0; i < handles.size(); ++i)
            numbers.pixels[i][0] = float(handles[i]);
        const auto texture = makeTexture(numbers);
        Target target(GL_RGBA32F, width, height);
        const AutoBinder bound(texture.get());
        drawScreen(target, fetch.get(), [&](ShaderProgram *p) {
            p->setUniform(QStringLiteral("u_Handles"), texture->unit());
            manager().bindManagedTextures(p);
        });
        fetch->bind();
        manager().unbindManagedTextures(fetch.get());
        fetch->unbind();
        return target.read();
    }

    void TearDown() override
    {
        program.reset();
        GLTest::TearDown();
    }

    std::unique_ptr<ShaderProgram> program;
};

TEST_F(ManagedTexturesTest, ReadLikePlainRepeatingTrilinearTextures)
{
    const ImageLimits limits = plainLimits();
    // of the last ones some do not fit a page, in one direction, in both, and at a power of two
    const QSize sizes[] = {{1, 1},   {3, 7},       {257, 63},   {64, 64},    {1, 300},   {32, 32},
                           {33, 31}, {1024, 1024}, {1037, 519}, {1500, 700}, {40, 1039}, {2048, 1024}};
    const View views[] = {
        {0.05f, 0}, {0.31f, 0.4f}, {1, 0}, {1.7f, 1.1f}, {5.3f, 0.2f}, {23, 2.5f}, {0.9f, -0.7f, {-12.3f, 40.9f}}};
    constexpr float kTile = 512;
    for (const QSize &size : sizes) {
        const QImage image = noise(size.width(), size.height());
        const auto plain = plainTexture(image);
        const int handle = manager().addManagedTexture(image);
        ASSERT_GT(handle, 0);
        const QVector2D seam(kTile / float(size.width()), kTile / float(size.height()));
        std::vector<View> all(std::begin(views), std::end(views));
        // Twenty texels where a tile ends, if there are tiles, and where the image does.
        all.push_back({20.0f / float(size.width()), 0, seam});
        all.push_back({20.0f / float(size.width()), 0.3f, {0, 0}});
        for (const View &view : all) {
            const Pair pair = drawBoth(plain.get(), handle, view);
            const QString name = QStringLiteral("%1x%2 scale %3 angle %4")
                                     .arg(size.width())
                                     .arg(size.height())
                                     .arg(double(view.scale))
                                     .arg(double(view.angle));
            EXPECT_TRUE(sameImage(pair.managed, pair.plain, limits, name)) << qPrintable(name);
            EXPECT_FALSE(isSameImage(disturbed(pair.managed, 0.1f), pair.plain, limits)) << "negative control";
        }
        manager().removeManagedTexture(handle);
    }
}

TEST_F(ManagedTexturesTest, ComparisonNoticesAWrongFilter)
{
    // the control of the test above: the same image without its mip levels must not pass
    const ImageLimits limits = plainLimits();
    const QImage image = noise(257, 63);
    const auto plain = plainTexture(image);
    {
        const AutoBinder guard(plain.get());
        glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
    }
    const int handle = manager().addManagedTexture(image);
    const Pair pair = drawBoth(plain.get(), handle, {5.3f, 0.2f});
    EXPECT_FALSE(isSameImage(pair.managed, pair.plain, limits));
    manager().removeManagedTexture(handle);
}

TEST_F(ManagedTexturesTest, RepeatsWithoutASeam)
{
    // a horizontal ramp that wraps: between its last and first column the filter mixes the two
    QImage image(4, 4, QImage::Format_RGBA8888);
    for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 4; ++x)
            image.setPixelColor(x, y, QColor(x == 0 ? 255 : 0, y == 0 ? 255 : 0, 0));
    const auto plain = plainTexture(image);
    const int handle = manager().addManagedTexture(image);
    const Pair pair = drawBoth(plain.get(), handle, {2, 0, {0.5f, 0.5f}}, 256, 256);
    EXPECT_TRUE(sameImage(pair.managed, pair.plain, {.worst = 2.0 / 255, .tolerance = 1.5 / 255, .share = 0.001}));
    manager().removeManagedTexture(handle);
}

TEST_F(ManagedTexturesTest, LargeMapsHaveAPlaceToo)
{
    const ImageLimits limits = plainLimits();
    const QImage image = noise(3000, 5);
    const auto plain = plainTexture(image);
    const int handle = manager().addManagedTexture(image);
    ASSERT_GT(handle, 0);
    for (const View &view : {View{0.02f, 0}, View{1.3f, 0.3f}}) {
        const Pair pair = drawBoth(plain.get(), handle, view);
        EXPECT_TRUE(sameImage(pair.managed, pair.plain, limits));
    }
    manager().removeManagedTexture(handle);
}

// So little less than 0 that its fraction is 1.
TEST_F(ManagedTexturesTest, ACoordinateJustBeforeTheFirstTexelReadsTheFarEdge)
{
    const QImage image = noise(1536, 1024);
    const auto plain = plainTexture(image);
    const int handle = manager().addManagedTexture(image);
    for (const QVector2D &offset : {QVector2D(-1e-9f, 0.4f), QVector2D(0.4f, -1e-9f)}) {
        const Pair pair = drawBoth(plain.get(), handle, {0, 0, offset}, 4, 4);
        EXPECT_TRUE(sameImage(pair.managed, pair.plain, {.worst = 2.5 / 255, .tolerance = 2.5 / 255, .share = 0}));
    }
    manager().removeManagedTexture(handle);
}

TEST_F(ManagedTexturesTest, MissingMapReadsWhite)
{
    EXPECT_EQ(manager().addManagedTexture(QImage()), 0);
    const auto image = drawHandles({0, -1});
    EXPECT_TRUE(isPixel(image, 0, 0, {1, 1, 1, 1}, 0));
    EXPECT_TRUE(isPixel(image, 1, 0, {1, 1, 1, 1}, 0));
}

TEST_F(ManagedTexturesTest, AlphaIsPartOfAMap)
{
    const int handle = manager().addManagedTexture(solid(5, 5, QColor(255, 0, 51, 102)));
    EXPECT_TRUE(isPixel(drawHandles({handle}), 0, 0, {1, 0, 0.2, 0.4}, 1e-6));
    manager().removeManagedTexture(handle);
}

TEST_F(ManagedTexturesTest, ThreeThousandMapsKeepTheirColoursWithinAFewUnits)
{
    const int before = manager().managedTextureCount();
    QVector<int> handles;
    QVector<QColor> colors;
    for (int i = 0; i < 3000; ++i) {
        colors.append(QColor(i & 0xff, (i >> 8) * 20, (i * 7) & 0xff, 255 - (i % 50)));
        handles.append(manager().addManagedTexture(solid(8 + i % 5, 8 + i % 3, colors.last())));
        ASSERT_GT(handles.last(), 0) << i;
    }
    EXPECT_EQ(manager().managedTextureCount(), before + 3000);
    EXPECT_EQ(QSet<int>(handles.begin(), handles.end()).size(), 3000);
    const auto image = drawHandles(handles);
    int wrong = 0;
    for (int i = 0; i < 3000; ++i) {
        const QColor &c = colors[i];
        wrong += !isPixel(image, i % 64, i / 64, {c.redF(), c.greenF(), c.blueF(), c.alphaF()}, 0.5 / 255);
    }
    EXPECT_EQ(wrong, 0);

    const auto fetch = programWithManagedTextures(kCompareFragment);
    const AutoBinder bound(fetch.get());
    GlCalls calls;
    manager().bindManagedTextures(fetch.get());
    EXPECT_LE(calls.count("glBindTexture"), 8) << "the baseline has 16 units, most of which are the shader's";
    EXPECT_EQ(calls.transfers(), 0);
    manager().unbindManagedTextures(fetch.get());
    for (const int handle : handles)
        manager().removeManagedTexture(handle);
    EXPECT_EQ(manager().managedTextureCount(), before);
}

TEST_F(ManagedTexturesTest, RoomOfARemovedMapIsUsedAgain)
{
    QVector<int> kept;
    for (int i = 0; i < 10; ++i)
        kept.append(manager().addManagedTexture(solid(64, 64, QColor(i, 0, 0))));
    const auto replace = [&](int round) {
        for (int i = 0; i < 10; ++i) {
            manager().removeManagedTexture(kept[i]);
            kept[i] = manager().addManagedTexture(solid(64, 64, QColor(i, round & 0xff, 99)));
        }
    };
    replace(0);
    const QSet<int> first(kept.begin(), kept.end());
    {
        GlCalls calls;
        for (int round = 1; round <= 60; ++round)
            replace(round);
        EXPECT_EQ(calls.count("glTexImage3D"), 0) << "pages do not grow";
    }
    EXPECT_EQ(QSet<int>(kept.begin(), kept.end()), first) << "handles come again";
    const auto image = drawHandles(kept);
    for (int i = 0; i < 10; ++i)
        EXPECT_TRUE(isPixel(image, i, 0, {i / 255.0, 60 / 255.0, 99 / 255.0, 1}, 0.5 / 255)) << i;
    for (const int handle : kept)
        manager().removeManagedTexture(handle);
}

TEST_F(ManagedTexturesTest, RemovingOneMapLeavesTheOthers)
{
    QVector<int> handles;
    for (int i = 0; i < 6; ++i)
        handles.append(manager().addManagedTexture(solid(9, 13, QColor(i * 40, 255, 0))));
    manager().removeManagedTexture(handles.takeAt(2));
    manager().removeManagedTexture(handles.takeAt(3));
    manager().removeManagedTexture(99999);
    manager().removeManagedTexture(0);
    manager().removeManagedTexture(-4);
    const auto image = drawHandles(handles);
    const int reds[] = {0, 40, 120, 200};
    for (int i = 0; i < 4; ++i)
        EXPECT_TRUE(isPixel(image, i, 0, {reds[i] / 255.0, 1, 0, 1}, 0.5 / 255)) << i;
    for (const int handle : handles)
        manager().removeManagedTexture(handle);
}

TEST_F(ManagedTexturesTest, PagesThatGrowKeepWhatWasThere)
{
    QVector<int> handles;
    for (int i = 0; i < 12; ++i)
        handles.append(manager().addManagedTexture(solid(1000, 1000, QColor(20 * i, 255 - 20 * i, 7))));
    const auto image = drawHandles(handles);
    for (int i = 0; i < 12; ++i)
        EXPECT_TRUE(isPixel(image, i, 0, {20 * i / 255.0, (255 - 20 * i) / 255.0, 7 / 255.0, 1}, 0.5 / 255)) << i;
    for (const int handle : handles)
        manager().removeManagedTexture(handle);
}

TEST_F(ManagedTexturesTest, BindingRestoresUnitsAndCostsNothingForOtherPrograms)
{
    const int handle = manager().addManagedTexture(noise(8, 8));
    const auto reader = programWithManagedTextures(kCompareFragment);
    const auto other =
        makeProgram(QStringLiteral("#version 150\nout vec4 out_Color;\nvoid main() { out_Color = vec4(1.0); }\n"));
    GLuint host = 0;
    glGenTextures(1, &host);
    glActiveTexture(GL_TEXTURE0);
    glBindTexture(GL_TEXTURE_2D_ARRAY, host);
    glActiveTexture(GL_TEXTURE3);
    {
        const AutoBinder bound(other.get());
        GlCalls calls;
        manager().bindManagedTextures(other.get());
        manager().unbindManagedTextures(other.get());
        manager().bindManagedTextures(nullptr);
        manager().unbindManagedTextures(nullptr);
        EXPECT_EQ(calls.all().size(), 0u) << qPrintable(calls.toString());
    }
    {
        const AutoBinder bound(reader.get());
        manager().bindManagedTextures(reader.get());
        manager().unbindManagedTextures(reader.get());
    }
    GLint active = 0;
    glGetIntegerv(GL_ACTIVE_TEXTURE, &active);
    EXPECT_EQ(active, GL_TEXTURE3);
    glActiveTexture(GL_TEXTURE0);
    GLint name = 0;
    glGetIntegerv(GL_TEXTURE_BINDING_2D_ARRAY, &name);
    EXPECT_EQ(GLuint(name), host);
    glDeleteTextures(1, &host);
    manager().removeManagedTexture(handle);
}

TEST_F(ManagedTexturesTest, AddingAMapLeavesTheHostsBindingsAndPixelStore)
{
    GLuint framebuffer = 0;
    glGenFramebuffers(1, &framebuffer);
    glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
    GLuint texture = 0;
    glGenTextures(1, &texture);
    glActiveTexture(GL_TEXTURE2);
    glBindTexture(GL_TEXTURE_2D, texture);
    glPixelStorei(GL_UNPACK_ROW_LENGTH, 21);
    const int handle = manager().addManagedTexture(solid(6, 6, Qt::green));
    GLint value = 0;
    glGetIntegerv(GL_UNPACK_ROW_LENGTH, &value);
    EXPECT_EQ(value, 21);
    glGetIntegerv(GL_FRAMEBUFFER_BINDING, &value);
    EXPECT_EQ(GLuint(value), framebuffer);
    glGetIntegerv(GL_ACTIVE_TEXTURE, &value);
    EXPECT_EQ(value, GL_TEXTURE2);
    glGetIntegerv(GL_TEXTURE_BINDING_2D, &value);
    EXPECT_EQ(GLuint(value), texture);
    glPixelStorei(GL_UNPACK_ROW_LENGTH, 0);
    glDeleteTextures(1, &texture);
    glDeleteFramebuffers(1, &framebuffer);
    EXPECT_TRUE(isPixel(drawHandles({handle}), 0, 0, {0, 1, 0, 1}, 0));
    manager().removeManagedTexture(handle);
}

TEST_F(ManagedTexturesTest, MapTooLargeForTheDriverIsReducedWithAMessage)
{
    // a context of its own, whose limits the manager has not asked yet
    GLContext small;
    ASSERT_TRUE(small.makeCurrent());
    resetGLState();
    {
        const GlCalls::ForcedInteger limit(GL_MAX_TEXTURE_SIZE, 256);
        MessageCapture messages;
        const int handle = manager().addManagedTexture(solid(1000, 2, QColor(0, 255, 255)), QStringLiteral("wide one"));
        ASSERT_GT(handle, 0);
        EXPECT_EQ(messages.containing(QStringLiteral("wide one")), 1);
        EXPECT_TRUE(isPixel(drawHandles({handle}), 0, 0, {0, 1, 1, 1}, 0.5 / 255));
    }
    OpenGLDeviceContext::releaseCurrent();
    ASSERT_TRUE(context().makeCurrent());
}

TEST_F(ManagedTexturesTest, MapThatFindsNoRoomReadsWhiteWithAMessage)
{
    GLContext small;
    ASSERT_TRUE(small.makeCurrent());
    resetGLState();
    {
        const GlCalls::ForcedInteger size(GL_MAX_TEXTURE_SIZE, 128);
        const GlCalls::ForcedInteger layers(GL_MAX_ARRAY_TEXTURE_LAYERS, 2);
        MessageCapture messages;
        QVector<int> handles;
        while (handles.size() < 64 && (handles.isEmpty() || handles.last() > 0))
            handles.append(manager().addManagedTexture(solid(60, 60, QColor(255, 0, 255)), QStringLiteral("map")));
        EXPECT_EQ(handles.last(), 0);
        EXPECT_GT(handles.size(), 4);
        EXPECT_EQ(messages.containing(QStringLiteral("map")), 1) << qPrintable(messages.texts().join(u'\n'));
        const auto image = drawHandles({handles.first(), handles.last()});
        EXPECT_TRUE(isPixel(image, 0, 0, {1, 0, 1, 1}, 0.5 / 255));
        EXPECT_TRUE(isPixel(image, 1, 0, {1, 1, 1, 1}, 0));
        manager().removeManagedTexture(handles.first());
        EXPECT_GT(manager().addManagedTexture(solid(60, 60, QColor(255, 0, 255))), 0) << "there is room again";
    }
    OpenGLDeviceContext::releaseCurrent();
    ASSERT_TRUE(context().makeCurrent());
}

TEST_F(ManagedTexturesTest, SharedContextsReadTheSameMapsUnsharedOnesDoNot)
{
    const int handle = manager().addManagedTexture(solid(8, 8, Qt::yellow));
    EXPECT_TRUE(isPixel(drawHandles({handle}), 0, 0, {1, 1, 0, 1}, 0));
    glFinish();
    GLContext::Options options;
    options.share = &context();
    {
        GLContext shared(options);
        ASSERT_TRUE(shared.makeCurrent());
        resetGLState();
        EXPECT_EQ(manager().managedTextureCount(), 1);
        EXPECT_TRUE(isPixel(drawHandles({handle}), 0, 0, {1, 1, 0, 1}, 0));
        OpenGLDeviceContext::releaseCurrent();
    }
    {
        GLContext alone;
        ASSERT_TRUE(alone.makeCurrent());
        resetGLState();
        EXPECT_EQ(manager().managedTextureCount(), 0);
        const int own = manager().addManagedTexture(solid(8, 8, Qt::red));
        EXPECT_TRUE(isPixel(drawHandles({own}), 0, 0, {1, 0, 0, 1}, 0));
        OpenGLDeviceContext::releaseCurrent();
    }
    ASSERT_TRUE(context().makeCurrent());
    EXPECT_TRUE(isPixel(drawHandles({handle}), 0, 0, {1, 1, 0, 1}, 0));
    manager().removeManagedTexture(handle);
}

namespace {

/// What an image takes as a texture of its own, with all its mip levels.
qint64 ownBytes(const QSize &size)
{
    constexpr int kTexel = 4;
    qint64 texels = 0;
    for (int level = 0;; ++level) {
        const int width = std::max(1, size.width() >> level);
        const int height = std::max(1, size.height() >> level);
        texels += qint64(width) * height;
        if (width == 1 && height == 1)
            return texels * kTexel;
    }
}

/// Sides from 4 to 4096, small ones more often, so that a software driver holds a thousand maps: 0.4 GB.
std::vector<QSize> mixedSizes(int count)
{
    std::mt19937 random(7);
    const auto side = [&random] {
        const double part = double(random()) / double(std::mt19937::max());
        return int(std::lround(4 * std::pow(1024.0, part * part * part)));
    };
    std::vector<QSize> sizes{{4096, 4096}, {4, 4},    {4096, 4},  {4, 4096},
                             {2100, 4},    {4, 2100}, {600, 600}, {1024, 1024}};
    while (int(sizes.size()) < count) {
        const int width = side();
        sizes.emplace_back(width, side());
    }
    return sizes;
}

QColor colorOf(int i)
{
    return QColor((i * 37) & 0xff, (i >> 2) & 0xff, (i * 11) & 0xff, 255 - (i & 0x3f));
}

/// A scene of maps in a context of its own, and what GL was asked for.
class MapsInMemory
{
public:
    explicit MapsInMemory(const std::vector<QSize> &all) : sizes(all), handles(qsizetype(all.size()), 0) {}

    void add(const std::vector<int> &order)
    {
        for (const int i : order) {
            const GlCalls calls;
            handles[i] =
                manager().addManagedTexture(solid(sizes[size_t(i)].width(), sizes[size_t(i)].height(), colorOf(i)));
            memory.add(calls);
            own += ownBytes(sizes[size_t(i)]);
            ASSERT_GT(handles[i], 0) << i;
        }
    }
    void remove(const std::vector<int> &order)
    {
        const GlCalls calls;
        for (const int i : order) {
            manager().removeManagedTexture(std::exchange(handles[i], 0));
            own -= ownBytes(sizes[size_t(i)]);
        }
        memory.add(calls);
    }
    /// A draw that reads managed textures.
    void draw(ShaderProgram *program)
    {
        const AutoBinder bound(program);
        const GlCalls calls;
        manager().bindManagedTextures(program);
        manager().unbindManagedTextures(program);
        memory.add(calls);
    }
    double ratio() const { return double(memory.bytes()) / double(own); }

    std::vector<QSize> sizes;
    QVector<int> handles;
    TextureMemory memory;
    qint64 own = 0;
};

std::vector<int> shuffled(int count, unsigned int seed)
{
    std::vector<int> order(size_t(count), 0);
    std::iota(order.begin(), order.end(), 0);
    std::mt19937 random(seed);
    for (size_t i = order.size(); i > 1; --i)
        std::swap(order[i - 1], order[random() % i]);
    return order;
}

} // namespace

TEST_F(ManagedTexturesTest, AThousandMapsTakeLittleMoreThanTheyAreAndGiveItBack)
{
    constexpr int kMaps = 1000;
    const auto reader = programWithManagedTextures(kCompareFragment);
    MapsInMemory maps(mixedSizes(kMaps));
    const auto expectColors = [&] {
        const Image<float> image = drawHandles(maps.handles);
        int wrong = 0;
        for (int i = 0; i < kMaps; ++i) {
            const QColor c = maps.handles[i] > 0 ? colorOf(i) : QColor(Qt::white);
            wrong += !isPixel(image, i % 64, i / 64, {c.redF(), c.greenF(), c.blueF(), c.alphaF()}, 0.5 / 255);
        }
        EXPECT_EQ(wrong, 0);
    };
    maps.add(shuffled(kMaps, 1));
    maps.draw(reader.get());
    const qint64 own = maps.own;
    EXPECT_GT(own, 300'000'000);
    EXPECT_LE(maps.ratio(), 1.4) << maps.memory.bytes();
    // For a moment an array that grows is there twice, or the largest image in a texture of its own.
    const qint64 peak = maps.memory.peak();
    EXPECT_LE(double(peak), 1.8 * double(own));
    expectColors();
    for (unsigned int round = 2; round < 4; ++round) {
        const std::vector<int> order = shuffled(kMaps, round);
        const std::vector<int> half(order.begin(), order.begin() + kMaps / 2);
        // In portions: a page may be emptied without that one is given back.
        constexpr int kPortion = kMaps / 10;
        for (auto from = half.begin(); from != half.end(); from += kPortion) {
            maps.remove(std::vector<int>(from, from + kPortion));
            maps.draw(reader.get());
            if (round == 2)
                expectColors();
        }
        // Pages are three quarters full, and of an array a quarter of the pages may be empty.
        EXPECT_LE(maps.ratio(), 1 / (0.75 * 0.75)) << "half of the maps are gone";
        expectColors();
        maps.add(std::vector<int>(half.rbegin(), half.rend()));
        maps.draw(reader.get());
        EXPECT_EQ(maps.own, own);
        EXPECT_LE(maps.ratio(), 1.4) << "round " << round;
        EXPECT_LE(maps.memory.bytes(), peak) << "round " << round;
        expectColors();
    }
    maps.remove(shuffled(kMaps, 9));
    EXPECT_EQ(manager().managedTextureCount(), 0);
    EXPECT_EQ(maps.own, 0);
    EXPECT_LE(maps.memory.bytes(), 64) << "a single texel stays, for programs that expect pages";
}

// The recordings that the numbers above come from, on what is known.
TEST_F(ManagedTexturesTest, TheTextureLedgerCountsWhatIsThere)
{
    TextureMemory memory;
    const GlCalls calls;
    auto first = plainTexture(solid(64, 16, Qt::red));
    const auto second = plainTexture(solid(5, 3, Qt::red));
    memory.add(calls);
    EXPECT_EQ(memory.bytes(), ownBytes({64, 16}) + ownBytes({5, 3}));
    EXPECT_EQ(ownBytes({5, 3}), 4 * (15 + 2 + 1));
    const GlCalls later;
    first.reset();
    memory.add(later);
    EXPECT_EQ(memory.bytes(), ownBytes({5, 3}));
    EXPECT_EQ(memory.peak(), ownBytes({64, 16}) + ownBytes({5, 3}));
}

struct CostRow
{
    const char *name;
    QSize size;
    int maps;
    qint64 most; ///< Bytes.
};

class ManagedTextureCostTest : public ManagedTexturesTest, public ::testing::WithParamInterface<CostRow>
{};

TEST_P(ManagedTextureCostTest, IsNoPageThatStaysEmpty)
{
    const auto reader = programWithManagedTextures(kCompareFragment);
    MapsInMemory maps(std::vector<QSize>(size_t(GetParam().maps), GetParam().size));
    maps.add(shuffled(GetParam().maps, 1));
    maps.draw(reader.get());
    EXPECT_LE(maps.memory.bytes(), GetParam().most) << "own " << maps.own;
    EXPECT_GE(maps.memory.bytes(), maps.own);
    maps.remove(shuffled(GetParam().maps, 2));
    EXPECT_LE(maps.memory.bytes(), 64);
}

// The first page has sides of 65 times a power of two, up to 1040.
INSTANTIATE_TEST_SUITE_P(
    Maps, ManagedTextureCostTest,
    ::testing::Values(CostRow{"tiny", {4, 4}, 1, 65 * 65 * 4}, CostRow{"tinyOnes", {4, 4}, 60, 130 * 65 * 4},
                      CostRow{"small", {64, 64}, 1, 130 * 130 * 4}, CostRow{"strip", {2100, 4}, 1, 520 * 260 * 4},
                      CostRow{"longStrip", {4200, 4}, 1, 520 * 260 * 4},
                      CostRow{"sixty", {256, 256}, 60, 60 * 350'000 * 14 / 10},
                      // Each a little more than half a page wide; until there are eight pages each takes one.
                      CostRow{"awkward", {600, 600}, 60, 60 * qint64(1'919'000) * 14 / 10},
                      CostRow{"large", {1024, 1024}, 1, 2 * 1040 * 1040 * 4},
                      CostRow{"largeOnes", {1024, 1024}, 10, 14 * 1040 * 1040 * 4}),
    [](const auto &row) { return std::string(row.param.name); });

namespace {

/// In its scope the driver has no memory for images that a test names.
class NoMemory
{
public:
    using Refuses = bool (*)(GLenum target, int width, int height, int layers);

    explicit NoMemory(Refuses refuses)
        : _realError(epoxy_glGetError), _real2D(epoxy_glTexImage2D), _real3D(epoxy_glTexImage3D)
    {
        current() = this;
        _refuses = refuses;
        epoxy_glGetError = [] {
            const GLenum error = std::exchange(current()->_error, GLenum(GL_NO_ERROR));
            return error ? error : current()->_realError();
        };
        epoxy_glTexImage2D = [](GLenum target, GLint level, GLint internalFormat, GLsizei width, GLsizei height,
                                GLint border, GLenum format, GLenum type, const void *pixels) {
            if (!current()->refuse(target, width, height, 1))
                current()->_real2D(target, level, internalFormat, width, height, border, format, type, pixels);
        };
        epoxy_glTexImage3D = [](GLenum target, GLint level, GLint internalFormat, GLsizei width, GLsizei height,
                                GLsizei depth, GLint border, GLenum format, GLenum type, const void *pixels) {
            if (!current()->refuse(target, width, height, depth))
                current()->_real3D(target, level, internalFormat, width, height, depth, border, format, type, pixels);
        };
    }
    ~NoMemory()
    {
        epoxy_glGetError = _realError;
        epoxy_glTexImage2D = _real2D;
        epoxy_glTexImage3D = _real3D;
    }
    NoMemory(const NoMemory &) = delete;
    NoMemory &operator=(const NoMemory &) = delete;

    int refused() const { return _refused; }

private:
    static NoMemory *&current()
    {
        static NoMemory *scope = nullptr;
        return scope;
    }
    bool refuse(GLenum target, int width, int height, int layers)
    {
        if (!_refuses(target, width, height, layers))
            return false;
        _error = _error ? _error : GLenum(GL_OUT_OF_MEMORY);
        ++_refused;
        return true;
    }

    PFNGLGETERRORPROC _realError;
    PFNGLTEXIMAGE2DPROC _real2D;
    PFNGLTEXIMAGE3DPROC _real3D;
    Refuses _refuses = nullptr;
    GLenum _error = GL_NO_ERROR;
    int _refused = 0;
};

struct MemoryRow
{
    const char *name;
    int before; ///< Maps of 1000 by 1000 that are there already.
    QSize size; ///< Of the one for which there is no memory.
    NoMemory::Refuses refuses;
    bool isTaken = false;
};

bool isArray(GLenum target)
{
    return target == GL_TEXTURE_2D_ARRAY;
}

} // namespace

class ManagedTextureMemoryTest : public ManagedTexturesTest, public ::testing::WithParamInterface<MemoryRow>
{};

TEST_P(ManagedTextureMemoryTest, AMapForWhichThereIsNoneReadsWhiteWithAMessage)
{
    QVector<int> handles;
    for (int i = 0; i < GetParam().before; ++i)
        handles << manager().addManagedTexture(solid(1000, 1000, QColor(20 * i, 255 - 20 * i, 7)));
    int handle = -1;
    const QSize size = GetParam().size;
    {
        const MessageCapture messages;
        const NoMemory noMemory(GetParam().refuses);
        handle = manager().addManagedTexture(solid(size.width(), size.height(), QColor(51, 102, 153)), u"bricks"_s);
        EXPECT_GT(noMemory.refused(), 0);
        EXPECT_EQ(messages.containing(u"bricks"_s), GetParam().isTaken ? 0 : 1);
        const QString dimensions = QStringLiteral("%1x%2").arg(size.width()).arg(size.height());
        EXPECT_EQ(messages.containing(dimensions), GetParam().isTaken ? 0 : 1);
        EXPECT_EQ(glGetError(), GLenum(GL_NO_ERROR));
    }
    EXPECT_EQ(handle > 0, GetParam().isTaken);
    // What was there stays, and with memory the map comes after all.
    const int again =
        manager().addManagedTexture(solid(size.width(), size.height(), QColor(51, 102, 153)), u"bricks"_s);
    EXPECT_GT(again, 0);
    handles << handle << again;
    const Image<float> image = drawHandles(handles);
    for (int i = 0; i < GetParam().before; ++i)
        EXPECT_TRUE(isPixel(image, i, 0, {20 * i / 255.0, (255 - 20 * i) / 255.0, 7 / 255.0, 1}, 0.5 / 255)) << i;
    const std::array<double, 4> blue{0.2, 0.4, 0.6, 1};
    const std::array<double, 4> white{1, 1, 1, 1};
    EXPECT_TRUE(isPixel(image, GetParam().before, 0, GetParam().isTaken ? blue : white, 0.5 / 255));
    EXPECT_TRUE(isPixel(image, GetParam().before + 1, 0, blue, 0.5 / 255));
    for (const int each : std::as_const(handles))
        manager().removeManagedTexture(each);
    EXPECT_EQ(manager().managedTextureCount(), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Refusals, ManagedTextureMemoryTest,
    ::testing::Values(
        MemoryRow{"firstPage", 0, {300, 200}, [](GLenum target, int, int, int) { return isArray(target); }},
        MemoryRow{"firstPageOfATinyOne", 0, {4, 4}, [](GLenum target, int, int, int) { return isArray(target); }},
        MemoryRow{"firstPageOfALargeOne",
                  0,
                  {600, 600},
                  [](GLenum target, int width, int, int) { return isArray(target) && width > 1000; }},
        MemoryRow{"secondPage", 1, {1000, 1000}, [](GLenum target, int, int, int) { return isArray(target); }},
        MemoryRow{"manyPages", 12, {2100, 2100}, [](GLenum target, int, int, int) { return isArray(target); }},
        MemoryRow{"inTheMiddleOfItsTiles",
                  3,
                  {2100, 2100},
                  [](GLenum target, int, int, int layers) { return isArray(target) && (layers > 5 || layers < 4); }},
        MemoryRow{"anArrayThatGrows",
                  4,
                  {1000, 1000},
                  [](GLenum target, int, int, int layers) { return isArray(target) && layers > 1; },
                  true},
        MemoryRow{
            "imageWithItsLevels", 2, {500, 700}, [](GLenum target, int, int, int) { return target == GL_TEXTURE_2D; }}),
    [](const auto &row) { return std::string(row.param.name); });

// Pages are emptied into others while what lies in them goes on being read.
TEST_F(ManagedTexturesTest, MapsThatMoveReadAsBefore)
{
    const ImageLimits limits = plainLimits();
    std::vector<QImage> images;
    QVector<int> handles;
    for (const QSize &size : {QSize(300, 77), QSize(1100, 130), QSize(17, 200)}) {
        for (int i = 0; i < 14; ++i)
            handles << manager().addManagedTexture(solid(1000, 400, Qt::gray));
        images.push_back(noise(size.width(), size.height(), 5));
        handles << manager().addManagedTexture(images.back());
    }
    const QVector<int> kept{handles[14], handles[29], handles[44]};
    for (const int handle : std::as_const(handles)) {
        if (!kept.contains(handle))
            manager().removeManagedTexture(handle);
    }
    for (int i = 0; i < 3; ++i) {
        const auto plain = plainTexture(images[size_t(i)]);
        const GlCalls calls;
        const Pair pair = drawBoth(plain.get(), kept[i], {1.3f, 0.3f});
        EXPECT_TRUE(sameImage(pair.managed, pair.plain, limits)) << i;
        EXPECT_EQ(calls.count("glTexImage3D") > 0, i == 0) << "with the first draw pages are given back";
        EXPECT_EQ(calls.count("glCopyTexSubImage3D") > 0, i == 0);
    }
    for (const int handle : kept)
        manager().removeManagedTexture(handle);
}

TEST_F(ManagedTexturesTest, TrimGivesPagesBackToo)
{
    MapsInMemory maps(std::vector<QSize>(12, QSize(1000, 1000)));
    maps.add(shuffled(12, 1));
    const qint64 full = maps.memory.bytes();
    maps.remove({0, 1, 2, 3, 4, 5, 6, 7, 8, 9});
    EXPECT_EQ(maps.memory.bytes(), full);
    const GlCalls calls;
    manager().trim(100);
    maps.memory.add(calls);
    EXPECT_LE(maps.memory.bytes(), full / 3);
    const Image<float> image = drawHandles({maps.handles[10], maps.handles[11]});
    EXPECT_TRUE(isPixel(
        image, 0, 0, {colorOf(10).redF(), colorOf(10).greenF(), colorOf(10).blueF(), colorOf(10).alphaF()}, 0.5 / 255));
    EXPECT_TRUE(isPixel(
        image, 1, 0, {colorOf(11).redF(), colorOf(11).greenF(), colorOf(11).blueF(), colorOf(11).alphaF()}, 0.5 / 255));
    maps.remove({10, 11});
}

} // namespace Brevane::Kvo
