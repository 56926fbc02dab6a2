#include "importimages.h"

#include "host/imageinput.h"

#include <QBuffer>
#include <QFileInfo>
#include <QUrl>

#include <assimp/scene.h>

namespace Brevane::Kvo {

namespace {

// Maps are of display values.
QImage decode(QIODevice *device, QString *reason)
{
    return displayImage(readImage(device, reason));
}

QImage embeddedImage(const aiTexture &texture, QString *reason)
{
    if (texture.mHeight == 0) {
        QByteArray bytes = QByteArray::fromRawData(reinterpret_cast<const char *>(texture.pcData), texture.mWidth);
        QBuffer buffer(&bytes);
        buffer.open(QIODevice::ReadOnly);
        return decode(&buffer, reason);
    }
    QImage image(int(texture.mWidth), int(texture.mHeight), QImage::Format_ARGB32);
    if (image.isNull()) {
        *reason = QStringLiteral("%1x%2 pixels are too many").arg(texture.mWidth).arg(texture.mHeight);
        return image;
    }
    for (int y = 0; y < image.height(); ++y) {
        auto *line = reinterpret_cast<QRgb *>(image.scanLine(y));
        for (int x = 0; x < image.width(); ++x) {
            const aiTexel &texel = texture.pcData[qsizetype(y) * image.width() + x];
            line[x] = qRgba(texel.r, texel.g, texel.b, texel.a);
        }
    }
    return image;
}

// A file of that name in that folder, in any case of letters: models travel between systems.
QString fileInAnyCase(const QDir &folder, const QString &name)
{
    const QFileInfo wanted(folder.filePath(name));
    if (wanted.isFile())
        return wanted.filePath();
    const QDir parent(wanted.path());
    for (const QString &entry : parent.entryList(QDir::Files))
        if (entry.compare(wanted.fileName(), Qt::CaseInsensitive) == 0)
            return parent.filePath(entry);
    return QString();
}

QString findFile(const QDir &folder, const QString &name)
{
    QString local = name;
    local.replace(QLatin1Char('\\'), QLatin1Char('/'));
    if (local.startsWith(QLatin1StringView("file:")))
        local = QUrl(local).toLocalFile();
    for (const QString &candidate : {local, QUrl::fromPercentEncoding(local.toUtf8()), QFileInfo(local).fileName()}) {
        if (candidate.isEmpty())
            continue;
        QString found = fileInAnyCase(folder, candidate);
        if (!found.isEmpty())
            return found;
    }
    return QString();
}

} // namespace

ImportImages::ImportImages(const aiScene &scene, const QString &modelPath, QStringList *warnings)
    : _scene(scene), _folder(QFileInfo(modelPath).absoluteDir()), _warnings(warnings)
{}

QImage ImportImages::load(const QString &name, const QString &material)
{
    const auto known = _images.constFind(name);
    if (known != _images.constEnd())
        return *known;
    QString reason;
    QImage image = read(name, &reason);
    if (image.isNull())
        *_warnings << QStringLiteral("material '%1': image '%2' is white: %3").arg(material, name, reason);
    else
        ++_count;
    _images.insert(name, image);
    return image;
}

QImage ImportImages::read(const QString &name, QString *reason) const
{
    if (const aiTexture *texture = _scene.GetEmbeddedTexture(name.toUtf8().constData()))
        return embeddedImage(*texture, reason);
    if (name.startsWith(QLatin1Char('*'))) {
        *reason = QStringLiteral("the file has no such image");
        return QImage();
    }
    const QString path = findFile(_folder, name);
    if (path.isEmpty()) {
        *reason = QStringLiteral("there is no such file in '%1'").arg(_folder.path());
        return QImage();
    }
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *reason = file.errorString();
        return QImage();
    }
    return decode(&file, reason);
}

} // namespace Brevane::Kvo
