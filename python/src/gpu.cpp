#include "gpu.h"

#include "gl/opengldevicecontext.h"
#include "gl/shaderprogram.h"

#include <epoxy/egl.h>

#include <QtGlobal>

#include <algorithm>
#include <cstdio>
#include <utility>

using namespace Brevane::Kvo;

namespace KvoPython {

namespace {

std::recursive_mutex &libraryMutex()
{
    static std::recursive_mutex mutex;
    return mutex;
}

std::vector<Gpu *> &allGpus()
{
    static std::vector<Gpu *> gpus;
    return gpus;
}

// Who says something outside of our turns is somebody else that uses Qt in this process.
thread_local int turns = 0;
std::mutex saidMutex;
Said said;
QtMessageHandler handlerBefore = nullptr;

void onMessage(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    if (turns == 0 || type == QtFatalMsg) {
        if (handlerBefore)
            handlerBefore(type, context, message);
        else
            std::fprintf(stderr, "%s\n", qPrintable(qFormatLogMessage(type, context, message)));
        return;
    }
    // What is there for those who develop passes is of no use to a script.
    if (type == QtDebugMsg || type == QtInfoMsg)
        return;
    const std::lock_guard lock(saidMutex);
    said.warnings << message;
}

} // namespace

Turn::Turn() : _lock(libraryMutex(), std::defer_lock)
{
    if (PyGILState_Check())
        _released.emplace();
    _lock.lock();
    ++turns;
}

Turn::~Turn()
{
    --turns;
}

Gpu::Gpu(bool debug)
{
    const Turn turn;
    HeadlessContext::Options options;
    options.debug = debug;
    QString error;
    void *const display = eglGetCurrentDisplay();
    void *const context = eglGetCurrentContext();
    void *const draw = eglGetCurrentSurface(EGL_DRAW);
    void *const read = eglGetCurrentSurface(EGL_READ);
    _context = HeadlessContext::create(options, &error);
    if (!_context)
        throw ContextError(QStringLiteral("no OpenGL context: %1").arg(error));
    if (context == EGL_NO_CONTEXT)
        HeadlessContext::doneCurrent();
    else
        eglMakeCurrent(display, draw, read, context);
    allGpus().push_back(this);
}

Gpu::~Gpu()
{
    close();
    const Turn turn;
    std::erase(allGpus(), this);
}

void Gpu::close()
{
    const Turn turn;
    if (!_context)
        return;
    try {
        const Use use(*this);
        while (!_resources.empty()) {
            Resource *const resource = _resources.back();
            _resources.pop_back();
            resource->free();
        }
    } catch (const std::exception &) {
        // The context cannot be made current: its objects go with it.
    }
    _context.reset();
}

void Gpu::closeAll()
{
    const Turn turn;
    const std::vector<Gpu *> gpus = allGpus();
    for (Gpu *gpu : gpus)
        gpu->close();
}

QString Gpu::description()
{
    const Use use(*this);
    return OpenGLDeviceContext::current()->description();
}

py::dict Gpu::liveObjects()
{
    GLObjectCounts counts;
    if (!isClosed()) {
        const Use use(*this);
        counts = OpenGLDeviceContext::current()->liveObjects();
    }
    py::dict result;
    result["textures"] = counts.textures;
    result["buffers"] = counts.buffers;
    result["programs"] = counts.programs;
    result["framebuffers"] = counts.framebuffers;
    result["vertex_arrays"] = counts.vertexArrays;
    return result;
}

KeepContext::KeepContext()
    : _display(eglGetCurrentDisplay()), _context(eglGetCurrentContext()), _draw(eglGetCurrentSurface(EGL_DRAW)),
      _read(eglGetCurrentSurface(EGL_READ))
{}

Gpu::Use::Use(Gpu &gpu)
{
    if (gpu.isClosed())
        throw ContextError(QStringLiteral("the context is closed"));
    if (!gpu._context->makeCurrent())
        throw ContextError(QStringLiteral("the OpenGL context cannot be made current on this thread"));
}

KeepContext::~KeepContext()
{
    if (_context == EGL_NO_CONTEXT)
        HeadlessContext::doneCurrent();
    else
        eglMakeCurrent(_display, _draw, _read, _context);
}

Resource::Resource(std::shared_ptr<Gpu> gpu) : _gpu(std::move(gpu))
{
    const Turn turn;
    _gpu->_resources.push_back(this);
}

void Resource::end() noexcept
{
    const Turn turn;
    if (std::erase(_gpu->_resources, this) == 0)
        return;
    try {
        const Gpu::Use use(*_gpu);
        free();
    } catch (const std::exception &) {
        // Without its context there is nothing left to free.
    }
}

void Resource::freeNow()
{
    const Gpu::Use use(*_gpu);
    free();
}

void listenToLibrary()
{
    handlerBefore = qInstallMessageHandler(&onMessage);
    ShaderProgram::setFailureHandler([](const ShaderFailure &failure) {
        const std::lock_guard lock(saidMutex);
        said.failures << QStringLiteral("shader program '%1' failed:\n%2").arg(failure.label, failure.log);
    });
}

ForgetFailuresOfExceptions::~ForgetFailuresOfExceptions()
{
    if (std::uncaught_exceptions() == _exceptions)
        return;
    const std::lock_guard lock(saidMutex);
    said.failures.clear();
}

Said takeSaid()
{
    const std::lock_guard lock(saidMutex);
    return std::exchange(said, {});
}

void raiseWarnings(const QStringList &warnings)
{
    if (warnings.isEmpty())
        return;
    const py::object category = py::module_::import("kvo._kvo").attr("Warning");
    // They name the line of who called, not one of the package.
    const auto level = py::module_::import("kvo").attr("_callers_level")().cast<Py_ssize_t>();
    for (const QString &warning : warnings) {
        if (PyErr_WarnEx(category.ptr(), warning.toUtf8().constData(), level) != 0)
            throw py::error_already_set();
    }
}

void raiseSaid()
{
    const Said now = takeSaid();
    raiseWarnings(now.warnings);
    if (!now.failures.isEmpty())
        throw Error(now.failures.join(QLatin1Char('\n')));
}

} // namespace KvoPython
