#include "support/capture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <complex>
#include <cstring>
#include <sys/time.h>
#include <tolvin/kernel/kernelentity.h>
#include <tolvin/kernel/kernelgeneric.h>

// Takes the place of the system's clock in the library: always 2023-11-14 12:30:00 UTC.
extern "C" int gettimeofday(timeval *now, void *) noexcept
{
    *now = {1699965000, 0};
    return 0;
}

using Driver = void(vuRootNode *, vuEntity *, vuChannel *);
using Vector = std::array<float, 3>;

// An entity with a driver, whose window is 200 pixels wide. A button changes the speed of a DRIVE by 20.
struct Cockpit
{
    vuRootNode root = {};
    vuEntity e = {};
    vuChannel channel = {};
    vuEntityState &es = e.xform.es;

    explicit Cockpit(double kind, double flags = 0)
    {
        static pfChannel *const window = pfNewChan(nullptr); // 640 pixels
        root.simSeconds = 7300.25, root.frameDelta = 0.003;
        channel.channel = window, channel.width = 200, channel.mouseInput = -1;
        e.motionKind = kind, e.entityFlags = flags, e.position[0] = 100, e.position[1] = 200;
        resetXForm(&e);
    }

    void frame(Driver *driver, double buttons, double x)
    {
        pfuMouse mouse = {};
        mouse.flags = static_cast<unsigned>(buttons) | 8, mouse.x = x, mouse.inWindow = 1;
        pfuSetMouse(&mouse);
        driver(&root, &e, &channel);
    }
};

TEST(Xform, SetUpWritesEveryByte)
{
    // Words of the default Entity State record up to its second type; the stamp is 2 * 1800 * 596523.
    uint16_t es[72] = {0x0105, 0x0101, 0xFCB0, 0x7FFF, 144, 0, 1, 1, 1, 0, 0x0201, 78, 1, 0, 0x0201, 78, 1};
    es[44] = 4;
    memcpy(&es[64], "\001xform      ", 12);
    xform model;
    memset(&model, 0xA5, sizeof model);
    setupES(&model.es);
    EXPECT_EQ(memcmp(&model.es, es, 144), 0);
    memset(&model, 0xA5, sizeof model);
    initXForm(&model);
    const float head[] = {0, 0, 6666.66650390625F, 27.777778625488281F, 0};
    EXPECT_EQ(memcmp(&model, head, 20) | memcmp(&model.es, es, 144), 0);
    EXPECT_EQ(std::ranges::count(model.blockA4, 0U), 9);
}

TEST(Xform, ResetTakesTheModelOfTheKind)
{
    const float rows[][4] = {{1, 2, 6666.6665F, 27.777779F}, {2, 3, 20000, 250}, {3, 0, 7, 8}};
    for (const auto &[motionKind, kind, accel, topSpeed] : rows)
    {
        Cockpit c(motionKind);
        c.e.status = 5, c.e.xform = {9, 6, 7, 8, 0, {}, {}};
        resetXForm(&c.e);
        EXPECT_EQ((std::array<float, 4>{c.e.xform.kind * 1.0F, c.e.xform.speed, c.e.xform.accel, c.e.xform.topSpeed}),
                  (std::array<float, 4>{kind, 0, accel, topSpeed}));
        EXPECT_TRUE(c.e.drState == &c.es && c.e.status == 2 && c.e.prevStatus == 5);
    }
}

TEST(Xform, ReportsWhatCannotBeDriven)
{
    Cockpit c(VU_MOTION_NONE, VU_ENTITY_FOLLOW_TERRAIN);
    c.e.groundHeight = 7;
    const vuEntity before = c.e;
    const auto misuse = [&]
    {
        stopXForm(nullptr), resetXForm(nullptr);
        doXForm(&c.root, nullptr, nullptr), doXForm(&c.root, &c.e, nullptr), c.frame(doXForm, 4, 0);
        doXFormI_COLLIDE(&c.root, nullptr, nullptr), doXFormI_COLLIDE(&c.root, &c.e, nullptr);
        c.frame(doXFormI_COLLIDE, 4, 0);
    };
    EXPECT_EQ(capturedStderr(misuse),
              "kernelxform:185 Warning: \033[31mNo ENTITY\033[0m\nkernelxform:247 Warning: \033[31mNo ENTITY\033[0m\n"
              "kernelxform:470 Warning: \033[31mNo ENTITY\033[0m\nkernelxform:475 Warning: \033[31mNo CHANNEL\033[0m\n"
              "kernelxform:480 Warning: active Entity neither DRIVE nor FLY\n"
              "kernelxform:704 Warning: \033[31mNo ENTITY\033[0m\nkernelxform:709 Warning: \033[31mNo CHANNEL\033[0m\n"
              "kernelxform:714 Info: active Entity neither DRIVE nor FLY\n");
    EXPECT_EQ(memcmp(&before, &c.e, sizeof before), 0);
}

TEST(Xform, ButtonsChangeSpeedAndHeading)
{
    constexpr double kTop = 27.777779, kTurn = 0.019634954; // 1.125 degrees
    // button, x, moveLock, turnDirection, moveBlock, speed, psi; then speed, psi, turnDirection
    const double rows[][10] = {{4, 100, 0, 2, 3, 0, 1, 20, 1, 2},
                               {4, 150, 0, 2, 3, 20, 1, kTop, 1 - kTurn / 2, 2},
                               {4, 500, 1, 2, 0, -26, 3, -26, 3 - kTurn, 2},
                               {1, 0, 0, 1, 3, -20, 3.14, -kTop, -3.1235503, 1},
                               {1, 200, 1, 1, 0, 99, -3.14, 99, 3.1235503, 1},
                               {2, 200, 0, 0, 3, 5, 1, 5, 1 - kTurn, 1},
                               {2, 0, 0, 0, 3, 5, 0, 5, kTurn, 2},
                               {2, 100, 0, 2, 0, 5, 2, 5, 2, 2},
                               {2, 200, 1, 2, 0, 5, 2, 5, 2, 2},
                               {4, 200, 1, 1, 2, 20, 1, kTop, 1, 1}, // from here on doXFormI_COLLIDE
                               {4, 200, 0, 0, 1, 0, 1, 0, 1, 0},
                               {1, 200, 1, 1, 1, -20, 1, -kTop, 1, 1},
                               {1, 200, 0, 0, 2, 0, 1, 0, 1, 0},
                               {2, 200, 0, 1, 3, 5, 1, 5, 1, 1},
                               {2, 0, 1, 1, 3, 5, 1, 5, 1 + kTurn, 1},
                               {2, 0, 0, 2, 3, 5, 1, 5, 1, 2},
                               {2, 200, 1, 2, 3, 5, -3.14, 5, 3.1235503, 2}};
    for (const auto &[button, x, lock, direction, block, speed, psi, newSpeed, newPsi, newDirection] : rows)
    {
        const ptrdiff_t row = (&button - rows[0]) / 10;
        Cockpit c(VU_MOTION_DRIVE);
        c.e.moveLock = lock, c.e.turnDirection = direction, c.e.moveBlock = block, c.e.timeOffset = 3;
        c.e.xform.speed = speed, c.es.orientation[0] = psi, c.es.velocity[2] = 9, c.es.location[2] = 8;
        c.frame(row < 9 ? doXForm : doXFormI_COLLIDE, button, x);
        EXPECT_EQ(c.e.xform.speed, static_cast<float>(newSpeed)) << row;
        EXPECT_FLOAT_EQ(c.es.orientation[0], newPsi) << row;
        const auto velocity = newSpeed * std::polar(1.0, c.es.orientation[0] + std::acos(0.0));
        const volatile float vx = c.es.velocity[0], vy = c.es.velocity[1]; // as stored
        EXPECT_LT(std::abs(std::complex<double>(vx, vy) - velocity), 1e-5) << row;
        EXPECT_TRUE(c.es.location[0] == 100.0 + vx * 0.003 && c.es.location[1] == 200.0 + vy * 0.003) << row;
        EXPECT_TRUE(c.e.turnDirection == newDirection && c.es.velocity[2] == 9 && c.es.location[2] == 8) << row;
        EXPECT_TRUE(c.e.recvTime == 7300.25 && c.e.pduTime == 100.25 && c.e.timeOffset == 0) << row;
    }
}

TEST(Xform, StopsWithSeveralButtonsAndGoesOnWithoutAny)
{
    for (const int row : {3, 5, 6, 7, 11, 14})
    {
        Driver *driver = row < 8 ? doXForm : doXFormI_COLLIDE;
        Cockpit c(VU_MOTION_FLY);
        c.frame(driver, 4, 150);
        c.e.recvTime = 0, c.e.orientation[0] = 1, c.e.orientation[1] = 0.5F;
        const vuEntity before = c.e;
        c.frame(driver, 0, 150), c.frame(driver, 4, 640);
        c.channel.mouseInput = 0, c.frame(driver, 4, 150), c.channel.mouseInput = 1;
        EXPECT_EQ(memcmp(&before, &c.e, sizeof before), 0);
        c.frame(driver, row % 8, 150);
        EXPECT_TRUE(c.e.xform.speed == 0 && std::to_array(c.es.velocity) == Vector{});
        EXPECT_EQ(std::to_array(c.es.location), (std::array{100.0, 200.0, 0.0}));
        EXPECT_EQ(std::to_array(c.es.orientation), (Vector{1, 0.5F, 0}));
        EXPECT_FLOAT_EQ(c.e.drMatrix[6], -0.47942554F); // -sin theta
        EXPECT_TRUE(c.e.recvTime == 7300.25 && c.e.pduTime == 100.25);
    }
}

TEST(Xform, LeansOnTheGroundAsLongAsItIsNotTooSteep)
{
    // kind, flags, ground points; then theta, phi, z, which are 2, 3, 4 before
    const float rows[][14] = {{1, 4, -1, 1, 1, 1, 1, 1, 0, 0, 0, 0.78539816F, 0, 20},
                              {1, 4, -1, 1, 1.7320508F, 1, 1, 1.7320508F, 0, 0, 0, 2, 0, 20}, // 60 degrees
                              {1, 4, 3, 0, 1, 3, 4, 3, 8, 2, 3.3F, -0.25436806F, 0.46364761F, 20},
                              {1, 4, 0, 0, 0, 0, 1, -1, 0, 9.5F, 0, -0.055498505F, 3, 20},
                              {2, 4, -1, 1, 1, 1, 1, 1, 0, 0, 0, 2, 3, 20},
                              {1, 3, -1, 1, 1, 1, 1, 1, 0, 0, 0, 2, 3, 4}};
    for (const auto &row : rows)
    {
        Cockpit c(row[0], row[1]);
        memcpy(c.e.groundPoints, &row[2], sizeof c.e.groundPoints);
        c.e.groundHeight = 20, c.es.orientation[1] = 2, c.es.orientation[2] = 3, c.es.location[2] = 4;
        c.frame(row[1] == 3 ? doXFormI_COLLIDE : doXForm, 0, 0);
        EXPECT_FLOAT_EQ(c.es.orientation[1], row[11]) << &row - rows;
        EXPECT_FLOAT_EQ(c.es.orientation[2], row[12]) << &row - rows;
        EXPECT_EQ(c.es.location[2], row[13]) << &row - rows;
    }
}

static pfNode *join(void *group, void *node)
{
    pfAddChild(static_cast<pfGroup *>(group), static_cast<pfNode *>(node));
    return static_cast<pfNode *>(group);
}

TEST(Xform, CollisionsFindTheGroundOfEachScene)
{
    // kind, flags, count, scene, x, height, length of the probes; then groundDistance, groundHeight, z, which are
    // 2, 3, 1 before; x and z of the ground points, or 0
    const float rows[][12] = {{1, 4, 0, 0, 0, 30, 25, 10, 20, 20, 985, 20},
                              {2, 4, 0, 1, 200, 30, 25, 10, 20, 1, 0, 0},
                              {1, 4, 0, 0, 400, 30, 5, 10, 20, 1, 1380, 30},
                              {2, 4, 0, 0, 600, 120, 25, 100, 20, 20, 0, 0},
                              {1, 0, 1, 0, 800, 120, 25, 100, 20, 20, 1780, 120},
                              {1, 4, 0, 2, 1000, 30, 25, 2, 3, 1, 1980, 30}, // the ground has no bit of its word
                              {1, 4, 0, 0, 2010, 30, 25, 2, 3, 3, 2995, 20}, // only the probes are above the ground
                              {1, 4, 0, 0, 1600, 40, 25, 20, 20, 1, 2590, 20},
                              {1, 0xFFFB, -1, 0, 1200, 30, 25, 2, 3, 1, 0, 0},
                              {3, 4, 1, 0, 1400, 30, 25, 2, 3, 1, 0, 0}};
    constexpr size_t kRows = std::size(rows), kTested = 8;
    static float corners[6][3] = {{-50, -50}, {50, -50}, {50, 50}, {-50, -50}, {50, 50}, {-50, 50}};
    pfGeoSet *square = pfNewGSet(nullptr);
    pfGSetPrimType(square, PFGS_TRIS), pfGSetNumPrims(square, 2);
    pfGSetAttr(square, PFGS_COORD3, PFGS_PER_VERTEX, corners, nullptr);
    pfGeode *plate = pfNewGeode(nullptr);
    pfAddGSet(plate, square);
    const pfMatrix place = {{40, 0, 0, 0}, {0, 40, 0, 0}, {0, 0, 1, 0}, {1000, 2000, 20, 1}};
    pfNode *ground = join(pfNewSCS(place, nullptr), plate), *top = join(pfNewScene(nullptr), ground);
    pfNodeTravMask(ground, PFTRAV_ISECT, 0x30, PFTRAV_SELF, PF_SET);

    vuRootNode root = {};
    vuScene scenes[3] = {};
    vuEntity entities[kRows] = {}, homeless = {};
    for (size_t i = 0; i < 3; ++i)
    {
        scenes[i].sceneNode = top, scenes[i].collideWord = std::array{0x10U, 0x20U, 0x01U}[i];
        vunodeAppend(&root.scenes, &scenes[i].node);
    }
    homeless.motionKind = 1, homeless.entityFlags = 4, vunodeAppend(&scenes[0].entities, &homeless.node);
    for (size_t i = 0; i < kRows; ++i)
    {
        const auto &[kind, flags, count, scene, x, height, length, newDistance, newHeight, z, pointX, pointZ] = rows[i];
        SCOPED_TRACE(i);
        vuEntity &e = entities[i];
        pfDCS *dcs = pfNewDCS(nullptr);
        pfDCSRot(dcs, 90, 0, 0), pfDCSTrans(dcs, 1000 + x, 2000, height);
        e.nodes[1] = join(dcs, plate), join(top, dcs); // the entity has a plate of its own
        e.motionKind = kind, e.entityFlags = flags, e.collideCount[1] = count, e.word18 = 0x11;
        e.groundDistance = 2, e.groundHeight = 3, e.position[2] = e.xform.es.location[2] = 1;
        std::ranges::fill(e.probes, vuProbe{.pos = {0, 20, 0}, .dir = {0.5F, 0, -1}, .length = length});
        e.probes[1].pos[0] = 1, e.probes[2].pos[0] = 2;
        vunodeAppend(&scenes[static_cast<int>(scene)].entities, &e.node);
        checkCollisions(&root);
        EXPECT_FLOAT_EQ(e.groundDistance, newDistance);
        EXPECT_FLOAT_EQ(e.groundHeight, newHeight);
        EXPECT_TRUE(e.position[2] == z && e.xform.es.location[2] == z) << e.position[2];
        EXPECT_EQ(pfGetNodeTravMask(e.nodes[1], PFTRAV_ISECT), i < kTested ? 0x11 : ~0U);
        for (int k = 0; k < 3; ++k) // starts turn left with the node, directions do not
        {
            EXPECT_FLOAT_EQ(e.groundPoints[k][0], pointX);
            EXPECT_FLOAT_EQ(e.groundPoints[k][1], pointX == 0 ? 0 : 2000 + k);
            EXPECT_FLOAT_EQ(e.groundPoints[k][2], pointZ);
        }
    }
    EXPECT_EQ(pfDelete(top), 1);
}
