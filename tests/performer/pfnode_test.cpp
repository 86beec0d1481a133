#include "support/capture.h"

#include <gtest/gtest.h>

#include <tolvin/performer/pf.h>

#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstring>
#include <functional>
#include <random>
#include <thread>
#include <vector>

static void *const arena = (pfSharedArenaSize(64 << 20), pfGetSharedArena());

static pfNode *asNode(void *node)
{
    return static_cast<pfNode *>(node);
}

static ptrdiff_t linesOf(const std::function<void()> &action)
{
    return std::ranges::count(capturedStderr(action), '\n');
}

static std::vector<pfNode *> childrenOf(const pfGroup *group)
{
    std::vector<pfNode *> children(static_cast<size_t>(pfGetNumChildren(group)));
    std::ranges::generate(children, [=, i = 0]() mutable { return pfGetChild(group, i++); });
    return children;
}

static ptrdiff_t timesIn(pfNode *node, const pfGroup *group)
{
    ptrdiff_t count = 0;
    for (int i = 0; i < pfGetNumParents(node); ++i)
    {
        count += pfGetParent(node, i) == group;
    }
    return count;
}

// Edits at random; a model of the children edits along.
static void edit(pfGroup *group, const std::vector<pfNode *> &nodes, std::mt19937 &random,
                 std::vector<pfNode *> *model = nullptr)
{
    pfNode *const node = nodes[random() % nodes.size()], *const other = nodes[random() % nodes.size()];
    std::vector<pfNode *> none, &m = model ? *model : none;
    const int count = pfGetNumChildren(group), place = static_cast<int>(random() % static_cast<unsigned>(count + 1));
    const auto found = std::ranges::find(m, node);
    int expected = found != m.end(), result = 0;
    switch (random() % (count > 20 ? 4 : 3))
    {
    case 0:
        result = pfInsertChild(group, place, node), expected = result;
        result ? (void)m.insert(m.begin() + (model ? place : 0), node) : void();
        break;
    case 1:
        result = pfReplaceChild(group, node, other), expected = model && !result ? 0 : expected;
        expected ? (void)(*found = other) : void();
        break;
    case 2:
        result = pfAddChild(group, node), expected = result;
        result ? m.push_back(node) : void();
        break;
    default:
        result = pfRemoveChild(group, node);
        expected ? (void)m.erase(found) : void();
    }
    EXPECT_TRUE(!model || result == expected);
}

// First, since a process that dies in the arena leaves only what is above the highest block.
TEST(PfNode, SurvivesWhoIsKilledWhileEditing)
{
    std::mt19937 random(2);
    for (int round = 0; round < 60; ++round)
    {
        pfGroup *const groups[] = {pfNewGroup(arena), pfNewGroup(arena)};
        std::vector<pfNode *> nodes(4);
        std::ranges::generate(nodes, [] { return asNode(pfNewGroup(arena)); });
        const pid_t process = fork();
        while (process == 0)
        {
            edit(groups[random() % 2], nodes, random);
        }
        std::this_thread::sleep_for(std::chrono::microseconds(500 + random() % 1000));
        kill(process, SIGKILL);
        int status = 0;
        waitpid(process, &status, 0);
        ASSERT_TRUE(WIFSIGNALED(status));
        const auto use = [&]
        {
            for (int i = 0; i < 200; ++i)
            {
                edit(groups[i % 2], nodes, random);
            }
            for (pfNode *node : nodes)
            {
                for (pfGroup *group : groups)
                {
                    EXPECT_EQ(timesIn(node, group), std::ranges::count(childrenOf(group), node));
                }
                EXPECT_GE(pfGetRef(node), pfGetNumParents(node));
                pfRef(node);
            }
            EXPECT_EQ(pfDelete(groups[0]) + pfDelete(groups[1]), 2);
            for (pfNode *node : nodes)
            {
                EXPECT_EQ(pfGetNumParents(node), 0);
                pfFree(node);
            }
        };
        EXPECT_EQ(linesOf(use), 0) << round;
    }
}

TEST(PfNode, KeepsChildrenInOrderAlsoWhenTheArenaIsFull)
{
    pfGroup *group = pfNewGroup(arena);
    pfNode *const kinds[] = {asNode(pfNewGroup(arena)), asNode(pfNewGeode(arena)), asNode(pfNewGroup(nullptr))};
    std::vector<pfNode *> children;
    std::vector<void *> fill;
    while (pfAddChild(group, kinds[children.size() % 5 % 3]) == 1)
    {
        children.push_back(kinds[children.size() % 5 % 3]);
        while (void *block = children.size() == 300 ? pfMalloc(1, arena) : nullptr)
        {
            fill.push_back(block);
        }
    }
    EXPECT_TRUE(!pfNewGSet(arena) && !pfNewGroup(arena) && !pfNewGeode(arena));
    EXPECT_EQ(pfGetRef(kinds[1]), std::ranges::count(children, kinds[1]));
    std::ranges::for_each(fill, pfFree);
    EXPECT_EQ(pfRemoveChild(group, kinds[1]), 1);
    children.erase(children.begin() + 1);
    for (size_t i = 0; i < children.size(); ++i)
    {
        ASSERT_EQ(pfGetChild(group, static_cast<int>(i)), children[i]) << i;
    }
    EXPECT_EQ(linesOf([=] { EXPECT_FALSE(pfGetChild(group, pfGetNumChildren(group)) || pfGetChild(group, -1)); }), 2);
    EXPECT_EQ(pfDelete(group), 1);
}

TEST(PfNode, RefusesCyclesHoweverManyPathsThereAre)
{
    std::vector<pfGroup *> levels(66);
    std::ranges::generate(levels, [] { return pfNewGroup(nullptr); });
    for (size_t i = 0; i < 64; ++i) // 2^64 ways from 0 to 64
    {
        EXPECT_EQ(pfAddChild(levels[i], asNode(levels[i + 1])) + pfAddChild(levels[i], asNode(levels[i + 1])), 2);
    }
    EXPECT_EQ(linesOf([&] { EXPECT_EQ(pfAddChild(levels[64], asNode(levels[64])), 0); }), 1);
    EXPECT_EQ(linesOf([&] { EXPECT_EQ(pfAddChild(levels[64], asNode(levels[0])), 0); }), 1);
    EXPECT_EQ(pfRef(levels[65]) + pfAddChild(levels[65], asNode(levels[0])), 2);
    EXPECT_EQ(pfUnref(levels[65]) + pfDelete(levels[65]), 1);
}

TEST(PfNode, DeletesWhatNobodyHoldsInAnyProcess)
{
    pfGroup *top = pfNewGroup(arena), *bottom = top, *other = pfNewGroup(arena);
    pfGeoSet *gset = pfNewGSet(arena);
    pfArenaInfo before, after;
    pfGetArenaInfo(&before);
    for (int i = 0; i < 100000; ++i)
    {
        pfGeode *geode = pfNewGeode(arena); // below both
        pfGroup *next = pfNewGroup(arena);
        ASSERT_EQ(pfAddGSet(geode, gset) + pfAddChild(bottom, asNode(geode)) + pfAddChild(other, asNode(geode)), 3);
        ASSERT_EQ(pfAddChild(bottom, asNode(next)), 1);
        bottom = next;
    }
    pfRef(bottom);
    const pid_t process = fork();
    if (process == 0)
    {
        const rlimit small = {1 << 20, 1 << 20};
        setrlimit(RLIMIT_STACK, &small);
        _exit(linesOf([=] { EXPECT_EQ(pfDelete(top), 1); }) != 0 || testing::Test::HasFailure());
    }
    EXPECT_EQ(linesOf([=] { EXPECT_EQ(pfDelete(other), 1); }), 0);
    int status = -1;
    waitpid(process, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(pfUnref(bottom) + pfDelete(bottom), 1);
    pfGetArenaInfo(&after);
    EXPECT_EQ(after.blocksInUse, before.blocksInUse - 3);
}

TEST(PfType, ObjectsOfOtherTypesAreReportedOnce)
{
    void *const objects[] = {pfNewGroup(arena), pfNewGeode(arena), pfNewGSet(arena), pfMalloc(1, arena), nullptr};
    constexpr int kTypes[] = {0b11, 0b101, 0, 0, 0}, kReports[] = {2, 2, 3, 4, 4};
    for (size_t i = 0; i < 5; ++i)
    {
        const auto use = [&, object = objects[i]]
        {
            EXPECT_EQ(pfIsOfType(object, pfGetNodeClassType()) | pfIsOfType(object, pfGetGroupClassType()) << 1 |
                          pfIsOfType(object, pfGetGeodeClassType()) << 2 | pfIsOfType(object, nullptr) << 3,
                      kTypes[i]);
            EXPECT_EQ(pfGetNumChildren(static_cast<pfGroup *>(object)) + pfGetNumGSets(static_cast<pfGeode *>(object)) +
                          pfGetGSetNumPrims(static_cast<pfGeoSet *>(object)) +
                          pfRemoveChild(static_cast<pfGroup *>(objects[0]), asNode(object)),
                      0);
        };
        EXPECT_EQ(linesOf(use), kReports[i]) << i;
    }
    EXPECT_EQ(pfDelete(objects[0]) + pfDelete(objects[1]) + pfDelete(objects[2]) + pfDelete(objects[3]), 4);
}

TEST(PfNode, EditsLikeAListAndChangesNothingWithoutRoom)
{
    std::mt19937 random(1);
    for (const bool isFull : {false, true})
    {
        std::vector<pfGroup *> groups(5);
        std::vector<pfNode *> nodes(6);
        std::vector<std::vector<pfNode *>> models(5);
        std::vector<void *> fill;
        std::ranges::generate(groups, [] { return pfNewGroup(arena); });
        std::ranges::generate(nodes, [] { return asNode(pfNewGroup(arena)); });
        for (size_t bytes = 1 << 20; isFull && bytes > 0; bytes /= 2)
        {
            while (void *block = pfMalloc(bytes, arena))
            {
                fill.push_back(block);
            }
        }
        for (int i = 0; i < 3000; ++i)
        {
            edit(groups[i % 5], nodes, random, &models[i % 5]);
            ASSERT_EQ(childrenOf(groups[i % 5]), models[i % 5]) << i;
            if (i % 100 == 0 && !fill.empty())
            {
                pfFree(fill.back()), fill.pop_back();
            }
        }
        for (pfNode *node : nodes)
        {
            int sum = 0;
            for (size_t i = 0; i < 5; ++i)
            {
                const ptrdiff_t times = std::ranges::count(models[i], node);
                const auto first = std::ranges::find(models[i], node);
                EXPECT_EQ(pfSearchChild(groups[i], node), times ? first - models[i].begin() : -1);
                EXPECT_EQ(timesIn(node, groups[i]), times);
                sum += static_cast<int>(times);
            }
            EXPECT_EQ(pfGetNumParents(node), sum);
            EXPECT_EQ(pfGetRef(node), sum);
        }
        EXPECT_EQ(linesOf([&] { EXPECT_EQ(pfInsertChild(groups[0], -1, nodes[0]), 0); }), 1);
        EXPECT_EQ(linesOf([&] { EXPECT_FALSE(pfGetParent(nodes[0], pfGetNumParents(nodes[0]))); }), 1);
        pfAddChild(groups[0], nodes[0]), pfRef(nodes[0]);
        EXPECT_EQ(pfDelete(groups[0]), 1);
        EXPECT_EQ(timesIn(nodes[0], groups[0]), 0);
        std::ranges::for_each(groups.begin() + 1, groups.end(), pfDelete);
        EXPECT_EQ(pfGetNumParents(nodes[0]) + pfUnref(nodes[0]) + pfDelete(nodes[0]), 1);
        std::ranges::for_each(fill, pfFree);
    }
    pfGroup *group = pfNewGroup(arena); // one that lost its reference is in no group any more
    pfNode *child = asNode(pfNewGeode(arena));
    EXPECT_EQ(pfAddChild(group, child) + pfAddChild(group, child), 2);
    EXPECT_EQ(pfUnref(child) + pfUnref(child) + pfDelete(child) + pfGetNumChildren(group), 2);
    EXPECT_EQ(pfDelete(group), 1);
}

TEST(PfNode, MasksChangeOnceForEachNode)
{
    pfGroup *const groups[] = {pfNewGroup(nullptr), pfNewGroup(nullptr), pfNewGroup(nullptr)};
    for (int i = 0; i < 4; ++i) // four ways from the first to the last
    {
        EXPECT_EQ(pfAddChild(groups[i / 2], asNode(groups[i / 2 + 1])), 1);
    }
    const auto masks = [&](int which)
    {
        std::array<unsigned, 3> all;
        std::ranges::transform(groups, all.begin(),
                               [=](void *group) { return pfGetNodeTravMask(asNode(group), which); });
        return all;
    };
    using Masks = std::array<unsigned, 3>;
    pfNodeTravMask(asNode(groups[0]), PFTRAV_DRAW, 0xF0, PFTRAV_SELF | PFTRAV_DESCEND, PF_SET);
    pfNodeTravMask(asNode(groups[1]), PFTRAV_DRAW, 0x1F, PFTRAV_DESCEND, PF_AND);
    pfNodeTravMask(asNode(groups[1]), PFTRAV_DRAW, 3, PFTRAV_SELF, PF_OR);
    EXPECT_EQ(masks(PFTRAV_DRAW), (Masks{0xF0, 0xF3, 0x10}));
    EXPECT_EQ(masks(PFTRAV_ISECT), (Masks{~0U, ~0U, ~0U}));
    constexpr int kWrong[][3] = {{-1, 0x10, 1}, {4, 0x10, 1}, {0, 0, 1},   {0, 0x40, 1},
                                 {0, 0x11, 1},  {0, 0x10, 0}, {0, 0x10, 4}};
    for (const auto &wrong : kWrong)
    {
        EXPECT_EQ(linesOf([&] { pfNodeTravMask(asNode(groups[0]), wrong[0], 0, wrong[1], wrong[2]); }), 1);
    }
    EXPECT_EQ(masks(PFTRAV_ISECT), (Masks{~0U, ~0U, ~0U}));
    EXPECT_EQ(pfDelete(groups[0]), 1);
}

TEST(PfNode, KeepsItsNameAndType)
{
    void *const nodes[] = {pfNewGroup(arena), pfNewGeode(arena),  pfNewScene(arena), pfNewSCS(nullptr, arena),
                           pfNewDCS(nullptr), pfNewSwitch(arena), pfNewLOD(arena),   pfNewGSet(arena)};
    const char *const names[] = {"pfGroup", "pfGeode", "pfScene", "pfSCS", "pfDCS", "pfSwitch", "pfLOD", "pfGeoSet"};
    pfType *const types[] = {pfGetGroupClassType(), pfGetGeodeClassType(),  pfGetSceneClassType(), pfGetSCSClassType(),
                             pfGetDCSClassType(),   pfGetSwitchClassType(), pfGetLODClassType()};
    for (size_t i = 0; i < std::size(nodes); ++i)
    {
        EXPECT_STREQ(pfGetTypeName(pfGetType(nodes[i])), names[i]);
        const bool isNode = i < std::size(types), isGroup = isNode && types[i] != pfGetGeodeClassType();
        EXPECT_TRUE(!isNode || pfGetType(nodes[i]) == types[i]);
        EXPECT_EQ(pfIsOfType(nodes[i], pfGetNodeClassType()), isNode);
        EXPECT_EQ(pfIsOfType(nodes[i], pfGetGroupClassType()), isGroup);
        EXPECT_EQ(linesOf([&] { EXPECT_EQ(pfNodeName(asNode(nodes[i]), "a name"), isNode); }), !isNode);
        EXPECT_TRUE(!isNode || (pfNodeName(asNode(nodes[i]), pfGetNodeName(asNode(nodes[i])) + 2) == 1 &&
                                strcmp(pfGetNodeName(asNode(nodes[i])), "name") == 0));
        EXPECT_TRUE(!isNode ||
                    (i % 2 && pfNodeName(asNode(nodes[i]), nullptr) == 1 && !pfGetNodeName(asNode(nodes[i]))) ||
                    i % 2 == 0);
        EXPECT_EQ(pfDelete(nodes[i]), 1);
    }
    EXPECT_TRUE(!pfGetType(nullptr) && !pfGetTypeName(nullptr));
}
