#include "support/statedocs.h"

#include <passkit/statetable.h>

#include <gtest/gtest.h>

// What documents say about state is what the table says. With KVO_WRITE_DOCS set the documents are
// written anew instead.

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

QString fileText(const QString &path)
{
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::ReadOnly)) << qPrintable(path);
    return QString::fromUtf8(file.readAll());
}

void writeText(const QString &path, const QString &text)
{
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly)) << qPrintable(path);
    file.write(text.toUtf8());
}

bool isWriting()
{
    return qEnvironmentVariableIsSet("KVO_WRITE_DOCS");
}

const QString kDirectory = QStringLiteral(KVO_SOURCE_DIR);

// Where a header speaks of state: its lines from "Leaves changed" or the like to the next empty comment
// line or to the end of the comment.
void findPromise(const QString &header, qsizetype *from, qsizetype *to)
{
    *from = header.indexOf(QStringLiteral("\n/// Leaves ")) + 1;
    *to = *from;
    while (*from > 0 && QStringView(header).mid(*to).startsWith(u"/// "))
        *to = header.indexOf(u'\n', *to) + 1;
}

} // namespace

TEST(HostStateDocs, ThePageIsMadeOfTheTable)
{
    const QString path = kDirectory + QStringLiteral("/docs/host-state.md");
    if (isWriting())
        writeText(path, hostStatePage());
    EXPECT_TRUE(fileText(path) == hostStatePage())
        << "stale: write it with KVO_WRITE_DOCS=1 build/dev/bin/test_unit_hoststatedocs";
}

TEST(HostStateDocs, EveryHeaderSaysWhatTheTableSays)
{
    EXPECT_EQ(stateTable().size(), 33u);
    for (const StateRow &row : stateTable()) {
        const QString path = kDirectory + QStringLiteral("/include/renderpasses/")
                             + QString::fromLatin1(row.className).toLower() + QStringLiteral(".h");
        QString header = fileText(path);
        qsizetype from = 0, to = 0;
        findPromise(header, &from, &to);
        ASSERT_GT(from, 0) << row.className << " says nothing about state in a paragraph of its own";
        if (isWriting()) {
            header.replace(from, to - from, promiseComment(row));
            writeText(path, header);
            findPromise(header, &from, &to);
        }
        EXPECT_EQ(header.mid(from, to - from).toStdString(), promiseComment(row).toStdString()) << row.className;
    }
}

TEST(HostStateDocs, EveryExceptionHasAReasonOrAValue)
{
    for (const StateRow &row : stateTable()) {
        for (const StateException &e : row.exceptions) {
            EXPECT_GT(qstrlen(e.text), 0u) << row.className << ", " << nameOf(e.piece);
            if (e.use == StateException::HostCounts) {
                EXPECT_EQ(e.text[qstrlen(e.text) - 1], '.') << row.className << ", " << nameOf(e.piece);
            }
        }
    }
}
