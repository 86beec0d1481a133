#include "support/capture.h"
#include "support/fullarena.h"
#include "support/temporaryfolder.h"

#include <tolvin/apps/entitysegment.h>
#include <tolvin/apps/publisher.h>
#include <tolvin/apps/segmentinput.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <limits>
#include <memory>
#include <string>

#include <sys/shm.h>
#include <unistd.h>

using namespace tolvin;

namespace
{

const std::int32_t kKey = 0x53000000 + static_cast<std::int32_t>(getpid()) * 2;

std::int64_t wallNow()
{
    return std::chrono::nanoseconds(std::chrono::system_clock::now().time_since_epoch()).count();
}

// A world with a received entity of identity 7:8:9, and one whose segment is too small.
struct Segments : testing::Test
{
    Segments()
    {
        std::ofstream(folder / "flat.obj") << "v 0 0 0\nv 9 0 0\nv 0 9 0\nf 1 2 3\n";
        const std::string key = std::to_string(kKey);
        const std::string text = "SCENE \"s\" { ORIGIN -33 151 50 TERRAIN \"flat.obj\" { } }\n"
                                 "ENTITY \"guest\" { ID 7 8 9 SHM " +
                                 key + " 168 }\nENTITY \"small\" { SHM " + std::to_string(kKey + 1) + " 167 }";
        const auto tell = [this](const std::string &line) { notices += line + '\n'; };
        capturedStderr(
            [&]
            {
                initRootNode(&root);
                EXPECT_TRUE(readDescription(text, root, description).empty());
                clock = std::make_unique<FrameClock>(root, Pace::Measured, 25.0);
                input = std::make_unique<DisInput>(root, DisInputOptions{}, tell);
                world = std::make_unique<World>(root, description, folder, WorldOptions{}, tell);
            });
        segments = std::make_unique<SegmentInput>(*world, *input, *clock, tell);
        guest = world->entities().front().entity;
    }
    ~Segments() override
    {
        segments.reset();
        world.reset();
        input.reset();
        EXPECT_TRUE(blocksInUse() == 0 && shmget(kKey, 0, 0) == -1 && shmget(kKey + 1, 0, 0) == -1);
    }

    void write(const vuEntityState &state, std::int64_t arrival)
    {
        writeReport(*varsOf(*guest), {arrival, state});
    }

    void frame(std::int64_t later = 0)
    {
        clock->advance();
        capturedStderr(
            [&]
            {
                segments->take(wallNow() + later);
                input->frame([](std::uint8_t, double) {});
            });
        segments->show();
    }

    const TemporaryFolder folder;
    vuRootNode root = {};
    Description description;
    std::string notices;
    std::unique_ptr<FrameClock> clock;
    std::unique_ptr<DisInput> input;
    std::unique_ptr<World> world;
    std::unique_ptr<SegmentInput> segments;
    vuEntity *guest = nullptr;
};

// The report of an entity that stands there in the local frame.
vuEntityState reportOf(const World &world, std::uint16_t number, const Vector3 &place, const Vector3 &angles)
{
    vuEntity entity = {};
    setupES(&entity.xform.es);
    entity.xform.es.entityId = {7, 8, number};
    std::ranges::copy(place, entity.position);
    std::ranges::copy(angles, entity.orientation);
    return networkReport(entity, world.terrain().frame(), 0.0);
}

} // namespace

TEST_F(Segments, ShowTheirEntitiesWhereTheReportsHaveThem)
{
    EXPECT_NE(notices.find("\"small\" receives nothing: 167 bytes of variables, expected at least 168"),
              std::string::npos);
    EXPECT_TRUE(guest->receive == VU_RECEIVE_UDP && guest->disId.site == 7);
    const Vector3 place = {1200.0, -340.0, 56.0};
    for (const Vector3 &angles : {Vector3{0.5, 0.2, -0.3}, Vector3{-2.5, -1.2, 3.0}, Vector3{3.0, 0.0, 0.0}})
    {
        write(reportOf(*world, 9, place, angles), wallNow());
        frame();
        for (std::size_t i = 0; i < 3; ++i)
        {
            EXPECT_NEAR(guest->position[i], place[i], 1e-6) << i;
            EXPECT_NEAR(guest->orientation[i], angles[i], 1e-5) << i;
        }
    }
    frame();
    EXPECT_TRUE(segments->counts().reports == 3 && input->counts().reports == 3 && input->entities().size() == 1);
}

TEST_F(Segments, HandNothingOnThatIsOldOfOthersOrWrong)
{
    const vuEntityState good = reportOf(*world, 9, {}, {});
    vuEntityState zero = reportOf(*world, 0, {5, 5, 5}, {});
    zero.entityId = {};
    input->takeReport(zero, 0.0); // by network, and no matter for those without a report
    frame();
    EXPECT_EQ(guest->position[0], 0.0);
    zero.appearance |= kAppearanceDeactivated;
    input->takeReport(zero, 0.0);
    write(good, wallNow() - 13'000'000'000); // more than 2.4 heartbeats of 5 s
    frame();
    write(reportOf(*world, 10, {}, {}), wallNow());
    frame();
    vuEntityState wrong = good;
    wrong.location[1] = std::numeric_limits<double>::infinity();
    write(wrong, wallNow());
    frame();
    EXPECT_TRUE(segments->counts().old == 1 && segments->counts().others == 1 && input->counts().malformed == 1);
    EXPECT_NE(notices.find("reports of 7:8:10, expected 7:8:9"), std::string::npos);
    write(good, std::numeric_limits<std::int64_t>::min());
    frame();
    EXPECT_EQ(input->entities().size(), 0u);
    write(good, std::numeric_limits<std::int64_t>::max());
    frame();
    EXPECT_EQ(input->entities().size(), 1u);
    vuEntityState last = good;
    last.appearance |= kAppearanceDeactivated;
    write(last, wallNow());
    frame();
    EXPECT_EQ(input->entities().size(), 0u);
}

TEST_F(Segments, AreFollowedToNewOnesOfTheirKeys)
{
    const int former = guest->shmId;
    shmctl(former, IPC_RMID, nullptr);
    const WrittenSegment next(kKey, sizeof(EntityVars));
    writeReport(next.vars(), {wallNow(), reportOf(*world, 9, {}, {})});
    frame();
    frame(2'000'000'000);
    EXPECT_TRUE(guest->shmId != former && segments->counts().replaced == 1 && input->entities().size() == 1);

    shmctl(guest->shmId, IPC_RMID, nullptr); // and what is there then is for others
    const int id = shmget(kKey, 20, IPC_CREAT | 0666);
    for (const std::int64_t later : {4, 6, 8})
    {
        frame(later * 1'000'000'000);
    }
    EXPECT_TRUE(std::ranges::count(notices, '\n') == 2 && notices.ends_with("has 20 bytes, expected at least 168\n"));
    EXPECT_EQ(segments->counts().replaced, 1u);
    shmctl(id, IPC_RMID, nullptr);
}
