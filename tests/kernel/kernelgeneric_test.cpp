#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <ctime>

#include <tolvin/kernel/kernelgeneric.h>

#include "support/capture.h"

#define RANGE(field)                                                                                                   \
    {                                                                                                                  \
        offsetof(vuRootNode, field), sizeof(vuRootNode::field)                                                         \
    }

// Every byte that initRootNode writes, over a pattern that shows where it does not.
TEST(RootNode, StartValues)
{
    vuRootNode root, want;
    memset(&root, 0xA5, sizeof root);
    memset(&want, 0xA5, sizeof want);
    EXPECT_EQ(capturedStderr([&] { initRootNode(&root); }), "kernelgeneric:203 Debug: NO_FORK_X\n");
    EXPECT_NEAR(root.time.sim.sec, time(nullptr), 60);

    const size_t zero[][2] = {RANGE(receiveFlags), RANGE(lists0),        RANGE(scenes),    RANGE(lists1),
                              RANGE(textureLists), RANGE(materialLists), RANGE(effects),   RANGE(lists2),
                              RANGE(word6C),       RANGE(lists3),        RANGE(word168),   RANGE(word16C),
                              RANGE(word174),      RANGE(word178),       RANGE(ownEntity), RANGE(word198),
                              RANGE(word2B4),      RANGE(word2F8),       RANGE(block2C8),  RANGE(lists4),
                              RANGE(word31C),      RANGE(word370)};
    for (const auto &[offset, size] : zero)
    {
        memset(reinterpret_cast<unsigned char *>(&want) + offset, 0, size);
    }
    memcpy(&want.time, &root.time, sizeof want.time);
    want.version[0] = 1, want.version[1] = want.version[2] = 2, want.version[3] = 4261;
    const int32_t option[] = {1, 1, 0, 3, 0, 0, 0, 0, 0, 1};
    std::ranges::copy(option, want.options.option);
    want.options.factor = 1.0f, want.options.frameRate = 25.0f, want.options.frameTime = 0.04f;
    want.options.option10 = 2, want.options.option11[0] = want.options.option11[1] = 0;
    want.word180 = 2;
    std::ranges::fill(want.factors, 1.0f);
    for (vuList &list : want.glists)
    {
        list.first = list.last = list.curr = nullptr;
        list.size = 0, list.posi = -1, list.optimized = 0;
    }
    memcpy(want.suffix, ".pfb", 5);
    memcpy(want.text1B0, "fid", 4);

    const auto *const got = reinterpret_cast<unsigned char *>(&root), *const wanted =
                                                                          reinterpret_cast<unsigned char *>(&want);
    for (size_t i = 0; i < sizeof root; ++i)
    {
        EXPECT_EQ(got[i], wanted[i]) << "offset " << i;
    }
}
