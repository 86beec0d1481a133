#include <tolvin/apps/motion.h>
#include <tolvin/kernel/kerneldisdr.h>

#include <algorithm>
#include <cmath>
#include <numbers>

#include <gtest/gtest.h>

using namespace tolvin;

namespace
{

Motion motionOf(MotionKind kind, double radius = 1000)
{
    Motion motion{.kind = kind, .start = {300, -200, 50}, .heading = 2.1, .phase = 0.7};
    motion.radius = radius;
    return motion;
}

// Difference quotient. Its error is a sixth of step squared and third derivative.
template<typename Member>
Member derivative(Member MotionState::*member, const Motion &motion, double time)
{
    constexpr double kStep = 1e-3;
    Member rate = stateAt(motion, time + kStep).*member;
    const Member before = stateAt(motion, time - kStep).*member;
    for (std::size_t i = 0; i < rate.size(); ++i)
    {
        rate[i] = (rate[i] - before[i]) / (2 * kStep);
    }
    return rate;
}

void expectNear(const Vector3 &a, const Vector3 &b, double tolerance, const char *what)
{
    EXPECT_NEAR(std::hypot(a[0] - b[0], a[1] - b[1], a[2] - b[2]), 0, tolerance) << what;
}

} // namespace

TEST(Motion, StatesAreConsistent)
{
    for (const MotionKind kind : kMotionKinds)
    {
        for (const double time : {0.0, 3.7, 61.0})
        {
            const Motion motion = motionOf(kind, time < 50 ? 1000 : -700);
            SCOPED_TRACE(testing::Message() << nameOf(motion.kind) << " at " << time);
            const MotionState s = stateAt(motion, time);
            expectNear(derivative(&MotionState::position, motion, time), s.velocity, 1e-6, "velocity");
            expectNear(derivative(&MotionState::velocity, motion, time), s.acceleration, 1e-6, "acceleration");
            expectNear(derivative(&MotionState::bodyVelocity, motion, time), s.bodyAcceleration, 1e-6, "in the body");
            // The columns of the attitude turn into each other: y towards z by the rate about x, and so on round.
            const Matrix3 turn = derivative(&MotionState::attitude, motion, time);
            Vector3 rates{}, velocity{};
            for (int i = 0; i < 9; ++i)
            {
                rates[i % 3] += turn[i / 3 * 3 + (i + 1) % 3] * s.attitude[i / 3 * 3 + (i + 2) % 3];
                velocity[i / 3] += s.attitude[i] * s.bodyVelocity[i % 3];
            }
            expectNear(rates, s.angularVelocity, 1e-7, "angular velocity");
            expectNear(velocity, s.velocity, 1e-12, "velocity from the body's");
            expectNear(rotated(transposed(s.attitude), rotated(s.attitude, {1, 2, 3})), {1, 2, 3}, 1e-14, "rotation");
            EXPECT_NEAR(s.attitude[7], 0, 1e-15) << "wings level";
            EXPECT_LT(s.attitude[8], 0) << "belly down";
        }
    }
}

TEST(Motion, KnownStates)
{
    Motion motion = motionOf(MotionKind::Circle);
    motion.phase = 0; // north of the centre, turning right: eastwards
    expectNear(stateAt(motion, 0).position, {300, 800, 50}, 1e-9, "position");
    expectNear(stateAt(motion, 0).velocity, {30, 0, 0}, 1e-9, "velocity");
    expectNear(stateAt(motion, 0).angularVelocity, {0, 0, 0.03}, 1e-12, "angular velocity");
    motion.radius = -1000;
    expectNear(stateAt(motion, 0).velocity, {-30, 0, 0}, 1e-9, "turning left");
    motion.kind = MotionKind::Accelerate;
    motion.heading = std::numbers::pi / 2;
    expectNear(stateAt(motion, 10).position, {650, -200, 50}, 1e-9, "accelerated eastwards");
    motion.kind = MotionKind::Helix;
    motion.speed = 0;
    EXPECT_NEAR(stateAt(motion, 10).attitude[6], 1, 1e-15) << "straight up";
}

TEST(Stamp, RoundsDownAndSaysByHowMuch)
{
    EXPECT_EQ(stampOf(1'800'000'000'000).word, 0x80000000u); // half past: 2^30 units
    EXPECT_EQ(stampOf(3'599'999'999'999).word, 0xFFFFFFFEu);
    for (const std::int64_t clock : {1'676LL, 1'677LL, 123'456'789'012LL, 3'599'999'999'000LL})
    {
        const Stamp stamp = stampOf(clock);
        EXPECT_TRUE(stamp.remainder >= 0 && stamp.remainder <= 1677);
        EXPECT_NEAR((stamp.word >> 1) * (3600.0 / 2147483648.0) + stamp.remainder * 1e-9, clock * 1e-9, 2e-9);
    }
}

// What a receiver extrapolates over a fifth of a second lies where the motion really goes.
TEST(Report, DeadReckoningFollowsTheMotion)
{
    const LocalFrame frame({47, 8, 500});
    const std::pair<MotionKind, std::uint8_t> cases[] = {
        {MotionKind::Static, 1}, {MotionKind::Line, 2},   {MotionKind::Accelerate, 5}, {MotionKind::Circle, 4},
        {MotionKind::Circle, 9}, {MotionKind::Circle, 6}, {MotionKind::Helix, 4},      {MotionKind::Helix, 8}};
    for (const auto &[kind, algorithm] : cases)
    {
        SCOPED_TRACE(testing::Message() << nameOf(kind) << " with algorithm " << int(algorithm));
        const Motion motion = motionOf(kind);
        vuEntityState report = reportOf(motion, 12, frame, algorithm);
        vuRootNode root{};
        vuEntity entity{};
        root.time.sim = {100, 200000};
        entity.recvTime = 100;
        disCalcDRMatrices(&entity, &report);
        disDeadRecon(&root, &entity, &report);
        const Vector3 expected = frame.toGeocentric(stateAt(motion, 12.2).position);
        expectNear({entity.position[0], entity.position[1], entity.position[2]}, expected, 1e-3, "position");
    }
    // The kernel has no use for it, other receivers do.
    EXPECT_NEAR(reportOf(motionOf(MotionKind::Accelerate), 12, frame, 8).deadReckoning.linearAcc[0], 1, 1e-6);
}
