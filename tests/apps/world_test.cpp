#include "support/capture.h"
#include "support/fullarena.h"
#include "support/temporaryfolder.h"

#include <tolvin/apps/drivescript.h>
#include <tolvin/apps/frameclock.h>
#include <tolvin/apps/world.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <map>
#include <memory>
#include <numbers>

using namespace tolvin;

namespace
{

constexpr double kRate = 25.0;
constexpr double kWidest = 50.0; // metres between corners of a triangle

using Corners = std::array<std::array<double, 3>, 3>;
using Triangles = std::multimap<double, Corners>; // by where the first corner is in the east

void collect(pfNode *node, Triangles &triangles)
{
    const bool isGeode = pfIsOfType(node, pfGetGeodeClassType()) == 1;
    auto *const geode = reinterpret_cast<pfGeode *>(node);
    auto *const group = reinterpret_cast<pfGroup *>(node);
    for (int i = 0; !isGeode && i < pfGetNumChildren(group); ++i)
    {
        collect(pfGetChild(group, i), triangles);
    }
    for (int i = 0; isGeode && i < pfGetNumGSets(geode); ++i)
    {
        pfGeoSet *const gset = pfGetGSet(geode, i);
        void *points = nullptr;
        unsigned short *indices = nullptr;
        pfGetGSetAttrLists(gset, PFGS_COORD3, &points, &indices);
        for (int first = 0; first < 3 * pfGetGSetNumPrims(gset); first += 3)
        {
            Corners t;
            for (int k = 0; k < 3; ++k)
            {
                std::copy_n(static_cast<const pfVec3 *>(points)[indices[first + k]], 3, t[k].begin());
            }
            triangles.emplace(t[0][0], t);
        }
    }
}

// The height nearest to the one that is expected, by plane geometry: no segments, no nodes' boxes. NaN without any.
double heightNear(const Triangles &triangles, double x, double y, double expected)
{
    double best = NAN;
    for (auto it = triangles.lower_bound(x - kWidest), end = triangles.upper_bound(x + kWidest); it != end; ++it)
    {
        const Corners &t = it->second;
        const auto cross = [&](int a, int b) { return (t[a][0] - x) * (t[b][1] - y) - (t[a][1] - y) * (t[b][0] - x); };
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

vuRootNode newRoot()
{
    vuRootNode root = {};
    capturedStderr([&] { initRootNode(&root); });
    return root;
}

using Height = double(double x, double y);

std::string jeepWith(const std::string &more)
{
    return "ENTITY \"jeep\" { MOTION DRIVE FOLLOW_TERRAIN PROBE 0.9 1.4 0 PROBE -0.9 1.4 0 PROBE 0 -1.4 0 " + more +
           "}\n";
}

// A folder with hill.obj: squares of 10 m from -300 to 300 in both directions, of a height that is a function of the place.
class Worlds : public testing::Test
{
protected:
    // What is told of a world with these entities; nothing when there is one.
    std::string make(Height height, const std::string &entities, const char *more = "")
    {
        std::ofstream out(folder_ / "hill.obj");
        for (int i = 0; i < 61 * 61; ++i)
        {
            const int x = i % 61 * 10 - 300, y = i / 61 * 10 - 300;
            out << "v " << x << ' ' << y << ' ' << height(x, y) << '\n';
        }
        for (int i = 1; i < 61 * 60; i += i % 61 == 60 ? 2 : 1)
        {
            out << "f " << i << ' ' << i + 1 << ' ' << i + 62 << ' ' << i + 61 << '\n';
        }
        out << more;
        out.close();
        description_ = {};
        EXPECT_TRUE(
            readDescription("SCENE \"hill\" { TERRAIN \"hill.obj\" { } }\n" + entities, root_, description_).empty());
        const auto tell = [this](const std::string &line) { notices_ += line + '\n'; };
        const auto take = [&] { world_ = std::make_unique<World>(root_, description_, folder_, options_, tell); };
        std::string text;
        capturedStderr([&] { text = refusalOf(take); });
        return text;
    }

    // Frames with these buttons, and the pointer in the middle.
    void drive(int frames, unsigned buttons)
    {
        pfuMouse mouse = {};
        mouse.flags = buttons;
        mouse.x = 640;
        mouse.inWindow = 1;
        for (int i = 0; i < frames; ++i)
        {
            clock_.advance();
            world_->drive(mouse);
            updateEntityPositions(&root_);
            world_->settle();
        }
    }

    vuEntity &driven()
    {
        return *world_->driven()->entity;
    }

    NothingStays nothingStays_;
    const TemporaryFolder folder_;
    vuRootNode root_ = newRoot();
    FrameClock clock_{root_, Pace::Fast, kRate};
    Description description_;
    WorldOptions options_;
    std::unique_ptr<World> world_;
    std::string notices_;
};

} // namespace

TEST_F(Worlds, VehiclesKeepToSlopesUpAndDown)
{
    // 1 in 1 to the east from x = 0 on, then down again from x = 150: steeper than LIFT in one frame at one frame a second.
    const auto height = [](double x, double) { return x < 0 ? 0.0 : x < 150 ? x : 300 - x; };
    ASSERT_EQ(make(height, jeepWith("HEADING 90 MASK 0x10 SHM 0 64 MODEL \"hill.obj\" ") +
                               "ENTITY \"other\" { MODEL \"hill.obj\" }"),
              "");
    const vuEntity &jeep = driven(), &other = *world_->entities().back().entity;
    EXPECT_EQ(pfGetNodeTravMask(jeep.nodes[1], PFTRAV_ISECT), 0x10u);
    EXPECT_NE(jeep.vars, nullptr);
    pfMatrix origin;
    pfGetDCSMat(reinterpret_cast<pfDCS *>(jeep.nodes[1]), origin);
    EXPECT_NEAR(origin[3][2], 25.0, 1e-4);
    EXPECT_NEAR(origin[1][0], 1.0, 1e-6); // y ahead is east
    const auto modelOf = [](const vuEntity &e) { return pfGetChild(reinterpret_cast<pfGroup *>(e.nodes[2]), 0); };
    EXPECT_EQ(modelOf(jeep), modelOf(other)); // one model
    EXPECT_TRUE(jeep.disId.entity == 1 && other.disId.entity == 2);

    double highest = 0.0;
    for (int i = 0; i < 250; ++i)
    {
        drive(1, PFUMOUSE_LEFT);
        const double x = jeep.position[0];
        ASSERT_NEAR(jeep.position[2], height(x, 0), 1e-3) << x;
        highest = std::max(highest, jeep.position[2]);
        ASSERT_TRUE(x <= 10 || x >= 140 || std::abs(jeep.orientation[1] - std::numbers::pi / 4) < 0.01); // nose up
    }
    EXPECT_GT(highest, 140.0);
    EXPECT_LT(jeep.orientation[1], -0.7);
    EXPECT_EQ(world_->driven()->lost, 0u);
}

TEST_F(Worlds, GroundThatWasLostIsFoundAgain)
{
    ASSERT_EQ(make([](double x, double) { return x < 100 ? 0.0 : 200.0; }, jeepWith("")), "");
    const auto heightAt = [&](double east, int frames)
    {
        driven().position[0] = driven().xform.es.location[0] = east;
        drive(frames, 0);
        return driven().position[2];
    };
    world_->driven()->tested = {250.0, 0.0}; // moved into the hill by nothing that anybody knew of
    EXPECT_EQ(heightAt(250.0, 1), 200.0);
    EXPECT_EQ(world_->driven()->lost, 1u);
    EXPECT_EQ(heightAt(-250.0, 2), 0.0); // and down from it
    EXPECT_EQ(heightAt(5000.0, 3), 0.0);
    EXPECT_EQ(world_->driven()->withoutGround, 3u);
    EXPECT_EQ(notices_, "jeep is where there is no ground\n");
}

TEST_F(Worlds, AircraftGoOverTheGround)
{
    options_.driven = "scout";
    const char *const aircraft = "ENTITY \"high\" { MOTION FLY HEIGHT 40 START -50 0 }"
                                 "ENTITY \"scout\" { MOTION FLY FOLLOW_TERRAIN HEIGHT 40 HEADING 90 START -50 0 }";
    ASSERT_EQ(make([](double x, double) { return std::max(0.0, x); }, aircraft), "");
    for (int i = 0; i < 20; ++i)
    {
        drive(1, PFUMOUSE_LEFT);
        ASSERT_NEAR(driven().position[2], std::max(0.0, driven().position[0]) + 40.0, 1e-3);
    }
    EXPECT_GT(driven().position[0], 100.0);
    const OwnEntity &other = world_->entities().front();
    EXPECT_TRUE(other.entity->position[2] == 40.0 && world_->groundBelow(other) == 0.0);
}

TEST_F(Worlds, WhatIsOverheadIsNoGround)
{
    // The probes need more LIFT than that.
    const std::string entities =
        jeepWith("START 0 -100 LIFT 0.1") +
        "ENTITY \"above\" { MOTION FLY FOLLOW_TERRAIN HEIGHT 15 START 0 -40 MODEL \"hill.obj\" }";
    const char *const deck = "v -9 -9 60\nv 9 -9 60\nv 9 9 60\nv -9 9 60\nf -4 -3 -2 -1\n";
    ASSERT_EQ(make([](double x, double y) { return 0.2 * y - 0.5 * x; }, entities, deck), "");
    for (int i = 0; i < 180; ++i)
    {
        drive(1, PFUMOUSE_LEFT);
        ASSERT_NEAR(driven().position[2], 0.2 * driven().position[1], 1e-3);
        ASSERT_NEAR(*world_->groundBelow(*world_->driven()), 0.2 * driven().position[1], 1e-3);
    }
    EXPECT_GT(driven().position[1], 50.0);
    EXPECT_NEAR(driven().orientation[1], std::atan(0.2), 1e-3);
    EXPECT_NEAR(driven().orientation[2], std::atan(0.5), 1e-3); // the right side down
}

TEST_F(Worlds, WhatIsWrongIsToldAndNothingStays)
{
    options_.driven = "x";
    const std::string nothing = folder_ / "nothing.obj";
    const std::pair<const char *, std::string> cases[] = {
        {"FOLLOW_TERRAIN START 1000 0", "there is no ground at its START"},
        {"ID 2 3 1", "ID 2:3:1 does not begin with site 1 and application 1000, which this program has"},
        {"MODEL \"nothing.obj\"", nothing + ": Unable to open file \"" + nothing + "\"."},
        {"", "has neither MOTION DRIVE nor MOTION FLY"},
    };
    for (const auto &[attributes, text] : cases)
    {
        EXPECT_EQ(make([](double, double) { return 5.0; }, std::string("ENTITY \"x\" { ") + attributes + " }"),
                  "2:1: ENTITY \"x\": " + text);
        EXPECT_EQ(root_.scenes.first, nullptr);
    }
}

TEST(ShippedDrive, KeepsToTheGround)
{
    const std::string samples = TOLVIN_SAMPLES;
    const DriveScript script = readDriveScriptFile(samples + "/valley.drive");
    vuRootNode root = newRoot();
    Description description;
    readDescriptionFile(samples + "/valley.scene", root, description);
    effectFreeAll(&root);
    FrameClock clock(root, Pace::Fast, kRate);
    World world(root, description, samples, {}, [](const std::string &line) { ADD_FAILURE() << line; });
    world.setWindow(script.width, script.height);
    Triangles triangles;
    collect(reinterpret_cast<pfNode *>(world.terrain().node()), triangles);
    const vuEntity &jeep = *world.driven()->entity;
    double length = 0.0, farthest = 0.0, steepest = 0.0;
    for (double time = 0.0; time < script.samples.back().time;)
    {
        const double from[] = {jeep.position[0], jeep.position[1]};
        time = clock.advance();
        world.drive(mouseAt(script, time));
        updateEntityPositions(&root);
        world.settle();
        const double *const at = jeep.position;
        length += std::hypot(at[0] - from[0], at[1] - from[1]);
        const double ground = heightNear(triangles, at[0], at[1], at[2]);
        ASSERT_FALSE(std::isnan(ground)) << time;
        farthest = std::max(farthest, std::abs(at[2] - ground));
        steepest = std::max(steepest, static_cast<double>(std::abs(jeep.orientation[1])));
    }
    EXPECT_GT(length, 10000.0);
    EXPECT_LT(farthest, 0.01);
    EXPECT_GT(steepest, 0.05); // it is no plain
    EXPECT_EQ(world.driven()->lost, 0u);
}
