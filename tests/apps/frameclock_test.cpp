#include <tolvin/apps/frameclock.h>

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

using namespace tolvin;

namespace
{

std::int64_t wallNanoseconds()
{
    return std::chrono::nanoseconds(std::chrono::system_clock::now().time_since_epoch()).count();
}

} // namespace

TEST(FrameClock, StepsAreWholePeriodsAndDoNotDrift)
{
    vuRootNode root = {};
    FrameClock clock(root, Pace::Fast, 30.0);
    EXPECT_EQ(root.simSeconds, 0.0);
    for (int frame = 1; frame <= 108000; ++frame)
    {
        ASSERT_NEAR(clock.advance(), frame / 30.0, 1e-6);
        ASSERT_EQ(root.frameDelta, 1.0 / 30.0);
    }
    EXPECT_EQ(root.simSeconds, 3600.0);
    EXPECT_EQ(root.time.sim.sec, 3600);
    EXPECT_EQ(root.time.sim.usec, 0);
}

TEST(FrameClock, StepsBeginAtTheWallClockHoweverLateFramesAre)
{
    vuRootNode root = {};
    FrameClock clock(root, Pace::Steps, 25.0);
    const double start = root.simSeconds;
    EXPECT_NEAR(start, static_cast<double>(wallNanoseconds()) * 1e-9, 1.0);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    clock.advance();
    EXPECT_NEAR(root.simSeconds - start, 0.04, 1e-6);
    // What arrives now belongs to the clock as it stands, late as that is.
    EXPECT_NEAR(clock.ofWall(wallNanoseconds()), root.simSeconds, 0.05);
}

TEST(FrameClock, MeasuredFramesTakeWhatTheyTook)
{
    vuRootNode root = {};
    FrameClock clock(root, Pace::Measured, 25.0);
    const double start = root.simSeconds;
    std::this_thread::sleep_for(std::chrono::milliseconds(120));
    const double time = clock.advance();
    EXPECT_GE(time, 0.12);
    EXPECT_NEAR(root.frameDelta, time, 1e-6);
    EXPECT_NEAR(root.simSeconds, start + time, 1e-6);
    clock.advance();
    EXPECT_LT(root.frameDelta, time);
}
