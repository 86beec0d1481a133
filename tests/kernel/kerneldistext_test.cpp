#include <gtest/gtest.h>

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

// FNV-1a of all values that are known, in decimal, each with its text: computed from the list of them by other means.
template<typename Value>
static uint32_t digest(const char *(*textOf)(Value), uint32_t end = 256)
{
    uint32_t hash = 2166136261;
    for (uint32_t value = 0; value < end; ++value)
    {
        const std::string text = textOf(static_cast<Value>(value));
        for (const char c : text.starts_with("unknown") ? "" : std::to_string(value) + text)
        {
            hash = (hash ^ static_cast<uint8_t>(c)) * 16777619;
        }
    }
    return hash;
}

TEST(DisText, HasTheseTexts)
{
    EXPECT_EQ(digest(getVersionStringDIS), 0xd06a684a);
    EXPECT_EQ(digest(getPDUFamilyStringDIS), 0x569fb36c);
    EXPECT_EQ(digest(getPDUTypeStringDIS), 0x269fe066);
    EXPECT_EQ(digest(getEntityTypeKindStr), 0x7d46cecb);
    EXPECT_EQ(digest(getEntityTypePlatformStr), 0xa136c40d);
    EXPECT_EQ(digest(getEntityTypePlLandStr, 65536), 0xa11da40b);
    EXPECT_EQ(digest(getEntityTypePlAirStr), 0x59972471);
    EXPECT_EQ(digest(getEntityCountryStr), 0x6dd490ea);
    EXPECT_EQ(digest(getDatumStr, 200000), 0x0471e051);
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

TEST(DisText, UnknownDatumsShareABuffer)
{
    const char *const first = getDatumStr(12345);
    EXPECT_STREQ(first, "unknown 12345");
    const char *const second = getDatumStr(0x80000000);
    EXPECT_STREQ(second, "unknown -2147483648");
    EXPECT_EQ(first, second);
}
