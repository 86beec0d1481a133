#include <tolvin/apps/heightgrid.h>

#include <cmath>
#include <tuple>

#include <gtest/gtest.h>

#include "support/capture.h"
#include "support/heightfiles.h"

using namespace tolvin;

namespace
{

constexpr float kNone = NAN;

std::string refusalOfPicture(const Bytes &bytes)
{
    return refusalOf([&] { readHeightPicture(bytes, 0, 1); });
}

void expectHeights(const HeightGrid &grid, const std::vector<float> &expected)
{
    ASSERT_EQ(grid.heights.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i)
    {
        EXPECT_TRUE(std::isnan(expected[i]) ? std::isnan(grid.heights[i])
                                            : std::abs(grid.heights[i] - expected[i]) < 1e-4f)
            << "height " << i << " is " << grid.heights[i] << ", not " << expected[i];
    }
}

} // namespace

TEST(Hgt, BigEndianSquaresWithHoles)
{
    const HeightGrid grid = readHgt(hgtOf({1, 258, -1, 8848, -32768, -430, 32767, -32767, 0}));
    EXPECT_TRUE(grid.columns == 3 && grid.rows == 3);
    expectHeights(grid, {1, 258, -1, 8848, kNone, -430, 32767, -32767, 0});
    for (const std::size_t size : {0, 1, 2, 7, 9, 10, 16, 2 * 9 + 1, 2884801})
    {
        EXPECT_NE(refusalOf([&] { readHgt(Bytes(size)); }).find(std::to_string(size) + " bytes: expected a square"),
                  std::string::npos);
    }
}

TEST(Hgt, NamesTellThePlace)
{
    const std::tuple<const char *, int, int> good[] = {
        {"N47E011.hgt", 47, 11}, {"/a/n00w001.SRTMGL1.hgt", 0, -1}, {"S90W180.HGT", -90, -180}, {"N89E179", 89, 179}};
    for (const auto &[name, latitude, longitude] : good)
    {
        const auto corner = cellCornerOf(name);
        ASSERT_TRUE(corner) << name;
        EXPECT_TRUE(corner->latitude == latitude && corner->longitude == longitude) << name;
    }
    for (const char *const name : {"", "N47E01", "N90E000.hgt", "S91E000", "N47E180", "N47W181", "E011N47.hgt",
                                   "N4-E011.hgt", "N47E0111.hgt", "N47E01x.hgt", "N47E011.hgt/x"})
    {
        EXPECT_FALSE(cellCornerOf(name)) << name;
    }
}

// From 1000 m for black to 1255 m for white.
TEST(HeightPicture, AllKindsOfPng)
{
    const std::tuple<const char *, PngOf, std::vector<float>> cases[] = {
        {"grey", {2, 2, 8, 0, {0, 0, 1, 0, 128, 255}, {}, {}}, {1000, 1001, 1128, 1255}},
        {"grey of 16 bits", {2, 1, 16, 0, {0, 1, 1, 0xff, 0xff}, {}, {}}, {1001, 1255}},
        {"grey of 2 bits", {4, 1, 2, 0, {0, 0b00011011}, {}, {}}, {1000, 1085, 1170, 1255}},
        {"grey, one transparent", {2, 1, 8, 0, {0, 7, 8}, {}, {0, 8}}, {1007, kNone}},
        {"grey and alpha", {3, 1, 8, 4, {0, 9, 1, 9, 0, 9, 255}, {}, {}}, {1009, kNone, 1009}},
        {"grey and alpha of 16 bits", {2, 1, 16, 4, {0, 1, 1, 0, 1, 1, 1, 0, 0}, {}, {}}, {1001, kNone}},
        {"colours",
         {2, 2, 8, 2, {0, 100, 0, 0, 0, 100, 0, 0, 0, 0, 100, 100, 100, 100}, {}, {}},
         {1021.26f, 1071.52f, 1007.22f, 1100}},
        {"colours and alpha", {2, 1, 8, 6, {0, 50, 50, 50, 255, 1, 2, 3, 0}, {}, {}}, {1050, kNone}},
        {"palette",
         {4, 1, 2, 3, {0, 0b00011000}, {10, 10, 10, 20, 20, 20, 30, 30, 30}, {255, 0}},
         {1010, kNone, 1030, 1010}},
        // The seven passes of a picture of 3 by 3, whose pixels have their number: 0, none, none, 2, 6 8, 1 7, 3 4 5.
        {"interlaced",
         {3, 3, 8, 0, {0, 0, 0, 2, 0, 6, 8, 0, 1, 0, 7, 0, 3, 4, 5}, {}, {}, 1},
         {1000, 1001, 1002, 1003, 1004, 1005, 1006, 1007, 1008}},
    };
    for (const auto &[name, png, expected] : cases)
    {
        SCOPED_TRACE(name);
        const HeightGrid grid = readHeightPicture(png.bytes(), 1000, 1255);
        EXPECT_TRUE(grid.columns == png.width && grid.rows == png.height);
        expectHeights(grid, expected);
    }
}

TEST(HeightPicture, BrokenFilesAreTold)
{
    const Bytes whole = PngOf{3, 3, 8, 0, {0, 1, 2, 3, 0, 4, 5, 6, 0, 7, 8, 9}, {}, {}}.bytes();
    for (std::size_t size = 0; size < whole.size(); ++size)
    {
        const Bytes part(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
        EXPECT_NE(refusalOfPicture(part).find("PNG file: "), std::string::npos) << size;
    }
    EXPECT_EQ(refusalOfPicture(PngOf{16385, 1, 8, 0, {0}, {}, {}}.bytes()),
              "16385 x 1 pixels: expected at most 16384 x 16384");
    EXPECT_EQ(refusalOfPicture(PngOf{2000000, 2000000, 8, 0, {0}, {}, {}}.bytes()),
              "2000000 x 2000000 pixels: expected at most 16384 x 16384");
    // Told from the size of the file, before there is room made for the heights.
    EXPECT_EQ(refusalOfPicture(PngOf{16384, 16384, 16, 6, {0}, {}, {}, 1}.bytes()), "not a whole PNG file: ends early");
}
