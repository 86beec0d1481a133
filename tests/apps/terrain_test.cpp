#include <tolvin/apps/gridnodes.h>
#include <tolvin/apps/terrain.h>

#include <cmath>
#include <fstream>

#include <gtest/gtest.h>

#include "support/capture.h"
#include "support/fullarena.h"
#include "support/heightfiles.h"
#include "support/temporaryfolder.h"

using namespace tolvin;

namespace
{

[[maybe_unused]] const int kArenaSize = pfSharedArenaSize(std::size_t{24} << 20);

class TerrainTest : public testing::Test
{
protected:
    // A cell, or a picture of 8 bits in which black is unknown; each sample has a value of its row and column.
    void write(const std::string &name, unsigned columns, unsigned rows, int (*valueOf)(int row, int column)) const
    {
        const bool isPicture = name.ends_with(".png");
        Bytes bytes;
        for (unsigned row = 0; row < rows; ++row)
        {
            appendBigEndian(bytes, 0, isPicture); // no filter
            for (unsigned column = 0; column < columns; ++column)
            {
                appendBigEndian(bytes, valueOf(row, column), isPicture ? 1 : 2);
            }
        }
        writeBytes(folder_ / name, isPicture ? PngOf{columns, rows, 8, 0, bytes, {}, {0, 0}}.bytes() : bytes);
    }

    // A picture has a spacing.
    TerrainDescription &add(const std::string &file, std::optional<double> spacing = {})
    {
        TerrainDescription &terrain = scene_.terrains.emplace_back();
        terrain.model.file = file;
        terrain.spacing = spacing;
        terrain.highest = 255.0;
        return terrain;
    }

    std::string refusal() const
    {
        const std::string text = refusalOf([this] { Terrain(scene_, folder_); }), folder = folder_.string() + '/';
        return text.starts_with(folder) ? text.substr(folder.size()) : "no name: " + text;
    }

    NothingStays nothingStays_;
    TemporaryFolder folder_;
    SceneDescription scene_;
};

} // namespace

// Ground of one height over the ellipsoid, with its curvature: samples are 93 m apart, chords sag below by less than 0.4 mm.
TEST_F(TerrainTest, CellsLieOnTheEarth)
{
    scene_.origin = {-33.3, 18.003, 200.0};
    for (const char *const file : {"S34E018.hgt", "S34E017.hgt"})
    {
        write(file, 1201, 1201, [](int, int) { return 500; });
        TerrainDescription &cell = add(file);
        cell.radius = 9000.0;
        cell.undulation = 31.5;
    }
    const Terrain terrain(scene_, folder_);
    EXPECT_EQ(terrain.files()[0].lowest, 500.0);
    // Squares within the circle: a little fewer than its area holds.
    const double squares = M_PI * 9000.0 * 9000.0 / (111195.0 / 1200 * 111195.0 * std::cos(33.3 * M_PI / 180) / 1200);
    EXPECT_NEAR(static_cast<double>(terrain.triangles()) / (2.0 * squares), 0.985, 0.015);
    for (int i = 0; i < 1024; ++i) // 30 m and more from each other, in no row with the samples
    {
        const double north = (i / 32 - 15.37) * 0.0035, east = (i % 32 - 15.41) * 0.0035;
        const Vector3 place = terrain.frame().toLocal(geocentricOf({-33.3 + north, 18.0 + east, 531.5}));
        const auto ground = terrain.groundAt(place[0], place[1]);
        ASSERT_TRUE(ground) << place[0] << ' ' << place[1];
        EXPECT_NEAR(ground->height, place[2], 0.001);
        // It leans as the ellipsoid's normal does: 8.9 mrad for 0.051 degrees at most.
        EXPECT_NEAR(slopeOf(*ground), std::hypot(place[0], place[1]) / 6.37e6 * 180 / M_PI, 0.001);
    }
    for (const auto &[east, north] :
         {std::pair{0.0, 9100.0}, {-9100.0, 0.0}, {6500.0, 6500.0}, {NAN, 0.0}, {0.0, 1e300}})
    {
        EXPECT_FALSE(terrain.groundAt(east, north)) << east << ' ' << north;
    }
    const GroundExtent extent = *terrain.extent();
    EXPECT_NEAR(extent.greatest[1], 8950.0, 50.0);
    EXPECT_NEAR(extent.greatest[2], 331.5, 0.01);
    EXPECT_NEAR(extent.least[2], 331.5 - 9000.0 * 9000.0 / 2 / 6.37e6, 0.2);
}

TEST_F(TerrainTest, StepsKeepTheLastSamples)
{
    // Of 4 samples across, a step of 2 leaves the first, the third and the last one, and so the one without height out.
    write("N00E000.hgt", 4, 4, [](int row, int column) { return row * 10 + column == 11 ? -32768 : 3000; });
    scene_.origin = {0.5, 0.5, 0.0};
    add("N00E000.hgt").radius = 1e6;
    EXPECT_EQ(Terrain(scene_, folder_).triangles(), 2u * (9 - 4));
    scene_.terrains[0].step = 2;
    const Terrain whole(scene_, folder_);
    EXPECT_EQ(whole.triangles(), 2u * 4);
    const Vector3 southEast = whole.frame().toLocal(geocentricOf({0.0, 1.0, 3000.0}));
    const Vector3 northEast = whole.frame().toLocal(geocentricOf({1.0, 1.0, 3000.0}));
    EXPECT_NEAR(whole.extent()->greatest[0], southEast[0], 0.01);
    EXPECT_NEAR(whole.extent()->greatest[1], northEast[1], 0.01);
    scene_.terrains[0].step = 100;
    EXPECT_EQ(Terrain(scene_, folder_).triangles(), 2u);
}

// 1 up for each 8 to the east and to the south, over the borders of tiles.
TEST_F(TerrainTest, PicturesAreCentredAndTilesMeet)
{
    write("p.png", 120, 131, [](int row, int column) { return row == 0 && column == 7 ? 0 : 1 + row + column; });
    TerrainDescription &picture = add("p.png", 2.0);
    picture.highest = 63.75;
    picture.center = {1000.0, -500.0};
    const Terrain terrain(scene_, folder_);
    EXPECT_EQ(terrain.triangles(), 2u * (119 * 130 - 2));
    EXPECT_TRUE(terrain.files()[0].lowest == 0.25 && terrain.files()[0].highest == 62.5);
    const GroundExtent extent = *terrain.extent();
    EXPECT_TRUE(extent.least == (Vector3{881, -630, 0.25}) && extent.greatest == (Vector3{1119, -370, 62.5}));
    for (int row = 1; row < 131; ++row)
    {
        for (int column = 0; column < 120; ++column)
        {
            const auto ground = terrain.groundAt(881 + 2 * column, -370 - 2 * row);
            ASSERT_TRUE(ground && std::abs(ground->height - 0.25 * (1 + row + column)) < 1e-5) << row << ' ' << column;
        }
    }
    EXPECT_FALSE(terrain.groundAt(881 + 2 * 7, -370.1)); // beside what is not known
    EXPECT_FALSE(terrain.groundAt(880.9, -400.0));

    const GroundPoint ground = *terrain.groundAt(1000.0, -500.0);
    EXPECT_NEAR(slopeOf(ground), std::atan(std::hypot(0.125, 0.125)) * 180 / M_PI, 1e-3);
    EXPECT_NEAR(aspectOf(ground), 315.0, 0.01);
    EXPECT_EQ(aspectOf({0.0, {0, -1, 0}}), 180.0);
    // What a renderer gets leans as much, also along the borders of tiles.
    pfNode *node = reinterpret_cast<pfNode *>(terrain.node());
    while (pfIsOfType(node, pfGetGroupClassType()) == 1)
    {
        node = pfGetChild(reinterpret_cast<pfGroup *>(node), 0);
    }
    void *normals = nullptr;
    pfGetGSetAttrLists(pfGetGSet(reinterpret_cast<pfGeode *>(node), 0), PFGS_NORMAL3, &normals, nullptr);
    for (int i = 0; i < 65 * 65 - 1; ++i)
    {
        const float *const up = static_cast<const pfVec3 *>(normals)[i];
        const double z = 8 / std::sqrt(66);
        ASSERT_TRUE(std::abs(up[0] + z / 8) < 1e-5 && std::abs(up[1] - z / 8) < 1e-5 && std::abs(up[2] - z) < 1e-5)
            << i;
    }
}

TEST_F(TerrainTest, ModelsStandOnPictures)
{
    write("flat.png", 3, 3, [](int, int) { return 7; });
    add("flat.png", 100.0);
    std::ofstream(folder_ / "house.obj") << "v 0 3 0\nv 4 3 0\nv 4 3 -4\nv 0 3 -4\nf 1 2 3 4\n";
    TerrainDescription &house = add("house.obj");
    house.model = {"house.obj", UpAxis::Y, 10.0};
    house.center = {-50.0, 20.0};
    const Terrain terrain(scene_, folder_);
    EXPECT_EQ(terrain.triangles(), 10u);
    for (const auto &[east, north, height] :
         {std::tuple{-30.0, 40.0, 30.0}, {-49.0, 59.0, 30.0}, {-51.0, 40.0, 7.0}, {-30.0, 61.0, 7.0}})
    {
        const auto ground = terrain.groundAt(east, north);
        EXPECT_TRUE(ground && std::abs(ground->height - height) < 1e-4 && ground->normal[2] > 0.9999) << east;
    }
    // Below its roof the house is open.
    for (const auto &[from, height] :
         {std::pair{31.0, 30.0}, {30.0, 30.0}, {29.9, 7.0}, {7.0, 7.0}, {6.9, -1.0}, {NAN, -1.0}})
    {
        EXPECT_EQ(terrain.groundAt(-30.0, 40.0, from).value_or(GroundPoint{-1.0, {}}).height, height) << from;
    }
}

TEST_F(TerrainTest, ErrorsNameFileAndPlace)
{
    write("p.png", 2, 2, [](int, int) { return 0; });
    write("N47E011.hgt", 3, 3, [](int, int) { return 100; });
    write("cell.hgt", 3, 3, [](int, int) { return 100; });
    writeBytes(folder_ / "x.png", {1, 2, 3});
    writeBytes(folder_ / "N00E000.HGT", Bytes(17));
    const std::pair<const char *, const char *> cases[] = {
        {"p.png", "p.png: a picture of heights: expected SPACING, metres from pixel to pixel"},
        {"none.png", "none.png: No such file or directory"},
        {"x.png", "x.png: no PNG file: expected one that begins with 89 50 4e 47"},
        {"cell.hgt", "cell.hgt: expected a name that tells where the cell is, such as N47E011.hgt"},
        {"N00E000.HGT", "N00E000.HGT: 17 bytes: expected a square"},
        {"N47E011.hgt",
         "N47E011.hgt: no ground: expected four known heights beside one another, within RADIUS of the origin"},
        {"none.obj", "none.obj: Unable to open file"},
    };
    for (const auto &[file, expected] : cases)
    {
        scene_.terrains.clear();
        TerrainDescription &terrain = add(file, std::string(file) == "p.png" ? std::nullopt : std::optional(1.0));
        EXPECT_TRUE(refusal().starts_with(expected)) << refusal();
        terrain.where = folder_ / "s.scene:5:3";
        EXPECT_TRUE(refusal().starts_with("s.scene:5:3: " + (folder_ / expected).string())) << refusal();
    }
    scene_.terrains.clear();
    add("p.png", 1.0);
    EXPECT_EQ(refusal(), "p.png: no ground: expected four known heights beside one another"); // all is transparent
    scene_.terrains[0].spacing = 1e308;
    EXPECT_EQ(refusal(), "p.png: reaches farther than 10000 km from the origin");
}

// What the error proposes fits.
TEST_F(TerrainTest, TooLargeCellsAreToldWhatWouldDo)
{
    write("N47E011.hgt", 1201, 1201, [](int, int) { return 100; });
    scene_.origin = {47.5, 11.5, 0.0};
    add("N47E011.hgt").radius = 1e6;
    const std::string text = refusal();
    EXPECT_TRUE(text.starts_with("N47E011.hgt: no room in the shared arena for 1440000 squares, ")) << text;
    const double radius = std::stod(text.substr(text.find("RADIUS ") + 7));
    const int step = std::stoi(text.substr(text.find("STEP ") + 5));
    EXPECT_TRUE(radius > 5000.0 && step > 2 && step < 6) << text;
    scene_.terrains[0].step = step;
    EXPECT_GT(Terrain(scene_, folder_).triangles(), 2u * 1440000 / 36);
    scene_.terrains[0].step = 1;
    scene_.terrains[0].radius = radius;
    EXPECT_TRUE(Terrain(scene_, folder_).groundAt(0.0, radius - 200.0));

    write("p.png", 800, 800, [](int, int) { return 1; });
    scene_.terrains.clear();
    add("p.png", 1.0);
    EXPECT_NE(refusal().find("expected a smaller picture"), std::string::npos);
}

TEST_F(TerrainTest, FullArenaLeavesNothing)
{
    PlaceGrid grid{100, 150, {}, {}};
    grid.place = [](std::size_t row, std::size_t column) -> Vector3 {
        return {static_cast<double>(column), -static_cast<double>(row), row == 7 && column == 9 ? NAN : 1.0};
    };
    EXPECT_GT(refusalsUntilThereIsRoom(8192, [&] { GridNodes nodes(grid); }), 30);
    std::ofstream(folder_ / "house.obj") << "v 0 3 0\nv 4 3 0\nv 4 3 -4\nf 1 2 3\n";
    add("house.obj");
    EXPECT_GT(refusalsUntilThereIsRoom(64, [&] { Terrain(scene_, folder_); }), 15);
}
