#include <gtest/gtest.h>

#include <cstring>
#include <ctime>

#include <tolvin/kernel/kernelgeneric.h>

#include "support/capture.h"

#define AT(field) offsetof(vuRootNode, field)

TEST(RootNode, StartValues)
{
    vuRootNode root, want = {};
    memset(&root, 0xA5, sizeof root);
    EXPECT_EQ(capturedStderr([&] { initRootNode(&root); }), "kernelgeneric:203 Debug: NO_FORK_X\n");
    EXPECT_NEAR(root.time.sim.sec, time(nullptr), 60);

    want.time = root.time;
    want.version[0] = 1, want.version[1] = want.version[2] = 2, want.version[3] = 4261;
    want.options = {{1, 1, 0, 3, 0, 0, 0, 0, 0, 1}, 1.0f, 25.0f, 0.04f, 2, {}, {}};
    want.word180 = 2;
    std::fill_n(want.factors, 4, 1.0f);
    std::fill_n(want.glists, 3, vuList{nullptr, nullptr, nullptr, 0, -1, 0, -0x5A5B}); // its last word is not written
    memcpy(want.suffix, ".pfb", 5);
    memcpy(want.text1B0, "fid", 4);
    const size_t untouched[][2] = {{AT(reserved070), 4}, {AT(simSeconds), 8},        {AT(reserved07C), 8},
                                   {AT(frameDelta), 8},  {AT(reserved08C), 4},       {AT(reserved184), 4},
                                   {AT(reserved2C0), 8}, {AT(options.reserved), 20}, {AT(reserved2EC), 12},
                                   {AT(suffix) + 5, 11}, {AT(text1B0) + 4, 256}};
    auto *const wanted = reinterpret_cast<unsigned char *>(&want);
    for (const auto &[offset, size] : untouched)
    {
        memset(wanted + offset, 0xA5, size);
    }
    for (size_t i = 0; i < sizeof root; ++i)
    {
        const int byte = reinterpret_cast<unsigned char *>(&root)[i];
        const bool padding = sizeof(void *) != 4 && byte == 0xA5; // the 32-bit record has none
        EXPECT_TRUE(byte == wanted[i] || padding) << "offset " << i << ": " << byte;
    }
}
