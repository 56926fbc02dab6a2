#include "host/partfile.h"

#include "failure.h"

#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Brevane::Kvo {

namespace {

QString targetOf(const QString &path)
{
    const QFileInfo info(path);
    if (!info.isSymLink())
        return path;
    const QString target = info.canonicalFilePath();
    return target.isEmpty() ? info.symLinkTarget() : target;
}

constexpr mode_t kAll = 0666;

} // namespace

QString PartFile::partOf(const QString &path)
{
    const qsizetype name = path.lastIndexOf(u'/') + 1;
    return path.left(name) + u'.' + path.mid(name) + QStringLiteral(".part");
}

PartFile::PartFile(const QString &path)
    : _path(QFile::encodeName(targetOf(path))), _part(QFile::encodeName(partOf(targetOf(path))))
{}

PartFile::~PartFile()
{
    if (_file < 0)
        return;
    unlink(_part.constData());
    close(_file);
}

bool PartFile::fails(QString *error) const
{
    return fail(error, QString::fromLocal8Bit(std::strerror(errno)));
}

bool PartFile::open(QString *error)
{
    struct stat there = {};
    const bool isThere = stat(_path.constData(), &there) == 0;
    if (isThere && access(_path.constData(), W_OK) != 0)
        return fails(error);
    // Another process may have renamed the file that this one opened before it could lock it.
    for (;;) {
        _file = ::open(_part.constData(), O_RDWR | O_CREAT | O_CLOEXEC, kAll);
        if (_file < 0)
            return fails(error);
        // A file system without locks has to do without.
        if (flock(_file, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
            close(_file);
            _file = -1;
            return fail(error, QStringLiteral("another process is writing it"));
        }
        struct stat opened = {}, named = {};
        if (fstat(_file, &opened) == 0 && stat(_part.constData(), &named) == 0 && opened.st_ino == named.st_ino)
            break;
        close(_file);
        _file = -1;
    }
    if (ftruncate(_file, 0) != 0 || (isThere && fchmod(_file, there.st_mode & 07777) != 0))
        return fails(error);
    _position = 0;
    return true;
}

bool PartFile::write(const char *data, qint64 size, QString *error)
{
    while (size > 0) {
        const ssize_t written = ::write(_file, data, size_t(size));
        if (written < 0 && errno == EINTR)
            continue;
        if (written < 0)
            return fails(error);
        data += written;
        size -= written;
        _position += written;
    }
    return true;
}

bool PartFile::seek(qint64 position, QString *error)
{
    if (lseek(_file, off_t(position), SEEK_SET) < 0)
        return fails(error);
    _position = position;
    return true;
}

bool PartFile::commit(QString *error)
{
    // Some file systems say only now that there was no room.
    if ((fsync(_file) != 0 && errno != EINVAL) || std::rename(_part.constData(), _path.constData()) != 0)
        return fails(error);
    // The lock goes with it.
    const int file = _file;
    _file = -1;
    return close(file) == 0 || fails(error);
}

} // namespace Brevane::Kvo
