#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <string>
#include <sys/time.h>
#include <tolvin/kernel/kerneldis.h>

namespace
{

timeval wallClock;

struct MatrixCase
{
    const char *name;
    vuDisMatrix m;
    double determinant;
    vuDisMatrix inverse;
};

constexpr float kTiny = 0.0005F; // a little above 0.0005, by kExcess1 + kExcess2 exactly
constexpr auto kExcess1 = static_cast<float>(double{kTiny} - 0.0005);
constexpr auto kExcess2 = static_cast<float>(double{kTiny} - 0.0005 - double{kExcess1});
const MatrixCase kMatrices[] = {
    {"Identity", {1, 0, 0, 0, 1, 0, 0, 0, 1}, 1, {1, 0, 0, 0, 1, 0, 0, 0, 1}},
    {"CyclicRotation", {0, 0, 1, 1, 0, 0, 0, 1, 0}, 1, {0, 1, 0, 0, 0, 1, 1, 0, 0}},
    {"Upper", {2, 4, 8, 0, 4, 8, 0, 0, 8}, 64, {0.5F, -0.5F, 0, 0, 0.25F, -0.25F, 0, 0, 0.125F}},
    {"Lower", {2, 0, 0, 4, 4, 0, 8, 8, 8}, 64, {0.5F, 0, 0, -0.5F, 0.25F, 0, 0, -0.25F, 0.125F}},
    {"Full", {1, 2, 3, 0, 1, 4, 5, 6, 0}, 1, {-24, 18, 5, 20, -15, -4, -5, 4, 1}},
    // 4097^2 and 4096 * 4098 differ by 1, which single precision does not see.
    {"NeedsDouble", {4097, 4096, 0, 4098, 4097, 0, 0, 0, 1}, 1, {4097, -4096, 0, -4098, 4097, 0, 0, 0, 1}},
    {"Negative", {-kTiny, 0, 0, 0, 1, 0, 0, 0, 1}, -double{kTiny}, {-2000, 0, 0, 0, 1, 0, 0, 0, 1}},
    {"Small", {kTiny, 0, 0, 0, 1, 0, 0, 0, 1}, double{kTiny}, {2000, 0, 0, 0, 1, 0, 0, 0, 1}},
    {"Threshold",
     {kTiny, kExcess1, kExcess2, 1, 1, 0, 1, 0, 1},
     0.0005,
     {2000, -kExcess1 * 2000, -kExcess2 * 2000, -2000, 1, kExcess2 * 2000, -2000, kExcess1 * 2000, 1}},
    {"NearSingular", {0.0004F, 0, 0, 0, 1, 0, 7, 0, 1}, double{0.0004F}, {1, 0, 0, 0, 1, 0, 0, 0, 1}},
    {"Singular", {1, 2, 3, 2, 4, 6, 0, 1, 5}, 0, {1, 0, 0, 0, 1, 0, 0, 0, 1}},
};

std::string printed(const vuDisMatrix m)
{
    char *text = nullptr;
    size_t length = 0;
    FILE *stream = open_memstream(&text, &length);
    printDisMatrix(stream, m);
    fclose(stream);
    std::string result(text, length);
    free(text);
    return result;
}

} // namespace

// Takes the place of the system's clock in the library.
extern "C" int gettimeofday(timeval *now, void *) noexcept
{
    *now = wallClock;
    return 0;
}

TEST(DisTime, Stamps)
{
    const struct
    {
        timeval now;
        uint32_t relative;
    } cases[] = {
        {{1699965000, 0}, 1073741400U << 1},      // 2023-11-14 12:30:00 UTC
        {{1699999199, 999999}, 2147482799U << 1}, // last microsecond of an hour: 2147482800 - 0.6, truncated
        {{1699999200, 0}, 0},
        {{0, 1}, 0}, // 0.6 units
        {{0, 2}, 1U << 1},
        {{-1, 0}, 0U - (596523U << 1)},
    };
    for (const auto &c : cases)
    {
        SCOPED_TRACE(c.now.tv_sec);
        wallClock = c.now;
        EXPECT_EQ(disMakeRelTime(), c.relative);
        EXPECT_EQ(disMakeAbsTime(), c.relative + 1);
    }
}

TEST(DisTime, Seconds)
{
    EXPECT_EQ(disTimeSeconds(0), 0.0);
    EXPECT_EQ(disTimeSeconds(1), 0.0);
    EXPECT_EQ(disTimeSeconds(UINT32_MAX), 3600.0);
    // 1800 * (1 - x) with x = (2147483647 / 3600 - 596523) / (2147483647 / 3600) = 847 / 2147483647
    EXPECT_NEAR(disTimeSeconds(1073741400U << 1), 1800.0 - 1800.0 * 847.0 / 2147483647.0, 1e-12);
}

TEST(DisMatrix, DeterminantAndInverse)
{
    for (const MatrixCase &c : kMatrices)
    {
        SCOPED_TRACE(c.name);
        EXPECT_DOUBLE_EQ(disMatrixDet(c.m), c.determinant);
        vuDisMatrix inverse;
        disMatrixInverse(inverse, c.m);
        for (int i = 0; i < 9; ++i)
        {
            EXPECT_FLOAT_EQ(inverse[i], c.inverse[i]) << i;
        }
    }
}

TEST(DisMatrix, NotANumberIsNotTakenForSingular)
{
    const vuDisMatrix m = {NAN, 0, 0, 0, 1, 0, 0, 0, 1};
    vuDisMatrix inverse;
    disMatrixInverse(inverse, m);
    EXPECT_TRUE(std::ranges::all_of(inverse, [](float x) { return std::isnan(x); }));
}

TEST(DisMatrix, Print)
{
    EXPECT_EQ(printed(kMatrices[0].m), "       1.0000       0.0000       0.0000       0.0000       1.0000       0.0000"
                                       "       0.0000       0.0000       1.0000");
    const vuDisMatrix wide = {-0.25F, 12345678.0F, 1e10F, 0.00004F, 0.00006F, -1, 2, 3, INFINITY};
    EXPECT_EQ(printed(wide), "      -0.2500 12345678.0000 10000000000.0000       0.0000       0.0001      -1.0000"
                             "       2.0000       3.0000          inf");
}
