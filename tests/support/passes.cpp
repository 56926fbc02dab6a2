#include "support/passes.h"

#include "support/glcalls.h"

#include <core/renderpass.h>
#include <gl/guards.h>
#include <gl/texture.h>

#include <epoxy/gl.h>

namespace Brevane::Kvo::Test {

void expectSlots(const RenderPass &pass, const std::vector<SlotRow> &inputs, const std::vector<const char *> &outputs)
{
    ASSERT_EQ(pass.numInputs(), int(inputs.size()));
    for (int i = 0; i < pass.numInputs(); ++i) {
        EXPECT_STREQ(qPrintable(pass.inputName(i)), inputs[size_t(i)].name) << "input " << i;
        const QVariant &expected = inputs[size_t(i)].defaultValue;
        EXPECT_EQ(pass.defaultValue(i).isValid(), expected.isValid()) << inputs[size_t(i)].name;
        EXPECT_EQ(pass.defaultValue(i).metaType(), expected.metaType()) << inputs[size_t(i)].name;
        EXPECT_EQ(pass.defaultValue(i), expected) << inputs[size_t(i)].name;
    }
    ASSERT_EQ(pass.numOutputs(), int(outputs.size()));
    for (int i = 0; i < pass.numOutputs(); ++i) {
        EXPECT_STREQ(qPrintable(pass.outputName(i)), outputs[size_t(i)]) << "output " << i;
        EXPECT_FALSE(pass.output(i).isValid()) << "an output has no value before start: " << outputs[size_t(i)];
    }
    EXPECT_EQ(pass.errorCode(), 0u);
}

void runFrame(RenderPass &pass)
{
    pass.beginFrame(nullptr);
    pass.start(nullptr);
    pass.endFrame(nullptr);
}

Texture *outputTexture(const RenderPass &pass, int index)
{
    const QVariant value = pass.output(index);
    EXPECT_EQ(value.metaType(), QMetaType(QMetaType::QObjectStar)) << "output " << index << " is not in object form";
    auto *texture = qobject_cast<Texture *>(qvariant_cast<QObject *>(value));
    EXPECT_NE(texture, nullptr) << "output " << index << " holds no texture";
    return texture;
}

TextureState stateOf(const Texture *texture)
{
    TextureState state;
    if (!texture || texture->textureID() == 0)
        return state;
    const GlCalls::Pause pause;
    GLint before = 0;
    glGetIntegerv(GL_TEXTURE_BINDING_2D, &before);
    glBindTexture(GL_TEXTURE_2D, texture->textureID());
    GLint value = 0;
    glGetTexLevelParameteriv(GL_TEXTURE_2D, 0, GL_TEXTURE_INTERNAL_FORMAT, &value);
    state.internalFormat = unsigned(value);
    glGetTexLevelParameteriv(GL_TEXTURE_2D, 0, GL_TEXTURE_WIDTH, &state.width);
    glGetTexLevelParameteriv(GL_TEXTURE_2D, 0, GL_TEXTURE_HEIGHT, &state.height);
    glGetTexParameteriv(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, &value);
    state.minFilter = unsigned(value);
    glGetTexParameteriv(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, &value);
    state.magFilter = unsigned(value);
    glBindTexture(GL_TEXTURE_2D, GLuint(before));
    return state;
}

::testing::AssertionResult isTarget(const Texture *texture, unsigned int internalFormat, int width, int height)
{
    if (!texture)
        return ::testing::AssertionFailure() << "there is no texture";
    const TextureState s = stateOf(texture);
    if (texture->target() == GL_TEXTURE_2D && s.internalFormat == internalFormat && s.width == width
        && s.height == height && s.minFilter == GL_NEAREST && s.magFilter == GL_NEAREST)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << std::hex << "target 0x" << texture->target() << ", format 0x"
                                         << s.internalFormat << " instead of 0x" << internalFormat << std::dec
                                         << ", size " << s.width << "x" << s.height << " instead of " << width << "x"
                                         << height << std::hex << ", filters 0x" << s.minFilter << " and 0x"
                                         << s.magFilter;
}

namespace {

struct Query
{
    const char *name;
    GLenum parameter;
    int count;
};

constexpr Query kQueries[] = {
    {"viewport", GL_VIEWPORT, 4},
    {"scissor box", GL_SCISSOR_BOX, 4},
    {"clear colour", GL_COLOR_CLEAR_VALUE, 4},
    {"clear depth", GL_DEPTH_CLEAR_VALUE, 1},
    {"clear stencil", GL_STENCIL_CLEAR_VALUE, 1},
    {"depth test", GL_DEPTH_TEST, 1},
    {"stencil test", GL_STENCIL_TEST, 1},
    {"scissor test", GL_SCISSOR_TEST, 1},
    {"blending", GL_BLEND, 1},
    {"face culling", GL_CULL_FACE, 1},
    {"colour mask", GL_COLOR_WRITEMASK, 4},
    {"depth mask", GL_DEPTH_WRITEMASK, 1},
    {"stencil mask", GL_STENCIL_WRITEMASK, 1},
    {"depth function", GL_DEPTH_FUNC, 1},
    {"stencil function", GL_STENCIL_FUNC, 1},
    {"stencil reference", GL_STENCIL_REF, 1},
    {"stencil value mask", GL_STENCIL_VALUE_MASK, 1},
    {"culled face", GL_CULL_FACE_MODE, 1},
    {"front face", GL_FRONT_FACE, 1},
    {"blend source", GL_BLEND_SRC_RGB, 1},
    {"blend destination", GL_BLEND_DST_RGB, 1},
    {"blend source alpha", GL_BLEND_SRC_ALPHA, 1},
    {"blend destination alpha", GL_BLEND_DST_ALPHA, 1},
    {"blend equation", GL_BLEND_EQUATION_RGB, 1},
    {"blend colour", GL_BLEND_COLOR, 4},
    {"polygon offset", GL_POLYGON_OFFSET_FILL, 1},
    {"sRGB framebuffer", GL_FRAMEBUFFER_SRGB, 1},
    {"primitive restart", GL_PRIMITIVE_RESTART, 1},
    {"unpack alignment", GL_UNPACK_ALIGNMENT, 1},
    {"pack alignment", GL_PACK_ALIGNMENT, 1},
    {"draw framebuffer", GL_DRAW_FRAMEBUFFER_BINDING, 1},
    {"read framebuffer", GL_READ_FRAMEBUFFER_BINDING, 1},
    {"program", GL_CURRENT_PROGRAM, 1},
    {"vertex array", GL_VERTEX_ARRAY_BINDING, 1},
    {"array buffer", GL_ARRAY_BUFFER_BINDING, 1},
    {"unpack buffer", GL_PIXEL_UNPACK_BUFFER_BINDING, 1},
    {"uniform buffer", GL_UNIFORM_BUFFER_BINDING, 1},
    {"active texture unit", GL_ACTIVE_TEXTURE, 1},
};

constexpr int kUnits = 16;

} // namespace

GLStateSnapshot::GLStateSnapshot()
{
    const GlCalls::Pause pause;
    for (const Query &query : kQueries) {
        std::vector<double> value(static_cast<size_t>(query.count));
        glGetDoublev(query.parameter, value.data());
        _entries.push_back({query.name, value});
    }
    GLint active = 0;
    glGetIntegerv(GL_ACTIVE_TEXTURE, &active);
    std::vector<double> textures;
    for (int unit = 0; unit < kUnits; ++unit) {
        glActiveTexture(GL_TEXTURE0 + GLenum(unit));
        for (GLenum binding : {GL_TEXTURE_BINDING_2D, GL_TEXTURE_BINDING_2D_ARRAY, GL_TEXTURE_BINDING_BUFFER}) {
            GLint name = 0;
            glGetIntegerv(binding, &name);
            textures.push_back(name);
        }
    }
    glActiveTexture(GLenum(active));
    _entries.push_back({"textures", textures});
}

QStringList GLStateSnapshot::changedSince(const GLStateSnapshot &before) const
{
    QStringList changed;
    for (size_t i = 0; i < _entries.size(); ++i)
        if (_entries[i].value != before._entries[i].value)
            changed.append(QString::fromLatin1(_entries[i].name));
    return changed;
}

HostileGLState::HostileGLState()
{
    const GlCalls::Pause pause;
    glGenTextures(1, &_texture);
    glGenFramebuffers(2, _framebuffers);
    glGenVertexArrays(1, &_vertexArray);
    for (int unit : {3, 0}) {
        glActiveTexture(GL_TEXTURE0 + GLenum(unit));
        glBindTexture(GL_TEXTURE_2D, _texture);
    }
    glActiveTexture(GL_TEXTURE5);
    glBindFramebuffer(GL_DRAW_FRAMEBUFFER, _framebuffers[0]);
    glBindFramebuffer(GL_READ_FRAMEBUFFER, _framebuffers[1]);
    glBindVertexArray(_vertexArray);
    for (GLenum capability : {GL_DEPTH_TEST, GL_STENCIL_TEST, GL_BLEND, GL_CULL_FACE, GL_SCISSOR_TEST})
        glEnable(capability);
    glViewport(1, 2, 3, 4);
    glScissor(2, 1, 2, 3);
    glClearColor(0.25f, 0.5f, 0.75f, 0.125f);
    glColorMask(GL_TRUE, GL_FALSE, GL_TRUE, GL_FALSE);
    glDepthFunc(GL_NEVER);
    glStencilFunc(GL_NEVER, 7, 0x0F);
    glCullFace(GL_FRONT_AND_BACK);
    glBlendFunc(GL_ZERO, GL_ZERO);
    glBlendColor(0.5f, 0.5f, 0.5f, 0.5f);
}

HostileGLState::~HostileGLState()
{
    const GlCalls::Pause pause;
    glBindFramebuffer(GL_FRAMEBUFFER, 0);
    glBindVertexArray(0);
    glDeleteFramebuffers(2, _framebuffers);
    glDeleteTextures(1, &_texture);
    glDeleteVertexArrays(1, &_vertexArray);
}

void expectSteadyFrameCreatesNothing(RenderPass &pass)
{
    runFrame(pass);
    runFrame(pass);
    const GlCalls calls;
    runFrame(pass);
    EXPECT_EQ(calls.created(), 0) << qPrintable(calls.toString());
    EXPECT_EQ(calls.textureAllocations(), 0);
    EXPECT_EQ(calls.bufferAllocations(), 0);
    EXPECT_EQ(calls.transfers(), 0) << qPrintable(calls.toString());
    EXPECT_EQ(calls.count("glLinkProgram"), 0);
}

void expectResizingLeaksNothing(RenderPass &pass, int targets)
{
    pass.setInput(0, QRect(0, 0, 8, 8));
    runFrame(pass);
    const int live = GlCalls::live();
    for (int i = 1; i <= 6; ++i) {
        pass.setInput(0, QRect(i, 2 * i, 8 + i % 4, 9 + i % 3));
        const GlCalls calls;
        runFrame(pass);
        EXPECT_EQ(calls.textureAllocations(), targets) << "frame " << i;
        EXPECT_EQ(calls.created(GlKind::Texture), targets) << "frame " << i;
        EXPECT_EQ(calls.created(), targets) << "frame " << i << " made more than its targets";
        EXPECT_EQ(GlCalls::live(), live) << "frame " << i;
    }
}

void expectTeardownKeepsEverything(RenderPass &pass)
{
    const auto outputs = [&pass] {
        QVector<QVariant> values;
        for (int i = 0; i < pass.numOutputs(); ++i)
            values.append(pass.output(i));
        return values;
    };
    runFrame(pass);
    const QVector<QVariant> before = outputs();
    {
        const GlCalls calls;
        pass.teardown(nullptr);
        pass.teardownContextData(nullptr);
        pass.setup(nullptr);
        EXPECT_TRUE(calls.all().empty()) << qPrintable(calls.toString());
    }
    const GlCalls calls;
    runFrame(pass);
    EXPECT_EQ(calls.created(), 0);
    EXPECT_EQ(outputs(), before);
}

void expectEmptyViewportsRaiseNoError(RenderPass &pass)
{
    for (const QRect &viewport : {QRect(), QRect(0, 0, 0, 5), QRect(0, 0, 5, 0), QRect(0, 0, -2, 3)}) {
        pass.setInput(0, viewport);
        runFrame(pass);
        for (int i = 0; i < pass.numOutputs(); ++i)
            EXPECT_NE(outputTexture(pass, i), nullptr) << i;
        EXPECT_EQ(pass.errorCode(), 0u);
    }
}

void expectSecondStartAllocatesNothing(RenderPass &pass, int targets)
{
    {
        const GlCalls calls;
        runFrame(pass);
        EXPECT_EQ(calls.count("glTexImage2D"), targets);
    }
    const GlCalls calls;
    runFrame(pass);
    EXPECT_EQ(calls.textureAllocations(), 0);
    EXPECT_EQ(calls.created(), 0);
}

} // namespace Brevane::Kvo::Test
