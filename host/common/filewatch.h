#pragma once

#include <QByteArray>
#include <QFile>
#include <QFileInfo>
#include <QFileSystemWatcher>
#include <QString>
#include <QTimer>

#include <functional>
#include <utility>

namespace Brevane::Kvo {

/// Tells when the content of a file is another one. Editors write into a file, or remove it and write a new one, or
/// write beside it and rename: the folder is watched too, and the handler is called once the writing has come to rest
/// and only for a content that differs.
class FileWatch
{
public:
    FileWatch()
    {
        _rest.setSingleShot(true);
        _rest.setInterval(kRest);
        QObject::connect(&_watcher, &QFileSystemWatcher::fileChanged, &_rest, [this] { _rest.start(); });
        QObject::connect(&_watcher, &QFileSystemWatcher::directoryChanged, &_rest, [this] { _rest.start(); });
        QObject::connect(&_rest, &QTimer::timeout, &_rest, [this] { look(); });
    }

    void setHandler(std::function<void()> handler) { _handler = std::move(handler); }

    /// Watches this one from now on; an empty name: none.
    void setFile(const QString &path)
    {
        const QStringList before = _watcher.files() + _watcher.directories();
        if (!before.isEmpty())
            _watcher.removePaths(before);
        _path = path;
        _content = content();
        if (!path.isEmpty())
            _watcher.addPaths({path, QFileInfo(path).absolutePath()});
    }

private:
    static constexpr int kRest = 50; // ms

    QByteArray content() const
    {
        QFile file(_path);
        return !_path.isEmpty() && file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

    void look()
    {
        const QByteArray now = content();
        // Gone for a moment, or only made: another change follows.
        if (now.isEmpty())
            return;
        // A file that was replaced is no longer watched.
        if (!_watcher.files().contains(_path))
            _watcher.addPath(_path);
        if (now == _content)
            return;
        _content = now;
        if (_handler)
            _handler();
    }

    QFileSystemWatcher _watcher;
    QTimer _rest;
    QString _path;
    QByteArray _content;
    std::function<void()> _handler;
};

} // namespace Brevane::Kvo
