// The corpora of the fuzzers, among them every input that once broke something, through the same functions without a
// fuzzer: nothing crashes, and every promise is kept.

#include "fuzz/targets.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>

#include <gtest/gtest.h>

#include <string>

using namespace Qt::StringLiterals;

namespace {

struct Corpus
{
    const char *name;
    void (*run)(const QByteArray &);
    int least; // of inputs, so that a folder that was moved is noticed
};

const Corpus kCorpora[] = {
    {"batch", Fuzz::batch, 3},          {"glsl", Fuzz::glsl, 6},
    {"image", Fuzz::image, 8},          {"jobfiles", Fuzz::jobfiles, 4},
    {"model", Fuzz::model, 8},          {"modelbytes", Fuzz::modelbytes, 3},
    {"options", Fuzz::options, 9},      {"pipelinefile", Fuzz::pipelinefile, 4},
    {"slotvalue", Fuzz::slotvalue, 16},
};

QString folderOf(const QString &name)
{
    return u"" KVO_SOURCE_DIR "/fuzz/"_s + name;
}

class FuzzCorpus : public ::testing::TestWithParam<Corpus>
{};

} // namespace

void Fuzz::promise(bool kept, const char *what)
{
    EXPECT_TRUE(kept) << "broken promise: " << what;
}

TEST_P(FuzzCorpus, KeepsItsPromises)
{
    QDirIterator files(folderOf(u"corpus/"_s + QLatin1StringView(GetParam().name)), QDir::Files);
    int count = 0;
    for (; files.hasNext(); ++count) {
        QFile file(files.next());
        ASSERT_TRUE(file.open(QIODevice::ReadOnly));
        SCOPED_TRACE(file.fileName().toStdString());
        GetParam().run(file.readAll());
    }
    EXPECT_GE(count, GetParam().least);
}

// Cut off anywhere, and with each of its bytes disturbed in turn, all of it still does.
TEST_P(FuzzCorpus, KeepsItsPromisesDamaged)
{
    if (GetParam().run == Fuzz::model)
        GTEST_SKIP() << "each input of this one starts a process";
    QDirIterator files(folderOf(u"corpus/"_s + QLatin1StringView(GetParam().name)), QDir::Files);
    while (files.hasNext()) {
        QFile file(files.next());
        ASSERT_TRUE(file.open(QIODevice::ReadOnly));
        const QByteArray whole = file.readAll();
        const qsizetype step = whole.size() / 40 + 1;
        for (qsizetype i = 0; i < whole.size(); i += step) {
            SCOPED_TRACE(file.fileName().toStdString() + ", byte " + std::to_string(i));
            GetParam().run(whole.first(i));
            QByteArray disturbed = whole;
            disturbed[i] = char(disturbed[i] ^ (1 << (i % 8)));
            GetParam().run(disturbed);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Targets, FuzzCorpus, ::testing::ValuesIn(kCorpora),
                         [](const auto &row) { return std::string(row.param.name); });

// A target without a corpus or a line above would never run here.
TEST(FuzzTargets, EachHasACorpus)
{
    const QStringList sources = QDir(folderOf(u"targets"_s)).entryList({u"*.cpp"_s});
    EXPECT_EQ(sources.size(), qsizetype(std::size(kCorpora)));
    for (const Corpus &corpus : kCorpora)
        EXPECT_TRUE(sources.contains(QLatin1StringView(corpus.name) + u".cpp"_s)) << corpus.name;
}
