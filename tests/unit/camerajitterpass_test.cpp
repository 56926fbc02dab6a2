#include "support/allocations.h"
#include "support/messages.h"
#include "support/passes.h"

#include <renderpasses/camerajitterpass.h>

#include <QMatrix4x4>
#include <QRect>

#include <gtest/gtest.h>

#include <cstdlib>
#include <limits>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

enum Input { kViewport, kProjection, kCamera, kDirty, kMode };

class Jitter : public ::testing::Test
{
protected:
    Jitter()
    {
        projection.perspective(50.0f, 1.5f, 0.1f, 100.0f);
        camera.lookAt({1, 2, 3}, {0, 0, 0}, {0, 1, 0});
        pass.setInput(kViewport, QRect(0, 0, 200, 100));
        pass.setInput(kProjection, projection);
        pass.setInput(kCamera, camera);
    }
    int index() const { return pass.output(1).toInt(); }
    // The shift in pixels, read off the image of a point.
    QVector2D offset() const
    {
        const QVector3D point(0.3f, -0.2f, -5.0f);
        const QVector3D shift = qvariant_cast<QMatrix4x4>(pass.output(0)).map(point) - projection.map(point);
        return {shift.x() * 100.0f, shift.y() * 50.0f};
    }
    void expectOffset(double x, double y)
    {
        // Clip coordinates of about 0.2 in float, times half the size in pixels.
        EXPECT_NEAR(offset().x(), x, 1e-4);
        EXPECT_NEAR(offset().y(), y, 1e-4);
    }
    bool isAtRest() const { return qvariant_cast<QMatrix4x4>(pass.output(0)) == projection && index() == -1; }

    QMatrix4x4 projection;
    QMatrix4x4 camera;
    CameraJitterPass pass;
};

} // namespace

TEST_F(Jitter, SlotsHaveTheirNamesOrderAndDefaults)
{
    expectSlots(CameraJitterPass(),
                {{"Kvo_QRect_Viewport"},
                 {"Kvo_QMatrix4x4_ProjectionMatrix"},
                 {"Kvo_QMatrix4x4_CameraMatrix"},
                 {"Kvo_bool_Dirty", true},
                 {"Kvo_int_JitterMode", 2}},
                {"Kvo_QMatrix4x4_ProjectionMatrix", "Kvo_int_JitterIndex"});
}

TEST_F(Jitter, ModeTwoTakesTheTwoPositionsInTurnWhateverChanges)
{
    for (int frame = 0; frame < 6; ++frame) {
        pass.setInput(kDirty, frame % 3 == 0);
        pass.start(nullptr);
        EXPECT_EQ(index(), frame % 2);
        expectOffset(frame % 2 ? -0.25 : 0.25, frame % 2 ? 0.25 : -0.25);
    }
}

TEST_F(Jitter, EveryPointOfTheSceneMovesByTheSamePartOfAPixel)
{
    pass.start(nullptr);
    const auto jittered = qvariant_cast<QMatrix4x4>(pass.output(0));
    for (const QVector3D &point : {QVector3D(0, 0, -0.2f), QVector3D(2, 1, -3), QVector3D(-30, 12, -90)}) {
        const QVector3D shift = jittered.map(point) - projection.map(point);
        EXPECT_NEAR(shift.x(), 0.25 * 2 / 200, 2e-6);
        EXPECT_NEAR(shift.y(), -0.25 * 2 / 100, 2e-6);
    }
}

TEST_F(Jitter, ModeZeroDoesNotShift)
{
    pass.setInput(kMode, 0);
    pass.start(nullptr);
    EXPECT_TRUE(isAtRest());
    pass.setInput(kMode, QStringLiteral("often"));
    pass.start(nullptr);
    EXPECT_TRUE(isAtRest()) << "what is no number reads as 0";
}

TEST_F(Jitter, ModeOneShiftsForThirtyFramesAfterAChangeAndThenRests)
{
    pass.setInput(kMode, 1);
    pass.setInput(kDirty, false);
    for (int round = 0; round < 2; ++round) {
        for (int frame = 0; frame < 30; ++frame) {
            pass.start(nullptr);
            EXPECT_FALSE(qvariant_cast<QMatrix4x4>(pass.output(0)) == projection) << round << " " << frame;
            EXPECT_LE(std::abs(offset().x()), 0.5001f);
            EXPECT_LE(std::abs(offset().y()), 0.5001f);
            EXPECT_EQ(index(), -1);
        }
        for (int frame = 0; frame < 3; ++frame) {
            pass.start(nullptr);
            EXPECT_TRUE(isAtRest()) << round;
        }
        camera.translate(0.01f, 0, 0);
        pass.setInput(kCamera, camera);
    }
}

TEST_F(Jitter, ACameraThatNeverRestsIsAlwaysJittered)
{
    pass.setInput(kMode, 1);
    pass.setInput(kDirty, false);
    for (int frame = 0; frame < 70; ++frame) {
        camera.rotate(1.0f, 0, 1, 0);
        pass.setInput(kCamera, camera);
        pass.start(nullptr);
        EXPECT_FALSE(isAtRest()) << frame;
    }
}

TEST_F(Jitter, EachKindOfChangeStartsTheThirtyFramesAgain)
{
    pass.setInput(kMode, 1);
    pass.setInput(kDirty, false);
    const auto rest = [this] {
        for (int frame = 0; frame < 31; ++frame)
            pass.start(nullptr);
        ASSERT_TRUE(isAtRest());
    };
    rest();
    pass.setInput(kViewport, QRect(0, 0, 200, 101));
    pass.start(nullptr);
    EXPECT_FALSE(isAtRest()) << "height";
    rest();
    pass.setInput(kViewport, QRect(0, 0, 201, 101));
    pass.start(nullptr);
    EXPECT_FALSE(isAtRest()) << "width";
    pass.setInput(kViewport, QRect(0, 0, 200, 101));
    rest();
    projection.rotate(1.0f, 0, 0, 1);
    pass.setInput(kProjection, projection);
    pass.start(nullptr);
    EXPECT_FALSE(isAtRest()) << "projection";
    rest();
    pass.setInput(kDirty, true);
    pass.start(nullptr);
    EXPECT_FALSE(isAtRest()) << "dirty";
    pass.setInput(kDirty, false);
    rest();
    pass.setInput(kViewport, QRect(7, 8, 200, 101));
    pass.start(nullptr);
    EXPECT_TRUE(isAtRest()) << "another origin is no change";
}

TEST_F(Jitter, OtherModesShiftAtRandomInEveryFrame)
{
    for (const int mode : {3, -1, 77}) {
        pass.setInput(kMode, mode);
        pass.setInput(kDirty, false);
        for (int frame = 0; frame < 40; ++frame) {
            pass.start(nullptr);
            EXPECT_EQ(index(), -1);
        }
        EXPECT_FALSE(isAtRest());
    }
}

TEST_F(Jitter, ASeededHostGetsTheSameFramesAgain)
{
    pass.setInput(kMode, 3);
    QVector<QMatrix4x4> first;
    QVector<QMatrix4x4> second;
    for (QVector<QMatrix4x4> *frames : {&first, &second}) {
        std::srand(4711);
        for (int frame = 0; frame < 5; ++frame) {
            pass.start(nullptr);
            frames->append(qvariant_cast<QMatrix4x4>(pass.output(0)));
        }
    }
    EXPECT_EQ(first, second);
}

TEST_F(Jitter, TheFirstRandomNumberIsTheVerticalOffset)
{
    pass.setInput(kMode, 3);
    std::srand(99);
    const double y = (std::rand() % 32768) / 32767.0 - 0.5;
    const double x = (std::rand() % 32768) / 32767.0 - 0.5;
    std::srand(99);
    pass.start(nullptr);
    expectOffset(x, y);
}

TEST_F(Jitter, LeavingModeTwoWritesMinusOneAndComingBackStartsAtTheFirstPosition)
{
    pass.start(nullptr);
    EXPECT_EQ(index(), 0);
    for (const int other : {0, 1, 3}) {
        pass.setInput(kMode, other);
        pass.start(nullptr);
        EXPECT_EQ(index(), -1);
        pass.setInput(kMode, 2);
        pass.start(nullptr);
        EXPECT_EQ(index(), 0);
    }
}

// Beyond what textures may have, turned round, and as far apart as two ints are.
TEST_F(Jitter, EverySizeIsTakenAsItIs)
{
    constexpr int kMost = std::numeric_limits<int>::max();
    constexpr int kLeast = std::numeric_limits<int>::min();
    QRect widest;
    widest.setCoords(kLeast, kLeast, kMost, kMost);
    for (const QRect &viewport : {QRect(0, 0, 1, 1), QRect(7, -9, 100000, 50000), QRect(10, 20, -5, -7), widest}) {
        CameraJitterPass jitter;
        jitter.setInput(kViewport, viewport);
        jitter.setInput(kProjection, QMatrix4x4());
        const MessageCapture messages;
        jitter.start(nullptr);
        EXPECT_EQ(messages.texts(), QStringList());
        const auto shifted = qvariant_cast<QMatrix4x4>(jitter.output(0));
        const double width = double(viewport.right()) - double(viewport.left()) + 1;
        const double height = double(viewport.bottom()) - double(viewport.top()) + 1;
        EXPECT_EQ(shifted(0, 3), float(0.25 * 2.0 / width));
        EXPECT_EQ(shifted(1, 3), float(-0.25 * 2.0 / height));
    }
}

TEST_F(Jitter, AnEmptyViewportDoesNotCrash)
{
    pass.setInput(kViewport, QVariant());
    pass.start(nullptr);
    EXPECT_EQ(index(), 0);
}

TEST_F(Jitter, ACopyGoesOnByItself)
{
    pass.start(nullptr);
    CameraJitterPass copy(pass);
    copy.start(nullptr);
    EXPECT_EQ(copy.output(1).toInt(), 1);
    EXPECT_EQ(index(), 0);
}

TEST_F(Jitter, SteadyFrameTakesNothingFromTheHeap)
{
    // A host hands the projection on in every frame, so a consumer shares the last one.
    QVariant consumer;
    if (!allocationsAreCounted())
        GTEST_SKIP() << "allocations are not counted in this build";
    const auto frame = [&] {
        runFrame(pass);
        consumer = pass.output(0);
    };
    for (int i = 0; i < 3; ++i)
        frame();
    const AllocationCounter allocations;
    frame();
    frame();
    EXPECT_EQ(allocations.count(), 0);
}

TEST_F(Jitter, WhatAConsumerHoldsStaysAsItWas)
{
    QList<QVariant> held;
    QList<QMatrix4x4> values;
    for (int i = 0; i < 5; ++i) {
        projection.translate(0.1f, 0, 0);
        pass.setInput(kProjection, projection);
        pass.start(nullptr);
        held.append(pass.output(0));
        values.append(qvariant_cast<QMatrix4x4>(held.last()));
    }
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(qvariant_cast<QMatrix4x4>(held[i]), values[i]) << i;
}
