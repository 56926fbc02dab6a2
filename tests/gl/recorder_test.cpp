// The call recorder and the probes that the other tests rely on.

#include "support/allocations.h"
#include "support/draw.h"
#include "support/gltest.h"

#include <epoxy/gl.h>

#include <gtest/gtest-spi.h>

namespace Brevane::Kvo::Test {

class RecorderTest : public GLTest
{};

TEST_F(RecorderTest, CallsAreRecordedInOrderWithTheirArguments)
{
    GlCalls calls;
    glViewport(1, 2, 30, 40);
    glEnable(GL_BLEND);
    glClearColor(0.25f, 0.5f, 0.75f, 1);
    glDisable(GL_BLEND);
    ASSERT_EQ(calls.all().size(), 4u);
    EXPECT_EQ(calls.calls("glViewport")[0].args, (std::vector<double>{1, 2, 30, 40}));
    EXPECT_EQ(calls.calls("glClearColor")[0].args, (std::vector<double>{0.25, 0.5, 0.75, 1}));
    EXPECT_EQ(calls.count("glEnable"), 1);
    EXPECT_EQ(calls.count("glEnable", {GL_BLEND}), 1);
    EXPECT_EQ(calls.count("glEnable", {GL_DEPTH_TEST}), 0);
    EXPECT_EQ(calls.sequence({"glEnable", "glDisable", "glViewport"}),
              QStringList({QStringLiteral("glViewport"), QStringLiteral("glEnable"), QStringLiteral("glDisable")}));
    EXPECT_LT(calls.indexOf("glEnable"), calls.indexOf("glDisable"));
    EXPECT_EQ(calls.indexOf("glScissor"), -1);
}

TEST_F(RecorderTest, UnknownNamesFailTheTest)
{
    GlCalls calls;
    EXPECT_NONFATAL_FAILURE(calls.count("glViewprot"), "glViewprot");
    EXPECT_NONFATAL_FAILURE(calls.indexOf("glNothing"), "glNothing");
}

TEST_F(RecorderTest, ValuesBehindPointersAreKept)
{
    const auto program = makeProgram(QStringLiteral("#version 150\nuniform vec3 u_V[2];\nout vec4 out_Color;\n"
                                                    "void main() { out_Color = vec4(u_V[0] + u_V[1], 1.0); }\n"));
    glUseProgram(program->programID());
    GlCalls calls;
    const float values[] = {1, 2, 3, 4, 5, 6};
    glUniform3fv(program->getUniformLocation(QStringLiteral("u_V")), 2, values);
    EXPECT_EQ(calls.calls("glUniform3fv")[0].data, (std::vector<double>{1, 2, 3, 4, 5, 6}));
    GLuint names[2];
    glGenBuffers(2, names);
    EXPECT_EQ(calls.calls("glGenBuffers")[0].data, (std::vector<double>{double(names[0]), double(names[1])}));
    glDeleteBuffers(2, names);
    EXPECT_EQ(calls.calls("glDeleteBuffers")[0].data, (std::vector<double>{double(names[0]), double(names[1])}));
    Target target(GL_RGBA8, 1, 1);
    target.framebuffer()->bind();
    const float red[] = {1, 0, 0, 0.5f};
    glClearBufferfv(GL_COLOR, 0, red);
    EXPECT_EQ(calls.calls("glClearBufferfv").back().data, (std::vector<double>{1, 0, 0, 0.5}));
    target.framebuffer()->unbind();
    glUseProgram(0);
}

TEST_F(RecorderTest, CountsObjectsAndAllocations)
{
    GlCalls calls;
    {
        Target target(GL_RGBA8, 4, 4, true);
        EXPECT_EQ(calls.created(GlKind::Texture), 2);
        EXPECT_EQ(calls.created(GlKind::Framebuffer), 1);
        EXPECT_EQ(calls.created(), 3);
        EXPECT_EQ(calls.textureAllocations(), 2);
    }
    EXPECT_EQ(calls.count("glDeleteTextures"), 2);
    EXPECT_EQ(calls.draws(), 0);
    calls.clear();
    EXPECT_EQ(calls.created(), 0);
    EXPECT_TRUE(calls.all().empty());
}

TEST_F(RecorderTest, ProbesAreNotRecordedAndLeaveBindingsAlone)
{
    const auto texture = makeSolidTexture(3, 3, {0.25f, 0.5f, 0.75f, 1});
    GlCalls calls;
    EXPECT_TRUE(isPixel(readTexture<float>(texture.get()), 2, 2, {0.25, 0.5, 0.75, 1}, 0));
    EXPECT_TRUE(calls.all().empty()) << qPrintable(calls.toString());
    EXPECT_EQ(calls.created(), 0);
}

TEST_F(RecorderTest, LiveObjectsAreThoseNotDeleted)
{
    const int before = GlCalls::live(GlKind::Texture);
    GLuint names[3];
    glGenTextures(3, names);
    EXPECT_EQ(GlCalls::live(GlKind::Texture), before + 3);
    glDeleteTextures(2, names);
    EXPECT_EQ(GlCalls::live(GlKind::Texture), before + 1);
    glDeleteTextures(1, names + 2);
    EXPECT_EQ(GlCalls::live(GlKind::Texture), before);
    const GLuint zero = 0;
    glDeleteTextures(1, &zero);
    EXPECT_EQ(GlCalls::live(GlKind::Texture), before);
}

TEST_F(RecorderTest, GLErrorFailsTheTestUnlessExpected)
{
    EXPECT_NONFATAL_FAILURE(glEnable(0x1234), "GL error");
    EXPECT_EQ(glGetError(), GLenum(GL_INVALID_ENUM));
    ExpectedGLErrors errors;
    glEnable(0x1234);
    EXPECT_EQ(errors.count(), 1);
}

TEST_F(RecorderTest, DriverTimeAndRecordingAreNoAllocationsOfOurs)
{
    if (!allocationsAreCounted())
        GTEST_SKIP() << "missing: a malloc of our own (sanitizers bring theirs)";
    const auto program =
        makeProgram(QStringLiteral("#version 150\nout vec4 out_Color;\nvoid main() { out_Color = vec4(1.0); }\n"));
    GlCalls calls;
    const AllocationCounter allocations;
    for (int i = 0; i < 100; ++i) {
        glUseProgram(program->programID());
        glUseProgram(0);
        GLuint buffer = 0;
        glGenBuffers(1, &buffer);
        glBindBuffer(GL_ARRAY_BUFFER, buffer);
        glBufferData(GL_ARRAY_BUFFER, 100000, nullptr, GL_STATIC_DRAW);
        glDeleteBuffers(1, &buffer);
    }
    EXPECT_EQ(allocations.count(), 0);
    EXPECT_EQ(calls.count("glUseProgram"), 200);
}

TEST_F(RecorderTest, ForcedIntegersHoldForTheirScope)
{
    GLint real = 0;
    glGetIntegerv(GL_MAX_TEXTURE_SIZE, &real);
    {
        const GlCalls::ForcedInteger forced(GL_MAX_TEXTURE_SIZE, 33);
        GLint value = 0;
        glGetIntegerv(GL_MAX_TEXTURE_SIZE, &value);
        EXPECT_EQ(value, 33);
    }
    GLint value = 0;
    glGetIntegerv(GL_MAX_TEXTURE_SIZE, &value);
    EXPECT_EQ(value, real);
}

} // namespace Brevane::Kvo::Test
