#include <gtest/gtest.h>

#include <cmath>
#include <sys/time.h>
#include <tolvin/kernel/kerneldis.h>

static timeval wallClock;

// Takes the place of the system's clock in the library.
extern "C" int gettimeofday(timeval *now, void *) noexcept
{
    *now = wallClock;
    return 0;
}

TEST(DisTime, Stamps)
{
    const std::pair<timeval, uint32_t> cases[] = {
        {{1699965000, 0}, 1073741400U << 1},      // 2023-11-14 12:30:00 UTC
        {{1699999199, 999999}, 2147482799U << 1}, // last microsecond of an hour: 2147482800 - 0.6, truncated
        {{1699999200, 1}, 0},                     // 0.6 units
        {{-1, 0}, 0U - (596523U << 1)}};
    for (const auto &[now, relative] : cases)
    {
        wallClock = now;
        EXPECT_EQ(disMakeRelTime(), relative);
        EXPECT_EQ(disMakeAbsTime(), relative + 1);
    }
    EXPECT_EQ(disTimeSeconds(1), 0.0);
    EXPECT_EQ(disTimeSeconds(UINT32_MAX), 3600.0);
    // 596523 = 2147483647 / 3600 - 847 / 3600
    EXPECT_NEAR(disTimeSeconds(1073741400U << 1), 1800.0 - 1800.0 * 847.0 / 2147483647.0, 1e-12);
}

TEST(DisMatrix, DeterminantInverseAndPrint)
{
    constexpr float tiny = 0.0005F; // a little above 0.0005, by excess1 + excess2 exactly
    constexpr auto excess1 = static_cast<float>(double{tiny} - 0.0005);
    constexpr auto excess2 = static_cast<float>(double{tiny} - 0.0005 - double{excess1});
    const struct
    {
        vuDisMatrix m;
        double determinant;
        vuDisMatrix inverse;
    } cases[] = {{{2, 3, 1, 3, 4, 1, 3, 7, 2}, 2, {0.5, 0.5, -0.5, -1.5, 0.5, 0.5, 4.5, -2.5, -0.5}},
                 // 4097^2 and 4096 * 4098 differ by 1, which single precision does not see.
                 {{4097, 4096, 0, 4098, 4097, 0, 0, 0, 1}, 1, {4097, -4096, 0, -4098, 4097, 0, 0, 0, 1}},
                 {{-tiny, 0, 0, 0, 1, 0, 0, 0, 1}, -double{tiny}, {-2000, 0, 0, 0, 1, 0, 0, 0, 1}},
                 {{tiny, excess1, excess2, 1, 1, 0, 1, 0, 1},
                  0.0005,
                  {2000, -2000 * excess1, -2000 * excess2, -2000, 1, 2000 * excess2, -2000, 2000 * excess1, 1}},
                 {{std::nextafter(0.0005F, 0.0F), 0, 0, 0, 1, 0, 7, 0, 1},
                  double{std::nextafter(0.0005F, 0.0F)},
                  {1, 0, 0, 0, 1, 0, 0, 0, 1}}};
    vuDisMatrix inverse;
    for (const auto &c : cases)
    {
        EXPECT_DOUBLE_EQ(disMatrixDet(c.m), c.determinant);
        disMatrixInverse(inverse, c.m);
        for (int i = 0; i < 9; ++i)
        {
            EXPECT_FLOAT_EQ(inverse[i], c.inverse[i]) << c.determinant << " " << i;
        }
    }
    testing::internal::CaptureStdout();
    printDisMatrix(stdout, inverse);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "       1.0000       0.0000       0.0000       0.0000       1.0000       0.0000       0.0000       0.0000"
              "       1.0000");
    disMatrixInverse(inverse, (const vuDisMatrix){NAN, 0, 0, 0, 1, 0, 0, 0, 1});
    EXPECT_TRUE(std::isnan(inverse[4])) << "not a number was taken for singular";
}
