#include <tolvin/apps/terrainmap.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string_view>

#include <png.h>

#include "support/heightfiles.h"
#include "support/temporaryfolder.h"

using namespace tolvin;

namespace
{

// The picture within an SVG.
struct Image
{
    explicit Image(const std::string &svg)
    {
        constexpr std::string_view kDigits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
        Bytes file;
        std::size_t bits = 0, count = 0;
        for (std::size_t i = svg.find(";base64,") + 8, digit; (digit = kDigits.find(svg.at(i))) != kDigits.npos; ++i)
        {
            bits = bits << 6 | digit;
            if (++count % 4 != 1)
            {
                file.push_back(static_cast<std::uint8_t>(bits >> (6 - 2 * ((count - 1) % 4))));
            }
        }
        png_image image = {};
        image.version = PNG_IMAGE_VERSION;
        EXPECT_TRUE(png_image_begin_read_from_memory(&image, file.data(), file.size())) << image.message;
        image.format = PNG_FORMAT_RGB;
        bytes.resize(PNG_IMAGE_SIZE(image));
        EXPECT_TRUE(png_image_finish_read(&image, nullptr, bytes.data(), 0, nullptr)) << image.message;
        EXPECT_EQ(image.width, image.height);
        side = image.width;
    }

    // Of the pixel at that share of the way to the right, and down.
    int brightness(double right, double down) const
    {
        const auto index = [&](double share) { return static_cast<std::size_t>(share * static_cast<double>(side)); };
        const std::uint8_t *const pixel = &bytes[3 * (index(down) * side + index(right))];
        return pixel[0] + pixel[1] + pixel[2];
    }

    std::size_t side = 0;
    Bytes bytes;
};

struct TerrainMap : testing::Test
{
    // Terrain of a picture of 65 by 65 heights, 10 m apart; a grey level is a metre.
    Terrain terrainOf(int (*height)(int east, int north)) const
    {
        Bytes rows;
        for (int i = 0; i < 65 * 65; ++i)
        {
            appendBigEndian(rows, 0, i % 65 == 0); // no filter
            rows.push_back(static_cast<std::uint8_t>(height(i % 65 - 32, 32 - i / 65)));
        }
        writeBytes(folder / "heights.png", PngOf{65, 65, 8, 0, rows, {}, {}}.bytes());
        SceneDescription scene;
        TerrainDescription &terrain = scene.terrains.emplace_back();
        terrain.model.file = "heights.png";
        terrain.spacing = 10.0;
        terrain.highest = 255.0;
        return Terrain(scene, folder);
    }

    std::string draw(const Terrain &terrain, std::span<const DrivenPath> paths, std::span<const OtherPath> others = {},
                     const ShownEffects &effects = {}) const
    {
        writeTerrainMap(folder / "map.svg", terrain, paths, others, "A & B <c>", effects);
        std::ostringstream text;
        text << std::ifstream(folder / "map.svg").rdbuf();
        return text.str();
    }

    const TemporaryFolder folder;
};

DrivenPath straight(double length, double height)
{
    DrivenPath path("A<&>");
    for (double way = 0.0; way <= length; way += 1.0)
    {
        path.add({way - length / 2.0, -way / 2.0, 40.0 + height}, 40.0);
    }
    return path;
}

} // namespace

TEST(DrivenPath, StaysBoundedAndKnowsItsLength)
{
    DrivenPath path("circles");
    constexpr int kSteps = 100000;
    for (int i = 0; i <= kSteps; ++i)
    {
        const double angle = 20.0 * M_PI * i / kSteps;
        path.add({100.0 * std::cos(angle), 100.0 * std::sin(angle), i == 77777 ? -3.0 : 1.0},
                 i == 5 ? std::nan("") : 1.0);
    }
    const auto &points = path.points();
    ASSERT_LE(points.size(), DrivenPath::kMost);
    ASSERT_GE(points.size(), DrivenPath::kMost / 2);
    EXPECT_NEAR(path.length(), 2000.0 * M_PI, 0.001);
    EXPECT_EQ(path.farthest(), 4.0); // though that point is not kept
    EXPECT_EQ(points[0].distance, 0.0);
    for (std::size_t i = 1; i < points.size(); ++i)
    {
        ASSERT_NEAR(points[i].distance - points[i - 1].distance, points[1].distance, 1e-6);
    }
    EXPECT_NEAR(points.back().distance, path.length(), 2.0 * points[1].distance);
}

TEST_F(TerrainMap, LightsTheGroundFromTheNorthWest)
{
    const Terrain pyramid = terrainOf(
        [](int east, int north) { return std::max(0, 100 - 5 * (std::abs(east + north) + std::abs(east - north))); });
    const Image image(draw(pyramid, {}));
    const int northWest = image.brightness(0.44, 0.44);
    EXPECT_GT(northWest, image.brightness(0.56, 0.44) + 40);
    EXPECT_GT(northWest, image.brightness(0.44, 0.56) + 40);
    EXPECT_LT(image.brightness(0.56, 0.56), image.brightness(0.56, 0.44) - 40);
    EXPECT_EQ(image.brightness(0.1, 0.1), image.brightness(0.9, 0.2)); // level ground
}

TEST_F(TerrainMap, PutsPathsWhereTheyWere)
{
    const Terrain flat = terrainOf([](int, int) { return 40; });
    const DrivenPath paths[] = {straight(480.0, 0.004), straight(100.0, 25.0), DrivenPath("none")};
    const OtherPath others[] = {{{{0.0, 0.0, 0.0}, {160.0, 160.0, 0.0}}}, {}};
    const std::string svg = draw(flat, paths, others);

    // All 640 m are shown, 760 pixels wide, with the origin in the middle at (464, 476). Start, end, and end of the other path.
    const struct
    {
        const char *after, *before, *format;
        double x, y, east, north;
    } places[] = {{"stroke-linecap", "<circle cx='", "%lf' cy='%lf", 464, 476, -240, 0},
                  {"stroke-linecap", "<rect x='", "%lf' y='%lf", 464 - 5.5, 476 - 5.5, 240, -240},
                  {"stroke-dasharray='5 4' stroke-opacity", "M464.0 476.0L", "%lf %lf", 464, 476, 160, 160}};
    for (const auto &[after, before, format, x, y, east, north] : places)
    {
        double found[2] = {};
        const std::size_t at = svg.find(before, svg.find(after));
        ASSERT_NE(at, std::string::npos) << before;
        std::sscanf(svg.c_str() + at + std::strlen(before), format, &found[0], &found[1]);
        EXPECT_NEAR(found[0], x + east * 760 / 640, 0.06) << before;
        EXPECT_NEAR(found[1], y - north * 760 / 640, 0.06) << before;
    }
    for (const char *const text :
         {"A &amp; B &lt;c&gt;<", "A&lt;&amp;&gt;: 537 m, never more than 4.0 mm from the ground",
          "A&lt;&amp;&gt;: 112 m, never more than 25.0 m from the ground"})
    {
        EXPECT_NE(svg.find(text), std::string::npos) << text;
    }
    EXPECT_EQ(svg.find(">none:"), std::string::npos);
    EXPECT_EQ(draw(flat, paths, others), svg);
}

TEST_F(TerrainMap, ShowsOnlyWhatIsAroundSmallPaths)
{
    const Terrain slope = terrainOf([](int east, int) { return east + 32; });
    const DrivenPath path[] = {straight(100.0, 0.0)};
    const std::string svg = draw(slope, path); // 200 m of 640, around (0, -25)
    EXPECT_NE(svg.find(">-80<"), std::string::npos);
    EXPECT_EQ(svg.find(">-140<"), std::string::npos);

    DrivenPath beyond[] = {DrivenPath("beyond")};
    for (const double east : {300.0, 500.0, 900.0})
    {
        beyond[0].add({east, 0.0, 0.0}, std::nan(""));
    }
    const Image image(draw(slope, beyond)); // from 320 m in the west to 900 m in the east
    EXPECT_EQ(image.brightness(0.55, 0.5), image.brightness(0.9, 0.9));
    EXPECT_NE(image.brightness(0.50, 0.5), image.brightness(0.9, 0.9));
}

TEST_F(TerrainMap, StaysSmallAndManagesWithoutGroundAndPaths)
{
    const Terrain rough = terrainOf([](int, int) { return std::rand() % 256; });
    DrivenPath path("path");
    for (int k = 0; k < 3000; ++k)
    {
        path.add({300.0 - std::rand() % 600, 0.0, std::rand() % 256 + 0.0}, 0.0);
    }
    EXPECT_LT(draw(rough, {&path, 1}).size(), 700000U);
    const std::vector<DrivenPath> paths(30, path);
    EXPECT_NE(draw(rough, paths).find("</svg>"), std::string::npos);

    const Terrain none(SceneDescription{}, folder);
    EXPECT_NE(draw(none, {}).find("no ground here"), std::string::npos);
    EXPECT_THROW(writeTerrainMap("/nonexistent/folder/map.svg", none, {}, {}, ""), std::runtime_error);
}

TEST_F(TerrainMap, ShowsEffectsAndWhatIsAroundThem)
{
    const Terrain flat = terrainOf([](int, int) { return 5; });
    const ShownEffects effects = {{{{{0, 0}, {10, 0}, {10, 10}}, 9.0, {1.0F, 0.5F, -1.0F, 0.25F}}},
                                  {{5, 5, 0}, {1e6, 0, 0}}};
    const std::string map = draw(flat, {}, {}, effects);
    // 200 m are 760 pixels; (5, 5) is in their middle, at 464 and 476.
    for (const char *const text :
         {"<path d='M445.00 495.00L483.00 495.00L483.00 457.00z' fill='#ff8000' stroke='#ff8000' opacity='0.250'/>",
          "<path d='M459.5 471.5l9 9m0 -9l-9 9'/>", "effect began"})
    {
        EXPECT_NE(map.find(text), std::string::npos) << text;
    }
    EXPECT_EQ(draw(flat, {}).find("effect began"), std::string::npos);
}
