#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include <tolvin/kernel/kerneldistext.h>

// Ranges of the values that are not known, as "28-128 136-139".
template<typename Value>
static std::string unknown(const char *(*textOf)(Value), int end = 256)
{
    std::string ranges;
    for (int first = 0, last; first < end; first = last + 1)
    {
        for (last = first; last < end && textOf(static_cast<Value>(last)) == std::string("unknown"); ++last)
        {
        }
        ranges += last > first ? std::to_string(first) + "-" + std::to_string(last - 1) + " " : "";
    }
    return ranges;
}

TEST(DisText, KnowsTheseValuesAndNoOthers)
{
    EXPECT_EQ(unknown(getVersionStringDIS), "6-255 ");
    EXPECT_EQ(unknown(getPDUFamilyStringDIS), "7-128 134-255 ");
    EXPECT_EQ(unknown(getPDUTypeStringDIS), "28-128 136-139 145-149 154-154 158-159 162-169 171-255 ");
    EXPECT_EQ(unknown(getEntityTypeKindStr), "10-255 ");
    EXPECT_EQ(unknown(getEntityTypePlatformStr), "6-255 ");
    EXPECT_EQ(unknown(getEntityTypePlLandStr, 65536), "23-65535 ");
    EXPECT_EQ(unknown(getEntityTypePlAirStr), "2-255 ");
    EXPECT_EQ(unknown(getEntityCountryStr), "1-77 79-221 223-223 226-255 ");
    int known = 0;
    for (uint32_t datum = 0; datum < 100100; ++datum)
    {
        known += !std::string(getDatumStr(datum)).starts_with("unknown");
    }
    EXPECT_EQ(known, 77);
}

TEST(DisText, EndsAndSpellings)
{
    EXPECT_STREQ(getVersionStringDIS(5), "IEEE 1278.1-1995");
    EXPECT_STREQ(getPDUFamilyStringDIS(5), "simulation managment");
    EXPECT_STREQ(getPDUFamilyStringDIS(133), "experimental entity managment");
    const std::pair<int, const char *> types[] = {{0, "other"},
                                                  {6, "resuply offer"},
                                                  {27, "receiver"},
                                                  {129, "announce object"},
                                                  {135, "request object"},
                                                  {140, "time space position indicator FI"},
                                                  {144, "detonation FI"},
                                                  {153, "environment"},
                                                  {157, "transfer control acknowledge"},
                                                  {161, "intercom signal"},
                                                  {170, "aggregate"}};
    for (const auto &[type, text] : types)
    {
        EXPECT_STREQ(getPDUTypeStringDIS(static_cast<uint8_t>(type)), text);
    }
    EXPECT_STREQ(getEntityTypeKindStr(9), "sensor/emitter");
    EXPECT_STREQ(getEntityTypePlatformStr(5), "space");
    EXPECT_STREQ(getEntityTypePlLandStr(18), "engeneer equipment");
    EXPECT_STREQ(getEntityTypePlLandStr(22), "chemical decontamination trailer");
    EXPECT_STREQ(getEntityTypePlAirStr(1), "fighter/air-defense");
    EXPECT_STREQ(getEntityCountryStr(78), "germany");
    EXPECT_STREQ(getDatumStr(14300), "battallion name");
    EXPECT_STREQ(getDatumStr(100048), "articulated param value");
}

TEST(DisText, UnknownDatumsShareABuffer)
{
    const char *const first = getDatumStr(12345);
    EXPECT_STREQ(first, "unknown 12345");
    const char *const second = getDatumStr(0x80000000);
    EXPECT_STREQ(second, "unknown -2147483648");
    EXPECT_EQ(first, second);
}
