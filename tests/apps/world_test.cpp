#include "support/capture.h"

#include <tolvin/apps/drivescript.h>
#include <tolvin/apps/frameclock.h>
#include <tolvin/apps/publisher.h>
#include <tolvin/apps/world.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <numbers>

#include <unistd.h>

using namespace tolvin;

namespace
{

constexpr double kRate = 25.0;
const std::array<std::array<float, 3>, 3> kProbes = {{{0.9F, 1.4F, 0.0F}, {-0.9F, 1.4F, 0.0F}, {0.0F, -1.4F, 0.0F}}};

std::size_t blocksInUse()
{
    pfArenaInfo info;
    pfGetArenaInfo(&info);
    return info.blocksInUse;
}

// All triangles of a terrain, sorted into columns, and heights from them by plane geometry: no segments, no nodes' boxes.
class Triangles
{
public:
    explicit Triangles(const Terrain &terrain)
    {
        collect(reinterpret_cast<pfNode *>(terrain.node()));
    }

    // The height nearest to the one that is expected; NaN without any.
    double heightNear(double x, double y, double expected) const
    {
        double best = NAN;
        const auto column = columns_.find(columnOf(x, y));
        for (const auto &t : column == columns_.end() ? std::vector<Corners>() : column->second)
        {
            const auto cross = [&](int a, int b)
            { return (t[a][0] - x) * (t[b][1] - y) - (t[a][1] - y) * (t[b][0] - x); };
            const double w[] = {cross(1, 2), cross(2, 0), cross(0, 1)};
            const double sum = w[0] + w[1] + w[2];
            const bool inside = std::ranges::all_of(w, [sum](double part) { return part * sum >= -1e-6 * sum * sum; });
            const double z = (w[0] * t[0][2] + w[1] * t[1][2] + w[2] * t[2][2]) / sum;
            if (inside && sum != 0.0 && !(std::abs(z - expected) >= std::abs(best - expected)))
            {
                best = z;
            }
        }
        return best;
    }

private:
    using Corners = std::array<std::array<double, 3>, 3>;
    static constexpr double kWidth = 50.0;

    static std::int64_t columnOf(double x, double y)
    {
        return std::llround(std::floor(x / kWidth)) * 1000003 + std::llround(std::floor(y / kWidth));
    }

    void collect(pfNode *node)
    {
        if (pfIsOfType(node, pfGetGeodeClassType()) == 1)
        {
            auto *const geode = reinterpret_cast<pfGeode *>(node);
            for (int i = 0; i < pfGetNumGSets(geode); ++i)
            {
                collect(pfGetGSet(geode, i));
            }
            return;
        }
        auto *const group = reinterpret_cast<pfGroup *>(node);
        for (int i = 0; i < pfGetNumChildren(group); ++i)
        {
            collect(pfGetChild(group, i));
        }
    }

    void collect(pfGeoSet *gset)
    {
        void *elements = nullptr;
        unsigned short *indices = nullptr;
        pfGetGSetAttrLists(gset, PFGS_COORD3, &elements, &indices);
        const auto *const points = static_cast<const pfVec3 *>(elements);
        const bool strips = pfGetGSetPrimType(gset) == PFGS_TRISTRIPS;
        int first = 0;
        for (int prim = 0; prim < pfGetGSetNumPrims(gset); ++prim)
        {
            const int length = strips ? pfGetGSetPrimLengths(gset)[prim] : 3;
            for (int i = first; i + 2 < first + length; ++i)
            {
                Corners corners;
                for (int k = 0; k < 3; ++k)
                {
                    std::copy_n(points[indices == nullptr ? i + k : indices[i + k]], 3, corners[k].begin());
                }
                add(corners);
            }
            first += length;
        }
    }

    void add(const Corners &t)
    {
        const auto [x0, x1] = std::minmax({t[0][0], t[1][0], t[2][0]});
        const auto [y0, y1] = std::minmax({t[0][1], t[1][1], t[2][1]});
        for (double x = std::floor(x0 / kWidth) * kWidth; x <= x1; x += kWidth)
        {
            for (double y = std::floor(y0 / kWidth) * kWidth; y <= y1; y += kWidth)
            {
                columns_[columnOf(x, y)].push_back(t);
            }
        }
    }

    std::unordered_map<std::int64_t, std::vector<Corners>> columns_;
};

// A folder with hill.obj: squares of 10 m from -300 to 300 in both directions, of a height that is a function of the place.
class Worlds : public testing::Test
{
protected:
    Worlds()
    {
        std::filesystem::create_directory(folder_);
        std::memset(&root_, 0, sizeof root_);
        capturedStderr([this] { initRootNode(&root_); });
        jeep_.name = "jeep";
        jeep_.motion = VU_MOTION_DRIVE;
        jeep_.followTerrain = true;
        jeep_.probes.assign(kProbes.begin(), kProbes.end());
    }
    ~Worlds() override
    {
        std::filesystem::remove_all(folder_);
        world_.reset();
        EXPECT_EQ(blocksInUse(), before_);
    }

    void make(const std::function<double(double, double)> &height, const std::vector<EntityDescription> &entities,
              const char *more = "")
    {
        constexpr int kSide = 61;
        std::ofstream out(folder_ / "hill.obj");
        for (int i = 0; i < kSide * kSide; ++i)
        {
            const double x = i % kSide * 10 - 300;
            const double y = i / kSide * 10 - 300;
            out << "v " << x << ' ' << y << ' ' << height(x, y) << '\n';
        }
        for (int i = 0; i < kSide * (kSide - 1); ++i)
        {
            if (i % kSide + 1 < kSide)
            {
                const int a = i + 1;
                out << "f " << a << ' ' << a + 1 << ' ' << a + kSide << "\nf " << a + 1 << ' ' << a + kSide + 1 << ' '
                    << a + kSide << '\n';
            }
        }
        out << more;
        out.close();
        description_.scene.emplace();
        description_.scene->name = "hill";
        description_.scene->terrains.emplace_back().model.file = "hill.obj";
        description_.entities = entities;
        std::exception_ptr error;
        capturedStderr(
            [this, &error]
            {
                try
                {
                    clock_ = std::make_unique<FrameClock>(root_, Pace::Fast, kRate);
                    world_ = std::make_unique<World>(root_, description_, folder_.string(), options_,
                                                     [this](const std::string &line) { notices_ += line + '\n'; });
                }
                catch (...)
                {
                    error = std::current_exception();
                }
            });
        if (error != nullptr)
        {
            std::rethrow_exception(error);
        }
    }

    std::string failure(const std::vector<EntityDescription> &entities)
    {
        try
        {
            make([](double, double) { return 5.0; }, entities);
        }
        catch (const std::runtime_error &error)
        {
            return error.what();
        }
        return "";
    }

    // Frames with these buttons, and the pointer that many half widths of the window to the right of its middle.
    void drive(int frames, unsigned buttons, double right = 0.0)
    {
        pfuMouse mouse = {};
        mouse.flags = buttons;
        mouse.x = static_cast<int>(640 * (1.0 + right));
        mouse.y = 500;
        mouse.inWindow = 1;
        for (int i = 0; i < frames; ++i)
        {
            clock_->advance();
            world_->drive(mouse);
            updateEntityPositions(&root_);
            world_->settle();
        }
    }

    vuEntity &driven()
    {
        return *world_->driven()->entity;
    }

    const std::size_t before_ = blocksInUse();
    const std::filesystem::path folder_ =
        std::filesystem::temp_directory_path() / ("tolvin-world-" + std::to_string(getpid()));
    vuRootNode root_;
    Description description_;
    EntityDescription jeep_;
    WorldOptions options_;
    std::unique_ptr<FrameClock> clock_;
    std::unique_ptr<World> world_;
    std::string notices_;
};

} // namespace

TEST_F(Worlds, VehiclesKeepToSlopesUpAndDown)
{
    // 1 in 1 to the east from x = 0 on, then down again from x = 150: steeper than LIFT in one frame at one frame a second.
    make([](double x, double) { return x < 0 ? 0.0 : x < 150 ? x : 300 - x; }, {jeep_});
    drive(2, PFUMOUSE_MIDDLE, 0.0);
    driven().xform.es.orientation[0] = static_cast<float>(-std::numbers::pi / 2); // to the east
    double highest = 0.0;
    for (int i = 0; i < 250; ++i)
    {
        drive(1, PFUMOUSE_LEFT);
        const double x = driven().position[0];
        const double ground = x < 0 ? 0.0 : x < 150 ? x : 300 - x;
        ASSERT_NEAR(driven().position[2], ground, 1e-3) << x;
        highest = std::max(highest, driven().position[2]);
        if (x > 10 && x < 140)
        {
            ASSERT_NEAR(driven().orientation[1], std::numbers::pi / 4, 0.01) << x; // nose up
        }
    }
    EXPECT_GT(highest, 140.0);
    EXPECT_LT(driven().orientation[1], -0.7);
    EXPECT_EQ(world_->driven()->lost, 0u);
    drive(1, PFUMOUSE_LEFT | PFUMOUSE_RIGHT);
    const double where = driven().position[0];
    drive(10, 0);
    EXPECT_EQ(driven().position[0], where);
}

TEST_F(Worlds, AcrossASlopeTheRightSideGoesDown)
{
    make([](double x, double) { return -0.5 * x; }, {jeep_}); // to the north, down to the right
    drive(5, PFUMOUSE_LEFT);
    EXPECT_NEAR(driven().orientation[2], std::atan(0.5), 1e-3);
    EXPECT_NEAR(driven().orientation[1], 0.0, 1e-3);
    EXPECT_GT(driven().position[1], 3.0);
}

TEST_F(Worlds, GroundThatWasLostIsFoundAgain)
{
    make([](double x, double) { return x < 100 ? 0.0 : 200.0; }, {jeep_});
    driven().position[0] = driven().xform.es.location[0] = 250.0; // into the hill
    world_->driven()->tested = {250.0, 0.0};                      // by no movement that anybody knew of
    drive(1, 0);
    EXPECT_EQ(driven().position[2], 200.0);
    EXPECT_EQ(world_->driven()->lost, 1u);
    driven().position[0] = driven().xform.es.location[0] = -250.0; // and down from it
    drive(2, 0);
    EXPECT_EQ(driven().position[2], 0.0);
    driven().position[0] = driven().xform.es.location[0] = 5000.0;
    drive(3, 0);
    EXPECT_EQ(driven().position[2], 0.0);
    EXPECT_EQ(world_->driven()->withoutGround, 3u);
    EXPECT_EQ(notices_, "jeep is where there is no ground\n");
}

TEST_F(Worlds, AircraftGoOverTheGround)
{
    EntityDescription scout = jeep_;
    scout.name = "scout";
    scout.motion = VU_MOTION_FLY;
    scout.height = 40.0;
    scout.start = {-50.0, 0.0};
    EntityDescription high = scout;
    high.name = "high";
    high.followTerrain = false;
    options_.driven = "scout";
    make([](double x, double) { return std::max(0.0, x); }, {jeep_, scout, high});
    driven().xform.es.orientation[0] = static_cast<float>(-std::numbers::pi / 2);
    for (int i = 0; i < 20; ++i)
    {
        drive(1, PFUMOUSE_LEFT);
        ASSERT_NEAR(driven().position[2], std::max(0.0, driven().position[0]) + 40.0, 1e-3);
    }
    EXPECT_GT(driven().position[0], 100.0);
    const OwnEntity &other = world_->entities().back();
    EXPECT_EQ(other.entity->position[2], 40.0);
    EXPECT_EQ(other.ground, 0.0);
    EXPECT_EQ(world_->entities().front().entity->position[2], 0.0); // nobody drives the jeep
}

TEST_F(Worlds, WhatIsOverheadIsNoGround)
{
    jeep_.start = {0.0, -100.0};
    jeep_.lift = 0.1; // the probes need more
    EntityDescription above = jeep_;
    above.name = "above";
    above.motion = VU_MOTION_FLY;
    above.height = 15.0;
    above.start = {0.0, -40.0};
    above.model.emplace().file = "hill.obj";
    make([](double, double y) { return 0.2 * y; }, {jeep_, above},
         "v -9 -9 60\nv 9 -9 60\nv 9 9 60\nv -9 9 60\nf -4 -3 -2 -1\n"); // a deck
    for (int i = 0; i < 180; ++i)
    {
        drive(1, PFUMOUSE_LEFT);
        ASSERT_NEAR(driven().position[2], 0.2 * driven().position[1], 1e-3);
        ASSERT_NEAR(*world_->driven()->ground, 0.2 * driven().position[1], 1e-3);
    }
    EXPECT_GT(driven().position[1], 50.0);
    EXPECT_NEAR(driven().orientation[1], std::atan(0.2), 1e-3);
}

TEST_F(Worlds, WhatIsWrongIsToldAndNothingStays)
{
    jeep_.where = "a.scene:7:1";
    EntityDescription far = jeep_;
    far.start = {1000.0, 0.0};
    EXPECT_EQ(failure({far}), "a.scene:7:1: ENTITY \"jeep\": there is no ground at its START");
    EntityDescription foreign = jeep_;
    foreign.id = vuEntityId{2, 3, 1};
    EXPECT_EQ(failure({jeep_, foreign}), "a.scene:7:1: ENTITY \"jeep\": ID 2:3:1 does not begin with site 1 and "
                                         "application 1000, which this program has");
    EntityDescription model = jeep_;
    model.model.emplace().file = "nothing.obj";
    EXPECT_EQ(failure({model}).find("a.scene:7:1: ENTITY \"jeep\": "), 0u);
    EXPECT_NE(failure({model}).find("nothing.obj"), std::string::npos);
    EntityDescription still = jeep_;
    still.motion = VU_MOTION_NONE;
    options_.driven = "jeep";
    EXPECT_EQ(failure({still}), "a.scene:7:1: ENTITY \"jeep\": has neither MOTION DRIVE nor MOTION FLY");
    options_.driven = "tank";
    EXPECT_EQ(failure({jeep_}), "the description has no ENTITY \"tank\" to drive");
    EXPECT_EQ(root_.scenes.first, nullptr);
}

TEST_F(Worlds, NodesAndVariablesAreThoseOfTheDescription)
{
    jeep_.mask = 0x10;
    jeep_.heading = 90.0;
    jeep_.shmSize = 64;
    jeep_.model.emplace().file = "hill.obj";
    make([](double, double) { return 3.0; }, {jeep_, jeep_});
    const vuEntity &entity = driven();
    EXPECT_EQ(pfGetNodeTravMask(entity.nodes[1], PFTRAV_ISECT), 0x10u);
    EXPECT_NE(entity.vars, nullptr);
    pfMatrix origin;
    pfGetDCSMat(reinterpret_cast<pfDCS *>(entity.nodes[1]), origin);
    EXPECT_NEAR(origin[3][2], 3.0 + 25.0, 1e-4);
    EXPECT_NEAR(origin[1][0], 1.0, 1e-6); // y ahead is east
    EXPECT_EQ(pfGetChild(reinterpret_cast<pfGroup *>(entity.nodes[2]), 0),
              pfGetChild(reinterpret_cast<pfGroup *>(world_->entities().back().entity->nodes[2]), 0)); // one model
    EXPECT_EQ(entity.disId.entity, 1);
    EXPECT_EQ(world_->entities().back().entity->disId.entity, 2);
}

// The drive that ships with the project, twice.
TEST(ShippedDrive, KeepsToTheGroundAndIsTheSameEveryTime)
{
    const std::string samples = TOLVIN_SAMPLES;
    const DriveScript script = readDriveScriptFile(samples + "/valley.drive");
    std::vector<std::uint8_t> published[2];
    for (std::vector<std::uint8_t> &bytes : published)
    {
        vuRootNode root = {};
        Description description;
        capturedStderr([&] { initRootNode(&root); });
        readDescriptionFile(samples + "/valley.scene", root, description);
        FrameClock clock(root, Pace::Fast, kRate);
        World world(root, description, samples, {}, [](const std::string &line) { ADD_FAILURE() << line; });
        world.setWindow(script.width, script.height);
        Publisher publisher(world.terrain().frame(), {},
                            [&bytes](auto pdu) { bytes.insert(bytes.end(), pdu.begin(), pdu.end()); });
        const Triangles triangles(world.terrain());
        vuEntity &jeep = *world.driven()->entity;
        double length = 0.0;
        double farthest = 0.0;
        double steepest = 0.0;
        for (double time = 0.0; time < script.samples.back().time;)
        {
            const double from[] = {jeep.position[0], jeep.position[1]};
            time = clock.advance();
            world.drive(mouseAt(script, time));
            updateEntityPositions(&root);
            world.settle();
            publisher.frame(jeep, root.simSeconds);
            const double *const at = jeep.position;
            length += std::hypot(at[0] - from[0], at[1] - from[1]);
            const double ground = triangles.heightNear(at[0], at[1], at[2]);
            ASSERT_FALSE(std::isnan(ground)) << time;
            farthest = std::max(farthest, std::abs(at[2] - ground));
            steepest = std::max(steepest, static_cast<double>(std::abs(jeep.orientation[1])));
        }
        publisher.leave(jeep, root.simSeconds);
        EXPECT_GT(length, 10000.0);
        EXPECT_LT(farthest, 0.01);
        EXPECT_GT(steepest, 0.05); // it is no plain
        EXPECT_EQ(world.driven()->lost, 0u);
        std::printf("%.1f m, %.6f m from the ground at most, pitch up to %.1f degrees\n", length, farthest,
                    steepest / std::numbers::pi * 180.0);
    }
    EXPECT_GT(published[0].size(), 144u * 100u);
    EXPECT_EQ(published[0], published[1]);
}
