#include "gl/opengldevicecontext.h"

#include "gl/bufferobject.h"
#include "gl/contextstate.h"
#include "gl/drawbuffers.h"
#include "gl/vertexarrayobject.h"

#include <epoxy/gl.h>

#include <algorithm>
#include <array>

namespace Brevane::Kvo {

namespace {

template <std::size_t N>
void addAttribute(const QSharedPointer<VertexArrayObject> &vao, const QString &name, int components,
                  const std::array<float, N> &data)
{
    const auto buffer = QSharedPointer<BufferObject>::create();
    buffer->upload(data.data(), int(N), GL_STATIC_DRAW);
    vao->upload(name, buffer, components, GL_FLOAT);
}

} // namespace

OpenGLDeviceContext::OpenGLDeviceContext(ContextState *state) : _state(state) {}

OpenGLDeviceContext::~OpenGLDeviceContext() = default;

QSharedPointer<OpenGLDeviceContext> OpenGLDeviceContext::current()
{
    const QSharedPointer<ContextState> state = ContextState::currentVerified();
    return state ? state->device : nullptr;
}

void OpenGLDeviceContext::releaseCurrent()
{
    ContextState::releaseCurrent();
}

QSharedPointer<BufferObject> OpenGLDeviceContext::createBufferObject()
{
    return QSharedPointer<BufferObject>::create();
}

QSharedPointer<DrawBuffers> OpenGLDeviceContext::screenQuad()
{
    // Made again where the driver had no name for its arrays. One whose arrays a host has taken away stays as it is.
    if (_quad && (!_quad->VAO() || _quad->isUsable()))
        return _quad;
    const auto vao = createVertexArrayObject();
    addAttribute(vao, QStringLiteral("va_Vertex"), 3,
                 std::array{-1.f, -1.f, 0.f, 1.f, -1.f, 0.f, -1.f, 1.f, 0.f, 1.f, 1.f, 0.f});
    addAttribute(vao, QStringLiteral("va_TexCoord"), 2, std::array{0.f, 0.f, 1.f, 0.f, 0.f, 1.f, 1.f, 1.f});
    _quad = QSharedPointer<DrawBuffers>::create();
    _quad->setVAO(vao);
    _quad->setPrimitiveType(GL_TRIANGLE_STRIP);
    _quad->setVertexCount(4);
    return _quad;
}

QSharedPointer<DrawBuffers> OpenGLDeviceContext::gradientQuad()
{
    return screenQuad();
}

QSharedPointer<VertexArrayObject> OpenGLDeviceContext::createVertexArrayObject()
{
    return QSharedPointer<VertexArrayObject>::create();
}

void OpenGLDeviceContext::giveUp(QObject *object)
{
    if (_state)
        _state->group->giveUp(object);
}

int OpenGLDeviceContext::givenUpCount() const
{
    return _state ? _state->group->givenUpCount() : 0;
}

int OpenGLDeviceContext::freeGivenUp()
{
    return _state ? _state->group->freeGivenUp() : 0;
}

GLObjectCounts OpenGLDeviceContext::liveObjects() const
{
    if (!_state)
        return {};
    const NameStore &shared = _state->group->names;
    GLObjectCounts counts;
    counts.textures = shared.liveCount(NameKind::Texture);
    counts.buffers = shared.liveCount(NameKind::Buffer);
    counts.programs = shared.liveCount(NameKind::Program);
    counts.framebuffers = _state->names.liveCount(NameKind::Framebuffer);
    counts.vertexArrays = _state->names.liveCount(NameKind::VertexArray);
    return counts;
}

int OpenGLDeviceContext::version() const
{
    return _state ? _state->version : 0;
}

GLLimits OpenGLDeviceContext::limits() const
{
    return _state ? _state->limits() : GLLimits();
}

QString OpenGLDeviceContext::description() const
{
    if (!_state || ContextState::current() != _state)
        return {};
    const auto text = [](GLenum name) { return QString::fromUtf8(reinterpret_cast<const char *>(glGetString(name))); };
    return QStringLiteral("%1, %2, %3").arg(text(GL_VENDOR), text(GL_RENDERER), text(GL_VERSION));
}

quint64 OpenGLDeviceContext::shareGroup() const
{
    return _state ? _state->group->id() : 0;
}

} // namespace Brevane::Kvo
