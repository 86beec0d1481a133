#include "support/capture.h"
#include "support/fullarena.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>

#include <tolvin/plugin.h>

using Point = std::array<double, 3>;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN(), kInfinity = std::numeric_limits<double>::infinity();
constexpr const char *kPlugins[] = {"smoke", "blast", "trail"};

char *inArena(const std::string &text)
{
    return static_cast<char *>(memcpy(pfMalloc(text.size() + 1, pfGetSharedArena()), text.c_str(), text.size() + 1));
}

// A quad in coordinates of the scene.
struct Quad
{
    Point centre, along, across; // whole sides
    float alpha;
};

struct Stage
{
    tolvin::NothingStays nothingStays;
    vuRootNode root = {};
    vuScene scene = {};

    Stage()
    {
        vunodeAppend(&root.scenes, &scene.node);
    }
    ~Stage()
    {
        effectUnloadAll(&root);
        effectFreeAll(&root);
    }
    vuEffect &add(const std::string &plugin, const std::string &parameter, int num = 4, double duration = 1)
    {
        vuEffect *fx = static_cast<vuEffect *>(pfMalloc(sizeof(vuEffect), pfGetSharedArena()));
        effectInit(fx, plugin.c_str());
        fx->pluginFile = inArena(TOLVIN_TEST_PLUGINS "/" + plugin + ".so");
        fx->parameter = inArena(parameter);
        fx->num = num, fx->duration = duration;
        vunodeAppend(&root.effects, &fx->node);
        return *fx;
    }
    std::string setUp(vuEffect &fx)
    {
        return capturedStderr([&] { effectSetup(&root, &fx); });
    }
    vuEffect &ready(const std::string &plugin, const std::string &parameter, int num = 4, double duration = 1)
    {
        vuEffect &fx = add(plugin, parameter, num, duration);
        setUp(fx);
        return fx;
    }
    vuEffectInst *begin(vuEffect &fx, const Point &at, bool endless = true, Point velocity = {}, float scale = 1)
    {
        vuFxEvent event = {{at[0], at[1], at[2]}, {}, {}, scale};
        std::copy_n(velocity.data(), 3, event.velocity);
        const auto word = reinterpret_cast<uintptr_t>(&event);
        return reinterpret_cast<vuEffectInst *>(endless ? effectObtain(&root, &fx, word)
                                                        : effectTrigger(&root, &fx, word));
    }
    void frames(int count, double seconds)
    {
        root.frameDelta = seconds;
        for (int i = 0; i < count; ++i)
        {
            effectUpdate(&root);
        }
    }
    uintptr_t get(vuEffect &fx, int what)
    {
        return effectGetData(&root, &fx, what, 0);
    }
    uintptr_t state(vuEffect &fx, vuEffectInst *inst)
    {
        return effectGetInstData(&root, &fx, VU_FX_INST_STATE, reinterpret_cast<uintptr_t>(inst), 0);
    }
    uintptr_t move(vuEffect &fx, void *inst, Point to)
    {
        return effectSetInstData(&root, &fx, VU_FX_INST_POSITION, reinterpret_cast<uintptr_t>(inst),
                                 reinterpret_cast<uintptr_t>(to.data()));
    }
    pfNode *node(vuEffect &fx)
    {
        return reinterpret_cast<pfNode *>(get(fx, VU_FX_NODE));
    }
    // Those that are shown, which are all in the box.
    std::vector<Quad> quads(vuEffect &fx)
    {
        pfMatrix place;
        pfGetDCSMat(reinterpret_cast<pfDCS *>(node(fx)), place);
        pfGeoSet *gset =
            pfGetGSet(reinterpret_cast<pfGeode *>(pfGetChild(reinterpret_cast<pfGroup *>(node(fx)), 0)), 0);
        void *coordinates, *colours;
        pfGetGSetAttrLists(gset, PFGS_COORD3, &coordinates, nullptr);
        pfGetGSetAttrLists(gset, PFGS_COLOR4, &colours, nullptr);
        pfBox box;
        pfGetGSetBBox(gset, &box);
        std::vector<Quad> quads(pfGetGSetNumPrims(gset));
        for (size_t i = 0; i < quads.size(); ++i)
        {
            const pfVec3 *c = static_cast<pfVec3 *>(coordinates) + 4 * i;
            quads[i].alpha = static_cast<float *>(colours)[4 * i + 3];
            for (int axis = 0; axis < 3; ++axis)
            {
                quads[i].centre[axis] = place[3][axis] + (double{c[0][axis]} + c[2][axis]) / 2;
                quads[i].along[axis] = double{c[1][axis]} - c[0][axis];
                quads[i].across[axis] = double{c[3][axis]} - c[0][axis];
                const auto isInside = [&](const pfVec3 &at)
                { return at[axis] >= box.min[axis] && at[axis] <= box.max[axis]; };
                EXPECT_TRUE(std::all_of(c, c + 4, isInside));
            }
        }
        return quads;
    }
};

Point meanOf(const std::vector<Quad> &quads)
{
    Point mean = {};
    for (size_t i = 0; i < 3 * quads.size(); ++i)
    {
        mean[i % 3] += quads[i / 3].centre[i % 3] / static_cast<double>(quads.size());
    }
    return mean;
}

// Puffs of 0.05, 0.15 ... 3.95 s.
TEST(Smoke, RisesAndDriftsAlikeInAnyFrames)
{
    for (const auto &[frame, scale] : {std::pair(0.01, 1.0F), {0.15, 2.5F}, {10.05, 0.5F}})
    {
        Stage stage;
        vuEffect &fx = stage.ready("smoke", "rate 10 life 4 rise 1.5 spread 0 size 0.5 grow 0.25 wind 2 0 0");
        const float wind[3] = {2, -1, 0};
        EXPECT_EQ(effectSetData(&stage.root, &fx, VU_FX_WIND, reinterpret_cast<uintptr_t>(wind)), 1U);
        fx.fade = 2;
        vuEffectInst *inst = stage.begin(fx, {-95000.25, 80000.5, 12}, true, {}, scale);
        stage.frames(static_cast<int>(std::lround(10.05 / frame)), frame);
        const std::vector<Quad> quads = stage.quads(fx);
        EXPECT_EQ(quads.size(), 40U);
        EXPECT_EQ(stage.get(fx, VU_FX_PARTICLES), quads.size());
        EXPECT_NEAR(meanOf(quads)[2], 12 + 1.5 * 2, 2e-3) << frame;
        for (const Quad &quad : quads) // height tells the age
        {
            const double age = (quad.centre[2] - 12) / 1.5;
            EXPECT_NEAR(quad.centre[0], -95000.25 + 2 * age, 2e-3) << frame;
            EXPECT_NEAR(quad.centre[1], 80000.5 - age, 2e-3) << frame;
            EXPECT_NEAR(std::hypot(quad.along[0], quad.along[1], quad.along[2]), scale * (1 + 0.5 * age), 2e-3);
            EXPECT_NEAR(quad.alpha, (0.8 - 0.5 * age / 4) * std::min(1.0, (4 - age) / 2), 1e-3);
        }
        EXPECT_EQ(stage.state(fx, inst), VU_FX_ON);
        EXPECT_EQ(effectStopInst(&stage.root, &fx, inst), 1U);
        EXPECT_EQ(effectStopInst(&stage.root, &fx, inst), 0U);
        stage.frames(static_cast<int>(std::ceil(3.85 / frame)), frame);
        EXPECT_EQ(stage.state(fx, inst), frame < 4 ? VU_FX_ENDING : VU_FX_FREE);
        stage.frames(1, 0.5);
        EXPECT_EQ(stage.get(fx, VU_FX_ACTIVE) + stage.get(fx, VU_FX_PARTICLES), 0U);
    }
}

TEST(Smoke, IsAtTheEntityWhileThereIsOne)
{
    Stage stage;
    vuEffect &fx = stage.add("smoke", "rate 10 life 1 rise 0 spread 0", 1);
    fx.entityNode = inArena("tank");
    stage.setUp(fx);
    stage.frames(1, 1);
    EXPECT_EQ(stage.get(fx, VU_FX_ACTIVE), 0U);
    vuEntity tank = {};
    tank.node.name = fx.entityNode, tank.position[0] = 500;
    vunodeAppend(&stage.scene.entities, &tank.node);
    stage.frames(1, 1);
    tank.position[0] = 510;
    stage.frames(1, 1); // puffs at each metre of its way, the one at 500 in the next place of the frame before
    EXPECT_NEAR(meanOf(stage.quads(fx))[0], 505, 1);
    vunodeRemove(&stage.scene.entities, &tank.node);
    stage.frames(1, 0.1);
    EXPECT_EQ(stage.state(fx, fx.inst), VU_FX_ENDING);
    vunodeAppend(&stage.scene.entities, &tank.node);
    stage.frames(1, 0.1);
    EXPECT_EQ(stage.state(fx, fx.inst), VU_FX_ON); // it need not wait for its puffs
    vunodeRemove(&stage.scene.entities, &tank.node);
    stage.frames(2, 1.1);
    EXPECT_EQ(stage.get(fx, VU_FX_ACTIVE) + stage.get(fx, VU_FX_PARTICLES), 0U);
}

// With v from the first height, z(t) = v t - g t^2 / 2 until it comes to rest, at 2 v / g.
TEST(Blast, ThrowsDebrisAndStartsItsLink)
{
    Stage stage;
    vuEffect &fx = stage.ready("blast", "flash 0.01 fire 8 debris 64 speed 10", 2, 5);
    vuEffect &smoke = stage.ready("smoke", "rise 0 spread 0");
    fx.linkFx = &smoke, smoke.linkFx = &fx;
    vuEffectInst *inst = stage.begin(fx, {100, 200, 30}, false);
    stage.frames(1, 0.25); // the flash is over
    EXPECT_EQ(stage.get(smoke, VU_FX_ACTIVE), 1U);
    const std::vector<Quad> early = stage.quads(fx);
    ASSERT_EQ(early.size(), 72U);
    stage.frames(3, 0.25);
    const std::vector<Quad> late = stage.quads(fx);
    for (int i = 8; i < 72; ++i)
    {
        const double g = 9.80665, low = early[i].centre[2] - 30;
        const double rest = 2 * (low / 0.25 + g * 0.125) / g, v = g * rest / 2;
        const double t = std::min(1.0, rest);
        EXPECT_NEAR(late[i].centre[2] - 30, rest > 0.25 ? v * t - g * t * t / 2 : 0, 2e-3);
    }
    stage.frames(2, 1.05);
    EXPECT_EQ(stage.state(fx, inst), VU_FX_ON);
    EXPECT_NEAR(meanOf(stage.quads(smoke))[1], 200, 1e-3);
    stage.frames(1, 2);
    EXPECT_EQ(stage.get(fx, VU_FX_ACTIVE) + stage.get(fx, VU_FX_PARTICLES), 0U);
}

TEST(Blast, LinkedInACircleEndsAndBurstsAgainWhenObtained)
{
    Stage stage;
    vuEffect &first = stage.ready("blast", "", 8), &second = stage.ready("blast", "", 8);
    first.linkFx = &second, second.linkFx = &first;
    vuEffectInst *inst = stage.begin(first, {});
    EXPECT_EQ(stage.get(first, VU_FX_ACTIVE), 2U);
    EXPECT_EQ(stage.get(second, VU_FX_ACTIVE), 1U);
    first.linkFx = nullptr;
    stage.frames(5, 0.3);
    EXPECT_GT(stage.get(first, VU_FX_PARTICLES), 0U);
    EXPECT_EQ(effectStopInst(&stage.root, &first, inst), 1U);
    stage.frames(4, 0.3);
    EXPECT_EQ(stage.get(first, VU_FX_ACTIVE) + stage.get(first, VU_FX_PARTICLES), 0U);
}

// Of radius 4, in frames after which the next burst is due by rounding only.
TEST(Blast, FlashesFillsItsBallAndIsNeverDark)
{
    Stage stage;
    vuEffect &fx = stage.ready("blast", "flash 1 fire 200 debris 1 speed 0 piece 0", 1);
    fx.fade = 0.9;
    stage.begin(fx, {});
    double reach = 0;
    for (int frame = 1; frame < 100; ++frame)
    {
        stage.frames(1, 0.04);
        const std::vector<Quad> quads = stage.quads(fx);
        ASSERT_GT(quads.size(), 0U) << frame; // the debris lives as long as all of it
        EXPECT_TRUE(frame != 1 || quads.back().alpha > 0.7F);
        for (const auto &[centre, along, across, alpha] : quads)
        {
            for (const int corner : {-1, 1})
            {
                reach = std::max(reach, std::hypot(centre[0] + (along[0] + corner * across[0]) / 2,
                                                   centre[1] + (along[1] + corner * across[1]) / 2,
                                                   centre[2] + (along[2] + corner * across[2]) / 2));
            }
        }
    }
    EXPECT_TRUE(reach > 3.2 && reach < 4.001) << reach;
}

// East, then north: 100 pieces of 0.5 m, of which the last one is 0.25 m from the end.
TEST(Trail, LaysPiecesAlongTheWay)
{
    for (const int steps : {1, 10, 333})
    {
        Stage stage;
        vuEffect &fx = stage.ready("trail", "width 0.4 gauge 2 spacing 0.5 life 60 lift 0.1");
        vuEffectInst *inst = stage.begin(fx, {1e5, 0, 5});
        for (int i = 1; i <= 2 * steps; ++i)
        {
            const double way = 25.0 * i / steps;
            EXPECT_EQ(stage.move(fx, inst, {1e5 + std::min(way, 25.0), std::max(way - 25, 0.0), 5}), 1U);
            stage.frames(1, 2.0 / steps);
        }
        const std::vector<Quad> quads = stage.quads(fx);
        ASSERT_EQ(quads.size(), 200U);
        for (int i = 0; i < 200; ++i)
        {
            const double way = 0.25 + 0.5 * (i / 2), side = i % 2 == 0 ? 1 : -1;
            const bool north = way > 25;
            EXPECT_NEAR(quads[i].centre[0] - 1e5, north ? 25 + side : way, 1e-4);
            EXPECT_NEAR(quads[i].centre[1], north ? way - 25 : -side, 1e-4);
            EXPECT_NEAR(quads[i].centre[2], 5.1, 1e-5);
            EXPECT_NEAR(std::fabs(quads[i].along[north]), 0.5, 1e-4);
            EXPECT_NEAR(std::fabs(quads[i].across[!north]), 0.4, 1e-4);
        }
        stage.move(fx, inst, {0, 0, 0}); // a leap leaves nothing
        stage.frames(1, 1);
        EXPECT_EQ(stage.quads(fx).size(), 200U);
    }
}

// Slow, then fast, so that pieces die in between the others.
TEST(Trail, KeepsTheNewestPiecesForTheirLife)
{
    Stage stage;
    vuEffect &fx = stage.ready("trail", "spacing 1 life 32 pieces 64", 1);
    vuEffectInst *inst = stage.begin(fx, {});
    double way = 0;
    for (int frame = 0; frame < 4000; ++frame)
    {
        way += frame / 300 % 2 == 0 ? 0.1 : 0.3;
        stage.move(fx, inst, {way, 0, 0});
        stage.frames(1, 0.1);
        std::vector<Quad> quads = stage.quads(fx);
        EXPECT_TRUE(frame % 600 != 599 || quads.size() == 64) << quads.size();
        std::ranges::sort(quads, {}, [](const Quad &quad) { return -quad.centre[0]; });
        for (size_t i = 0; i < quads.size(); ++i)
        {
            ASSERT_TRUE(quads[i].centre[0] > way - 1.5 - i && quads[i].centre[0] < way + 0.5 - i) << frame;
        }
    }
    vuEffect &slow = stage.ready("trail", "life 600", 1);
    stage.move(slow, stage.begin(slow, {}), {0.3, 0, 0});
    stage.frames(599900, 0.001);
    EXPECT_EQ(stage.get(slow, VU_FX_PARTICLES), 1U);
    stage.frames(200, 0.001);
    EXPECT_EQ(stage.get(slow, VU_FX_PARTICLES), 0U);
}

TEST(Plugins, TakeAnySettingsAndFrames)
{
    for (const char *plugin : kPlugins)
    {
        for (const double number : {kNaN, kInfinity, -kInfinity, -1.0, 0.0, 1e300, 1e-38, 1e-300})
        {
            Stage stage;
            vuEffect &fx =
                stage.add(plugin, "rate 1000 life 600 debris 1000 pieces 65536", number == 0 ? 0 : 3, number);
            fx.fade = number, fx.colour[0] = fx.colour[3] = static_cast<float>(number);
            std::fill_n(fx.direction, 3, static_cast<float>(number));
            stage.setUp(fx);
            EXPECT_EQ(stage.begin(fx, {kNaN, 0, 0}), nullptr);
            vuEffectInst *inst = stage.begin(fx, {1, 2, 3}, true, {number, number, number});
            EXPECT_EQ(inst != nullptr, number != 0);
            effectTrigger(&stage.root, &fx, 0);
            EXPECT_EQ(stage.move(fx, inst, {0, kNaN, 0}), 0U);
            EXPECT_EQ(stage.move(fx, fx.inst + 3, {}), 0U);
            EXPECT_EQ(stage.move(fx, reinterpret_cast<char *>(fx.inst) + 4, {}), 0U);
            effectTriggerInst(&stage.root, &fx, 12345, 0);
            effectStopInst(&stage.root, &fx, fx.inst + 100);
            const float wind[3] = {static_cast<float>(number), 0, 0};
            effectSetData(&stage.root, &fx, VU_FX_WIND, reinterpret_cast<uintptr_t>(wind));
            for (const double seconds : {0.0, 0.02, 0.05, -1.0, kNaN, 10.0, 1e300, 0.02})
            {
                stage.frames(2, seconds);
                fx.numInst = 7, fx.maskDraw = 3; // the application's, at any time
                for (const Quad &quad : stage.quads(fx))
                {
                    EXPECT_TRUE(std::isfinite(quad.centre[0] + quad.centre[1] + quad.centre[2]));
                    EXPECT_TRUE(quad.alpha >= 0 && quad.alpha <= 1);
                }
            }
            EXPECT_EQ(pfGetNodeTravMask(stage.node(fx), PFTRAV_DRAW), 3U);
            EXPECT_EQ(pfGetNodeTravMask(stage.node(fx), PFTRAV_ISECT), 0U);
            fx.numInst = fx.num;
        }
    }
}

std::vector<Quad> shownBy(const char *plugin, const char *name)
{
    Stage stage;
    vuEffect &fx = stage.add(plugin, "");
    fx.node.name[0] = name[0];
    stage.setUp(fx);
    stage.begin(fx, {0, 0, 0}, true, {40, 0, 0});
    stage.frames(9, 0.1);
    return stage.quads(fx);
}

TEST(Plugins, ShowTheSameOnceMore)
{
    for (const char *plugin : {"smoke", "blast"})
    {
        const std::vector<Quad> once = shownBy(plugin, "x"), again = shownBy(plugin, "x");
        ASSERT_EQ(once.size(), again.size());
        EXPECT_EQ(memcmp(once.data(), again.data(), once.size() * sizeof(Quad)), 0);
        EXPECT_NE(once[0].along, shownBy(plugin, "y")[0].along);
    }
}

TEST(Plugins, ReportWordsThatTheyCannotRead)
{
    Stage stage;
    const std::string said = stage.setUp(stage.add("smoke", "rate x life rise -999 puff 3 4 wind 1 2 size 0.25 nan\t"));
    for (const char *part : {"not \"x\"", "life needs", "not \"-999\"", "\"puff\"", "wind needs 3", "\"nan\""})
    {
        EXPECT_NE(said.find(part), std::string::npos) << part << said;
    }
    EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 7); // with the tagbase
}

TEST(Plugins, LeaveNothingBehind)
{
    for (const char *plugin : kPlugins)
    {
        Stage stage;
        vuEffect &fx = stage.add(plugin, "", 2);
        const auto use = [&]
        {
            const std::string said = stage.setUp(fx);
            const bool shows = stage.node(fx) != nullptr;
            stage.begin(fx, {});
            stage.frames(1, 0.1);
            effectUnload(&stage.root, &fx);
            EXPECT_NE(shows, said.find("shows nothing") < said.size());
            shows ? void() : throw std::runtime_error("no room");
        };
        EXPECT_GT(tolvin::refusalsUntilThereIsRoom(512, use), 4);
        stage.setUp(fx);
        pfScene *scene = pfNewScene(pfGetSharedArena());
        pfAddChild(reinterpret_cast<pfGroup *>(scene), stage.node(fx));
        vuEffectInst *first = fx.inst;
        fx.fxInit(&stage.root, &fx); // once more: the node before is gone
        EXPECT_EQ(pfGetNumChildren(reinterpret_cast<pfGroup *>(scene)), 0);
        fx.fxInitInst(&stage.root, &fx, first);
        pfAddChild(reinterpret_cast<pfGroup *>(scene), stage.node(fx));
        EXPECT_EQ(stage.begin(fx, {}), first);
        stage.frames(1, 0.1);
        effectUnload(&stage.root, &fx);
        EXPECT_EQ(pfGetNumChildren(reinterpret_cast<pfGroup *>(scene)), 0);
        pfDelete(scene);
    }
}
