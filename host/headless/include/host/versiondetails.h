#pragma once

#include "host/export.h"

#include <QString>

namespace Brevane::Kvo {

/// What a report of a fault begins with: which library this is, and what it runs on.
struct KVO_HEADLESS_EXPORT VersionDetails
{
    QString library; ///< "1.2.3".
    QString qtBuilt; ///< The Qt that the library was built with.
    QString qtRunning; ///< The Qt that is loaded.
    QString glVendor; ///< As the driver names itself; this and the next two are empty where there is no context.
    QString glRenderer; ///< What draws: a GPU, or "llvmpipe ...".
    QString glVersion; ///< Of OpenGL and of the driver.
    QString glMissing; ///< Why there is no context; empty where there is one.

    /// Lines for people, without the name of a program: "1.2.3\nQt …\nOpenGL …\n".
    QString text() const;
};

/// The version of this library alone: "1.2.3".
KVO_HEADLESS_EXPORT QString libraryVersion();

/// Opens a context without a window for the moment, as HeadlessContext does, and asks its driver. A context of EGL that
/// is current on this thread is so again afterwards; call it where none of another kind (GLX) is.
KVO_HEADLESS_EXPORT VersionDetails versionDetails();

} // namespace Brevane::Kvo
