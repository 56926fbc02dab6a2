#pragma once

#include "host/export.h"
#include "host/sceneimport.h"

#include <atomic>

namespace Brevane::Kvo {

/// What an import in a process of its own may take.
struct ImportLimits
{
    int seconds = 300; ///< From start to end; 0: any time.
    qint64 megabytes = 0; ///< Address space of the process; 0: three quarters of the machine's memory.
    /// Another thread sets it to end the import, which then fails; null: nobody does.
    const std::atomic<bool> *cancelled = nullptr;
};

/// The same as importScene, in a process of its own: the importer ends a process, or takes all of its memory, on some
/// damaged files. The program kvo-import does the work. It is looked for in this order:
/// - what the environment variable KVO_IMPORT_PROGRAM names, and then nowhere else;
/// - beside the program that runs;
/// - in the folder for helper programs (libexec/kvo) of the installation that this library belongs to.
///
/// The report's error names file and reason: that there is no such program and where it was looked for, a crash with
/// the last words of the importer, a limit that was not enough, or what the importer says. The calling thread waits;
/// no event loop is needed, and no signal handler is touched. The process takes some 50 milliseconds to start.
KVO_SCENE_EXPORT ModelData importSceneIsolated(const QString &path, const ImportOptions &options = ImportOptions(),
                                               const ImportLimits &limits = ImportLimits(),
                                               ImportReport *report = nullptr);

/// The program that importSceneIsolated starts; empty, with the places where it was looked for, when there is none.
KVO_SCENE_EXPORT QString findImportProgram(QString *error = nullptr);

} // namespace Brevane::Kvo
