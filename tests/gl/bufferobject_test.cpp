#include "support/gltest.h"

#include <gl/bufferobject.h>
#include <gl/guards.h>
#include <gl/opengldevicecontext.h>

#include <epoxy/gl.h>

#include <array>
#include <numeric>
#include <vector>

namespace Brevane::Kvo {

using namespace Test;

namespace {

GLuint bound(GLenum query)
{
    GLint name = 0;
    glGetIntegerv(query, &name);
    return GLuint(name);
}

template <typename T>
std::vector<T> contentOf(BufferObject &buffer, size_t count)
{
    std::vector<T> data(count);
    glBindBuffer(GL_COPY_READ_BUFFER, buffer.getBO());
    glGetBufferSubData(GL_COPY_READ_BUFFER, 0, GLsizeiptr(count * sizeof(T)), data.data());
    glBindBuffer(GL_COPY_READ_BUFFER, 0);
    return data;
}

} // namespace

class BufferObjectTest : public GLTest
{
protected:
    QSharedPointer<BufferObject> buffer = nullptr;
    void SetUp() override
    {
        GLTest::SetUp();
        buffer = OpenGLDeviceContext::current()->createBufferObject();
        ASSERT_TRUE(buffer);
    }
    void TearDown() override
    {
        buffer.reset();
        GLTest::TearDown();
    }
};

TEST_F(BufferObjectTest, IsAnArrayBufferUntilToldOtherwise)
{
    EXPECT_EQ(buffer->target(), GLenum(GL_ARRAY_BUFFER));
    EXPECT_EQ(buffer->getBO(), 0u);
    EXPECT_EQ(buffer->size(), 0);
    const AutoBinder guard(buffer);
    EXPECT_NE(buffer->getBO(), 0u);
    EXPECT_EQ(bound(GL_ARRAY_BUFFER_BINDING), buffer->getBO());
}

TEST_F(BufferObjectTest, FloatsArriveOnTheGpu)
{
    const float data[] = {1, -2, 0.5f};
    const AutoBinder guard(buffer);
    EXPECT_TRUE(buffer->upload(data, 3, GL_STATIC_DRAW));
    EXPECT_EQ(buffer->size(), 12);
    EXPECT_EQ(contentOf<float>(*buffer, 3), (std::vector<float>{1, -2, 0.5f}));
}

TEST_F(BufferObjectTest, UnsignedIntegersArriveOnTheGpu)
{
    const unsigned int data[] = {1, 4000000000u};
    buffer->setTarget(GL_PIXEL_UNPACK_BUFFER);
    const AutoBinder guard(buffer);
    GlCalls calls;
    EXPECT_TRUE(buffer->uploadGLuintData(data, 2, GL_STATIC_DRAW));
    EXPECT_EQ(calls.count("glBufferData", {GL_PIXEL_UNPACK_BUFFER, 8}), 1);
    EXPECT_EQ(contentOf<unsigned int>(*buffer, 2), (std::vector<unsigned int>{1, 4000000000u}));
}

TEST_F(BufferObjectTest, UploadWithoutABindWorksAndKeepsWhatTheHostHadBound)
{
    const auto host = OpenGLDeviceContext::current()->createBufferObject();
    const AutoBinder hostGuard(host);
    const float data[] = {7};
    EXPECT_TRUE(buffer->upload(data, 1, GL_STATIC_DRAW));
    EXPECT_EQ(bound(GL_ARRAY_BUFFER_BINDING), host->getBO());
    EXPECT_EQ(contentOf<float>(*buffer, 1), std::vector<float>{7});
}

TEST_F(BufferObjectTest, UploadReplacesTheContent)
{
    const std::array<float, 100> many{};
    const float one[] = {5};
    EXPECT_TRUE(buffer->upload(many.data(), 100, GL_STATIC_DRAW));
    EXPECT_TRUE(buffer->upload(one, 1, GL_STATIC_DRAW));
    EXPECT_EQ(buffer->size(), 4);
    GLint size = 0;
    const AutoBinder guard(buffer);
    glGetBufferParameteriv(GL_ARRAY_BUFFER, GL_BUFFER_SIZE, &size);
    EXPECT_EQ(size, 4);
}

TEST_F(BufferObjectTest, StorageWithoutDataCanBeMappedAndFilled)
{
    const AutoBinder guard(buffer);
    ASSERT_TRUE(buffer->uploadBytes(nullptr, 16, GL_STATIC_DRAW));
    auto *data = static_cast<float *>(buffer->map(GL_WRITE_ONLY));
    ASSERT_NE(data, nullptr);
    std::iota(data, data + 4, 1.0f);
    buffer->unmap();
    EXPECT_EQ(contentOf<float>(*buffer, 4), (std::vector<float>{1, 2, 3, 4}));
}

TEST_F(BufferObjectTest, MapAndUnmapOfAnUnboundBufferAreHarmless)
{
    const float data[] = {7};
    buffer->upload(data, 1, GL_STATIC_DRAW);
    GlCalls calls;
    EXPECT_EQ(buffer->map(GL_WRITE_ONLY), nullptr);
    buffer->unmap();
    EXPECT_EQ(calls.count("glMapBuffer") + calls.count("glUnmapBuffer"), 0);
}

TEST_F(BufferObjectTest, NegativeSizeIsRefused)
{
    EXPECT_FALSE(buffer->uploadBytes(nullptr, -1, GL_STATIC_DRAW));
    EXPECT_FALSE(buffer->upload(nullptr, -1, GL_STATIC_DRAW));
}

TEST_F(BufferObjectTest, BindingNestsAndRestoresTheHostsBuffer)
{
    GLuint host = 0;
    glGenBuffers(1, &host);
    glBindBuffer(GL_ARRAY_BUFFER, host);
    const auto other = OpenGLDeviceContext::current()->createBufferObject();
    {
        const AutoBinder outer(buffer);
        {
            const AutoBinder inner(other);
            const AutoBinder again(buffer);
            EXPECT_EQ(bound(GL_ARRAY_BUFFER_BINDING), buffer->getBO());
        }
        EXPECT_EQ(bound(GL_ARRAY_BUFFER_BINDING), buffer->getBO());
    }
    EXPECT_EQ(bound(GL_ARRAY_BUFFER_BINDING), host);
    EXPECT_FALSE(buffer->unbind());
    glDeleteBuffers(1, &host);
}

TEST_F(BufferObjectTest, DestroyingABoundBufferRestoresTheHosts)
{
    GLuint host = 0;
    glGenBuffers(1, &host);
    glBindBuffer(GL_ARRAY_BUFFER, host);
    buffer->bind();
    buffer.reset();
    EXPECT_EQ(bound(GL_ARRAY_BUFFER_BINDING), host);
    glDeleteBuffers(1, &host);
}

TEST_F(BufferObjectTest, BindsToAnIndexedPointAndRestoresIt)
{
    const float data[256] = {};
    buffer->upload(data, 256, GL_STATIC_DRAW);
    GLint alignment = 0;
    glGetIntegerv(GL_UNIFORM_BUFFER_OFFSET_ALIGNMENT, &alignment);
    ASSERT_LE(alignment, 256);
    const auto host = OpenGLDeviceContext::current()->createBufferObject();
    host->upload(data, 256, GL_STATIC_DRAW);
    glBindBufferBase(GL_UNIFORM_BUFFER, 3, host->getBO());

    buffer->setIndexedTarget(GL_UNIFORM_BUFFER, 3, 256, 512);
    {
        const AutoBinder guard(buffer);
        GLint name = 0;
        glGetIntegeri_v(GL_UNIFORM_BUFFER_BINDING, 3, &name);
        EXPECT_EQ(GLuint(name), buffer->getBO());
        GLint64 offset = 0;
        glGetInteger64i_v(GL_UNIFORM_BUFFER_START, 3, &offset);
        EXPECT_EQ(offset, 256);
        GLint64 size = 0;
        glGetInteger64i_v(GL_UNIFORM_BUFFER_SIZE, 3, &size);
        EXPECT_EQ(size, 512);
    }
    GLint name = 0;
    glGetIntegeri_v(GL_UNIFORM_BUFFER_BINDING, 3, &name);
    EXPECT_EQ(GLuint(name), host->getBO());
    glBindBufferBase(GL_UNIFORM_BUFFER, 3, 0);
}

TEST_F(BufferObjectTest, IndexedBindOfSizeZeroTakesTheWholeBuffer)
{
    const float data[16] = {};
    buffer->upload(data, 16, GL_STATIC_DRAW);
    buffer->setIndexedTarget(GL_UNIFORM_BUFFER, 1, 0, 0);
    GlCalls calls;
    const AutoBinder guard(buffer);
    EXPECT_EQ(calls.count("glBindBufferBase", {GL_UNIFORM_BUFFER, 1, double(buffer->getBO())}), 1);
    EXPECT_EQ(calls.count("glBindBufferRange"), 0);
}

TEST_F(BufferObjectTest, AtomicCounterPointIsBoundByRange)
{
    if (!epoxy_has_gl_extension("GL_ARB_shader_atomic_counters"))
        GTEST_SKIP() << "missing extension: GL_ARB_shader_atomic_counters";
    const unsigned int zero = 0;
    buffer->uploadGLuintData(&zero, 1, GL_DYNAMIC_COPY);
    buffer->setIndexedTarget(GL_ATOMIC_COUNTER_BUFFER, 0, 0, 4);
    GlCalls calls;
    {
        const AutoBinder guard(buffer);
        EXPECT_EQ(calls.count("glBindBufferRange", {GL_ATOMIC_COUNTER_BUFFER, 0, double(buffer->getBO()), 0, 4}), 1);
    }
    GLint name = 1;
    glGetIntegeri_v(GL_ATOMIC_COUNTER_BUFFER_BINDING, 0, &name);
    EXPECT_EQ(name, 0);
}

TEST_F(BufferObjectTest, WithoutAContextNothingWorksAndNothingBreaks)
{
    const float data[] = {1};
    GLContext::doneCurrent();
    EXPECT_FALSE(buffer->bind());
    EXPECT_FALSE(buffer->upload(data, 1, GL_STATIC_DRAW));
    EXPECT_EQ(buffer->map(GL_READ_ONLY), nullptr);
    EXPECT_EQ(buffer->getBO(), 0u);
}

} // namespace Brevane::Kvo
