// What keeps what it is given: switches, LODs, GeoStates, channels, and the mouse over them.
#include "support/capture.h"
#include "support/fullarena.h"

#include <gtest/gtest.h>

#include <tolvin/performer/pf.h>
#include <tolvin/performer/pfutil/pfutil.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cmath>
#include <thread>
#include <utility>
#include <vector>

static void *const arena = (pfSharedArenaSize(1 << 20), pfGetSharedArena());

TEST(PfSwitch, KeepsValuesThatItKnows)
{
    pfSwitch *node = pfNewSwitch(arena);
    EXPECT_EQ(pfGetSwitchVal(node), PFSWITCH_OFF);
    for (const int value : {PFSWITCH_ON, 0, INT_MAX})
    {
        EXPECT_EQ(linesOf([=] { EXPECT_EQ(pfSwitchVal(node, value) + pfSwitchVal(node, -3), 1); }), 1);
        EXPECT_EQ(pfGetSwitchVal(node), value);
    }
    EXPECT_EQ(pfDelete(node), 1);
}

TEST(PfLod, TakesTheChildBetweenWhoseRangesTheEyeIs)
{
    pfLOD *lod = pfNewLOD(arena);
    pfVec3 center = {100000, 0, -1}, eye = {0, 0, 0};
    EXPECT_EQ(pfLODChildAt(lod, eye), -1);
    pfLODCenter(lod, center), pfGetLODCenter(lod, eye);
    EXPECT_TRUE(std::equal(eye, eye + 3, center));
    for (int i = 0; i < 3; ++i)
    {
        pfAddChild(reinterpret_cast<pfGroup *>(lod), reinterpret_cast<pfNode *>(pfNewGroup(arena)));
    }
    EXPECT_EQ(pfLODRange(lod, 2, 250) + pfLODRange(lod, 1, 10) + pfLODRange(lod, 5, 900), 3);
    EXPECT_EQ(pfLODRange(lod, 3, 240) + pfGetLODNumRanges(lod), 7);
    for (const auto &[index, range] : {std::pair(0, 0), {1, 10}, {2, 250}, {3, 240}, {4, 0}, {5, 900}, {6, 0}})
    {
        EXPECT_EQ(pfGetLODRange(lod, index), range);
    }
    // 9.999999 is less than 10, but the square of it is 100 in single precision; nobody is between 250 and 240.
    const std::pair<float, int> cases[] = {{0, 0},   {9.999999f, 0}, {10, 1},  {-249.99f, 1},
                                           {245, 1}, {250, -1},      {NAN, -1}};
    for (const auto &[y, child] : cases)
    {
        pfVec3 at = {100000, y, -1};
        EXPECT_EQ(pfLODChildAt(lod, at), child) << y;
    }
    EXPECT_EQ(linesOf([=] { EXPECT_EQ(pfLODRange(lod, -1, 0) + pfLODRange(lod, INT_MAX, 0), 0); }), 2);
    const std::vector<void *> fill = tolvin::fillersOf(1);
    EXPECT_EQ(pfLODRange(lod, 5000, 1) + pfGetLODNumRanges(lod), 6); // no room
    EXPECT_TRUE(!pfNewLOD(arena) && !pfNewSwitch(arena) && !pfNewGState(arena) && !pfNewChan(arena));
    std::ranges::for_each(fill, pfFree);
    EXPECT_EQ(pfDelete(lod), 1);
    EXPECT_EQ(tolvin::blocksInUse(), 0U);
}

TEST(PfGeoState, HoldsWhatItIsGivenOnce)
{
    pfGeoState *gstate = pfNewGState(arena);
    pfGeoSet *gset = pfNewGSet(arena);
    pfMaterial *const materials[] = {pfNewMtl(arena), pfNewMtl(arena)};
    const int defaults[] = {1, 0, 0, PFCF_OFF};
    for (int mode = 0; mode < 4; ++mode)
    {
        EXPECT_EQ(pfGetGStateMode(gstate, mode), defaults[mode]);
        pfGStateMode(gstate, mode, 7 + mode);
    }
    EXPECT_EQ(pfGetGStateMode(gstate, PFSTATE_CULLFACE), 10);
    for (int i = 0; i < 4; ++i)
    {
        pfGStateAttr(gstate, PFSTATE_FRONTMTL, materials[i / 2]), pfGSetGState(gset, gstate);
        pfGStateAttr(gstate, PFSTATE_BACKMTL, materials[1]);
        EXPECT_EQ(pfGetGStateAttr(gstate, PFSTATE_FRONTMTL), materials[i / 2]);
        EXPECT_EQ(pfGetRef(materials[0]), i < 2);
        EXPECT_EQ(pfGetRef(materials[1]), 1 + i / 2);
        EXPECT_TRUE(pfGetRef(gstate) == 1 && pfGetGSetGState(gset) == gstate);
    }
    pfGStateAttr(gstate, PFSTATE_FRONTMTL, nullptr);
    const auto misuse = [=]
    {
        auto *const wrong = reinterpret_cast<pfGeoState *>(gset);
        pfGStateAttr(gstate, 3, nullptr), pfGStateMode(gstate, -1, 0),
            pfGStateAttr(gstate, PFSTATE_TEXTURE, materials[0]);
        pfMtlAlpha(reinterpret_cast<pfMaterial *>(gset), 0.5F), pfGSetGState(gset, wrong);
        pfGetGStateAttr(wrong, 0), pfGetGStateMode(gstate, 4);
    };
    EXPECT_EQ(linesOf(misuse), 7);
    EXPECT_EQ(pfDelete(gstate) + pfGetRef(materials[1]) + pfDelete(gset) + pfDelete(materials[0]), 3);
    EXPECT_EQ(tolvin::blocksInUse(), 0U); // the last material went with the GeoState, that with the GeoSet
}

TEST(PfChannel, KeepsItsView)
{
    pfChannel *channel = pfNewChan(arena);
    const auto values = [=]
    {
        int size[2];
        std::array<float, 16> v;
        pfGetChanWindowSize(channel, &size[0], &size[1]), pfGetChanViewport(channel, &v[2], &v[3], &v[4], &v[5]);
        pfGetChanFOV(channel, &v[6], &v[7]), pfGetChanView(channel, &v[8], &v[11]);
        pfGetChanNearFar(channel, &v[14], &v[15]);
        v[0] = static_cast<float>(size[0]), v[1] = static_cast<float>(size[1]);
        return v;
    };
    EXPECT_EQ(values(), (std::array<float, 16>{640, 480, 0, 1, 0, 1, 45, 0, 0, 0, 0, 0, 0, 0, 1, 10000}));
    const pfVec3 xyz = {8, 9, 10}, hpr = {11, 12, 13};
    pfChanWindowSize(channel, 100, 50), pfChanViewport(channel, 2, 3, 4, 5), pfChanFOV(channel, 6, 7);
    pfChanView(channel, xyz, hpr), pfChanNearFar(channel, 0.5f, 4), pfGetChanNearFar(channel, nullptr, nullptr);
    pfGetChanWindowSize(channel, nullptr, nullptr), pfGetChanView(channel, nullptr, nullptr);
    EXPECT_EQ(values(), (std::array<float, 16>{100, 50, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 0.5f, 4}));
    pfScene *scene = pfNewScene(arena);
    pfGroup *group = pfNewGroup(arena);
    pfChanScene(channel, scene), pfChanScene(channel, scene);
    EXPECT_EQ(linesOf([=] { pfChanScene(channel, reinterpret_cast<pfScene *>(group)), pfChanScene(nullptr, scene); }),
              2);
    EXPECT_TRUE(pfGetChanScene(channel) == scene && pfRef(scene) == 2);
    EXPECT_EQ(pfDelete(channel) + pfGetRef(scene) + pfUnref(scene) + pfDelete(scene) + pfDelete(group), 4);
}

TEST(PfuMouse, IsInTheChannelThatHasThePixel)
{
    pfuMouse mouse;
    pfuGetMouse(&mouse);
    EXPECT_EQ(mouse.flags + static_cast<unsigned>(mouse.x | mouse.y | mouse.inWindow), 0U);
    pfChannel *const channels[] = {pfNewChan(arena), pfNewChan(arena), pfNewChan(arena)};
    const float sides[][4] = {{0, 0.5f, 0, 1}, {0.5f, 1, 0, 1}, {-3, 3, 0.25f, 9}};
    for (int i = 0; i < 3; ++i)
    {
        pfChanWindowSize(channels[i], 5, 4),
            pfChanViewport(channels[i], sides[i][0], sides[i][1], sides[i][2], sides[i][3]);
    }
    const std::array<int, 3> cases[] = {{0, 0, 1}, {1, 3, 5},  {2, 1, 6}, {4, 0, 2},
                                        {5, 1, 0}, {-1, 1, 0}, {0, 4, 0}, {0, -1, 0}};
    for (const auto &[x, y, in] : cases) // in which channels
    {
        for (const int inWindow : {0, 2})
        {
            const pfuMouse set = {PFUMOUSE_LEFT, 0, x, y, inWindow, {}};
            pfuSetMouse(&set), pfuGetMouse(&mouse);
            EXPECT_TRUE(mouse.flags == PFUMOUSE_LEFT && mouse.x == x && mouse.y == y && mouse.inWindow == inWindow);
            const auto isIn = [&](int i) { return pfuMouseInChan(&mouse, channels[i]); };
            EXPECT_EQ(isIn(0) + 2 * isIn(1) + 4 * isIn(2), inWindow != 0 ? in : 0) << x << ' ' << y;
        }
    }
    EXPECT_EQ(linesOf([&] { EXPECT_EQ(pfuMouseInChan(&mouse, nullptr), 0); }), 1);
    const auto use = [](int value)
    {
        for (int i = 0; i < 20000; ++i)
        {
            const pfuMouse all = {static_cast<unsigned>(value), value, value, value, value, {value, value, value}};
            pfuMouse read;
            pfuSetMouse(&all), pfuGetMouse(&read);
            ASSERT_TRUE(read.x == read.y && read.reserved == read.reserved14[2]); // never half of another
        }
    };
    std::thread other(use, 1);
    use(2), other.join();
    std::ranges::for_each(channels, pfDelete);
}
