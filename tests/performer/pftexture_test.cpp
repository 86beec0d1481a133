#include <gtest/gtest.h>

#include <algorithm>
#include <array>

#include <tolvin/performer/pf.h>

#include "support/capture.h"

using State = std::array<int, 10>;

// Wrap modes of S, T and both, filters, format, components, sizes.
static State stateOf(const pfTexture *texture, const unsigned int *image)
{
    State s;
    unsigned int *got;
    pfGetTexImage(texture, &got, &s[6], &s[7], &s[8], &s[9]);
    EXPECT_EQ(got, image);
    s[0] = pfGetTexRepeat(texture, 0x2802), s[1] = pfGetTexRepeat(texture, 0x2803);
    s[2] = pfGetTexRepeat(texture, 0x300), s[3] = pfGetTexFilter(texture, 1), s[4] = pfGetTexFilter(texture, 2);
    s[5] = pfGetTexFormat(texture, 1);
    return s;
}

TEST(PfTexture, KeepsWhatItIsGiven)
{
    unsigned int image[6] = {};
    pfTexture *texture = pfNewTex(pfGetSharedArena()), *const other = pfNewTex(nullptr);
    const State start = {0x2901, 0x2901, 0x2901}, odd = {0x8370, 7, 0x8370, 0x2600, 0x2703, 0x8058, 4, 3, 2, 1};
    EXPECT_EQ(stateOf(texture, nullptr), start);
    const auto set = [&](pfTexture *of)
    {
        pfTexRepeat(of, 0x2802, 6), pfTexRepeat(of, 0x300, 0x8370), pfTexRepeat(of, 0x2803, 7);
        pfTexFilter(of, 1, 0x2600), pfTexFilter(of, 2, 0x2703), pfTexFormat(of, 1, 0x8058);
        pfTexImage(of, image, 4, 3, 2, 1);
    };
    set(texture);
    pfGetTexImage(texture, nullptr, nullptr, nullptr, nullptr, nullptr);
    const auto misuse = [&]
    {
        set(nullptr);
        EXPECT_EQ(stateOf(nullptr, nullptr), State{});
        pfTexRepeat(texture, 0x2801, 1), pfTexFilter(texture, 0, 1), pfTexFilter(texture, 3, 1);
        pfTexFormat(texture, 0, 1);
        EXPECT_EQ(pfGetTexRepeat(texture, 0) + pfGetTexFilter(texture, 3) + pfGetTexFormat(texture, 2), 0);
    };
    const std::string said = capturedStderr(misuse);
    EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 7 + 7 + 7) << said;
    EXPECT_EQ(stateOf(texture, image), odd);
    EXPECT_EQ(stateOf(other, nullptr), start);
    pfTexRepeat(texture, 0x2802, 1);
    EXPECT_TRUE(pfGetTexRepeat(texture, 0x2802) == 1 && pfGetTexRepeat(texture, 0x2803) == 7);
    EXPECT_EQ(pfDelete(texture) + pfDelete(other), 2);
}
