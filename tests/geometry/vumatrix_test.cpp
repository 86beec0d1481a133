#include <tolvin/geometry/vumatrix.h>

#include "support/capture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstring>
#include <random>
#include <tolvin/bench/geometry/plainmatrix.h>
#include <vector>

namespace
{

// Bits of the elements, and of one NaN for all.
std::array<uint32_t, 16> bits(const vuMatrix m)
{
    std::array<uint32_t, 16> result;
    for (size_t i = 0; i < 16; ++i)
    {
        result[i] = std::bit_cast<uint32_t>(std::isnan(m[i / 4][i % 4]) ? NAN : m[i / 4][i % 4]);
    }
    return result;
}

template<class... Arguments>
void expectMade(const vuMatrix expected, void (*make)(vuMatrix, Arguments...), Arguments... arguments)
{
    vuMatrix m;
    memset(m, 0xFF, sizeof m);
    make(m, arguments...);
    EXPECT_EQ(bits(m), bits(expected));
}

TEST(Matrix, Constructors)
{
    const auto scale = [](float x, float y, float z, auto make, auto... arguments)
    {
        const vuMatrix expected = {{x, 0, 0, 0}, {0, y, 0, 0}, {0, 0, z, 0}, {0, 0, 0, 1}};
        expectMade(expected, make, arguments...);
    };
    scale(1, 1, 1, vuMakeIdentMatrix);
    scale(2, -3, 4, vuMakeScaleMatrix, 2.0F, -3.0F, 4.0F);
    scale(2, 1, 1, vuMakeScaleXMatrix, 2.0F);
    scale(1, 2, 1, vuMakeScaleYMatrix, 2.0F);
    scale(1, 1, 2, vuMakeScaleZMatrix, 2.0F);
    const vuMatrix translation = {{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}, {2, 3, -4, 1}};
    expectMade(translation, vuMakeTranslationMatrix, 2.0F, 3.0F, -4.0F);
}

// Cosines and sines, worked out to 60 digits, of the angle in single precision.
TEST(Matrix, RotationsRoundTheAngleFirst)
{
    const float cases[][3] = {{0, 1, 0},
                              {350, 0x1.f838bap-1F, -0x1.63a18cp-3F},
                              {90, -0x1.777a5cp-25F, 1},
                              {1e6F, 0x1.64896p-3F, -0x1.f82e7ep-1F},
                              {INFINITY, NAN, NAN}};
    for (const auto &[degrees, c, s] : cases)
    {
        const vuMatrix x = {{1, 0, 0, 0}, {0, c, s, 0}, {0, -s, c, 0}, {0, 0, 0, 1}};
        expectMade(x, vuMakeXRotationMatrix, degrees);
        const vuMatrix y = {{c, 0, -s, 0}, {0, 1, 0, 0}, {s, 0, c, 0}, {0, 0, 0, 1}};
        expectMade(y, vuMakeYRotationMatrix, degrees);
        const vuMatrix z = {{c, s, 0, 0}, {-s, c, 0, 0}, {0, 0, 1, 0}, {0, 0, 0, 1}};
        expectMade(z, vuMakeZRotationMatrix, degrees);
    }
}

// Any number, or one of those whose sums depend on order, precision and when they are rounded.
float number(std::mt19937 &engine, bool any)
{
    static const float delicate[] = {0,        -0.0F,   -0.0F,    1,        -1,        0x1p-24F,
                                     0x1p-50F, 0x1p60F, -0x1p60F, 0x1p127F, 0x1p-149F, INFINITY};
    const auto random = static_cast<uint32_t>(engine());
    return any ? std::bit_cast<float>(random) : delicate[random % std::size(delicate)];
}

TEST(Matrix, ProductsAreThePlainOnes)
{
    std::mt19937 engine(9);
    std::vector<float> memory(33); // matrices that end with it, none at a multiple of 16
    auto *const a = reinterpret_cast<float(*)[4]>(&memory[1]), *const b = a + 4;
    for (int i = 0; i < 60000; ++i)
    {
        std::generate(memory.begin(), memory.end(), [&] { return number(engine, i % 3 == 0); });
        const auto other = bits(b);
        const bool post = i % 2 == 0, itself = i % 5 == 0;
        vuMatrix expected;
        plain::multiply(expected, post || itself ? a : b, post && !itself ? b : a);
        (post ? vuMakePostMultiplication : vuMakePreMultiplication)(a, itself ? a : b);
        ASSERT_TRUE(bits(a) == bits(expected) && bits(b) == other) << i;
    }
}

TEST(Matrix, IdentityAndNullAreExact)
{
    for (int place = 0; place < 16; ++place)
    {
        for (float value : {-0.0F, 0.0F, 1.0F, 0x1.fffffep-1F, 1e-30F, NAN})
        {
            vuMatrix identity = {{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}, {0, 0, 0, 1}}, null = {};
            identity[place / 4][place % 4] = null[place / 4][place % 4] = value;
            EXPECT_EQ(vuMatrixIsIdentMat(identity), value == (place % 5 == 0 ? 1 : 0)) << place << ' ' << value;
            EXPECT_EQ(vuMatrixIsNullMat(null), value == 0) << place << ' ' << value;
        }
    }
}

TEST(Matrix, ConversionsAndPrint)
{
    const vuMatrix counted = {{0, 1, 2, 3}, {4, 5, 6, 7}, {8, 9, 10, 11}, {12, 13, 14, 15.5F}};
    const vuMatrix transposed = {{0, 4, 8, 12}, {1, 5, 9, 13}, {2, 6, 10, 14}, {3, 7, 11, 15.5F}};
    for (bool pf : {false, true})
    {
        vuMatrix m;
        double columns[16];
        (pf ? changeVuMatToPfMat : changePfMatToVuMat)(m, counted);
        EXPECT_EQ(bits(m), bits(counted));
        (pf ? changePFMatToColMat : changeVuMatToColMat)(columns, m);
        EXPECT_EQ(bits(m), bits(transposed));
        EXPECT_TRUE(std::equal(columns, columns + 16, transposed[0]));
    }
    EXPECT_EQ(capturedStderr([&] { vuPrintMatrix(stderr, counted); }),
              "vuMatrix:\n      0.000000 1.000000 2.000000 3.000000\n      4.000000 5.000000 6.000000 7.000000\n"
              "      8.000000 9.000000 10.000000 11.000000\n      12.000000 13.000000 14.000000 15.500000\n");
}

} // namespace
