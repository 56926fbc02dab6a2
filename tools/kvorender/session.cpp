#include "session.h"

#include "gl/shaderprogram.h"
#include "messages.h"

#include <epoxy/gl.h>

using namespace Brevane::Kvo;

namespace {

QStringList failures; // GL's callback knows no object

void note(const QString &message)
{
    failures << message;
    complain(message);
}

void GLAPIENTRY onGlMessage(GLenum, GLenum type, GLuint, GLenum, GLsizei, const GLchar *text, const void *)
{
    if (type == GL_DEBUG_TYPE_ERROR)
        note(QStringLiteral("OpenGL error: %1").arg(QString::fromUtf8(text).trimmed()));
}

} // namespace

Session::~Session()
{
    _listener.reset();
}

bool Session::open(bool debug, QString *error)
{
    HeadlessContext::Options options;
    options.debug = debug;
    _context = HeadlessContext::create(options, error);
    if (!_context)
        return false;
    if (debug && (epoxy_gl_version() >= 43 || epoxy_has_gl_extension("GL_KHR_debug"))) {
        glEnable(GL_DEBUG_OUTPUT);
        glEnable(GL_DEBUG_OUTPUT_SYNCHRONOUS);
        glDebugMessageCallback(&onGlMessage, nullptr);
    }
    _listener = std::make_unique<ShaderFailureListener>([](const ShaderFailure &failure) {
        note(QStringLiteral("shader program '%1' failed:\n%2").arg(failure.label, failure.log));
    });
    return true;
}

QStringList Session::takeFailures()
{
    return std::exchange(failures, {});
}
