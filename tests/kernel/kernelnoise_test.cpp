#include <tolvin/kernel/kernelnoise.h>

#include "support/capture.h"
#include "support/fullarena.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <tolvin/bench/kernel/plainnoise.h>

using tolvin::blocksInUse;

namespace
{

const plain::NoiseTables oracle;
std::mt19937 engine(6);

float random(float low, float high)
{
    return std::uniform_real_distribution<float>(low, high)(engine);
}

class Noise : public testing::Test
{
protected:
    Noise()
    {
        EXPECT_EQ(noiseInitialize(), 1);
    }
    ~Noise() override
    {
        noiseFree();
    }
};

TEST(NoiseTables, ChecksumsAndPseudoRandomNumbers)
{
    EXPECT_EQ(noiseCrc16("123456789", 9), 0xBB3D);
    EXPECT_EQ(noiseCrc16("123456789", 0), 0);
    EXPECT_EQ(noiseCrc16(nullptr, -1), 0);
    float one[3] = {1, 1, 1}, three[3] = {3, 3, 3}, zero[3] = {};
    EXPECT_EQ(R(one), 18166);
    EXPECT_EQ(one[2], 0.12345F);
    EXPECT_EQ(R(three), 64329);
    EXPECT_EQ(R(zero), 0);
    EXPECT_NEAR(oracle.coefficients[1], -0.44560921, 5e-9); // so that all that agrees with the oracle is right
    EXPECT_NEAR(oracle.coefficients[3], 0.96319526, 5e-9);
    EXPECT_NEAR(oracle.coefficients[266], -0.060074769, 5e-10);
}

TEST(NoiseTables, AreMadeOnceRestartRandAndLeaveNothing)
{
    srand(0);
    const int first = rand();
    EXPECT_EQ(noiseInitialize(), 1);
    const size_t blocks = blocksInUse();
    const double value = noise(1.3F, 2.4F, 3.5F);
    EXPECT_EQ(noiseInitialize(), 1); // also restarts the sequence
    EXPECT_EQ(rand(), first);
    EXPECT_EQ(blocksInUse(), blocks);
    EXPECT_EQ(capturedStderr([] { noiseFree(), noiseFree(); }), "");
    EXPECT_EQ(blocksInUse(), blocks - 2);
    EXPECT_EQ(noiseInitialize(), 1);
    EXPECT_EQ(blocksInUse(), blocks);
    EXPECT_EQ(noise(1.3F, 2.4F, 3.5F), value);
    noiseFree();
}

// Fills the arena but for so many bytes, runs noiseInitialize, then makes room and tries again.
void initialiseInFullArena(size_t room)
{
    pfSharedArenaSize(64 << 10);
    void *const kept = pfMalloc(room, pfGetSharedArena());
    const std::vector<void *> blocks = tolvin::fillersOf(64 << 10, 16);
    pfFree(kept);
    const int result = noiseInitialize();
    std::ranges::for_each(blocks, pfFree);
    const int again = noiseInitialize();
    std::exit(result == 0 && again == 1 && noise(0.5F, 0.5F, 0.5F) == oracle.noise(0.5F, 0.5F, 0.5F) ? 0 : 1);
}

TEST(NoiseTables, FailureOfEitherIsReportedAndMended)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe"; // a process whose arena is not made yet
    const auto exits = testing::ExitedWithCode(0);
    EXPECT_EXIT(initialiseInFullArena(16), exits,
                "^kernelnoise:[0-9]+ Error: HashTable malloc failed!\n\nkernelnoise:[0-9]+ Error: RTable malloc");
    EXPECT_EXIT(initialiseInFullArena(2000), exits, "^kernelnoise:[0-9]+ Error: HashTable malloc failed!\n\n$");
    EXPECT_EXIT(initialiseInFullArena(8200), exits, "^kernelnoise:[0-9]+ Error: RTable malloc failed!\n\n$");
}

TEST_F(Noise, IsTheOracleBitForBit)
{
    for (int i = 0; i < 200000; ++i)
    {
        const float reach = i % 3 == 0 ? 5.0F : i % 3 == 1 ? 2000.0F : 1e7F; // below -10000, too
        float x = random(-reach, reach), y = random(-reach, reach), z = random(-reach, reach);
        if (i % 7 == 0) // on faces of cells, and just below
        {
            x = std::nearbyint(x);
            y = std::nextafter(std::nearbyint(y), -INFINITY);
        }
        ASSERT_EQ(noise(x, y, z), oracle.noise(x, y, z)) << x << ' ' << y << ' ' << z;
        float v[3];
        noise3D(v, x, y, z);
        const auto expected = oracle.noise3D(x, y, z);
        ASSERT_TRUE(std::equal(v, v + 3, expected.begin())) << x << ' ' << y << ' ' << z;
    }
}

TEST_F(Noise, StaysInRangeForAnything)
{
    const float inf = INFINITY, huge = std::numeric_limits<float>::max();
    for (const float c : {inf, -inf, std::nanf(""), huge, -huge, 2147483648.0F, -2147483648.0F, 2147473664.0F})
    {
        for (int axis = 0; axis < 3; ++axis)
        {
            float p[3] = {0.5F, 0.25F, 7.1F}, v[3];
            p[axis] = c;
            const double value = noise(p[0], p[1], p[2]);
            EXPECT_TRUE(value >= 0.0 && value <= 1.0) << c;
            noise3D(v, p[0], p[1], p[2]);
            for (const float component : v)
            {
                EXPECT_LE(std::fabs(component), 3.5F) << c;
            }
        }
    }
}

TEST_F(Noise, StatisticsAreThoseOfBlendedUniformValues)
{
    constexpr int kCount = 400000;
    double sum = 0.0, squares = 0.0, lowest = 1.0, highest = 0.0;
    for (int i = 0; i < kCount; ++i)
    {
        const double value = noise(random(-2000, 2000), random(-2000, 2000), random(-2000, 2000));
        sum += value;
        squares += value * value;
        lowest = std::min(lowest, value);
        highest = std::max(highest, value);
    }
    const double mean = sum / kCount, deviation = std::sqrt(squares / kCount - mean * mean);
    // The 267 coefficients' own mean is within 0.04 of 0, with a weight of one half.
    EXPECT_NEAR(mean, 0.5, 0.03);
    EXPECT_GT(deviation, 0.1);
    EXPECT_LT(deviation, 0.35);
    EXPECT_LT(lowest, 0.05);
    EXPECT_GT(highest, 0.95);
}

// Along a line across a border between cells, from three steps before it to three behind. Coordinates are multiples
// of 1/1024, so that none is rounded. The third derivative stays below 120: 12 times the greatest difference of two
// corners' terms, 7, and 18 times that of their gradients, 2.
TEST_F(Noise, ValueAndGradientAreContinuousAcrossCells)
{
    constexpr float h = 1.0F / 256.0F;
    double greatestSlope = 0.0;
    for (int i = 0; i < 20000; ++i)
    {
        float p[3], v[7][3];
        for (float &c : p)
        {
            c = std::nearbyint(random(-500, 500) * 1024.0F) / 1024.0F;
        }
        const int axis = i % 3;
        const float border = std::floor(p[axis]);
        for (int step = 0; step < 7; ++step)
        {
            p[axis] = border + static_cast<float>(step - 3) * h;
            noise3D(v[step], p[0], p[1], p[2]);
        }
        for (int c = 0; c < 3; ++c)
        {
            const auto at = [&](int step) { return double{v[3 + step][c]}; };
            ASSERT_NEAR(at(0), 3.0 * at(-1) - 3.0 * at(-2) + at(-3), 3e-5) << "jump at a border";
            const double before = (3.0 * at(0) - 4.0 * at(-1) + at(-2)) / (2 * h);
            const double behind = (-3.0 * at(0) + 4.0 * at(1) - at(2)) / (2 * h);
            ASSERT_NEAR(before, behind, 5e-3) << "crease at a border";
            greatestSlope = std::max(greatestSlope, std::fabs(before));
        }
    }
    EXPECT_GT(greatestSlope, 0.5); // it does rise and fall at borders
}

TEST_F(Noise, TurbulenceSumsOctaves)
{
    for (const int octaves : {-3, 0, 1, 2, 5})
    {
        double sum = oracle.noise(1.7F, -2.2F, 3.9F);
        auto vector = oracle.noise3D(1.7F, -2.2F, 3.9F);
        float amplitude = 0.6F, frequency = 1.9F;
        for (int i = 2; i <= octaves; ++i)
        {
            const float x = frequency * 1.7F, y = frequency * -2.2F, z = frequency * 3.9F;
            sum += amplitude * oracle.noise(x, y, z);
            for (size_t c = 0; c < 3; ++c)
            {
                vector[c] += amplitude * oracle.noise3D(x, y, z)[c];
            }
            amplitude *= 0.6F;
            frequency *= 1.9F;
        }
        EXPECT_EQ(turbulence(1.7F, -2.2F, 3.9F, 0.6F, 1.9F, octaves), sum) << octaves;
        float result[3];
        turbulence3D(result, 1.7F, -2.2F, 3.9F, 0.6F, 1.9F, octaves);
        EXPECT_TRUE(std::equal(result, result + 3, vector.begin())) << octaves;
    }
}

TEST_F(Noise, GridsAreLoopsBitForBit)
{
    constexpr int kMost = std::numeric_limits<int>::max();
    const noiseGridPoints grids[] = {{{-3.2F, 17.5F, 0.25F}, {0.013F, 0.4F, 1.7F}, {150, 3, 2}},
                                     {{9.0F, -20000.0F, 4.0F}, {-1.0F, 0.0F, 0.5F}, {64, 2, 3}},
                                     {{-9999.6F, 0.2F, 0.3F}, {77.7F, 1e-5F, 3.0F}, {1, 5, 4}},
                                     {{-4.0F, 0.0F, 0.0F}, {0.25F, 0.25F, 0.25F}, {67, 5, 1}},
                                     {{5e9F, NAN, 0.0F}, {-2e9F, 1.0F, INFINITY}, {7, 2, 2}},
                                     {{1.0F, 2.0F, 3.0F}, {1.0F, 1.0F, 1.0F}, {kMost, 0, 2}},
                                     {{1.0F, 2.0F, 3.0F}, {1.0F, 1.0F, 1.0F}, {4, 3, 0}},
                                     {{1.0F, 2.0F, 3.0F}, {1.0F, 1.0F, 1.0F}, {-4, -3, 2}}};
    for (const noiseGridPoints &grid : grids)
    {
        const auto [nx, ny, nz] = grid.count;
        const size_t points = nx > 0 && ny > 0 ? static_cast<size_t>(nx) * ny * nz : 0;
        const int octaves = nz == 1 ? 1 : 4;
        // One more, which must stay as it is.
        std::vector<double> value(points + 1, -7.0), sum(value);
        std::vector<std::array<float, 3>> vector(points + 1, {-7.0F, -7.0F, -7.0F}), vectorSum(vector);
        noiseGrid(value.data(), &grid);
        turbulenceGrid(sum.data(), &grid, 0.6F, 2.1F, octaves);
        noise3DGrid(reinterpret_cast<float(*)[3]>(vector.data()), &grid);
        turbulence3DGrid(reinterpret_cast<float(*)[3]>(vectorSum.data()), &grid, 0.6F, 2.1F, octaves);
        for (size_t i = 0; i < points; ++i)
        {
            const size_t index[3] = {i % nx, i / nx % ny, i / nx / ny};
            float p[3];
            for (int axis = 0; axis < 3; ++axis)
            {
                p[axis] = grid.origin[axis] + static_cast<float>(index[axis]) * grid.step[axis];
            }
            ASSERT_EQ(value[i], noise(p[0], p[1], p[2])) << i;
            ASSERT_EQ(sum[i], turbulence(p[0], p[1], p[2], 0.6F, 2.1F, octaves)) << i;
            std::array<float, 3> expected;
            noise3D(expected.data(), p[0], p[1], p[2]);
            ASSERT_EQ(vector[i], expected) << i;
            turbulence3D(expected.data(), p[0], p[1], p[2], 0.6F, 2.1F, octaves);
            ASSERT_EQ(vectorSum[i], expected) << i;
        }
        EXPECT_TRUE(value.back() == -7.0 && sum.back() == -7.0 && vector.back()[0] == -7.0F &&
                    vectorSum.back()[2] == -7.0F);
    }
}

TEST(NoiseVector, Normalises)
{
    float v[3] = {3, 0, 4}, result[3];
    VNormalize(v, v);
    EXPECT_TRUE(v[0] == 0.6F && v[1] == 0.0F && v[2] == 0.8F);
    for (const float c : {0.0F, 5e-9F, NAN})
    {
        const float small[3] = {c, 0, 0};
        VNormalize(result, small);
        EXPECT_TRUE(result[0] == 0.0F && result[1] == 0.0F && result[2] == 1.0F) << c;
    }
    const float large[3] = {0, -3e38F, 0}, barely[3] = {0, 0, -2e-8F};
    VNormalize(result, large);
    EXPECT_EQ(result[1], -1.0F);
    VNormalize(result, barely);
    EXPECT_EQ(result[2], -1.0F);
}

} // namespace
