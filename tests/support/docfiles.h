#pragma once

#include <QFile>
#include <QString>

#include <gtest/gtest.h>

namespace Brevane::Kvo::Test {

// Documents that tests check and, with KVO_WRITE_DOCS set, write anew.

inline QString fileText(const QString &path)
{
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::ReadOnly)) << qPrintable(path);
    return QString::fromUtf8(file.readAll());
}

inline void writeText(const QString &path, const QString &text)
{
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly)) << qPrintable(path);
    file.write(text.toUtf8());
}

inline bool isWriting()
{
    return qEnvironmentVariableIsSet("KVO_WRITE_DOCS");
}

inline QString sourcePath(const QString &path)
{
    return QStringLiteral(KVO_SOURCE_DIR "/") + path;
}

} // namespace Brevane::Kvo::Test
