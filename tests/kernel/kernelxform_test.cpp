#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <sys/time.h>
#include <tolvin/kernel/kernelxform.h>

// Takes the place of the system's clock in the library: always 2023-11-14 12:30:00 UTC.
extern "C" int gettimeofday(timeval *now, void *) noexcept
{
    *now = {1699965000, 0};
    return 0;
}

namespace
{

using StateBytes = std::array<unsigned char, 144>;

template<typename T>
void put(StateBytes &bytes, size_t offset, const T &value)
{
    memcpy(bytes.data() + offset, &value, sizeof value);
}

// The default record byte by byte, from the wire layout of the Entity State PDU.
StateBytes defaultState()
{
    StateBytes bytes = {5, 1, 1, 1};
    put(bytes, 4, uint32_t{1800U * 596523U * 2U});
    put(bytes, 8, uint16_t{144});
    put(bytes, 12, std::array<uint16_t, 3>{1, 1, 1});
    for (const size_t type : {20, 28})
    {
        put(bytes, type, std::array<uint8_t, 2>{1, 2});
        put(bytes, type + 2, uint16_t{78});
        put(bytes, type + 4, uint8_t{1});
    }
    put(bytes, 88, uint8_t{4});
    memcpy(bytes.data() + 128, "\001xform      ", 12);
    return bytes;
}

} // namespace

TEST(Xform, SetUpWritesEveryByte)
{
    const StateBytes expected = defaultState();
    xform model;
    memset(&model, 0xA5, sizeof model);
    setupDR(&model.es.deadReckoning);
    EXPECT_EQ(memcmp(&model.es.deadReckoning, &expected[88], 40), 0);

    memset(&model, 0xA5, sizeof model);
    setupES(&model.es);
    EXPECT_EQ(memcmp(&model.es, expected.data(), expected.size()), 0);

    memset(&model, 0xA5, sizeof model);
    initXForm(&model);
    EXPECT_EQ(memcmp(&model.es, expected.data(), expected.size()), 0);
    EXPECT_EQ(model.accel, 6666.66650390625F);
    EXPECT_EQ(model.topSpeed, 27.777778625488281F);

    model.accel = model.topSpeed = 0;
    model.es = {};
    const std::array<unsigned char, sizeof model> zero = {};
    EXPECT_EQ(memcmp(&model, zero.data(), zero.size()), 0);
}
