#include "support/messages.h"

#include <core/log.h>

#include <gtest/gtest.h>

namespace Brevane::Kvo {

using Test::MessageCapture;

TEST(Log, FailedAssertionNamesFileLineConditionAndMessage)
{
    MessageCapture messages;
    const int value = 3;
    KVO_ASSERT(value == 4, "value is '%s' and %d", "three", value);
    const int line = __LINE__ - 1;
    ASSERT_EQ(messages.all().size(), 1);
    EXPECT_EQ(messages.all().first().type, QtCriticalMsg);
    EXPECT_EQ(
        messages.texts().first(),
        QStringLiteral("[log_test.cpp:%1] [ !! ] Assertion 'value == 4' failed: value is 'three' and 3").arg(line));
}

TEST(Log, AssertionThatHoldsIsSilentAndDoesNotFormatItsMessage)
{
    MessageCapture messages;
    int formatted = 0;
    const auto argument = [&] { return ++formatted; };
    KVO_ASSERT(1 + 1 == 2, "%d", argument());
    EXPECT_TRUE(messages.all().isEmpty());
    EXPECT_EQ(formatted, 0);
}

TEST(Log, FailedAssertionCarriesOn)
{
    MessageCapture messages;
    bool reached = false;
    KVO_ASSERT(false, "first");
    KVO_ASSERT(false, "second");
    reached = true;
    EXPECT_TRUE(reached);
    EXPECT_EQ(messages.count(QtCriticalMsg), 2);
}

TEST(Log, AssertionIsOneStatement)
{
    MessageCapture messages;
    const bool chosen = messages.all().isEmpty();
    if (chosen)
        KVO_ASSERT(!chosen, "taken");
    else
        KVO_ASSERT(chosen, "not taken");
    EXPECT_EQ(messages.containing(QStringLiteral("failed: taken")), 1);
}

TEST(Log, PlainMessageNamesFileAndLine)
{
    MessageCapture messages;
    KVO_LOG("Using %s mode", "GL4");
    const int line = __LINE__ - 1;
    ASSERT_EQ(messages.all().size(), 1);
    EXPECT_EQ(messages.all().first().type, QtDebugMsg);
    EXPECT_EQ(messages.texts().first(), QStringLiteral("[log_test.cpp:%1] Using GL4 mode").arg(line));
}

TEST(Log, FileNameIsWhatFollowsTheLastSlashOrTheWholePath)
{
    MessageCapture messages;
    reportMessage("/a/b/c.cpp", 12, QStringLiteral("one"));
    reportMessage("plain.cpp", 3, QStringLiteral("two"));
    reportFailedAssertion("dir/d.cpp", 7, "x > 0", QStringLiteral("three"));
    EXPECT_EQ(messages.texts(), QStringList({QStringLiteral("[c.cpp:12] one"), QStringLiteral("[plain.cpp:3] two"),
                                             QStringLiteral("[d.cpp:7] [ !! ] Assertion 'x > 0' failed: three")}));
}

TEST(Log, PercentSignsInAMessageAreKept)
{
    MessageCapture messages;
    reportMessage("a.cpp", 1, QStringLiteral("100 % of %s"));
    reportFailedAssertion("a.cpp", 1, "a % b == 0", QStringLiteral("50%d"));
    EXPECT_EQ(messages.texts(), QStringList({QStringLiteral("[a.cpp:1] 100 % of %s"),
                                             QStringLiteral("[a.cpp:1] [ !! ] Assertion 'a % b == 0' failed: 50%d")}));
}

} // namespace Brevane::Kvo
