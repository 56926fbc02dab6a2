#include "manifest.h"

#include "host/partfile.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>

using namespace Brevane::Kvo;
using namespace Qt::StringLiterals;

namespace {

// Null for a file that cannot be read.
QByteArray digestOf(const QString &path)
{
    QFile file(path);
    QCryptographicHash hash(QCryptographicHash::Sha256);
    return file.open(QIODevice::ReadOnly) && hash.addData(&file) ? hash.result().toHex() : QByteArray();
}

bool fails(QString *error, const QString &path, const QString &reason)
{
    *error = u"cannot write the manifest '%1': %2"_s.arg(path, reason);
    return false;
}

} // namespace

QString Manifest::pathOf(const QString &base, int shard, int shards)
{
    return shards == 1 ? base : u"%1-%2of%3"_s.arg(base).arg(shard).arg(shards);
}

void Manifest::readAll()
{
    static const QRegularExpression kShard(u"-[0-9]+of[0-9]+$"_s);
    const QFileInfo info(QString(_path).remove(kShard));
    for (const QString &name : info.absoluteDir().entryList({info.fileName() + u'*'}, QDir::Files)) {
        if (name.mid(info.fileName().size()).remove(kShard) != QString())
            continue;
        QFile file(info.absoluteDir().filePath(name));
        if (!file.open(QIODevice::ReadOnly))
            continue;
        for (const QByteArray &text : file.readAll().split('\n')) {
            const QJsonObject entry = QJsonDocument::fromJson(text).object();
            const QByteArray hash = entry["job"_L1].toString().toLatin1();
            if (!hash.isEmpty() && !entry["files"_L1].toArray().isEmpty())
                _entries[hash] = entry["files"_L1].toArray();
        }
    }
}

QByteArray Manifest::line(const QByteArray &hash) const
{
    return QJsonDocument(QJsonObject{{u"job"_s, QString::fromLatin1(hash)}, {u"files"_s, _entries[hash]}})
               .toJson(QJsonDocument::Compact)
           + '\n';
}

bool Manifest::begin(const QList<QByteArray> &hashes, QString *error)
{
    if (!finish(hashes, error))
        return false;
    _file.setFileName(_path);
    return _file.open(QIODevice::WriteOnly | QIODevice::Append | QIODevice::Unbuffered)
           || fails(error, _path, _file.errorString());
}

bool Manifest::note(const QByteArray &hash, const QStringList &files, QString *error)
{
    QJsonArray noted;
    for (const QString &path : files) {
        const QByteArray digest = digestOf(path);
        if (digest.isEmpty())
            return fails(error, _path, u"'%1' cannot be read back"_s.arg(path));
        noted.append(QJsonObject{
            {u"path"_s, path}, {u"bytes"_s, QFileInfo(path).size()}, {u"sha256"_s, QString::fromLatin1(digest)}});
    }
    _entries[hash] = noted;
    const QByteArray text = line(hash);
    return _file.write(text) == text.size() || fails(error, _path, _file.errorString());
}

bool Manifest::isComplete(const QByteArray &hash) const
{
    const QJsonArray files = _entries.value(hash);
    for (const QJsonValue &file : files) {
        const QString path = file["path"_L1].toString();
        if (QFileInfo(path).size() != file["bytes"_L1].toInteger(-1)
            || QString::fromLatin1(digestOf(path)) != file["sha256"_L1].toString())
            return false;
    }
    return !files.isEmpty();
}

bool Manifest::finish(const QList<QByteArray> &hashes, QString *error)
{
    _file.close();
    PartFile file(_path);
    QString reason;
    bool ok = file.open(&reason);
    for (const QByteArray &hash : hashes) {
        const QByteArray text = _entries.contains(hash) ? line(hash) : QByteArray();
        ok = ok && file.write(text.constData(), text.size(), &reason);
    }
    return (ok && file.commit(&reason)) || fails(error, _path, reason);
}

qint64 Manifest::bytesOf(const QByteArray &hash) const
{
    qint64 bytes = 0;
    for (const QJsonValue &file : _entries.value(hash))
        bytes += file["bytes"_L1].toInteger();
    return bytes;
}
