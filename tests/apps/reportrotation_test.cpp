#include <tolvin/apps/reportrotation.h>

#include <tolvin/kernel/kerneldisdr.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>

using namespace tolvin;

namespace
{

constexpr float kVelocity[] = {100, -20, 5}, kAcceleration[] = {1, 2, -3};

vuEntityState reportOf(int algorithm, float psi = 0.3f, float theta = -0.4f, float phi = 2)
{
    vuEntityState report{};
    report.deadReckoning.algorithm = static_cast<std::uint8_t>(algorithm);
    report.orientation[0] = psi, report.orientation[1] = theta, report.orientation[2] = phi;
    std::memcpy(report.velocity, kVelocity, sizeof kVelocity);
    std::memcpy(report.deadReckoning.linearAcc, kAcceleration, sizeof kAcceleration);
    return report;
}

bool same(const vuEntityState &a, const vuEntityState &b)
{
    return std::memcmp(&a, &b, sizeof a) == 0;
}

// Where the kernel sees the report's entity after two seconds.
vuEntity extrapolated(vuEntityState report)
{
    vuRootNode root{};
    root.time.sim = {2, 0};
    vuEntity entity{};
    disCalcDRMatrices(&entity, &report);
    disDeadRecon(&root, &entity, &report);
    return entity;
}

} // namespace

TEST(ReportRotation, KeepsBodyMotion)
{
    constexpr float kRight = 1.57079632679f;
    // Where the body axes x, y, z point in the world: {axis, sign} each.
    const struct
    {
        float psi, theta, phi;
        int axis[3];
        int sign[3];
    } orientations[] = {{0, 0, 0, {0, 1, 2}, {1, 1, 1}},
                        {kRight, 0, 0, {1, 0, 2}, {1, -1, 1}},
                        {0, kRight, 0, {2, 1, 0}, {-1, 1, 1}},
                        {0, 0, kRight, {0, 2, 1}, {1, 1, -1}},
                        {kRight, 0, kRight, {1, 2, 0}, {1, 1, 1}}};
    for (const auto &o : orientations)
    {
        for (const int algorithm : {VU_DR_FPB, VU_DR_RPB, VU_DR_RVB, VU_DR_FVB})
        {
            const bool accelerates = algorithm >= VU_DR_RVB;
            vuEntityState report = reportOf(algorithm, o.psi, o.theta, o.phi);
            conditionRotation(report);
            EXPECT_EQ(report.deadReckoning.algorithm, accelerates ? VU_DR_FVW : VU_DR_FPW);
            const vuEntity entity = extrapolated(report);
            for (int i = 0; i < 3; ++i)
            {
                const double moved = 2 * kVelocity[i] + (accelerates ? 2 * kAcceleration[i] : 0);
                EXPECT_NEAR(entity.position[o.axis[i]], o.sign[i] * moved, 1e-4) << algorithm;
            }
        }
    }
}

// A rotation just above the bound is the kernel's, and takes the entity (nearly) to the same place.
TEST(ReportRotation, AgreesWithTheKernelAboutWhatIsNegligible)
{
    const float bound = 0.00001f; // as a float a little below
    vuEntityState report = reportOf(VU_DR_RPB), turning = report;
    turning.deadReckoning.angularVel[2] = std::nextafter(bound, 1.0f);
    vuEntityState untouched = turning;
    conditionRotation(untouched);
    EXPECT_TRUE(same(untouched, turning));
    conditionRotation(report);
    const vuEntity fixed = extrapolated(report), turned = extrapolated(turning);
    for (int i = 0; i < 3; ++i)
    {
        EXPECT_NEAR(fixed.position[i], turned.position[i], 0.003); // 1e-5 rad/s, 200 m
    }

    for (const float omega : {bound, -bound, 7e-6f, 1e-30f, std::numeric_limits<float>::quiet_NaN()})
    {
        vuEntityState small = reportOf(VU_DR_FPB);
        small.deadReckoning.angularVel[1] = omega;
        conditionRotation(small);
        EXPECT_EQ(small.deadReckoning.algorithm, VU_DR_FPW);
    }
    vuEntityState three = reportOf(VU_DR_FPB); // 1.04e-5 together
    three.deadReckoning.angularVel[0] = three.deadReckoning.angularVel[1] = three.deadReckoning.angularVel[2] = 6e-6f;
    conditionRotation(three);
    EXPECT_EQ(three.deadReckoning.algorithm, VU_DR_FPB);
    for (const int algorithm : {0, 1, 2, 3, 4, 5, 10, 255})
    {
        vuEntityState other = reportOf(algorithm);
        conditionRotation(other);
        EXPECT_TRUE(same(other, reportOf(algorithm))) << algorithm;
    }
}
