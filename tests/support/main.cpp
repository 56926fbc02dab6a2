#include "support/messages.h"

#include <QCoreApplication>

#include <gtest/gtest.h>

int main(int argc, char **argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    QCoreApplication application(argc, argv);
    Brevane::Kvo::Test::MessageCapture::install();
    const int result = RUN_ALL_TESTS();
    const auto *all = ::testing::UnitTest::GetInstance();
    // a binary whose tests were all skipped counts as skipped, not as passed
    if (result == 0 && all->skipped_test_count() > 0 && all->skipped_test_count() == all->test_to_run_count())
        return 77;
    return result;
}
