#pragma once

#include <QFile>

#include <malloc.h>
#include <unistd.h>

namespace Brevane::Kvo::Test {

/// What the process holds of memory, after what the allocator keeps of what was freed has gone back.
inline qint64 residentBytes()
{
    malloc_trim(0);
    QFile file(QStringLiteral("/proc/self/statm"));
    return file.open(QIODevice::ReadOnly) ? file.readAll().split(' ').value(1).toLongLong() * sysconf(_SC_PAGESIZE) : 0;
}

/// What the process has taken from the allocator and not given back, but for blocks that are mapped by themselves, which
/// images of drivers are. Unlike the above it does not change when the system takes pages away and brings them back.
inline qint64 allocatedBytes()
{
    return qint64(mallinfo2().uordblks);
}

} // namespace Brevane::Kvo::Test
