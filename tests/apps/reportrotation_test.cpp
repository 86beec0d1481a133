#include <tolvin/apps/reportrotation.h>

#include <tolvin/kernel/kerneldisdr.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>

using namespace tolvin;

namespace
{

using Triple = std::array<float, 3>;

vuEntityState reportOf(int algorithm, float omega, const Triple &turn, const Triple &velocity)
{
    vuEntityState report{};
    report.deadReckoning = {static_cast<std::uint8_t>(algorithm), {}, {1, 2, -3}, {0, omega, 0}};
    std::ranges::copy(turn, report.orientation);
    std::ranges::copy(velocity, report.velocity);
    return report;
}

// The kernel's entity two seconds after the report.
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

// What the kernel neglects becomes the same motion in world coordinates: the next larger rotation takes the entity
// almost to the same place. The kernel leaves the acceleration in body coordinates out; in two seconds it moves as
// far as a velocity of the same numbers.
TEST(ReportRotation, KeepsMotion)
{
    const float bound = 0.00001f, above = std::nextafter(bound, 1.0f); // as a float, the bound is less than 0.00001
    const int becomes[] = {0, 1, 2, 3, 5, 5, 2, 2, 5, 5, 10};
    for (const Triple &turn : {Triple{0, 0, 0}, {0.3f, 0, 0}, {0, 1.2f, 0}, {0, 0, -2}, {3, -0.4f, 2}})
    {
        for (int algorithm = 0; algorithm <= 10; ++algorithm)
        {
            vuEntityState report = reportOf(algorithm, bound, turn, {90, -20, 5}), before = report;
            conditionRotation(report);
            EXPECT_EQ(report.deadReckoning.algorithm, becomes[algorithm]);
            vuEntityState turning =
                reportOf(algorithm, above, turn, algorithm < 8 ? Triple{90, -20, 5} : Triple{91, -18, 2});
            conditionRotation(turning);
            EXPECT_EQ(turning.deadReckoning.algorithm, algorithm);
            const bool body = algorithm >= 6 && algorithm <= 9;
            const bool accelerates = algorithm == VU_DR_RVW; // and would not, left as it was
            const vuEntity seen = extrapolated(report), expected = extrapolated(body || accelerates ? turning : before);
            for (int i = 0; i < 3; ++i)
            {
                EXPECT_NEAR(seen.position[i], expected.position[i], body ? 0.003 : 0) << algorithm;
            }
        }
    }
    vuEntityState strange = reportOf(VU_DR_RVB, NAN, {}, {});
    conditionRotation(strange);
    EXPECT_EQ(strange.deadReckoning.algorithm, VU_DR_FVW);
}
