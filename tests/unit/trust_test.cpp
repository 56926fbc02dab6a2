// How scripts/trust puts figures into the page on reliability.

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QStringList>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace {

QString text(const char *utf8)
{
    return QString::fromUtf8(utf8);
}

class Trust : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (QStandardPaths::findExecutable(text("python3")).isEmpty())
            GTEST_SKIP() << "there is no python3";
        ASSERT_TRUE(QFile::copy(text(KVO_SOURCE_DIR "/docs/reliability.md"), page()));
        before = read(page());
        ASSERT_TRUE(before.contains(text("<!-- trust:chains -->\n")));
    }

    QString page() const { return folder.filePath(text("page.md")); }

    static QString read(const QString &path)
    {
        QFile file(path);
        EXPECT_TRUE(file.open(QIODevice::ReadOnly));
        return QString::fromUtf8(file.readAll());
    }

    /// The exit status with these figures, and what is said.
    int put(const char *campaign, const QByteArray &rows, QString *said = nullptr)
    {
        const QString figures = folder.filePath(text("figures.json"));
        QFile file(figures);
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(
            "{\"campaign\": \"chains\", \"date\": \"2001-02-03\", \"revision\": \"abc\", \"seconds\": 7, \"rows\": "
            + rows + "}");
        file.close();
        QProcess trust;
        trust.setProcessChannelMode(QProcess::MergedChannels);
        trust.start(text("python3"), {text(KVO_SOURCE_DIR "/scripts/trust"), text(campaign), text("--docs"),
                                      text("--from"), figures, text("--page"), page()});
        EXPECT_TRUE(trust.waitForFinished());
        if (said)
            *said = QString::fromUtf8(trust.readAll());
        return trust.exitCode();
    }

    QTemporaryDir folder;
    QString before;
};

// The page with one stretch of it replaced.
QString replaced(const QString &page, const QString &mark, const QString &by)
{
    const qsizetype from = page.indexOf(mark) + mark.size();
    const qsizetype to = page.indexOf(text("<!-- end -->"), from);
    return page.left(from) + by + page.mid(to);
}

} // namespace

TEST_F(Trust, PutsATableInItsPlaceAndLeavesAllElse)
{
    const int status = put("chains", R"([{"setup": "default", "sets": 5, "crashes": 0, "programs": []},
                                         {"setup": "zink", "sets": 6, "crashes": 0, "seed": 9, "programs": ["x"]}])");
    EXPECT_EQ(status, 0);
    EXPECT_EQ(read(page()), replaced(before, text("<!-- trust:chains -->\n"),
                                     text("2001-02-03, 7 s, revision abc:\n\n"
                                          "| setup | sets | crashes | seed |\n"
                                          "| --- | --- | --- | --- |\n"
                                          "| default | 5 | 0 |  |\n"
                                          "| zink | 6 | 0 | 9 |\n")));
}

TEST_F(Trust, DoesItAgainWithOtherFigures)
{
    put("chains", R"([{"setup": "default", "sets": 5}])");
    put("chains", R"([{"setup": "default", "sets": 8}])");
    EXPECT_TRUE(read(page()).contains(text("| default | 8 |")));
    EXPECT_FALSE(read(page()).contains(text("| default | 5 |")));
}

TEST_F(Trust, FailsWithACrashAndWritesItDown)
{
    EXPECT_EQ(put("chains", R"([{"setup": "default", "sets": 5, "crashes": 1}])"), 1);
    EXPECT_TRUE(read(page()).contains(text("| default | 5 | 1 |")));
}

TEST_F(Trust, RefusesAPageWithoutAPlace)
{
    QFile file(page());
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("nothing here\n");
    file.close();
    QString said;
    EXPECT_EQ(put("chains", R"([{"setup": "default"}])", &said), 1);
    EXPECT_TRUE(said.contains(text("0 places"))) << qPrintable(said);
    EXPECT_EQ(read(page()), text("nothing here\n"));
}

TEST_F(Trust, RefusesTheFiguresOfAnotherCampaign)
{
    QString said;
    EXPECT_EQ(put("soak", R"([{"setup": "default"}])", &said), 1);
    EXPECT_TRUE(said.contains(text("is of 'chains'"))) << qPrintable(said);
    EXPECT_EQ(read(page()), before);
}
