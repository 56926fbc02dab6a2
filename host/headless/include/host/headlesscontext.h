#pragma once

#include "host/export.h"

#include <QString>

#include <memory>

namespace Brevane::Kvo {

/// An OpenGL context without window, display or (with a software renderer) GPU, by way of EGL: on Mesa's
/// surfaceless platform, else on an EGL device.
class KVO_HEADLESS_EXPORT HeadlessContext
{
public:
    /// What a context is to be.
    struct Options
    {
        int major = 3; ///< At least this version, core profile; drivers give the highest they have.
        int minor = 2; ///< Of that version.
        bool debug = false; ///< Ask for a debug context.
    };

    /// A context, current on this thread; null, with the reason, when there is none to be had.
    static std::unique_ptr<HeadlessContext> create(const Options &options, QString *error);
    /// The same for the lowest version that passes need.
    static std::unique_ptr<HeadlessContext> create(QString *error) { return create(Options(), error); }
    /// Frees what the library holds in the context, and destroys it.
    ~HeadlessContext();
    HeadlessContext(const HeadlessContext &) = delete;
    HeadlessContext &operator=(const HeadlessContext &) = delete;

    /// On this thread. False where the driver refuses, or another thread has it.
    bool makeCurrent();
    /// On this thread.
    bool isCurrent() const;
    /// Leaves this thread without a context of EGL.
    static void doneCurrent();
    /// Of what EGL platform and version the context is.
    QString platform() const;

private:
    HeadlessContext();

    void *_display = nullptr;
    void *_context = nullptr;
    void *_surface = nullptr;
    QString _platform;
};

} // namespace Brevane::Kvo
