#include <tolvin/apps/arenaowner.h>
#include <tolvin/apps/mapshapes.h>

#include <gtest/gtest.h>

#include <cmath>

using namespace tolvin;

using Corners = std::vector<std::array<double, 2>>;

static pfGeoSet *addGeoSet(pfGroup *group, int type, int count, pfVec3 *points, unsigned short *places = nullptr)
{
    pfGeode *const geode = pfNewGeode(nullptr);
    pfGeoSet *const gset = pfNewGSet(nullptr);
    pfAddGSet(geode, gset);
    pfAddChild(group, asPfNode(geode));
    pfGSetPrimType(gset, type);
    pfGSetNumPrims(gset, count);
    pfGSetAttr(gset, PFGS_COORD3, PFGS_PER_VERTEX, points, places);
    return gset;
}

TEST(MapShapes, AreWhereTheirTransformsPutThem)
{
    const Held<pfGroup> top = hold(pfNewGroup(nullptr));
    pfDCS *const outer = pfNewDCS(nullptr), *const inner = pfNewDCS(nullptr);
    pfSwitch *const choice = pfNewSwitch(nullptr);
    addChild(top.get(), asPfNode(outer));
    addChild(outer, asPfNode(choice));
    pfDCSRot(outer, 90.0F, 0.0F, 0.0F); // x becomes y, y becomes -x
    pfDCSTrans(outer, 100.0F, 0.0F, 10.0F);
    pfDCSTrans(inner, 5.0F, 0.0F, 0.0F);
    pfVec3 points[] = {{9, 9, 9}, {1, 0, 2}, {2, 0, 2}, {2, 1, 3}, {1, 1, 2}, {NAN, 0, 0}};
    unsigned short places[] = {1, 2, 3, 4, 0, 0, 0, 0, 5, 1, 2, 3};
    float colours[][4] = {{1, 0, 0, 0.5F}, {0, 0, 1, 0}, {0, 0, 0, 1}}; // the second one is transparent
    addGeoSet(asPfGroup(choice), PFGS_POINTS, 1, points);
    addChild(choice, asPfNode(inner));
    pfGSetAttr(addGeoSet(asPfGroup(inner), PFGS_QUADS, 3, points, places), PFGS_COLOR4, PFGS_PER_PRIM, colours,
               nullptr);
    EXPECT_TRUE(shapesOf(asPfNode(top.get()), 9).empty());
    pfSwitchVal(choice, 1);
    const std::vector<MapShape> shapes = shapesOf(asPfNode(top.get()), 9);
    ASSERT_TRUE(shapes.size() == 1 && shapes[0].height == 13.0 && shapes[0].colour[3] == 0.5F);
    EXPECT_EQ(shapes[0].corners, (Corners{{100, 6}, {100, 7}, {99, 7}, {99, 6}}));
}

TEST(MapShapes, AreStripsAndNotTooMany)
{
    const Held<pfGroup> top = hold(pfNewGroup(nullptr));
    pfVec3 points[1000] = {{0, 0, 4}, {0, 1, 4}, {1, 0, 4}, {1, 1, 4}, {2, 0, 4}, {0, 0, 1}, {3, 3, 1}};
    int lengths[] = {5, 2};
    pfGSetPrimLengths(addGeoSet(top.get(), PFGS_TRISTRIPS, 2, points), lengths);
    const std::vector<MapShape> two = shapesOf(asPfNode(top.get()), 9);
    ASSERT_EQ(two.size(), 2u);
    EXPECT_EQ(two[0].corners, (Corners{{0, 0}, {3, 3}})); // the lower one
    EXPECT_EQ(two[1].corners, (Corners{{0, 0}, {1, 0}, {2, 0}, {1, 1}, {0, 1}}));
    addGeoSet(top.get(), PFGS_POINTS, 1000, points);
    const std::size_t few = shapesOf(asPfNode(top.get()), 101).size();
    EXPECT_TRUE(few > 90 && few <= 101);
}
