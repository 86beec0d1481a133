#include "support/capture.h"
#include "support/fullarena.h"

#include <gtest/gtest.h>

#include <tolvin/performer/pf.h>

#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <vector>

static void *const arena = (pfSharedArenaSize(64 << 20), pfGetSharedArena());

static pfNode *asNode(void *node)
{
    return static_cast<pfNode *>(node);
}

static std::vector<pfNode *> childrenOf(const pfGroup *group)
{
    std::vector<pfNode *> children(static_cast<size_t>(pfGetNumChildren(group)));
    std::ranges::generate(children, [=, i = 0]() mutable { return pfGetChild(group, i++); });
    return children;
}

static ptrdiff_t timesIn(pfNode *node, const pfGroup *group)
{
    std::vector<const pfGroup *> parents(static_cast<size_t>(pfGetNumParents(node)));
    std::ranges::generate(parents, [=, i = 0]() mutable { return pfGetParent(node, i++); });
    return std::ranges::count(parents, group);
}

// Edits at random; a model of the children edits along.
static void edit(pfGroup *group, const std::vector<pfNode *> &nodes, std::vector<pfNode *> *model = nullptr)
{
    pfNode *const node = nodes[lrand48() % nodes.size()], *const other = nodes[lrand48() % nodes.size()];
    std::vector<pfNode *> none, &m = model ? *model : none;
    const int count = pfGetNumChildren(group), place = static_cast<int>(lrand48() % (count + 1));
    const auto found = std::ranges::find(m, node);
    int expected = found != m.end(), result = 0;
    switch (lrand48() % (count > 20 ? 4 : 3))
    {
    case 0:
        result = expected = pfInsertChild(group, place, node);
        result ? (void)m.insert(m.begin() + (model ? place : 0), node) : void();
        break;
    case 1:
        result = pfReplaceChild(group, node, other), expected = model && !result ? 0 : expected;
        expected ? (void)(*found = other) : void();
        break;
    case 2:
        result = expected = pfAddChild(group, node);
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
    for (int round = 0; round < 60; ++round)
    {
        pfGroup *const groups[] = {pfNewGroup(arena), pfNewGroup(arena)};
        std::vector<pfNode *> nodes(4);
        std::ranges::generate(nodes, [] { return asNode(pfNewGroup(arena)); });
        const pid_t process = fork();
        while (process == 0)
        {
            edit(groups[lrand48() % 2], nodes);
        }
        usleep(static_cast<useconds_t>(500 + lrand48() % 1000));
        kill(process, SIGKILL);
        int status = 0;
        waitpid(process, &status, 0);
        ASSERT_TRUE(WIFSIGNALED(status));
        const auto use = [&]
        {
            for (int i = 0; i < 200; ++i)
            {
                edit(groups[i % 2], nodes);
            }
            for (int i = 0; i < 8; ++i)
            {
                const std::vector<pfNode *> children = childrenOf(groups[i % 2]);
                EXPECT_EQ(timesIn(nodes[i / 2], groups[i % 2]), std::ranges::count(children, nodes[i / 2]));
            }
            std::ranges::for_each(nodes, [](pfNode *node) { EXPECT_GT(pfRef(node), pfGetNumParents(node)); });
            EXPECT_EQ(pfDelete(groups[0]) + pfDelete(groups[1]), 2);
            std::ranges::for_each(nodes, [](pfNode *node) { EXPECT_EQ(pfGetNumParents(node), 0), pfFree(node); });
        };
        EXPECT_EQ(linesOf(use), 0) << round;
    }
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
    const size_t before = tolvin::blocksInUse();
    for (int i = 0; i < 100000; ++i)
    {
        pfGeode *geode = pfNewGeode(arena); // below both
        pfGroup *next = pfNewGroup(arena);
        ASSERT_EQ(pfAddGSet(geode, gset) + pfAddChild(bottom, asNode(geode)) + pfAddChild(other, asNode(geode)) +
                      pfAddChild(bottom, asNode(next)),
                  4);
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
    EXPECT_EQ(tolvin::blocksInUse(), before - 3);
}

TEST(PfNode, EditsLikeAListAndChangesNothingWithoutRoom)
{
    for (const bool isFull : {false, true})
    {
        std::vector<pfGroup *> groups(5);
        std::vector<pfNode *> nodes(6);
        std::vector<std::vector<pfNode *>> models(5);
        std::ranges::generate(groups, [] { return pfNewGroup(arena); });
        std::ranges::generate(nodes, [i = 0]() mutable { return asNode(pfNewGroup(i++ == 0 ? nullptr : arena)); });
        auto fill = tolvin::fillersOf(isFull ? 1 << 20 : 0);
        EXPECT_TRUE(!isFull || (!pfNewGSet(arena) && !pfNewGroup(arena) && !pfNewGeode(arena)));
        for (int i = 0; i < 3000; ++i)
        {
            edit(groups[i % 5], nodes, &models[i % 5]);
            ASSERT_EQ(childrenOf(groups[i % 5]), models[i % 5]) << i;
            if (i % 100 == 0 && !fill.empty())
            {
                pfFree(fill.back()), fill.pop_back();
            }
        }
        for (pfNode *node : nodes)
        {
            ptrdiff_t sum = 0;
            for (size_t i = 0; i < 5; ++i)
            {
                const ptrdiff_t times = std::ranges::count(models[i], node);
                const auto first = std::ranges::find(models[i], node) - models[i].begin();
                EXPECT_EQ(pfSearchChild(groups[i], node), times ? first : -1);
                EXPECT_EQ(timesIn(node, groups[i]), times);
                sum += times;
            }
            EXPECT_TRUE(pfGetNumParents(node) == sum && pfGetRef(node) == sum);
        }
        const auto misuse = [&]
        {
            EXPECT_FALSE(pfInsertChild(groups[0], -1, nodes[0]) || pfGetParent(nodes[0], pfGetNumParents(nodes[0])) ||
                         pfGetChild(groups[0], pfGetNumChildren(groups[0])) || pfGetChild(groups[0], -1));
        };
        EXPECT_EQ(linesOf(misuse), 4);
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
    EXPECT_EQ(pfUnref(child) + pfUnref(child) + pfDelete(child) + pfGetNumChildren(group) + pfDelete(group), 3);
}

TEST(PfNode, MasksChangeOnceForEachNode)
{
    pfGroup *const groups[] = {pfNewGroup(nullptr), pfNewGroup(nullptr), pfNewGroup(nullptr)};
    for (int i = 0; i < 4; ++i) // four ways from the first to the last
    {
        EXPECT_EQ(pfAddChild(groups[i / 2], asNode(groups[i / 2 + 1])), 1);
    }
    using Masks = std::array<unsigned, 3>;
    const auto masks = [&](int which)
    {
        const auto of = [=](pfGroup *group) { return pfGetNodeTravMask(asNode(group), which); };
        return Masks{of(groups[0]), of(groups[1]), of(groups[2])};
    };
    pfNodeTravMask(asNode(groups[0]), PFTRAV_DRAW, 0xF0, PFTRAV_SELF | PFTRAV_DESCEND, PF_SET);
    pfNodeTravMask(asNode(groups[1]), PFTRAV_DRAW, 0x1F, PFTRAV_DESCEND, PF_AND);
    pfNodeTravMask(asNode(groups[1]), PFTRAV_DRAW, 3, PFTRAV_SELF, PF_OR);
    EXPECT_EQ(masks(PFTRAV_DRAW), (Masks{0xF0, 0xF3, 0x10}));
    constexpr int kWrong[][3] = {{-1, 0x10, 1}, {4, 0x10, 1}, {0, 0, 1},   {0, 0x40, 1},
                                 {0, 0x11, 1},  {0, 0x10, 0}, {0, 0x10, 4}};
    for (const auto &wrong : kWrong)
    {
        EXPECT_EQ(linesOf([&] { pfNodeTravMask(asNode(groups[0]), wrong[0], 0, wrong[1], wrong[2]); }), 1);
    }
    EXPECT_EQ(masks(PFTRAV_ISECT), (Masks{~0U, ~0U, ~0U}));
    EXPECT_EQ(pfDelete(groups[0]), 1);
}

TEST(PfType, ObjectsKnowTheirOwnAndOthersAreReportedOnce)
{
    void *const objects[] = {
        pfNewGroup(arena), pfNewScene(arena), pfNewSCS(nullptr, arena), pfNewDCS(nullptr),  pfNewSwitch(arena),
        pfNewLOD(arena),   pfNewGeode(arena), pfNewGSet(arena),         pfMalloc(1, arena), nullptr};
    const char *const names[] = {"pfGroup", "pfScene", "pfSCS", "pfDCS", "pfSwitch", "pfLOD", "pfGeode", "pfGeoSet"};
    pfType *const types[] = {pfGetGroupClassType(),  pfGetSceneClassType(), pfGetSCSClassType(),  pfGetDCSClassType(),
                             pfGetSwitchClassType(), pfGetLODClassType(),   pfGetGeodeClassType()};
    for (size_t i = 0; i < std::size(objects); ++i)
    {
        void *const object = objects[i];
        const bool isNode = i < 7, isGroup = i < 6;
        const auto misuse = [&]
        {
            EXPECT_EQ(pfIsOfType(object, pfGetNodeClassType()), isNode);
            EXPECT_EQ(pfIsOfType(object, pfGetGroupClassType()), isGroup);
            EXPECT_EQ(pfIsOfType(object, pfGetGeodeClassType()) + pfIsOfType(object, nullptr), i == 6);
            EXPECT_EQ(pfGetNumChildren(static_cast<pfGroup *>(object)) + pfGetNumGSets(static_cast<pfGeode *>(object)) +
                          pfGetGSetNumPrims(static_cast<pfGeoSet *>(object)) +
                          pfRemoveChild(static_cast<pfGroup *>(objects[0]), asNode(object)),
                      0);
            EXPECT_EQ(pfNodeName(asNode(object), "a name"), isNode);
        };
        EXPECT_EQ(linesOf(misuse), isNode ? 2 : i == 7 ? 4 : 5) << i;
        EXPECT_TRUE(!isNode || pfGetType(object) == types[i]);
        EXPECT_TRUE(i >= 8 || strcmp(pfGetTypeName(pfGetType(object)), names[i]) == 0);
        if (isNode)
        {
            EXPECT_EQ(pfNodeName(asNode(object), pfGetNodeName(asNode(object)) + 2), 1);
            EXPECT_STREQ(pfGetNodeName(asNode(object)), "name");
            EXPECT_TRUE(i > 0 || (pfNodeName(asNode(object), nullptr) == 1 && !pfGetNodeName(asNode(object))));
        }
    }
    EXPECT_TRUE(!pfGetType(nullptr) && !pfGetTypeName(nullptr));
    std::for_each(objects, objects + 9, [](void *object) { EXPECT_EQ(pfDelete(object), 1); });
}
