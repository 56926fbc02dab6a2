#include "support/docfiles.h"
#include "support/passcases.h"

#include <core/slotinfo.h>

#include <QDir>
#include <QRegularExpression>

#include <gtest/gtest.h>

// Everything that a pass needs beside its class, by the one list of passes. What is missing is named with file and
// line; docs/adding-a-pass.md tells of each. With KVO_WRITE_DOCS set the rows of README.md are written anew.

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

class Listed : public ::testing::TestWithParam<PassCase>
{
protected:
    QString name = QString::fromLatin1(GetParam().className);
    QString lower = name.toLower();
    // Something to derive from is neither drawn nor timed.
    bool isBase = name == QStringLiteral("BlurBaseRenderPass");
};

INSTANTIATE_TEST_SUITE_P(Passes, Listed, ::testing::ValuesIn(passCases()),
                         [](const auto &pass) { return std::string(pass.param.className); });

// The line of a text in a file, from 1 on; 0: it is not there.
int lineOf(const QString &path, const QRegularExpression &form)
{
    const QStringList lines = fileText(sourcePath(path)).split(u'\n');
    for (int i = 0; i < lines.size(); ++i)
        if (form.match(lines[i]).hasMatch())
            return i + 1;
    return 0;
}

// Expects a line about a pass in a file whose first such line is about another one.
void expectRow(const QString &path, const char *form, const QString &name, const char *what)
{
    const auto row = [&](const QString &of) {
        return QRegularExpression(QString::fromLatin1(form).replace(QStringLiteral("NAME"), of));
    };
    if (lineOf(path, row(name)) > 0)
        return;
    const int first = lineOf(path, row(QStringLiteral("\\w+Pass2?")));
    ADD_FAILURE() << qPrintable(sourcePath(path)) << ":" << first << ": " << qPrintable(name)
                  << " is missing: " << what;
}

void expectFile(const QString &path, const char *what)
{
    if (!QFile::exists(sourcePath(path)))
        ADD_FAILURE() << qPrintable(sourcePath(path)) << ":1: is missing: " << what;
}

} // namespace

TEST_P(Listed, HasItsSourcesItsTestsAndItsPage)
{
    expectFile(QStringLiteral("include/renderpasses/%1.h").arg(lower), "the header");
    expectFile(QStringLiteral("src/renderpasses/%1.cpp").arg(lower), "the source");
    expectFile(QStringLiteral("docs/passes/%1.md").arg(lower), "the page");
    if (!isBase && !QFile::exists(sourcePath(QStringLiteral("tests/unit/%1_test.cpp").arg(lower))))
        expectFile(QStringLiteral("tests/gl/%1_test.cpp").arg(lower), "its tests");
}

TEST_P(Listed, HasARowInEveryTable)
{
    expectRow(QStringLiteral("src/passkit/statetable.cpp"), "^\\s*\\{\"NAME\",", name, "what it does to GL's state");
    expectRow(QStringLiteral("tests/support/passtable.h"), "^\\s*\\{\"NAME\",", name, "its interface");
    expectRow(QStringLiteral("tests/gl/hoststate_test.cpp"), "\\{\"NAME\",", name, "a road for the state of the host");
    if (isBase)
        return;
    QStringList rows;
    const QString firstBench = QStringLiteral("bench/bench_filters.cpp");
    for (const QString &file : QDir(sourcePath(QStringLiteral("bench"))).entryList({QStringLiteral("bench_*.cpp")})) {
        const QRegularExpression row(QStringLiteral("\"%1[ /\"]").arg(name));
        if (lineOf(QStringLiteral("bench/") + file, row) > 0)
            rows << file;
    }
    if (rows.isEmpty())
        expectRow(firstBench, "add\\(\"NAME[ \"]", name, "a row of the benchmark");
}

TEST_P(Listed, StandsInTheReadmeInItsOwnWords)
{
    if (isBase)
        return;
    const QString path = QStringLiteral("README.md");
    expectRow(path, "^\\| \\[NAME\\]", name, "a row of the table of passes");
    QString text = fileText(sourcePath(path));
    const QRegularExpression row(
        QStringLiteral("^\\| \\[%1\\]\\(docs/passes/%2\\.md\\) \\| (.*) \\|$").arg(name, lower),
        QRegularExpression::MultilineOption);
    const QString meaning = QString::fromLatin1(GetParam().make()->passInfo()->meaning);
    QRegularExpressionMatch match = row.match(text);
    ASSERT_TRUE(match.hasMatch()) << qPrintable(name) << " has no row with a link to its page";
    if (isWriting() && match.captured(1) != meaning) {
        text.replace(match.capturedStart(1), match.capturedLength(1), meaning);
        writeText(sourcePath(path), text);
        match = row.match(text);
    }
    EXPECT_EQ(match.captured(1).toStdString(), meaning.toStdString())
        << qPrintable(path) << " is stale: write it with KVO_WRITE_DOCS=1 build/dev/bin/test_unit_passlist";
}

TEST(PassList, HasEveryHeaderOfTheFolder)
{
    const QString list = QStringLiteral("include/renderpasses/passes.h");
    for (const QString &file :
         QDir(sourcePath(QStringLiteral("include/renderpasses"))).entryList({QStringLiteral("*.h")})) {
        static const QRegularExpression kClass(QStringLiteral("^class KVO_RENDERPASSES_EXPORT (\\w+) :"),
                                               QRegularExpression::MultilineOption);
        const QRegularExpressionMatch match =
            kClass.match(fileText(sourcePath(QStringLiteral("include/renderpasses/") + file)));
        if (!match.hasMatch())
            continue;
        EXPECT_EQ(file, match.captured(1).toLower() + QStringLiteral(".h"));
        expectRow(list, "^    X\\(NAME\\)", match.captured(1), "the list of passes");
        if (lineOf(list, QRegularExpression(QStringLiteral("#include \"renderpasses/%1\"").arg(file))) == 0)
            ADD_FAILURE() << qPrintable(sourcePath(list)) << ":1: " << qPrintable(file) << " is not included";
    }
}
