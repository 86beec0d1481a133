#include <tolvin/apps/pngfile.h>
#include <tolvin/apps/terrainmap.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <png.h>
#include <unistd.h>

using namespace tolvin;

namespace
{

struct Image
{
    std::size_t side = 0;
    std::vector<std::uint8_t> bytes;

    // Of the pixel at that share of the way to the right, and down.
    const std::uint8_t *at(double right, double down) const
    {
        const auto index = [&](double share) { return static_cast<std::size_t>(share * static_cast<double>(side)); };
        return &bytes[3 * (index(down) * side + index(right))];
    }

    int brightness(double right, double down) const
    {
        const std::uint8_t *const pixel = at(right, down);
        return pixel[0] + pixel[1] + pixel[2];
    }
};

class TerrainMap : public testing::Test
{
protected:
    TerrainMap() : folder_(std::filesystem::temp_directory_path() / ("tolvin_terrainmap_" + std::to_string(getpid())))
    {
        std::filesystem::create_directory(folder_);
    }

    ~TerrainMap() override
    {
        std::filesystem::remove_all(folder_);
    }

    // Terrain of a picture of 65 by 65 heights, 10 m apart; a grey level is a metre.
    Terrain terrainOf(const std::function<double(int east, int north)> &height) const
    {
        std::vector<std::uint8_t> row(65);
        writePng(folder_ / "heights.png", {65, 65, PixelFormat::Grey},
                 [&](std::uint32_t y)
                 {
                     for (int x = 0; x < 65; ++x)
                     {
                         row[static_cast<std::size_t>(x)] =
                             static_cast<std::uint8_t>(height(x - 32, 32 - static_cast<int>(y)));
                     }
                     return row.data();
                 });
        SceneDescription scene;
        scene.terrains.emplace_back();
        scene.terrains[0].model.file = "heights.png";
        scene.terrains[0].spacing = 10.0;
        scene.terrains[0].highest = 255.0;
        return Terrain(scene, folder_);
    }

    std::string draw(const Terrain &terrain, std::span<const DrivenPath> paths, std::span<const OtherPath> others = {},
                     const std::string &title = "title") const
    {
        writeTerrainMap(folder_ / "map.svg", terrain, paths, others, title);
        std::ostringstream text;
        text << std::ifstream(folder_ / "map.svg").rdbuf();
        return text.str();
    }

    std::filesystem::path folder_;
};

// The picture within an SVG.
Image imageIn(const std::string &svg)
{
    constexpr std::string_view kBefore = "data:image/png;base64,";
    const std::size_t start = svg.find(kBefore) + kBefore.size();
    std::vector<std::uint8_t> png;
    unsigned bits = 0;
    for (std::size_t i = start, count = 0; svg.at(i) != '\''; ++i)
    {
        const char c = svg[i];
        if (c != '=')
        {
            const int digit = std::isupper(c)   ? c - 'A'
                              : std::islower(c) ? c - 'a' + 26
                              : std::isdigit(c) ? c - '0' + 52
                              : c == '+'        ? 62
                                                : 63;
            bits = bits << 6 | static_cast<unsigned>(digit);
            if (++count % 4 != 1)
            {
                png.push_back(static_cast<std::uint8_t>(bits >> (6 - 2 * ((count - 1) % 4))));
            }
        }
    }
    png_image image = {};
    image.version = PNG_IMAGE_VERSION;
    EXPECT_TRUE(png_image_begin_read_from_memory(&image, png.data(), png.size())) << image.message;
    image.format = PNG_FORMAT_RGB;
    Image result{image.width, std::vector<std::uint8_t>(PNG_IMAGE_SIZE(image))};
    EXPECT_TRUE(png_image_finish_read(&image, nullptr, result.bytes.data(), 0, nullptr)) << image.message;
    EXPECT_EQ(image.width, image.height);
    return result;
}

// Numbers of the first place behind `before`, where the format has them.
std::array<double, 2> numbersBehind(const std::string &svg, const std::string &before, const char *format)
{
    std::array<double, 2> numbers{};
    const std::size_t at = svg.find(before);
    EXPECT_NE(at, std::string::npos) << before;
    EXPECT_EQ(std::sscanf(svg.c_str() + at + before.size(), format, &numbers[0], &numbers[1]), 2) << before;
    return numbers;
}

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
        const double angle = 20.0 * std::acos(-1.0) * i / kSteps;
        path.add({100.0 * std::cos(angle), 100.0 * std::sin(angle), i == 77777 ? -3.0 : 1.0},
                 i == 5 ? std::nan("") : 1.0);
    }
    const auto &points = path.points();
    ASSERT_LE(points.size(), DrivenPath::kMost);
    ASSERT_GE(points.size(), DrivenPath::kMost / 2);
    EXPECT_NEAR(path.length(), 2000.0 * std::acos(-1.0), 0.001);
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
    const Image image = imageIn(draw(pyramid, {}));
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
    const std::string svg = draw(flat, paths, others, "A & B <c>");

    // All 640 m are shown, 760 pixels wide, with the origin in the middle at (464, 476).
    const double scale = 760.0 / 640.0;
    const auto start = numbersBehind(svg.substr(svg.find("stroke-linecap")), "<circle cx='", "%lf' cy='%lf");
    EXPECT_NEAR(start[0], 464.0 - 240.0 * scale, 0.06);
    EXPECT_NEAR(start[1], 476.0, 0.06);
    const auto end = numbersBehind(svg.substr(svg.find("stroke-linecap")), "<rect x='", "%lf' y='%lf");
    EXPECT_NEAR(end[0] + 5.5, 464.0 + 240.0 * scale, 0.06);
    EXPECT_NEAR(end[1] + 5.5, 476.0 + 240.0 * scale, 0.06);
    const auto other =
        numbersBehind(svg.substr(svg.find("stroke-dasharray='5 4' stroke-opacity")), "M464.0 476.0L", "%lf %lf");
    EXPECT_NEAR(other[0], 464.0 + 160.0 * scale, 0.06);
    EXPECT_NEAR(other[1], 476.0 - 160.0 * scale, 0.06);

    EXPECT_NE(svg.find("A &amp; B &lt;c&gt;<"), std::string::npos);
    EXPECT_NE(svg.find("A&lt;&amp;&gt;: 537 m, never more than 4.0 mm from the ground"), std::string::npos);
    EXPECT_NE(svg.find("A&lt;&amp;&gt;: 112 m, never more than 25.0 m from the ground"), std::string::npos);
    EXPECT_EQ(svg.find(">none:"), std::string::npos);
    EXPECT_EQ(draw(flat, paths, others, "A & B <c>"), svg);
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
    const Image image = imageIn(draw(slope, beyond)); // from 320 m in the west to 900 m in the east
    EXPECT_EQ(image.brightness(0.55, 0.5), image.brightness(0.9, 0.9));
    EXPECT_NE(image.brightness(0.50, 0.5), image.brightness(0.9, 0.9));
}

TEST_F(TerrainMap, StaysSmallAndManagesWithoutGroundAndPaths)
{
    std::mt19937 random(1);
    const Terrain rough = terrainOf([&](int, int) { return random() % 256; });
    std::vector<DrivenPath> paths;
    for (int i = 0; i < 30; ++i)
    {
        paths.emplace_back("path");
        for (int k = 0; k < 3000; ++k)
        {
            paths.back().add({300.0 - static_cast<double>(random() % 600), 0.0, static_cast<double>(random() % 256)},
                             0.0);
        }
    }
    EXPECT_LT(draw(rough, std::span(paths).first(1)).size(), 700000U);
    const std::string svg = draw(rough, paths);
    EXPECT_NE(svg.find("</svg>"), std::string::npos);

    const Terrain none(SceneDescription{}, folder_);
    EXPECT_NE(draw(none, {}).find("no ground here"), std::string::npos);
    EXPECT_THROW(writeTerrainMap("/nonexistent/folder/map.svg", none, {}, {}, ""), std::runtime_error);
}
