#include "core/log.h"

#include "core/hostcode.h"

#include <QDebug>

#include <cstring>

namespace Brevane::Kvo {

namespace {

QString fileNameOf(const char *path)
{
    const char *slash = std::strrchr(path, '/');
    return QString::fromLocal8Bit(slash ? slash + 1 : path);
}

} // namespace

void reportFailedAssertion(const char *file, int line, const char *condition, const QString &message)
{
    const QString text = QString::asprintf("[ !! ] Assertion '%s' failed: %s", condition, message.toUtf8().constData());
    const HostCode hostCode;
    qCritical("[%s:%d] %s", fileNameOf(file).toLocal8Bit().constData(), line, text.toLocal8Bit().constData());
}

void reportMessage(const char *file, int line, const QString &message)
{
    const HostCode hostCode;
    qDebug("[%s:%d] %s", fileNameOf(file).toLocal8Bit().constData(), line, message.toLocal8Bit().constData());
}

} // namespace Brevane::Kvo
