#include "support/docfiles.h"

#include <host/pipeline.h>
#include <host/pipelinefile.h>
#include <host/pipelinegraph.h>

#include <gtest/gtest.h>

#include <QDir>
#include <QRegularExpression>

// What documents show of other files of the tree. With KVO_WRITE_DOCS set it is written anew.

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;
using namespace Qt::StringLiterals;

namespace {

const QString kTree = u"" KVO_SOURCE_DIR "/"_s;
constexpr const char *kStale = " is stale: write it with KVO_WRITE_DOCS=1 build/dev/bin/test_unit_docs";

} // namespace

TEST(Docs, TheGraphOfTheViewportIsThatOfItsFile)
{
    const QString path = kTree + u"docs/images/viewport-graph.svg"_s;
    Pipeline pipeline;
    ASSERT_TRUE(loadPipeline(kTree + u"pipelines/viewport.json"_s, &pipeline, nullptr));
    const QString graph = pipelineGraph(pipeline) + u'\n';
    ASSERT_TRUE(graph.startsWith(u"<svg "));
    if (isWriting())
        writeText(path, graph);
    EXPECT_TRUE(fileText(path) == graph) << qPrintable(path) << kStale;
}

// How many binaries of the GL suite run on zink: tests/CMakeLists.txt names those that do not.
TEST(Docs, TheShareOfTheSuiteOnAnotherDriverIsCounted)
{
    const qsizetype all = QDir(kTree + u"tests/gl"_s).entryList({u"*_test.cpp"_s}).size();
    const QString lists = fileText(kTree + u"tests/CMakeLists.txt"_s);
    const QRegularExpressionMatch names = QRegularExpression(u"set\\(long_in_zink ([a-z0-9_\\s]+)\\)"_s).match(lists);
    ASSERT_TRUE(names.hasMatch());
    const qsizetype left = names.captured(1).split(QRegularExpression(u"\\s+"_s), Qt::SkipEmptyParts).size();
    ASSERT_TRUE(lists.contains(u"if(VULKAN_SOFTWARE AND NOT name STREQUAL \"soak\")"_s));

    const QString path = kTree + u"docs/reliability.md"_s;
    QString text = fileText(path);
    const QRegularExpression sentence(
        u"`scripts/test` runs \\d+ of \\d+ binaries there, `scripts/test --all` all but `soak`"_s);
    ASSERT_EQ(text.count(sentence), 1);
    const QString counted =
        u"`scripts/test` runs %1 of %2 binaries there, `scripts/test --all` all but `soak`"_s.arg(all - left - 1)
            .arg(all);
    if (isWriting())
        writeText(path, text.replace(sentence, counted));
    EXPECT_TRUE(fileText(path).contains(counted)) << qPrintable(path) << kStale;
}
