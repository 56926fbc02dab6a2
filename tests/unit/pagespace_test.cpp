#include <gl/pagespace.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

namespace Brevane::Kvo {

namespace {

struct Taken
{
    int number;
    QRect rect;
};

class Page
{
public:
    explicit Page(const QSize &size) : space(size) {}

    bool take(const QSize &size)
    {
        const PageSpace::Spot spot = space.find(size);
        if (spot.leaf < 0)
            return false;
        const int number = space.take(spot, size);
        taken.push_back({number, space.rect(number)});
        EXPECT_EQ(taken.back().rect.size(), size);
        return true;
    }
    void release(std::size_t i)
    {
        space.release(taken[i].number);
        taken.erase(taken.begin() + std::ptrdiff_t(i));
    }
    void expectSound() const
    {
        qint64 used = 0;
        for (std::size_t i = 0; i < taken.size(); ++i) {
            EXPECT_TRUE(QRect(QPoint(0, 0), space.size()).contains(taken[i].rect));
            EXPECT_EQ(space.rect(taken[i].number), taken[i].rect) << "what is taken stays where it is";
            used += qint64(taken[i].rect.width()) * taken[i].rect.height();
            for (std::size_t k = 0; k < i; ++k)
                EXPECT_FALSE(taken[i].rect.intersects(taken[k].rect)) << i << " and " << k;
        }
        EXPECT_EQ(space.used(), used);
        EXPECT_EQ(space.isEmpty(), taken.empty());
    }

    PageSpace space;
    std::vector<Taken> taken;
};

QSize randomSize(std::mt19937 &random, int most)
{
    const int width = 1 + int(random() % unsigned(most));
    return {width, 1 + int(random() % unsigned(most))};
}

} // namespace

TEST(PageSpace, HoldsFourQuartersAndNoMore)
{
    Page page({64, 48});
    for (int i = 0; i < 4; ++i)
        EXPECT_TRUE(page.take({32, 24}));
    EXPECT_FALSE(page.take({1, 1}));
    page.expectSound();
}

TEST(PageSpace, TakesWhatFitsBest)
{
    Page page({100, 100});
    ASSERT_TRUE(page.take({60, 100}));
    ASSERT_TRUE(page.take({40, 20}));
    ASSERT_TRUE(page.take({40, 70}));
    page.release(1);
    // Two are free: 40 by 20 and 40 by 10.
    ASSERT_TRUE(page.take({40, 10}));
    EXPECT_EQ(page.taken.back().rect, QRect(60, 90, 40, 10));
    page.expectSound();
}

TEST(PageSpace, IsWholeAgainWhenAllIsReleasedInWhateverOrder)
{
    std::mt19937 random(11);
    for (int round = 0; round < 20; ++round) {
        Page page({256, 200});
        int misses = 0;
        for (int step = 0; step < 400; ++step) {
            if (!page.taken.empty() && random() % 3 == 0)
                page.release(random() % page.taken.size());
            else
                misses += !page.take(randomSize(random, 60));
        }
        EXPECT_GT(misses, 0) << "the page was never full";
        page.expectSound();
        while (!page.taken.empty())
            page.release(random() % page.taken.size());
        EXPECT_TRUE(page.take({256, 200}));
        page.expectSound();
    }
}

TEST(PageSpace, GrowsRoundWhatIsTaken)
{
    std::mt19937 random(5);
    Page page({16, 16});
    for (QSize size(16, 16); size.width() < 128; size *= 2) {
        while (page.take(randomSize(random, 12))) {
        }
        page.space.grow({size.width() * 2, size.height()});
        while (page.take(randomSize(random, 12))) {
        }
        page.space.grow(size * 2);
        page.expectSound();
        ASSERT_TRUE(page.take(size)) << "below there is a new half";
        page.release(page.taken.size() - 1);
    }
    EXPECT_EQ(page.space.size(), QSize(128, 128));
    while (!page.taken.empty())
        page.release(random() % page.taken.size());
    EXPECT_TRUE(page.take({128, 128}));
}

TEST(PageSpace, OneThatIsEmptyGrowsAsAWhole)
{
    Page page({16, 16});
    page.space.grow({20, 40});
    EXPECT_TRUE(page.take({20, 40}));
    page.expectSound();
}

} // namespace Brevane::Kvo
