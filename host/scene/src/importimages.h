#pragma once

#include <QDir>
#include <QHash>
#include <QImage>
#include <QString>
#include <QStringList>

struct aiScene;
struct aiTexture;

namespace Brevane::Kvo {

/// The images of a scene by the names that its materials use, each loaded once.
class ImportImages
{
public:
    ImportImages(const aiScene &scene, const QString &modelPath, QStringList *warnings);

    /// Null, with a warning, for one that cannot be read.
    QImage load(const QString &name, const QString &material);
    void warn(const QString &message) { *_warnings << message; }
    /// Images that could be read.
    int count() const { return _count; }

private:
    QImage read(const QString &name, QString *reason) const;

    const aiScene &_scene;
    QDir _folder;
    QStringList *_warnings;
    QHash<QString, QImage> _images;
    int _count = 0;
};

} // namespace Brevane::Kvo
