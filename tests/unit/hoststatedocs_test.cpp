#include "support/docfiles.h"
#include "support/passcases.h"
#include "support/statedocs.h"

#include <passkit/statetable.h>

#include <gtest/gtest.h>

// What documents say about state is what the table says. With KVO_WRITE_DOCS set the documents are
// written anew instead.

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

const QString kDirectory = QStringLiteral(KVO_SOURCE_DIR);

// Where a text speaks of state: its lines from "Leaves" on as long as they begin alike.
void findPromise(const QString &text, const QString &beginning, qsizetype *from, qsizetype *to)
{
    const QString start = beginning.isEmpty() ? QString() : beginning + u' ';
    *from = text.indexOf(u'\n' + start + QStringLiteral("Leaves ")) + 1;
    *to = *from;
    const auto goesOn = [&] {
        const QStringView rest = QStringView(text).mid(*to);
        return !rest.isEmpty() && rest.startsWith(start) && !rest.startsWith(u'\n');
    };
    while (*from > 0 && *to > 0 && goesOn())
        *to = text.indexOf(u'\n', *to) + 1;
}

void expectPromise(const QString &path, const StateRow &row, const QString &beginning)
{
    QString text = fileText(path);
    qsizetype from = 0, to = 0;
    findPromise(text, beginning, &from, &to);
    ASSERT_GT(from, 0) << qPrintable(path) << " says nothing about state in a paragraph of its own";
    if (isWriting()) {
        text.replace(from, to - from, promiseLines(row, beginning));
        writeText(path, text);
        findPromise(text, beginning, &from, &to);
    }
    EXPECT_EQ(text.mid(from, to - from).toStdString(), promiseLines(row, beginning).toStdString()) << row.className;
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

TEST(HostStateDocs, EveryHeaderAndEveryPageOfAPassSaysWhatTheTableSays)
{
    EXPECT_EQ(stateTable().size(), passCases().size());
    for (const StateRow &row : stateTable()) {
        const QString name = QString::fromLatin1(row.className).toLower();
        expectPromise(kDirectory + QStringLiteral("/include/renderpasses/%1.h").arg(name), row, QStringLiteral("///"));
        expectPromise(kDirectory + QStringLiteral("/docs/passes/%1.md").arg(name), row, QString());
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
