// What the other tests rely on.

#include "support/allocations.h"
#include "support/glfunctions.h"
#include "support/image.h"
#include "support/messages.h"

#include <QDirIterator>
#include <QFile>
#include <QRegularExpression>
#include <QSet>

#include <gtest/gtest.h>

#include <memory>

namespace Brevane::Kvo::Test {

TEST(GlFunctionList, HasEveryFunctionThatTheSourceTreeCalls)
{
    const QSet<QString> listed{
#define X(name) QStringLiteral("gl" #name),
        KVO_GL_FUNCTIONS(X)
#undef X
    };
    static const QRegularExpression call(QStringLiteral("(?<![\\w:.>])(gl[A-Z]\\w*)\\s*\\("));
    QStringList missing;
    int found = 0;
    for (const char *directory : {"/src", "/host"}) {
        QDirIterator files(QStringLiteral(KVO_SOURCE_DIR) + QLatin1String(directory),
                           {QStringLiteral("*.cpp"), QStringLiteral("*.h")}, QDir::Files, QDirIterator::Subdirectories);
        while (files.hasNext()) {
            QFile file(files.next());
            ASSERT_TRUE(file.open(QIODevice::ReadOnly));
            const QString text = QString::fromUtf8(file.readAll());
            for (auto match = call.globalMatch(text); match.hasNext();) {
                const QString name = match.next().captured(1);
                ++found;
                // window system calls are no GL calls
                if (!listed.contains(name) && !name.startsWith(QLatin1String("glX")))
                    missing.append(name + QStringLiteral(" in ") + file.fileName());
            }
        }
    }
    EXPECT_GT(found, 50);
    EXPECT_TRUE(missing.isEmpty()) << "add to support/glfunctions.h:\n" << qPrintable(missing.join(u'\n'));
}

TEST(ImageComparison, AcceptsWhatLiesWithinBothLimits)
{
    const Image<float> expected(10, 10, {0.5f, 0.5f, 0.5f, 1});
    Image<float> actual = expected;
    actual.at(3, 4)[1] += 0.1f;
    EXPECT_TRUE(isSameImage(actual, expected, {.worst = 0.11, .tolerance = 0.01, .share = 0.01}));
    EXPECT_FALSE(isSameImage(actual, expected, {.worst = 0.09, .tolerance = 0.01, .share = 0.01})) << "worst pixel";
    EXPECT_FALSE(isSameImage(actual, expected, {.worst = 0.11, .tolerance = 0.01, .share = 0.005})) << "share";
    EXPECT_FALSE(isSameImage(disturbed(expected, 0.5f), expected, {.worst = 0.4, .tolerance = 0, .share = 1}));
    EXPECT_FALSE(isSameImage(Image<float>(10, 9), expected, {.worst = 1e9, .share = 1})) << "size";
}

TEST(ImageComparison, NotANumberIsAsWrongAsCanBe)
{
    const Image<float> expected(2, 2);
    Image<float> actual = expected;
    actual.at(1, 1)[2] = std::nanf("");
    EXPECT_FALSE(isSameImage(actual, expected, {.worst = 1e9, .share = 1}));
    EXPECT_TRUE(isSameImage(actual, actual, {}));
}

TEST(ImageComparison, FailureSaysWhereAndSavesActualExpectedAndDifference)
{
    const Image<float> expected(6, 5, {0.25f, 0.5f, 0.75f, 1});
    Image<float> actual = expected;
    actual.at(4, 1)[0] = 1;
    const auto result = sameImage(actual, expected, {.worst = 0.1}, QStringLiteral("saved"));
    ASSERT_FALSE(result);
    EXPECT_TRUE(QString::fromUtf8(result.message()).contains(QStringLiteral("(4, 1)"))) << result.message();
    for (const char *kind : {".actual.png", ".expected.png", ".difference.png"}) {
        const QImage saved(testOutputPath(QStringLiteral("saved")) + QLatin1String(kind));
        ASSERT_EQ(saved.size(), QSize(6, 5)) << kind;
    }
    const QImage saved(testOutputPath(QStringLiteral("saved")) + QStringLiteral(".actual.png"));
    EXPECT_EQ(saved.pixelColor(4, 3).red(), 255) << "row 0 is at the bottom";
    EXPECT_EQ(saved.pixelColor(3, 3).red(), 64);
}

TEST(MessageCapture, TakesMessagesAndNests)
{
    MessageCapture outer;
    qWarning("one");
    {
        MessageCapture inner;
        qCritical("two");
        EXPECT_EQ(inner.texts(), QStringList{QStringLiteral("two")});
    }
    qDebug("three");
    EXPECT_EQ(outer.texts(), QStringList({QStringLiteral("one"), QStringLiteral("three")}));
    EXPECT_EQ(outer.count(QtWarningMsg), 1);
}

TEST(AllocationCounter, CountsOnlyItsScopeAndNotWhatIsPaused)
{
    if (!allocationsAreCounted())
        GTEST_SKIP() << "missing: a malloc of our own (sanitizers bring theirs)";
    const auto before = std::make_unique<int>(1);
    AllocationCounter counter;
    EXPECT_EQ(counter.count(), 0);
    // volatile, or the compiler leaves the pair of new and delete out
    int *volatile one = new int(1);
    EXPECT_EQ(counter.count(), 1);
    EXPECT_EQ(counter.bytes(), qint64(sizeof(int)));
    {
        const UncountedAllocations paused;
        int *volatile two = new int(2);
        delete two;
    }
    EXPECT_EQ(counter.count(), 1);
    void *volatile three = std::malloc(100);
    EXPECT_EQ(counter.count(), 2);
    std::free(three);
    delete one;
}

} // namespace Brevane::Kvo::Test
