#pragma once

#include "host/export.h"

#include <QString>

namespace Brevane::Kvo {

/// A file that appears under its name only when it is whole. Until then it is ".NAME.part" beside it: always the same
/// name, so that a process that was killed leaves at most one, which the next one that writes the file takes over.
/// Two processes that write one file do not mix: the second is refused for as long as the first is at it.
///
/// A file that was there keeps its permissions, and one behind a symbolic link its place.
class KVO_IMAGES_EXPORT PartFile
{
public:
    /// A file of that path, which is not there yet.
    explicit PartFile(const QString &path);
    /// Removes what was not committed.
    ~PartFile();
    PartFile(const PartFile &) = delete;
    PartFile &operator=(const PartFile &) = delete;

    // Each gives false with the reason: no folder, no permission, no space.

    /// Begins to write. False with the reason.
    bool open(QString *error = nullptr);
    /// Appends. False with the reason.
    bool write(const char *data, qint64 size, QString *error = nullptr);
    /// Goes to a place, from which on the next bytes are written.
    bool seek(qint64 position, QString *error = nullptr);
    /// Where the next bytes are written.
    qint64 position() const { return _position; }
    /// Renames it.
    bool commit(QString *error = nullptr);

    /// ".NAME.part" beside a file.
    static QString partOf(const QString &path);

private:
    bool fails(QString *error) const;

    QByteArray _path; ///< Behind all links.
    QByteArray _part;
    qint64 _position = 0;
    int _file = -1;
};

} // namespace Brevane::Kvo
