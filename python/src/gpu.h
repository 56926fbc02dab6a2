#pragma once

#include "host/headlesscontext.h"

#include <pybind11/pybind11.h>

#include <QString>
#include <QStringList>

#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace KvoPython {

namespace py = pybind11;

/// Becomes kvo.Error.
class Error : public std::runtime_error
{
public:
    explicit Error(const QString &message) : std::runtime_error(message.toStdString()) {}
};

/// Becomes kvo.ContextError, which is a kvo.Error.
class ContextError : public Error
{
public:
    using Error::Error;
};

/// A stretch of work with the library, which one thread at a time does. Python's other threads go on meanwhile. They
/// nest.
class Turn
{
public:
    Turn();
    ~Turn();
    Turn(const Turn &) = delete;
    Turn &operator=(const Turn &) = delete;

private:
    std::optional<py::gil_scoped_release> _released;
    std::unique_lock<std::recursive_mutex> _lock;
};

/// Whatever context is current is so again behind the scope.
class KeepContext
{
public:
    KeepContext();
    ~KeepContext();
    KeepContext(const KeepContext &) = delete;
    KeepContext &operator=(const KeepContext &) = delete;

private:
    void *_display;
    void *_context;
    void *_draw;
    void *_read;
};

class Resource;

/// A GL context without a window, and what lives in it. It is current only where something is done in it, so that any
/// thread can, and that whatever context a program had current is current again behind every call.
class Gpu : public std::enable_shared_from_this<Gpu>
{
public:
    explicit Gpu(bool debug);
    ~Gpu();
    Gpu(const Gpu &) = delete;
    Gpu &operator=(const Gpu &) = delete;

    /// Frees all that lives in the context, and the context. What is left of it refuses to work.
    void close();
    bool isClosed() const { return !_context; }
    /// Of the driver: "vendor, renderer, version".
    QString description();
    py::dict liveObjects();

    /// All contexts, at the end of the interpreter.
    static void closeAll();

    /// The context is current for the scope.
    class Use
    {
    public:
        explicit Use(Gpu &gpu);

    private:
        Turn _turn;
        KeepContext _before;
    };

private:
    friend class Resource;

    std::unique_ptr<Brevane::Kvo::HeadlessContext> _context;
    std::vector<Resource *> _resources;
};

/// Something that lives in a context and ends with it at the latest.
class Resource
{
public:
    Resource(const Resource &) = delete;
    Resource &operator=(const Resource &) = delete;

    const std::shared_ptr<Gpu> &gpu() const { return _gpu; }

protected:
    explicit Resource(std::shared_ptr<Gpu> gpu);
    virtual ~Resource() = default;

    /// Frees what it has in the context, which is current.
    virtual void free() = 0;
    /// For the destructor of what derives from this.
    void end() noexcept;
    /// Frees now, in a context that is still there.
    void freeNow();

private:
    friend class Gpu;
    std::shared_ptr<Gpu> _gpu;
};

/// What the library said since the last time: warnings, and shader programs that failed.
struct Said
{
    QStringList warnings;
    QStringList failures;
};
/// Collects them from now on.
void listenToLibrary();
Said takeSaid();
/// Warnings become Python's, and failures an Error. Needs the interpreter's lock.
void raiseSaid();
/// So do these.
void raiseWarnings(const QStringList &warnings);

/// An exception says more than the failures that came before it: they are not left for a call that has nothing to do
/// with them.
class ForgetFailuresOfExceptions
{
public:
    ForgetFailuresOfExceptions() : _exceptions(std::uncaught_exceptions()) {}
    ~ForgetFailuresOfExceptions();
    ForgetFailuresOfExceptions(const ForgetFailuresOfExceptions &) = delete;
    ForgetFailuresOfExceptions &operator=(const ForgetFailuresOfExceptions &) = delete;

private:
    int _exceptions;
};

/// Work with the library, with what it has to say.
template <typename Work>
auto inTurn(Work &&work)
{
    const auto run = [&] {
        const Turn turn;
        const ForgetFailuresOfExceptions forget;
        return work();
    };
    if constexpr (std::is_void_v<decltype(work())>) {
        run();
        raiseSaid();
    } else {
        auto result = run();
        raiseSaid();
        return result;
    }
}

/// The same in a context.
template <typename Work>
auto inContext(Gpu &gpu, Work &&work)
{
    return inTurn([&] {
        const Gpu::Use use(gpu);
        return work();
    });
}

} // namespace KvoPython
