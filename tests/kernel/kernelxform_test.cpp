#include <gtest/gtest.h>

#include <cstring>
#include <sys/time.h>
#include <tolvin/kernel/kernelxform.h>

// Takes the place of the system's clock in the library: always 2023-11-14 12:30:00 UTC.
extern "C" int gettimeofday(timeval *now, void *) noexcept
{
    *now = {1699965000, 0};
    return 0;
}

TEST(Xform, SetUpWritesEveryByte)
{
    // Words of the default Entity State record up to its second type; the stamp is 2 * 1800 * 596523.
    uint16_t es[72] = {0x0105, 0x0101, 0xFCB0, 0x7FFF, 144, 0, 1, 1, 1, 0, 0x0201, 78, 1, 0, 0x0201, 78, 1};
    es[44] = 4;
    memcpy(&es[64], "\001xform      ", 12);
    xform model;
    memset(&model, 0xA5, sizeof model);
    setupDR(&model.es.deadReckoning);
    EXPECT_EQ(memcmp(&model.es.deadReckoning, &es[44], 40), 0);
    memset(&model, 0xA5, sizeof model);
    setupES(&model.es);
    EXPECT_EQ(memcmp(&model.es, es, 144), 0);

    memset(&model, 0xA5, sizeof model);
    initXForm(&model);
    const float head[] = {0, 0, 6666.66650390625F, 27.777778625488281F, 0};
    const uint32_t tail[9] = {};
    EXPECT_EQ(memcmp(&model, head, 20), 0);
    EXPECT_EQ(memcmp(&model.es, es, 144), 0);
    EXPECT_EQ(memcmp(model.blockA4, tail, 36), 0);
}
