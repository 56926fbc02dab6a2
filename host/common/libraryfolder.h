#pragma once

#include <QFile>
#include <QFileInfo>
#include <QString>

#include <dlfcn.h>

namespace Brevane::Kvo {

/// Folder of the library that a function of it is in, from which the rest of an installation is found wherever it was
/// moved; that of the program where it is linked statically. Empty where the system does not know.
inline QString folderOfLibrary(const void *function)
{
    Dl_info info{};
    if (!dladdr(function, &info) || !info.dli_fname)
        return QString();
    return QFileInfo(QFile::decodeName(info.dli_fname)).canonicalPath();
}

} // namespace Brevane::Kvo
