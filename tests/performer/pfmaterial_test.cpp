#include <gtest/gtest.h>

#include <algorithm>
#include <array>

#include <tolvin/performer/pf.h>

#include "support/capture.h"

using Values = std::array<float, 16>;
constexpr int kColors[] = {0x1200, 0x1201, 0x1202, 0x1600};

// The four colours, shininess, alpha, and the colour modes of front and back.
static Values valuesOf(const pfMaterial *material)
{
    Values v;
    for (int i = 0; i < 4; ++i)
    {
        pfGetMtlColor(material, kColors[i], &v[i * 3], &v[i * 3 + 1], &v[i * 3 + 2]);
    }
    v[12] = pfGetMtlShininess(material), v[13] = pfGetMtlAlpha(material);
    v[14] = pfGetMtlColorMode(material, PFMTL_FRONT), v[15] = pfGetMtlColorMode(material, PFMTL_BACK);
    return v;
}

TEST(PfMaterial, KeepsWhatItIsGiven)
{
    pfMaterial *material = pfNewMtl(pfGetSharedArena()), *const other = pfNewMtl(nullptr);
    const Values start = {0.2f, 0.2f, 0.2f, 0.8f, 0.8f, 0.8f, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0};
    const Values odd = {-1, 2, 3e9f, 4, 5, 6, 7, 8, 9, 10, 11, 12, 128.5f, -0.25f, 0x1201, 0x1602};
    EXPECT_EQ(valuesOf(material), start);
    const auto set = [&](pfMaterial *of)
    {
        for (int i = 0; i < 4; ++i)
        {
            pfMtlColor(of, kColors[i], odd[i * 3], odd[i * 3 + 1], odd[i * 3 + 2]);
        }
        pfMtlShininess(of, odd[12]), pfMtlAlpha(of, odd[13]);
        pfMtlColorMode(of, PFMTL_FRONT, 0x1201), pfMtlColorMode(of, PFMTL_BACK, 0x1602);
    };
    set(material);
    const auto misuse = [&]
    {
        set(nullptr);
        EXPECT_EQ(valuesOf(nullptr), Values{});
        pfMtlColor(material, 0x1203, 1, 1, 1), pfMtlColorMode(material, 0, 1), pfMtlColorMode(material, 4, 1);
        EXPECT_EQ(pfGetMtlColorMode(material, PFMTL_BOTH), 0);
    };
    const std::string said = capturedStderr(misuse);
    EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 8 + 8 + 4) << said;
    EXPECT_EQ(valuesOf(material), odd);
    EXPECT_EQ(valuesOf(other), start);
    pfMtlColorMode(material, PFMTL_BOTH, 5);
    EXPECT_TRUE(pfGetMtlColorMode(material, 1) == 5 && pfGetMtlColorMode(material, 2) == 5);
    EXPECT_EQ(pfDelete(material) + pfDelete(other), 2);
}
