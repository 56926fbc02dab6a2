#include "tiles.h"

#include "host/pipelinefile.h"

#include <gtest/gtest.h>

// Which parts a picture is made of, and how much is drawn around each.

using namespace Brevane::Kvo;
using namespace Qt::StringLiterals;

namespace {

constexpr TileLimits kLimits{16384, 16384};

void load(Pipeline *pipeline, const char *name)
{
    QStringList errors;
    const QString path = QStringLiteral(KVO_SOURCE_DIR "/pipelines/") + QString::fromUtf8(name) + u".json"_s;
    ASSERT_TRUE(loadPipeline(path, pipeline, &errors)) << qPrintable(errors.join(u'\n'));
}

double reachOf(const Pipeline &pipeline, double pixelsPerUnit = 100.0)
{
    double reach = -1.0;
    QStringList warnings;
    QString error;
    EXPECT_TRUE(TilePlan::reachOf(pipeline, pixelsPerUnit, &reach, &warnings, &error)) << qPrintable(error);
    return reach;
}

} // namespace

TEST(TilePlan, CoversEveryPixelOnceAndDrawsTheMarginAroundIt)
{
    for (const char *name : {"deferred-model", "fxaa", "smaa"}) {
        Pipeline pipeline;
        load(&pipeline, name);
        for (const QSize size : {QSize(512, 256), QSize(301, 203), QSize(16, 500), QSize(1000, 17)}) {
            for (const int side : {16, 64, 100}) {
                TilePlan plan;
                QString error;
                ASSERT_TRUE(plan.make(pipeline, size, side, kLimits, 1.0, {}, &error)) << qPrintable(error);
                EXPECT_GE(plan.margin(), int(reachOf(pipeline)));
                QVector<int> covered(size.width() * size.height(), 0);
                int lastTop = 0;
                for (const Tile &tile : plan.tiles()) {
                    for (int y = tile.part.top(); y <= tile.part.bottom(); ++y)
                        for (int x = tile.part.left(); x <= tile.part.right(); ++x)
                            ++covered[y * size.width() + x];
                    EXPECT_GE(tile.part.top(), lastTop) << "in rows";
                    lastTop = tile.part.top();
                    const QRect part = tile.partOfWindow(size);
                    EXPECT_EQ(part.size(), tile.part.size());
                    EXPECT_TRUE(QRect(QPoint(), tile.window.size()).contains(part));
                    EXPECT_TRUE(QRect(QPoint(), size).contains(tile.window));
                    // On each side the margin, or the picture's edge.
                    EXPECT_TRUE(part.left() >= plan.margin() || tile.window.left() == 0);
                    EXPECT_TRUE(tile.window.width() - 1 - part.right() >= plan.margin()
                                || tile.window.x() + tile.window.width() == size.width());
                    EXPECT_TRUE(tile.window.height() - 1 - part.bottom() >= plan.margin() || tile.window.top() == 0);
                    EXPECT_TRUE(part.top() >= plan.margin() || tile.window.y() + tile.window.height() == size.height());
                }
                EXPECT_EQ(covered.count(1), covered.size()) << name << " " << size.width() << " of " << side;
            }
        }
    }
}

TEST(TilePlan, AddsUpWhatPassesOnTheWayRead)
{
    Pipeline glow;
    load(&glow, "glow");
    // 2 * 16 + 2 of the blur.
    EXPECT_EQ(reachOf(glow), 34.0);
    ASSERT_TRUE(glow.setValue(u"Glow"_s, u"BlurRadius"_s, 4));
    EXPECT_EQ(reachOf(glow), 10.0);
    Pipeline obscurance;
    load(&obscurance, "ambient-obscurance");
    // 0.2 units of 100 pixels and the rounding of taps, then a blur of radius 2.
    EXPECT_NEAR(reachOf(obscurance), 22.0 + 6.0, 1e-5);
    Pipeline none;
    load(&none, "deferred-model");
    EXPECT_EQ(reachOf(none), 0.0);
}

TEST(TilePlan, ChoosesTilesThatTexturesHold)
{
    Pipeline pipeline;
    load(&pipeline, "glow");
    TilePlan plan;
    QString error;
    ASSERT_TRUE(plan.make(pipeline, {30000, 20000}, 0, kLimits, 1.0, {}, &error)) << qPrintable(error);
    EXPECT_EQ(plan.windowSide(), 2048);
    EXPECT_GE(plan.side(), 1800);
    ASSERT_TRUE(pipeline.setValue(u"Glow"_s, u"BlurRadius"_s, 700));
    ASSERT_TRUE(plan.make(pipeline, {30000, 20000}, 0, kLimits, 1.0, {}, &error)) << qPrintable(error);
    EXPECT_EQ(plan.windowSide(), 4096);
    EXPECT_FALSE(plan.make(pipeline, {30000, 20000}, 0, {2048, 16384}, 1.0, {}, &error));
    EXPECT_TRUE(error.contains(u"its passes read 1402 pixels around them, and textures end at 2048"_s))
        << qPrintable(error);
}

TEST(TilePlan, HoldsWhatIsTakenFromTheWholeFrame)
{
    Pipeline lens;
    load(&lens, "depth-of-field");
    TilePlan plan;
    QString error;
    ASSERT_TRUE(plan.make(lens, {512, 256}, 64, kLimits, 1.0, {}, &error)) << qPrintable(error);
    ASSERT_EQ(plan.held().size(), 1);
    EXPECT_EQ(plan.held()[0].kind, TilePlan::Held::Kind::Focus);
    EXPECT_EQ(plan.held()[0].depthPass, u"Model"_s);
    EXPECT_EQ(plan.held()[0].point, QPointF(0.5, 0.5));
    ASSERT_TRUE(lens.setValue(u"Lens"_s, u"AutoFocus"_s, false));
    ASSERT_TRUE(plan.make(lens, {512, 256}, 64, kLimits, 1.0, {}, &error));
    EXPECT_TRUE(plan.held().isEmpty());
    Pipeline luminance;
    load(&luminance, "luminance");
    ASSERT_TRUE(plan.make(luminance, {512, 256}, 64, kLimits, 1.0, {}, &error));
    EXPECT_TRUE(plan.held().isEmpty()) << "nobody asks";
    ASSERT_TRUE(plan.make(luminance, {512, 256}, 64, kLimits, 1.0, {u"Luminance.averageLuminance"_s}, &error));
    EXPECT_EQ(plan.held().size(), 1);
}
