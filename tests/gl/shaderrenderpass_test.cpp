#include "support/allocations.h"
#include "support/draw.h"
#include "support/gltest.h"
#include "support/messages.h"
#include "support/passes.h"

#include <gl/bufferobject.h>
#include <gl/drawbuffers.h>
#include <gl/guards.h>
#include <gl/opengldevicecontext.h>
#include <gl/shaderprogram.h>
#include <gl/texturemanager.h>
#include <gl/vertexarrayobject.h>
#include <host/pipeline.h>
#include <host/pipelinefile.h>
#include <renderpasses/shaderrenderpass.h>

#include <QColor>
#include <QCoreApplication>
#include <QMatrix4x4>
#include <QPoint>
#include <QProcess>
#include <QProcessEnvironment>
#include <QRect>
#include <QSize>
#include <QVector2D>
#include <QVector3D>
#include <QVector4D>

#include <epoxy/gl.h>

#include <memory>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

// A half float of a value up to 1, cut by llvmpipe.
constexpr double kHalfFloat = 1e-3;

QString s(const char *text)
{
    return QString::fromLatin1(text);
}

// A fragment text that writes one expression to o_Frame.
QString fragmentText(const QString &declarations, const QString &expression)
{
    return s("#version 150\n") + declarations + s("\nin vec2 vo_TexCoord;\nout vec4 o_Frame;\nvoid main()\n{\n")
           + s("  o_Frame = ") + expression + s(";\n}\n");
}

Image<float> gradient(int width, int height)
{
    Image<float> image(width, height);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            image.at(x, y) = {float(x) / 16, float(y) / 16, float(x + y) / 32, 1.0f - float(x) / 32};
    return image;
}

// Geometry of positions alone.
std::unique_ptr<DrawBuffers> makeGeometry(unsigned int primitive, const std::vector<float> &positions)
{
    const auto context = OpenGLDeviceContext::current();
    const auto buffer = context->createBufferObject();
    buffer->upload(positions.data(), int(positions.size()), GL_STATIC_DRAW);
    const auto vao = context->createVertexArrayObject();
    vao->upload(s("va_Vertex"), buffer, 3, GL_FLOAT);
    auto geometry = std::make_unique<DrawBuffers>();
    geometry->setVAO(vao);
    geometry->setPrimitiveType(primitive);
    geometry->setVertexCount(unsigned(positions.size() / 3));
    return geometry;
}

QVariant objectForm(DrawBuffers *geometry)
{
    return QVariant::fromValue(static_cast<QObject *>(geometry));
}

const char *const kPositionsOnly =
    "#version 150\nin vec3 va_Vertex;\nvoid main() { gl_Position = vec4(va_Vertex, 1.0); }\n";
const char *const kWhite = "#version 150\nout vec4 o_Frame;\nvoid main() { o_Frame = vec4(1.0); }\n";

// Pixels that are not black.
int coveredPixels(const Image<float> &image)
{
    int count = 0;
    for (const auto &pixel : image.pixels)
        count += pixel[0] > 0;
    return count;
}

class UniformPass : public ShaderRenderPass
{
public:
    void setUniforms() override
    {
        ++calls;
        sawItsProgram = _program && _program->hasUniform(s("own"));
        _program->setUniform(s("own"), 0.75f);
        if (alsoTheUsualOnes)
            ShaderRenderPass::setUniforms();
    }

    int calls = 0;
    bool sawItsProgram = false;
    bool alsoTheUsualOnes = false;
};

// Takes the failures of its scope.
class Failures
{
public:
    Failures()
    {
        ShaderProgram::setFailureHandler([this](const ShaderFailure &failure) { all.push_back(failure); });
    }
    ~Failures() { ShaderProgram::setFailureHandler({}); }
    Failures(const Failures &) = delete;
    Failures &operator=(const Failures &) = delete;

    std::vector<ShaderFailure> all;
};

class ShaderPass : public GLTest
{
protected:
    void SetUp() override
    {
        GLTest::SetUp();
        owned = std::make_unique<ShaderRenderPass>();
    }
    void TearDown() override
    {
        owned.reset();
        GLTest::TearDown();
    }
    static Texture *typedOutput(const ShaderRenderPass &pass, int index)
    {
        const QVariant value = pass.output(index);
        EXPECT_EQ(value.metaType(), QMetaType::fromType<Texture *>()) << "output " << index << " is not in typed form";
        return qvariant_cast<Texture *>(value);
    }
    Image<float> result(int index = 0) { return readTexture<float>(typedOutput(*owned, index)); }
    // A frame of a pass with one output.
    Image<float> drawn(const QString &fragment, int width = 1, int height = 1)
    {
        if (owned->numOutputs() == 0)
            owned->addOutput(s("Kvo_KvoTexture*_Frame"));
        owned->setFragmentShaderSource(fragment);
        owned->setInput(0, QRect(0, 0, width, height));
        runFrame(*owned);
        return result();
    }

    std::unique_ptr<ShaderRenderPass> owned;
};

} // namespace

TEST_F(ShaderPass, BeginsWithTheViewportAloneAndNoOutput)
{
    expectSlots(ShaderRenderPass(), {{"Kvo_QRect_Viewport"}}, {});
}

TEST_F(ShaderPass, ConstructingCopyingAndDestroyingMakesNoGLCall)
{
    expectNoGLCallBeforeStart<ShaderRenderPass>();
}

TEST_F(ShaderPass, TheDefaultShadersCopyTheInput)
{
    const Image<float> image = gradient(9, 5);
    const auto texture = makeTexture(image);
    owned->addInput(s("Kvo_KvoTexture*_Input"));
    owned->addOutput(s("Kvo_KvoTexture*_Anything"));
    owned->setInput(0, QRect(0, 0, 9, 5));
    owned->setInput(1, textureToVariant(texture.get()));
    runFrame(*owned);
    EXPECT_TRUE(sameImage(result(), image, within(kHalfFloat)));
    EXPECT_FALSE(isSameImage(result(), Image<float>(9, 5, {0.2f, 0.1f, 0.1f, 1.0f}), within(kHalfFloat)));
}

TEST_F(ShaderPass, WithNoSlotsAddedNothingIsDrawnOrCleared)
{
    const auto before = TextureManager::Instance().statistics();
    owned->setInput(0, QRect(0, 0, 4, 4));
    const GlCalls calls;
    runFrame(*owned);
    EXPECT_EQ(calls.draws(), 0);
    EXPECT_EQ(calls.count("glClear"), 0) << "a framebuffer without targets cannot be cleared";
    EXPECT_EQ(calls.count("glDrawBuffer", {GL_NONE}), 1);
    const auto after = TextureManager::Instance().statistics();
    EXPECT_EQ(after.hits + after.misses, before.hits + before.misses);
}

TEST_F(ShaderPass, WithoutViewportAndSamplerTheSizeIsOneByOne)
{
    owned->addInput(s("Kvo_KvoTexture*_Input"));
    owned->addOutput(s("Kvo_KvoTexture*_Frame"));
    const GlCalls calls;
    runFrame(*owned);
    EXPECT_EQ(calls.count("glViewport", {0, 0, 1, 1}), 1);
    EXPECT_TRUE(sameImage(result(), Image<float>(1, 1), within(0))) << "an unconnected sampler reads transparent";
}

TEST_F(ShaderPass, AnEmptyViewportTurnsIntoOneByOne)
{
    for (const QRect &viewport : {QRect(), QRect(0, 0, -2, 3), QRect(0, 0, 0, 0)}) {
        ShaderRenderPass pass;
        pass.addOutput(s("Kvo_KvoTexture*_Frame"));
        pass.setInput(0, viewport);
        runFrame(pass);
        const Image<float> image = readTexture<float>(typedOutput(pass, 0));
        EXPECT_EQ(image.width, 1);
        EXPECT_EQ(image.height, viewport.height() > 0 ? viewport.height() : 1);
    }
}

TEST_F(ShaderPass, WithoutAViewportTheFirstConnectedSamplerGivesTheSize)
{
    const auto first = makeSolidTexture(6, 2, {1, 0, 0, 1});
    const auto second = makeSolidTexture(3, 7, {0, 1, 0, 1});
    for (const char *name : {"Kvo_KvoTexture*_Open", "Kvo_KvoTexture*_Input", "Kvo_KvoTexture*_Other"})
        owned->addInput(s(name));
    owned->addOutput(s("Kvo_KvoTexture*_Frame"));
    owned->setInput(2, textureToVariant(first.get()));
    owned->setInput(3, textureToVariant(second.get()));
    runFrame(*owned);
    EXPECT_TRUE(sameImage(result(), Image<float>(6, 2, {1, 0, 0, 1}), within(0)));
}

TEST_F(ShaderPass, AViewportOfWidthZeroLeavesTheSizeToTheSampler)
{
    const auto texture = makeSolidTexture(6, 2, {1, 0, 0, 1});
    owned->addInput(s("Kvo_KvoTexture*_Input"));
    owned->addOutput(s("Kvo_KvoTexture*_Frame"));
    owned->setInput(0, QRect(0, 0, 0, 5));
    owned->setInput(1, textureToVariant(texture.get()));
    runFrame(*owned);
    EXPECT_EQ(result().width, 6);
    EXPECT_EQ(result().height, 2);
}

TEST_F(ShaderPass, ACubeMapIsSampledAndGivesNoSize)
{
    Texture cube;
    cube.setTarget(GL_TEXTURE_CUBE_MAP);
    cube.bind();
    for (unsigned int face = 0; face < 6; ++face) {
        const quint8 texel[4] = {quint8(face == 3 ? 255 : 0), 0, 255, 255};
        glTexImage2D(GL_TEXTURE_CUBE_MAP_POSITIVE_X + face, 0, GL_RGBA8, 1, 1, 0, GL_RGBA, GL_UNSIGNED_BYTE, texel);
    }
    cube.unbind();
    owned->addInput(s("Kvo_KvoTexture*_Sky"));
    owned->setInput(1, textureToVariant(&cube));
    owned->addOutput(s("Kvo_KvoTexture*_Frame"));
    owned->setFragmentShaderSource(
        fragmentText(s("uniform samplerCube u_Sky;"), s("texture(u_Sky, vec3(0.0, -1.0, 0.0))")));
    runFrame(*owned);
    EXPECT_TRUE(sameImage(result(), Image<float>(1, 1, {1, 0, 1, 1}), within(0)));
}

TEST_F(ShaderPass, TheFirstFrameAndANewSizeClearWhateverSetClearSays)
{
    owned->addOutput(s("Kvo_KvoTexture*_Frame"));
    owned->setFragmentShaderSource(s(kWhite));
    owned->setClear(false);
    const auto clearsAt = [&](int size) {
        owned->setInput(0, QRect(0, 0, size, size));
        const GlCalls calls;
        runFrame(*owned);
        return calls.count("glClear", {GL_COLOR_BUFFER_BIT});
    };
    EXPECT_EQ(clearsAt(4), 1);
    EXPECT_EQ(clearsAt(4), 0);
    EXPECT_EQ(clearsAt(5), 1);
    EXPECT_EQ(clearsAt(5), 0);
    owned->setClear(true);
    EXPECT_EQ(clearsAt(5), 1);
    EXPECT_EQ(clearsAt(5), 1);
}

TEST_F(ShaderPass, TargetsAreClearedToTheClearColourOfTheMoment)
{
    glClearColor(0.25f, 0.5f, 0.75f, 1.0f);
    const Image<float> image = drawn(
        s("#version 150\nout vec4 o_Frame;\nvoid main() { if(gl_FragCoord.x > 2.0) discard; o_Frame = vec4(1.0); }\n"),
        4, 2);
    EXPECT_TRUE(isPixel(image, 1, 1, {1, 1, 1, 1}, 0));
    EXPECT_TRUE(isPixel(image, 2, 0, {0.25, 0.5, 0.75, 1}, 0));
}

TEST_F(ShaderPass, BlendModesCombineSourceAndDestination)
{
    // Values that half floats hold exactly.
    const std::array<double, 4> source{0.5, 0.25, 1.0, 0.25}, destination{0.5, 1.0, 0.125, 0.5};
    struct Case
    {
        int mode;
        double sourceFactor, destinationFactor;
    };
    for (const Case &c : {Case{ShaderRenderPass::BlendNone, 1, 0}, Case{ShaderRenderPass::BlendAlpha, 0.75, 0.25},
                          Case{ShaderRenderPass::BlendAdd, 1, 1}, Case{7, 0.75, 0.25}, Case{-1, 0.75, 0.25}}) {
        ShaderRenderPass pass;
        pass.addOutput(s("Kvo_KvoTexture*_Frame"));
        pass.setFragmentShaderSource(fragmentText(QString(), s("vec4(0.5, 0.25, 1.0, 0.25)")));
        pass.setBlend(ShaderRenderPass::BlendMode(c.mode));
        glClearColor(float(destination[0]), float(destination[1]), float(destination[2]), float(destination[3]));
        glEnable(GL_BLEND);
        glBlendFunc(GL_ZERO, GL_ZERO);
        const GlCalls calls;
        runFrame(pass);
        std::array<double, 4> expected{};
        for (size_t i = 0; i < 4; ++i)
            expected[i] = c.sourceFactor * source[i] + c.destinationFactor * destination[i];
        EXPECT_TRUE(isPixel(readTexture<float>(typedOutput(pass, 0)), 0, 0, expected, 0)) << "mode " << c.mode;
        EXPECT_FALSE(glIsEnabled(GL_BLEND)) << "mode " << c.mode;
        EXPECT_EQ(calls.count("glBlendFunc"), c.mode == ShaderRenderPass::BlendNone ? 0 : 1) << "mode " << c.mode;
    }
}

TEST_F(ShaderPass, AlphaBlendingTakesItsFactorsInThisOrder)
{
    owned->setBlend(ShaderRenderPass::BlendAlpha);
    owned->addOutput(s("Kvo_KvoTexture*_Frame"));
    const GlCalls calls;
    runFrame(*owned);
    EXPECT_EQ(calls.count("glBlendFunc", {GL_ONE_MINUS_SRC_ALPHA, GL_SRC_ALPHA}), 1);
}

TEST_F(ShaderPass, EveryPlainTypeReachesTheUniformOfItsSlotsName)
{
    struct Case
    {
        QVariant value;
        const char *type;
        const char *expression;
        std::array<double, 4> expected;
    };
    QMatrix4x4 matrix;
    for (int i = 0; i < 16; ++i)
        matrix(i / 4, i % 4) = float(i);
    const Case cases[] = {
        {true, "bool", "vec4(u ? 1.0 : 0.25)", {1, 1, 1, 1}},
        {7, "int", "vec4(float(u))", {7, 7, 7, 7}},
        {0.375, "float", "vec4(u)", {0.375, 0.375, 0.375, 0.375}},
        {0.625f, "float", "vec4(u)", {0.625, 0.625, 0.625, 0.625}},
        {QRect(1, 2, 3, 4), "vec4", "u", {1, 2, 3, 4}},
        {QSize(5, 6), "vec2", "vec4(u, 0.0, 1.0)", {5, 6, 0, 1}},
        {QSize(5, 6), "ivec2", "vec4(vec2(u), 0.0, 1.0)", {5, 6, 0, 1}},
        {QColor::fromRgbF(1.0f, 0.0f, 0.2f, 0.4f), "vec4", "u", {1, 0, 0.2, 0.4}},
        {QVariant::fromValue(matrix), "mat4", "u * vec4(0.0, 1.0, 0.0, 0.0)", {1, 5, 9, 13}},
        {QVariant::fromValue(QVector2D(0.5f, 2)), "vec2", "vec4(u, 0.0, 1.0)", {0.5, 2, 0, 1}},
        {QVariant::fromValue(QVector3D(0.5f, 2, 3)), "vec3", "vec4(u, 1.0)", {0.5, 2, 3, 1}},
        {QVariant::fromValue(QVector4D(0.5f, 2, 3, 4)), "vec4", "u", {0.5, 2, 3, 4}},
    };
    for (const Case &c : cases) {
        ShaderRenderPass pass;
        pass.addInput(s("u"), c.value);
        pass.addOutput(s("Kvo_KvoTexture*_Frame"));
        pass.setFragmentShaderSource(fragmentText(s("uniform ") + s(c.type) + s(" u;"), s(c.expression)));
        runFrame(pass);
        EXPECT_TRUE(isPixel(readTexture<float>(typedOutput(pass, 0)), 0, 0, c.expected, kHalfFloat))
            << c.value.typeName() << " as " << c.type;
    }
}

TEST_F(ShaderPass, APlainUniformHasTheWholeNameOfItsSlot)
{
    owned->addInput(s("Kvo_float_Strength"), 0.5f);
    owned->addInput(s("Strength"), 0.25f);
    const Image<float> image = drawn(fragmentText(s("uniform float Kvo_float_Strength, Strength, u_Strength;"),
                                                  s("vec4(Kvo_float_Strength, Strength, u_Strength, 1.0)")));
    EXPECT_TRUE(isPixel(image, 0, 0, {0.5, 0.25, 0, 1}, 0));
}

TEST_F(ShaderPass, OtherTypesAreSkipped)
{
    owned->addInput(s("a"), QVariant(7u));
    owned->addInput(s("b"), QVariant(qlonglong(7)));
    owned->addInput(s("c"), QPoint(7, 7));
    owned->addInput(s("d"), s("7"));
    owned->addInput(s("e"));
    const Image<float> image =
        drawn(fragmentText(s("uniform uint a; uniform int b; uniform vec2 c; uniform float d, e;"),
                           s("vec4(float(a), float(b), c.x + c.y, d + e)")));
    EXPECT_TRUE(isPixel(image, 0, 0, {0, 0, 0, 0}, 0));
}

TEST_F(ShaderPass, TheViewportIsAUniformWhereTheProgramDeclaresIt)
{
    const Image<float> image =
        drawn(fragmentText(s("uniform vec4 Kvo_QRect_Viewport;"), s("Kvo_QRect_Viewport")), 5, 3);
    EXPECT_TRUE(isPixel(image, 4, 2, {0, 0, 5, 3}, 0));
}

TEST_F(ShaderPass, UniformsOfTheSameSourcesInAnotherPassStayThere)
{
    const QString fragment = fragmentText(s("uniform float gain;"), s("vec4(gain)"));
    owned->addInput(s("gain"), 0.5f);
    EXPECT_TRUE(isPixel(drawn(fragment), 0, 0, {0.5, 0.5, 0.5, 0.5}, 0));
    ShaderRenderPass other; // has no such slot
    other.addOutput(s("Kvo_KvoTexture*_Frame"));
    other.setFragmentShaderSource(fragment);
    runFrame(other);
    EXPECT_TRUE(isPixel(readTexture<float>(typedOutput(other, 0)), 0, 0, {0, 0, 0, 0}, 0));
}

TEST_F(ShaderPass, SamplersAreKnownByTheLastPartOfTheirSlots)
{
    const auto red = makeSolidTexture(2, 2, {1, 0, 0, 1}), green = makeSolidTexture(2, 2, {0, 1, 0, 1});
    const auto blue = makeSolidTexture(2, 2, {0, 0, 1, 1});
    owned->addInput(s("Kvo_KvoTexture*_A"), textureToVariant(red.get()));
    owned->addInput(s("factor"), 0.5f);
    owned->addInput(s("Kvo_KvoTexture*_B_C"), QVariant::fromValue(green.get()));
    owned->addInput(s("Kvo_KvoTexture*_"), textureToVariant(blue.get()));
    owned->addInput(s("Kvo_KvoTexture*_Open"));
    const Image<float> image =
        drawn(fragmentText(s("uniform sampler2D u_A, u_B_C, u_, u_Open; uniform float factor;"),
                           s("factor * (texture(u_A, vo_TexCoord) + texture(u_B_C, vo_TexCoord)) "
                             "+ texture(u_, vo_TexCoord) + texture(u_Open, vo_TexCoord)")),
              2, 2);
    EXPECT_TRUE(isPixel(image, 1, 1, {0.5, 0.5, 1, 2}, 0));
}

TEST_F(ShaderPass, ThePrefixOfASamplerIsCaseSensitive)
{
    const auto red = makeSolidTexture(2, 2, {1, 0, 0, 1});
    owned->addInput(s("kvo_KvoTexture*_A"), textureToVariant(red.get()));
    owned->addInput(s("Kvo_kvotexture*_A"), textureToVariant(red.get()));
    owned->addOutput(s("kvo_KvoTexture*_Frame"));
    const GlCalls calls;
    runFrame(*owned);
    EXPECT_FALSE(owned->output(0).isValid());
    EXPECT_EQ(calls.count("glActiveTexture"), 0) << "no texture is bound";
}

TEST_F(ShaderPass, OneTextureInTwoSlotsIsOneTexture)
{
    const auto red = makeSolidTexture(2, 2, {1, 0, 0, 1});
    owned->addInput(s("Kvo_KvoTexture*_A"), textureToVariant(red.get()));
    owned->addInput(s("Kvo_KvoTexture*_B"), textureToVariant(red.get()));
    const Image<float> image = drawn(fragmentText(s("uniform sampler2D u_A, u_B;"),
                                                  s("texture(u_A, vo_TexCoord) + 0.5 * texture(u_B, vo_TexCoord)")));
    EXPECT_TRUE(isPixel(image, 0, 0, {1.5, 0, 0, 1.5}, 0));
    EXPECT_EQ(red->unit(), -1) << "unbound as often as bound";
}

TEST_F(ShaderPass, ConnectedTexturesKeepLinearFiltersAndClampedWrap)
{
    const auto texture = makeSolidTexture(2, 2, {1, 0, 0, 1});
    texture->bind();
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_REPEAT);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_REPEAT);
    texture->unbind();
    owned->addInput(s("Kvo_KvoTexture*_Input"), textureToVariant(texture.get()));
    owned->addOutput(s("Kvo_KvoTexture*_Frame"));
    runFrame(*owned);
    const TextureState state = stateOf(texture.get());
    EXPECT_EQ(state.minFilter, unsigned(GL_LINEAR));
    EXPECT_EQ(state.magFilter, unsigned(GL_LINEAR));
    texture->bind();
    for (GLenum wrap : {GL_TEXTURE_WRAP_S, GL_TEXTURE_WRAP_T}) {
        GLint value = 0;
        glGetTexParameteriv(GL_TEXTURE_2D, wrap, &value);
        EXPECT_EQ(value, GL_CLAMP_TO_EDGE);
    }
    texture->unbind();
}

// Linear filters would make them incomplete, and every fetch give 0.
TEST_F(ShaderPass, TexturesOfWholeNumbersAreReadAsTheyAre)
{
    Texture texture(nullptr);
    texture.setTarget(GL_TEXTURE_2D);
    const quint32 values[] = {7, 4000000000u, 3, 1};
    {
        AutoBinder bound(&texture);
        glTexImage2D(GL_TEXTURE_2D, 0, GL_R32UI, 2, 2, 0, GL_RED_INTEGER, GL_UNSIGNED_INT, values);
        texture.setFilter(GL_NEAREST);
        texture.setWrap(GL_CLAMP_TO_EDGE);
    }
    ShaderRenderPass pass;
    pass.setInput(0, QRect(0, 0, 2, 2));
    const int input = pass.addInput(s("Kvo_KvoTexture*_Numbers"));
    pass.addOutput(s("Kvo_KvoTexture*_Frame"));
    pass.setFragmentShaderSource(
        fragmentText(s("uniform usampler2D u_Numbers;"),
                     s("vec4(float(texelFetch(u_Numbers, ivec2(gl_FragCoord.xy), 0).r % 16u) / 16.0, 0.0, 0.0, 1.0)")));
    pass.setInput(input, textureToVariant(&texture));
    runFrame(pass);
    const Image<float> image = readTexture<float>(textureFromVariant(pass.output(0)));
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(image.at(i % 2, i / 2)[0], float(values[i] % 16) / 16) << i;
}

TEST_F(ShaderPass, SeveralOutputsAreTargetsInTheirOrder)
{
    for (const char *name :
         {"Kvo_KvoTexture*_Second", "Kvo_float_Ignored", "Kvo_KvoTexture*_First", "Kvo_KvoTexture*_Third"})
        owned->addOutput(s(name));
    owned->setFragmentShaderSource(s("#version 150\nout vec4 o_First, o_Second, o_Third;\nvoid main()\n{\n"
                                     "  o_First = vec4(0.25);\n  o_Second = vec4(0.5);\n  o_Third = vec4(0.75);\n}\n"));
    owned->setInput(0, QRect(0, 0, 3, 2));
    runFrame(*owned);
    EXPECT_TRUE(sameImage(result(0), Image<float>(3, 2, {0.5, 0.5, 0.5, 0.5}), within(0)));
    EXPECT_FALSE(owned->output(1).isValid());
    EXPECT_TRUE(sameImage(result(2), Image<float>(3, 2, {0.25, 0.25, 0.25, 0.25}), within(0)));
    EXPECT_TRUE(sameImage(result(3), Image<float>(3, 2, {0.75, 0.75, 0.75, 0.75}), within(0)));
    EXPECT_EQ(stateOf(typedOutput(*owned, 0)).internalFormat, unsigned(GL_RGBA16F));
}

TEST_F(ShaderPass, OutputsBeyondTheDriversDrawBuffersAreSaidAndStayEmpty)
{
    GLint most = 0;
    glGetIntegerv(GL_MAX_DRAW_BUFFERS, &most);
    ASSERT_LT(most, 30);
    for (const int count : {int(most), int(most) + 1, 2 * int(most)}) {
        const MessageCapture messages;
        ShaderRenderPass pass;
        pass.setName(s("Many"));
        for (int i = 0; i < count; ++i)
            pass.addOutput(s("Kvo_KvoTexture*_O") + QString::number(i));
        QString source = s("#version 150\nout vec4 o_O0, o_O%1;\nvoid main()\n{\n  o_O0 = vec4(0.25);\n"
                           "  o_O%1 = vec4(0.5);\n}\n")
                             .arg(most - 1);
        pass.setFragmentShaderSource(source);
        pass.setInput(0, QRect(0, 0, 2, 2));
        for (int frame = 0; frame < 2; ++frame) {
            runFrame(pass);
            EXPECT_EQ(glGetError(), GLenum(GL_NO_ERROR)) << count;
        }
        EXPECT_EQ(readTexture<float>(typedOutput(pass, 0)).at(0, 0)[0], 0.25f);
        EXPECT_EQ(readTexture<float>(typedOutput(pass, most - 1)).at(0, 0)[0], 0.5f);
        for (int i = most; i < count; ++i)
            EXPECT_FALSE(pass.output(i).isValid()) << i;
        EXPECT_EQ(messages.texts(QtWarningMsg),
                  count == most ? QStringList()
                                : QStringList(s("ShaderRenderPass 'Many': the driver draws to %1 of %2 outputs at a "
                                                "time; 'Kvo_KvoTexture*_O%1' and those behind it stay empty")
                                                  .arg(most)
                                                  .arg(count)));
    }
}

TEST_F(ShaderPass, PointsAreDrawnInTheSizeThatTheShaderSays)
{
    // At the centres of pixels of 8 by 8: (1, 1) of 3 pixels a side, (5, 6) of 1.
    const auto points = makeGeometry(GL_POINTS, {-0.625f, -0.625f, 0, 0.375f, 0.625f, 0});
    owned->addInput(s("Kvo_KvoDrawBuffers*_Points"), objectForm(points.get()));
    owned->setVertexShaderSource(s("#version 150\nin vec3 va_Vertex;\nvoid main()\n{\n"
                                   "  gl_Position = vec4(va_Vertex, 1.0);\n"
                                   "  gl_PointSize = va_Vertex.x < 0.0 ? 3.0 : 1.0;\n}\n"));
    Image<float> expected(8, 8);
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 3; ++x)
            expected.at(x, y) = {1, 1, 1, 1};
    expected.at(5, 6) = {1, 1, 1, 1};
    EXPECT_TRUE(sameImage(drawn(s(kWhite), 8, 8), expected, within(0)));
    EXPECT_FALSE(glIsEnabled(GL_PROGRAM_POINT_SIZE)) << "put back";

    glEnable(GL_PROGRAM_POINT_SIZE);
    runFrame(*owned);
    EXPECT_TRUE(glIsEnabled(GL_PROGRAM_POINT_SIZE)) << "put back";
    glDisable(GL_PROGRAM_POINT_SIZE);
}

TEST_F(ShaderPass, GeometryIsTakenInEitherForm)
{
    // Sides of 7.5 pixels, so that no pixel's centre lies on an edge.
    const auto triangle = makeGeometry(GL_TRIANGLES, {-1, -1, 0, 0.875f, -1, 0, -1, 0.875f, 0});
    owned->addInput(s("Kvo_KvoDrawBuffers*_Geometry"), QVariant::fromValue(triangle.get()));
    owned->setVertexShaderSource(s(kPositionsOnly));
    const Image<float> typed = drawn(s(kWhite), 8, 8);
    EXPECT_EQ(coveredPixels(typed), 7 + 6 + 5 + 4 + 3 + 2 + 1);
    owned->setInput(1, objectForm(triangle.get()));
    runFrame(*owned);
    EXPECT_TRUE(sameImage(result(), typed, within(0)));
}

TEST_F(ShaderPass, OfSeveralGeometriesTheLastIsDrawn)
{
    const auto left = makeGeometry(GL_POINTS, {-0.75f, -0.75f, 0});
    const auto right = makeGeometry(GL_POINTS, {0.25f, 0.25f, 0});
    owned->addInput(s("Kvo_KvoDrawBuffers*_Left"), objectForm(left.get()));
    owned->addInput(s("Kvo_KvoDrawBuffers*_Right"), objectForm(right.get()));
    owned->setVertexShaderSource(s("#version 150\nin vec3 va_Vertex;\nvoid main()\n{\n"
                                   "  gl_Position = vec4(va_Vertex, 1.0);\n  gl_PointSize = 1.0;\n}\n"));
    const Image<float> image = drawn(s(kWhite), 4, 4);
    EXPECT_EQ(coveredPixels(image), 1);
    EXPECT_TRUE(isPixel(image, 2, 2, {1, 1, 1, 1}, 0));

    owned->setInput(2, QVariant());
    runFrame(*owned);
    EXPECT_EQ(coveredPixels(result()), 16) << "the last one is missing, so the quad is drawn";
}

TEST_F(ShaderPass, WithoutItsGeometryTheQuadIsDrawn)
{
    owned->addInput(s("Kvo_KvoDrawBuffers*_Geometry"));
    EXPECT_EQ(coveredPixels(drawn(s(kWhite), 4, 4)), 16);
    const auto texture = makeSolidTexture(1, 1, {});
    owned->setInput(1, textureToVariant(texture.get()));
    runFrame(*owned);
    EXPECT_EQ(coveredPixels(result()), 16) << "a texture is no geometry";
    const auto triangle = makeGeometry(GL_TRIANGLES, {-1, -1, 0, 1, -1, 0, -1, 1, 0});
    owned->setInput(1, objectForm(triangle.get()));
    runFrame(*owned);
    EXPECT_LT(coveredPixels(result()), 16);
    owned->setInput(1, QVariant::fromValue(static_cast<DrawBuffers *>(nullptr)));
    runFrame(*owned);
    EXPECT_EQ(coveredPixels(result()), 16);
}

TEST_F(ShaderPass, AGeometryWithoutArraysDrawsNothing)
{
    DrawBuffers empty;
    owned->addInput(s("Kvo_KvoDrawBuffers*_Geometry"), objectForm(&empty));
    const GlCalls calls;
    EXPECT_EQ(coveredPixels(drawn(s(kWhite), 4, 4)), 0);
    EXPECT_EQ(calls.draws(), 0);
}

TEST_F(ShaderPass, AGeometryShaderMakesSquaresOfPoints)
{
    const auto points = makeGeometry(GL_POINTS, {-0.5f, 0, 0});
    owned->addInput(s("Kvo_KvoDrawBuffers*_Points"), objectForm(points.get()));
    owned->addInput(s("halfSize"), 0.25f);
    owned->setVertexShaderSource(s(kPositionsOnly));
    owned->setGeometryShaderSource(
        s("#version 150\nlayout(points) in;\nlayout(triangle_strip, max_vertices = 4) out;\n"
          "uniform float halfSize;\nvoid main()\n{\n  for(int i = 0; i < 4; ++i)\n  {\n"
          "    vec2 corner = vec2(i % 2, i / 2) * 2.0 - 1.0;\n"
          "    gl_Position = gl_in[0].gl_Position + vec4(halfSize * corner, 0.0, 0.0);\n    EmitVertex();\n  }\n"
          "  EndPrimitive();\n}\n"));
    Image<float> expected(8, 8);
    for (int y = 3; y < 5; ++y)
        for (int x = 1; x < 3; ++x)
            expected.at(x, y) = {1, 1, 1, 1};
    EXPECT_TRUE(sameImage(drawn(s(kWhite), 8, 8), expected, within(0)));
}

namespace {

QString tessellationText(const char *body)
{
    return s("#version 150\n#extension GL_ARB_tessellation_shader : require\n") + s(body);
}

void addTessellation(ShaderRenderPass &pass)
{
    pass.setVertexShaderSource(s(kPositionsOnly));
    pass.setTessellationControlShaderSource(tessellationText(
        "layout(vertices = 3) out;\nvoid main()\n{\n"
        "  gl_out[gl_InvocationID].gl_Position = gl_in[gl_InvocationID].gl_Position;\n"
        "  for(int i = 0; i < 3; ++i) gl_TessLevelOuter[i] = 4.0;\n  gl_TessLevelInner[0] = 4.0;\n}\n"));
    // Bends the hypotenuse of the triangle out to a quarter circle around (-1, -1).
    pass.setTessellationEvaluationShaderSource(
        tessellationText("layout(triangles, equal_spacing, ccw) in;\nvoid main()\n{\n"
                         "  vec4 p = gl_TessCoord.x * gl_in[0].gl_Position + gl_TessCoord.y * gl_in[1].gl_Position\n"
                         "         + gl_TessCoord.z * gl_in[2].gl_Position;\n  vec2 q = p.xy + 1.0;\n"
                         "  float along = q.x + q.y;\n  p.xy = (length(q) > 0.0 ? normalize(q) * along : q) - 1.0;\n"
                         "  gl_Position = p;\n}\n"));
}

} // namespace

TEST_F(ShaderPass, TessellationStagesRefineThePatchesOfTheGeometry)
{
    KVO_REQUIRE_EXTENSION("GL_ARB_tessellation_shader");
    const std::vector<float> corners{-1, -1, 0, 1, -1, 0, -1, 1, 0};
    const auto patch = makeGeometry(GL_PATCHES, corners);
    owned->addInput(s("Kvo_KvoDrawBuffers*_Patches"), objectForm(patch.get()));
    addTessellation(*owned);
    const int covered = coveredPixels(drawn(s(kWhite), 64, 64));
    // The arc is four chords, or fewer where GL splits the triangle otherwise: a polygon in the quarter
    // disc of 3217 pixels, and far more than the triangle of 2080.
    EXPECT_GT(covered, 2900);
    EXPECT_LT(covered, 3217);
}

TEST_F(ShaderPass, TessellationStagesDrawNothingButPatches)
{
    KVO_REQUIRE_EXTENSION("GL_ARB_tessellation_shader");
    const auto triangle = makeGeometry(GL_TRIANGLES, {-1, -1, 0, 1, -1, 0, -1, 1, 0});
    owned->addInput(s("Kvo_KvoDrawBuffers*_Patches"), objectForm(triangle.get()));
    addTessellation(*owned);
    EXPECT_EQ(coveredPixels(drawn(s(kWhite), 8, 8)), 0);
    owned->setInput(1, QVariant());
    runFrame(*owned);
    EXPECT_EQ(coveredPixels(result()), 0) << "the quad is no patch either";
}

TEST_F(ShaderPass, PatchesWithoutTessellationStagesAreNotDrawn)
{
    KVO_REQUIRE_EXTENSION("GL_ARB_tessellation_shader");
    const auto patch = makeGeometry(GL_PATCHES, {-1, -1, 0, 1, -1, 0, -1, 1, 0});
    owned->addInput(s("Kvo_KvoDrawBuffers*_Patches"), objectForm(patch.get()));
    owned->setVertexShaderSource(s(kPositionsOnly));
    EXPECT_EQ(coveredPixels(drawn(s(kWhite), 8, 8)), 0);
}

TEST_F(ShaderPass, MoreThan256InputsWork)
{
    constexpr int kPlain = 300;
    for (int i = 0; i < kPlain; ++i)
        owned->addInput(QStringLiteral("value%1").arg(i), 0.25f);
    const auto red = makeSolidTexture(2, 2, {1, 0, 0, 1});
    owned->addInput(s("Kvo_KvoTexture*_Last"), textureToVariant(red.get()));
    ASSERT_EQ(owned->numInputs(), kPlain + 2);
    owned->setInput(1 + 299, 0.5f);
    const Image<float> image = drawn(fragmentText(s("uniform float value0, value299; uniform sampler2D u_Last;"),
                                                  s("vec4(texture(u_Last, vo_TexCoord).r, value0, value299, 1.0)")));
    EXPECT_TRUE(isPixel(image, 0, 0, {1, 0.25, 0.5, 1}, 0));
}

// Tables grow and are never cleared, which is why hosts finish the list of slots first.
TEST_F(ShaderPass, ASlotAddedAfterTheFirstStartDoublesTheEntriesAndRepeatsThatEveryFrame)
{
    const auto red = makeSolidTexture(2, 2, {1, 0, 0, 1});
    owned->addInput(s("Kvo_KvoTexture*_Input"), textureToVariant(red.get()));
    owned->addOutput(s("Kvo_KvoTexture*_Frame"));
    owned->setInput(0, QRect(0, 0, 2, 2));
    const auto targetsOfAFrame = [&] {
        const GlCalls calls;
        runFrame(*owned);
        const std::vector<GlCall> sets = calls.calls("glDrawBuffers");
        return sets.size() == 1 ? int(sets.front().args[0]) : -1;
    };
    EXPECT_EQ(targetsOfAFrame(), 1);
    EXPECT_EQ(targetsOfAFrame(), 1);
    owned->addInput(s("Kvo_float_Late"), 1.0f);
    EXPECT_EQ(targetsOfAFrame(), 2);
    EXPECT_EQ(targetsOfAFrame(), 3);
    const GlCalls calls;
    runFrame(*owned);
    const int last = calls.indexOf("glFramebufferTexture2D", {GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT3});
    ASSERT_GE(last, 0);
    EXPECT_EQ(calls.all()[size_t(last)].args[3], typedOutput(*owned, 0)->textureID())
        << "the output holds the last target, which the program does not write";
}

TEST_F(ShaderPass, ALateSlotNeverAttachesMoreThanTheDriverHolds)
{
    owned->addOutput(s("Kvo_KvoTexture*_Frame"));
    runFrame(*owned);
    owned->addInput(s("Kvo_float_Late"), 1.0f);
    GLint limit = 0;
    glGetIntegerv(GL_MAX_DRAW_BUFFERS, &limit);
    for (int frame = 0; frame < limit + 4; ++frame)
        runFrame(*owned); // the fixture fails on a GL error
    const GlCalls calls;
    runFrame(*owned);
    EXPECT_EQ(calls.calls("glDrawBuffers").at(0).args[0], double(limit));
    EXPECT_NE(typedOutput(*owned, 0), nullptr);
}

TEST_F(ShaderPass, ALateSlotReleasesItsTexturesMoreThanOnce)
{
    TextureManager &pool = TextureManager::Instance();
    Texture *image = pool.tempTexture(TextureFormat::Frame, 2, 2);
    owned->addInput(s("Kvo_KvoTexture*_Input"), textureToVariant(image));
    owned->addOutput(s("Kvo_KvoTexture*_Frame"));
    pool.addTempTextureRef(image, 4);
    runFrame(*owned);
    EXPECT_EQ(pool.tempTextureRefs(image), 4);
    owned->addInput(s("Kvo_float_Late"), 1.0f);
    runFrame(*owned);
    EXPECT_EQ(pool.tempTextureRefs(image), 2);
    pool.releaseTempTextureRef(image, 2);
}

TEST_F(ShaderPass, SourcesSetAfterTheFirstStartHaveNoEffect)
{
    EXPECT_TRUE(isPixel(drawn(fragmentText(QString(), s("vec4(0.5)"))), 0, 0, {0.5, 0.5, 0.5, 0.5}, 0));
    const GlCalls calls;
    EXPECT_TRUE(isPixel(drawn(fragmentText(QString(), s("vec4(0.25)"))), 0, 0, {0.5, 0.5, 0.5, 0.5}, 0));
    EXPECT_EQ(calls.count("glCompileShader"), 0);
}

TEST_F(ShaderPass, ASubclassSetsUniformsOfItsOwn)
{
    for (const bool usualOnes : {false, true}) {
        UniformPass pass;
        pass.alsoTheUsualOnes = usualOnes;
        pass.addInput(s("given"), 0.25f);
        pass.addOutput(s("Kvo_KvoTexture*_Frame"));
        pass.setFragmentShaderSource(fragmentText(s("uniform float own, given;"), s("vec4(own, given, 0.0, 1.0)")));
        runFrame(pass);
        runFrame(pass);
        EXPECT_EQ(pass.calls, 2);
        EXPECT_TRUE(pass.sawItsProgram);
        EXPECT_TRUE(isPixel(readTexture<float>(typedOutput(pass, 0)), 0, 0, {0.75, usualOnes ? 0.25 : 0, 0, 1}, 0));
    }
}

TEST_F(ShaderPass, AShaderThatDoesNotCompileIsReportedOnceWithPassAndNumberedSource)
{
    const Failures failures;
    glClearColor(0.5f, 0.25f, 0.125f, 1.0f);
    owned->setName(s("Toon"));
    const Image<float> image =
        drawn(s("#version 150\nout vec4 o_Frame;\nvoid main()\n{\n  o_Frame = nothing;\n}\n"), 2, 2);
    EXPECT_TRUE(sameImage(image, Image<float>(2, 2, {0.5f, 0.25f, 0.125f, 1.0f}), within(0))) << "as cleared";
    runFrame(*owned);
    ASSERT_EQ(failures.all.size(), 1u);
    const ShaderFailure &failure = failures.all.front();
    EXPECT_EQ(failure.label, s("Toon"));
    EXPECT_FALSE(failure.whileLinking);
    EXPECT_TRUE(failure.log.contains(s("fragment shader"))) << qPrintable(failure.log);
    EXPECT_TRUE(failure.log.contains(s("'Toon'"))) << qPrintable(failure.log);
    EXPECT_TRUE(failure.log.contains(s(">   5 |   o_Frame = nothing;"))) << qPrintable(failure.log);
}

TEST_F(ShaderPass, AProgramThatDoesNotLinkIsReportedUnderTheNameOfTheClass)
{
    const Failures failures;
    const Image<float> image = drawn(s("#version 150\nin vec4 vo_Missing;\nout vec4 o_Frame;\nvec4 gone();\n"
                                       "void main() { o_Frame = vo_Missing + gone(); }\n"));
    EXPECT_TRUE(sameImage(image, Image<float>(1, 1), within(0)));
    ASSERT_EQ(failures.all.size(), 1u);
    EXPECT_EQ(failures.all.front().label, s("ShaderRenderPass"));
    EXPECT_TRUE(failures.all.front().whileLinking);
    EXPECT_TRUE(failures.all.front().log.contains(s("   3 | out vec4 o_Frame;")))
        << qPrintable(failures.all.front().log);
}

TEST_F(ShaderPass, InAPipelineFileAFailureHasTheNameOfThePass)
{
    Pipeline pipeline;
    QStringList errors;
    ASSERT_TRUE(loadPipelineText(R"({ "passes": [ { "name": "Paint", "class": "ShaderRenderPass", "calls": [
        { "addOutput": ["Kvo_KvoTexture*_Frame"] }, { "setFragmentShaderSource": ["no shader"] } ],
        "inputs": { "Viewport": [0, 0, 4, 4] } } ] })",
                                 s("test.json"), &pipeline, &errors))
        << qPrintable(errors.join(u'\n'));
    const Failures failures;
    EXPECT_TRUE(pipeline.render());
    ASSERT_EQ(failures.all.size(), 1u);
    EXPECT_EQ(failures.all.front().label, s("Paint"));
    EXPECT_TRUE(failures.all.front().log.contains(s("1 | no shader"))) << qPrintable(failures.all.front().log);
}

TEST_F(ShaderPass, AStageThatTheContextLacksIsReportedWithoutAnErrorOfGL)
{
    if (hasGLExtension("GL_ARB_tessellation_shader")) {
        // This test again, in a driver without.
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        const QString others = environment.value(s("MESA_EXTENSION_OVERRIDE"));
        if (others.contains(s("tessellation")))
            GTEST_SKIP() << "this driver cannot go without tessellation";
        environment.insert(s("MESA_EXTENSION_OVERRIDE"), others + s(" -GL_ARB_tessellation_shader"));
        QProcess process;
        process.setProcessEnvironment(environment);
        process.setProcessChannelMode(QProcess::MergedChannels);
        const std::string name = std::string(::testing::UnitTest::GetInstance()->current_test_info()->name());
        process.start(QCoreApplication::applicationFilePath(), {s("--gtest_filter=*.") + QString::fromStdString(name)});
        ASSERT_TRUE(process.waitForFinished(60000));
        const QByteArray output = process.readAll();
        if (process.exitCode() == 77)
            GTEST_SKIP() << "this driver cannot go without tessellation";
        EXPECT_EQ(process.exitCode(), 0) << output.constData();
        EXPECT_TRUE(output.contains("[  PASSED  ] 1 test")) << output.constData();
        return;
    }
    const Failures failures;
    addTessellation(*owned);
    EXPECT_EQ(coveredPixels(drawn(s(kWhite), 4, 4)), 0);
    ASSERT_EQ(failures.all.size(), 1u);
    EXPECT_TRUE(failures.all.front().log.contains(s("the context has no such stage")));
}

TEST_F(ShaderPass, OutputsKeepTheReferencesOfTheirUsersAndInputsLoseOne)
{
    TextureManager &pool = TextureManager::Instance();
    Texture *image = pool.tempTexture(TextureFormat::Frame, 2, 2);
    owned->addInput(s("Kvo_KvoTexture*_Input"), textureToVariant(image));
    owned->addOutput(s("Kvo_KvoTexture*_Used"));
    owned->addOutput(s("Kvo_KvoTexture*_Unused"));
    owned->setNumOutputUsers(0, 2);
    runFrame(*owned);
    EXPECT_EQ(pool.tempTextureRefs(image), 0);
    EXPECT_EQ(pool.tempTextureRefs(typedOutput(*owned, 0)), 2);
    EXPECT_EQ(pool.tempTextureRefs(typedOutput(*owned, 1)), 0);
    pool.releaseTempTextureRef(typedOutput(*owned, 0), 2);
}

TEST_F(ShaderPass, ChangesOnlyTheStateThatItSays)
{
    const auto texture = makeSolidTexture(4, 4, {1, 0, 0, 1});
    owned->addInput(s("Kvo_KvoTexture*_Input"), textureToVariant(texture.get()));
    owned->addOutput(s("Kvo_KvoTexture*_Frame"));
    owned->setInput(0, QRect(1, 1, 4, 4));
    runFrame(*owned);
    const auto changed = [&](ShaderRenderPass::BlendMode mode) {
        owned->setBlend(mode);
        glEnable(GL_DEPTH_TEST);
        glEnable(GL_BLEND);
        glBlendFunc(GL_ZERO, GL_ZERO);
        glViewport(1, 2, 3, 4);
        const GLStateSnapshot before;
        runFrame(*owned);
        return GLStateSnapshot().changedSince(before).join(s(", "));
    };
    EXPECT_EQ(changed(ShaderRenderPass::BlendNone), s("viewport, depth test, blending"));
    EXPECT_EQ(changed(ShaderRenderPass::BlendAlpha),
              s("viewport, depth test, blending, blend source, blend destination, blend source alpha, "
                "blend destination alpha"));
    EXPECT_EQ(changed(ShaderRenderPass::BlendAdd),
              s("viewport, depth test, blending, blend source, blend destination, blend source alpha, "
                "blend destination alpha"));
}

TEST_F(ShaderPass, InputsOfWrongTypesCountAsMissing)
{
    owned->addInput(s("Kvo_KvoTexture*_Input"), 3);
    owned->addInput(s("Kvo_KvoDrawBuffers*_Geometry"), s("geometry"));
    owned->addInput(s("gain"), QVariant::fromValue(QVector4D(1, 1, 1, 1)));
    owned->addOutput(s("Kvo_KvoTexture*_Frame"));
    owned->setFragmentShaderSource(
        fragmentText(s("uniform sampler2D u_Input; uniform mat4 gain;"), s("texture(u_Input, vo_TexCoord) + gain[0]")));
    owned->setInput(0, s("viewport"));
    runFrame(*owned);
    EXPECT_TRUE(sameImage(result(), Image<float>(1, 1), within(0)));
}

TEST_F(ShaderPass, ACopyBeforeTheFirstStartIsAPassOfItsOwn)
{
    owned->addOutput(s("Kvo_KvoTexture*_Frame"));
    owned->setFragmentShaderSource(fragmentText(QString(), s("vec4(0.5)")));
    const auto copy = std::make_unique<ShaderRenderPass>(*owned);
    owned->setFragmentShaderSource(fragmentText(QString(), s("vec4(0.25)")));
    runFrame(*owned);
    EXPECT_TRUE(isPixel(result(), 0, 0, {0.25, 0.25, 0.25, 0.25}, 0));
    runFrame(*copy);
    ASSERT_EQ(copy->numOutputs(), 1);
    EXPECT_TRUE(isPixel(readTexture<float>(typedOutput(*copy, 0)), 0, 0, {0.5, 0.5, 0.5, 0.5}, 0));
}

TEST_F(ShaderPass, TeardownFreesNothing)
{
    owned->addOutput(s("Kvo_KvoTexture*_Frame"));
    owned->setInput(0, QRect(0, 0, 4, 4));
    expectTeardownKeepsEverything(*owned);
}

TEST_F(ShaderPass, SteadyFrameCreatesNothing)
{
    const auto texture = makeSolidTexture(4, 4, {1, 0, 0, 1});
    owned->addInput(s("Kvo_KvoTexture*_Input"), textureToVariant(texture.get()));
    owned->addInput(s("gain"), QColor(Qt::red));
    owned->addOutput(s("Kvo_KvoTexture*_Frame"));
    owned->setInput(0, QRect(0, 0, 4, 4));
    expectSteadyFrameCreatesNothing(*owned);
}

TEST_F(ShaderPass, SteadyFrameTakesNothingFromTheHeap)
{
    const auto texture = makeSolidTexture(4, 4, {1, 0, 0, 1});
    owned->addInput(s("Kvo_KvoTexture*_Input"), textureToVariant(texture.get()));
    owned->addInput(s("Kvo_KvoTexture*_Open"));
    owned->addInput(s("tint"), QColor(Qt::red));
    owned->addInput(s("matrix"), QVariant::fromValue(QMatrix4x4()));
    owned->addOutput(s("Kvo_KvoTexture*_Frame"));
    owned->setFragmentShaderSource(
        fragmentText(s("uniform sampler2D u_Input, u_Open; uniform vec4 tint; uniform mat4 matrix;"),
                     s("tint * texture(u_Input, vo_TexCoord) + matrix * texture(u_Open, vo_TexCoord)")));
    owned->setInput(0, QRect(0, 0, 4, 4));
    KVO_EXPECT_STEADY_FRAME_TAKES_NOTHING_FROM_THE_HEAP(*owned);
}
