#include <tolvin/apps/motion.h>

#include <algorithm>
#include <cmath>
#include <numbers>

#include <gtest/gtest.h>

#include <tolvin/kernel/kerneldisdr.h>

using namespace tolvin;

namespace
{

Motion motionOf(MotionKind kind, double radius = 1000)
{
    Motion motion;
    motion.kind = kind;
    motion.start = {300, -200, 50};
    motion.heading = 2.1;
    motion.phase = 0.7;
    motion.radius = radius;
    return motion;
}

Vector3 derivative(Vector3 MotionState::*member, const Motion &motion, double time)
{
    constexpr double kStep = 1e-3;
    const Vector3 after = stateAt(motion, time + kStep).*member;
    const Vector3 before = stateAt(motion, time - kStep).*member;
    return {(after[0] - before[0]) / (2 * kStep), (after[1] - before[1]) / (2 * kStep),
            (after[2] - before[2]) / (2 * kStep)};
}

// From the columns of the attitude: x turns towards y by the rate about z, and so on round.
Vector3 turnRates(const Motion &motion, double time)
{
    constexpr double kStep = 1e-3;
    const Matrix3 now = stateAt(motion, time).attitude;
    const Matrix3 after = stateAt(motion, time + kStep).attitude;
    const Matrix3 before = stateAt(motion, time - kStep).attitude;
    const auto rate = [&](int from, int towards)
    {
        double sum = 0;
        for (int row = 0; row < 9; row += 3)
        {
            sum += (after[row + from] - before[row + from]) / (2 * kStep) * now[row + towards];
        }
        return sum;
    };
    return {rate(1, 2), rate(2, 0), rate(0, 1)};
}

void expectNear(const Vector3 &a, const Vector3 &b, double tolerance, const char *what)
{
    EXPECT_NEAR(std::hypot(a[0] - b[0], a[1] - b[1], a[2] - b[2]), 0, tolerance) << what;
}

} // namespace

TEST(Motion, StatesAreConsistent)
{
    std::vector<Motion> motions = {motionOf(MotionKind::Circle, -700), motionOf(MotionKind::Helix, -700)};
    std::ranges::transform(kMotionKinds, std::back_inserter(motions), [](MotionKind kind) { return motionOf(kind); });
    for (const Motion &motion : motions)
    {
        for (const double time : {0.0, 3.7, 61.0})
        {
            SCOPED_TRACE(testing::Message() << nameOf(motion.kind) << " at " << time);
            const MotionState s = stateAt(motion, time);
            // Tolerances: error of the difference quotient, a sixth of step squared and third derivative.
            expectNear(derivative(&MotionState::position, motion, time), s.velocity, 1e-6, "velocity");
            expectNear(derivative(&MotionState::velocity, motion, time), s.acceleration, 1e-6, "acceleration");
            expectNear(derivative(&MotionState::bodyVelocity, motion, time), s.bodyAcceleration, 1e-6,
                       "body acceleration");
            expectNear(turnRates(motion, time), s.angularVelocity, 1e-7, "angular velocity");
            Vector3 velocity{};
            for (int i = 0; i < 9; ++i)
            {
                velocity[i / 3] += s.attitude[i] * s.bodyVelocity[i % 3];
            }
            expectNear(velocity, s.velocity, 1e-12, "velocity from the body's");
            EXPECT_NEAR(s.attitude[7], 0, 1e-15) << "wings level";
            EXPECT_LT(s.attitude[8], 0) << "belly down";
            expectNear(rotated(transposed(s.attitude), rotated(s.attitude, {1, 2, 3})), {1, 2, 3}, 1e-14, "rotation");
        }
    }
}

TEST(Motion, KnownStates)
{
    Motion circle = motionOf(MotionKind::Circle);
    circle.phase = 0; // north of the centre, turning right: eastwards
    const MotionState right = stateAt(circle, 0);
    expectNear(right.position, {300, 800, 50}, 1e-9, "position");
    expectNear(right.velocity, {30, 0, 0}, 1e-9, "velocity");
    expectNear(right.acceleration, {0, -0.9, 0}, 1e-12, "acceleration");
    expectNear(right.angularVelocity, {0, 0, 0.03}, 1e-12, "angular velocity");
    circle.radius = -1000;
    expectNear(stateAt(circle, 0).velocity, {-30, 0, 0}, 1e-9, "turning left");
    expectNear(stateAt(circle, 0).angularVelocity, {0, 0, -0.03}, 1e-12, "turning left");

    Motion line = motionOf(MotionKind::Accelerate);
    line.heading = std::numbers::pi / 2;
    expectNear(stateAt(line, 10).position, {650, -200, 50}, 1e-9, "accelerated");
    line.kind = MotionKind::Static;
    expectNear(stateAt(line, 10).angularVelocity, {}, 0, "static");
    EXPECT_NEAR(stateAt(line, 10).attitude[0], 1, 1e-15) << "static, nose east";
    Motion lift = motionOf(MotionKind::Helix);
    lift.speed = 0;
    EXPECT_NEAR(stateAt(lift, 10).attitude[6], 1, 1e-15) << "straight up";
}

TEST(Motion, SpreadOverTheMap)
{
    for (std::size_t i = 0; i < 60; ++i)
    {
        const Motion a = spreadMotion(Motion{}, i, 60);
        EXPECT_EQ(a.radius, i % 2 == 0 ? 1000 : -1000) << "turns right and left in turn";
        EXPECT_LE(std::max(std::abs(a.start[0]), std::abs(a.start[1])), 7500 + 1e-9);
        for (std::size_t j = 0; j < i; ++j)
        {
            const Motion b = spreadMotion(Motion{}, j, 60);
            EXPECT_GT(std::hypot(a.start[0] - b.start[0], a.start[1] - b.start[1]), 2000) << i << ' ' << j;
            EXPECT_GT(std::abs(a.phase - b.phase), 0.03) << i << ' ' << j;
        }
    }
    EXPECT_EQ(spreadMotion(Motion{}, 0, 1).start, Vector3{});
}

TEST(Stamp, RoundsDownAndSaysByHowMuch)
{
    EXPECT_EQ(stampOf(1'800'000'000'000).word, 0x80000000u); // half past: 2^30 units
    EXPECT_EQ(stampOf(7'200'000'000'000).word, 0u);
    EXPECT_EQ(stampOf(3'599'999'999'999).word, 0xFFFFFFFEu);
    for (const std::int64_t clock : {1'676LL, 1'677LL, 123'456'789'012LL, 3'599'999'999'000LL})
    {
        const Stamp stamp = stampOf(clock);
        EXPECT_GE(stamp.remainder, 0);
        EXPECT_LE(stamp.remainder, 1677);
        const double said = static_cast<double>(stamp.word >> 1) * (3600.0 / 2147483648.0);
        EXPECT_NEAR(said + static_cast<double>(stamp.remainder) * 1e-9, static_cast<double>(clock) * 1e-9, 2e-9);
    }
}

// What a receiver extrapolates over a fifth of a second lies where the motion really goes.
TEST(Report, DeadReckoningFollowsTheMotion)
{
    const LocalFrame frame({47, 8, 500});
    const struct
    {
        MotionKind kind;
        std::uint8_t algorithm;
    } cases[] = {{MotionKind::Static, 1}, {MotionKind::Line, 2},   {MotionKind::Accelerate, 5}, {MotionKind::Circle, 4},
                 {MotionKind::Circle, 9}, {MotionKind::Circle, 6}, {MotionKind::Helix, 4},      {MotionKind::Helix, 8}};
    for (const auto &c : cases)
    {
        SCOPED_TRACE(testing::Message() << nameOf(c.kind) << " with algorithm " << int(c.algorithm));
        const Motion motion = motionOf(c.kind);
        vuEntityState report = reportOf(motion, 12, frame, c.algorithm);
        vuRootNode root{};
        vuEntity entity{};
        root.time.sim = {100, 200000};
        entity.recvTime = 100;
        disCalcDRMatrices(&entity, &report);
        disDeadRecon(&root, &entity, &report);
        const Vector3 expected = frame.toGeocentric(stateAt(motion, 12.2).position);
        expectNear({entity.position[0], entity.position[1], entity.position[2]}, expected, 1e-3, "position");
    }
}

TEST(Report, CarriesTheFrameThatTheAlgorithmAsksFor)
{
    const LocalFrame frame({0, 0, 0}); // up is x, east is y, north is z
    Motion motion;
    motion.kind = MotionKind::Accelerate;
    const vuEntityState world = reportOf(motion, 0, frame, 5);
    EXPECT_NEAR(world.location[0], 6378137, 1e-6);
    EXPECT_NEAR(world.velocity[2], 30, 1e-5);
    EXPECT_NEAR(world.deadReckoning.linearAcc[2], 1, 1e-6);
    EXPECT_NEAR(world.orientation[1], -std::numbers::pi / 2, 1e-6);
    const vuEntityState body = reportOf(motion, 0, frame, 6);
    EXPECT_EQ(body.velocity[0], 30);
    EXPECT_NEAR(body.velocity[2], 0, 1e-5);
    EXPECT_NEAR(body.deadReckoning.linearAcc[0], 1, 1e-6);
    EXPECT_EQ(body.length, 144);
}
