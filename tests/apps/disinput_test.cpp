#include "support/capture.h"

#include <tolvin/apps/disinput.h>
#include <tolvin/apps/dispdu.h>

#include <tolvin/performer/pf.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

using namespace tolvin;

namespace
{

using Datagram = std::vector<std::uint8_t>;

// Stamp of a sender whose clock agrees with the simulation clock, in units of 3600 s / 2^31.
std::uint32_t stampAt(double seconds)
{
    return static_cast<std::uint32_t>(std::fmod(seconds, 3600.0) / 3600.0 * 2147483648.0) << 1;
}

// A platform of that domain, at x = 100 m/s times its clock, reported with algorithm 2.
vuEntityState reportOf(std::uint16_t entity, double seconds, std::uint8_t version = 6, std::uint8_t domain = 2)
{
    vuEntityState report;
    setupES(&report);
    report.protocolVersion = version;
    report.timestamp = stampAt(seconds);
    report.entityId = {7, 8, entity};
    report.entityType.domain = domain;
    report.deadReckoning.algorithm = VU_DR_FPW;
    report.velocity[0] = 100.0f;
    report.location[0] = 4e6 + 100.0 * seconds;
    return report;
}

Datagram datagramOf(const vuEntityState &report)
{
    Datagram datagram(kEntityStateSize);
    EXPECT_EQ(encodeEntityState(report, datagram), datagram.size());
    return datagram;
}

Datagram removalOf(const vuEntityId &id, const vuEntityId &by, double seconds)
{
    Datagram datagram(kRemoveEntitySize);
    EXPECT_EQ(encodeRemoveEntity({{6, 1, 0, 0, stampAt(seconds), 0}, by, id, 1}, datagram), datagram.size());
    return datagram;
}

// An initialised root node with an input, whose clock the tests move; everything is released at the end.
class DisInputTest : public testing::Test
{
protected:
    void SetUp() override
    {
        capturedStderr([this] { initRootNode(&root); });
        root.time.sim = {7200, 0};
        restart({});
    }

    void TearDown() override
    {
        capturedStderr([this] { input.reset(); });
        pfArenaInfo info;
        pfGetArenaInfo(&info);
        EXPECT_EQ(info.blocksInUse, 0u);
        EXPECT_EQ(vunodesCount(&root.scenes), 0);
    }

    void restart(const DisInputOptions &options)
    {
        input = std::make_unique<DisInput>(root, options, [this](const std::string &line) { notices.push_back(line); });
    }

    double now() const
    {
        return root.time.sim.sec + root.time.sim.usec / 1e6;
    }

    // The kernel announces each new receiver on standard error, which is no matter here.
    void take(const Datagram &datagram)
    {
        capturedStderr([&] { input->take(datagram, now()); });
    }

    void frameAt(double seconds)
    {
        root.time.sim.sec = static_cast<std::int32_t>(std::floor(seconds));
        root.time.sim.usec = static_cast<std::int32_t>(std::lround((seconds - std::floor(seconds)) * 1e6));
        input->frame([this](std::uint8_t, double metres) { jumps.push_back(metres); });
    }

    vuRootNode root{};
    std::unique_ptr<DisInput> input;
    std::vector<std::string> notices;
    std::vector<double> jumps;
};

} // namespace

TEST_F(DisInputTest, DropsAndCountsWhatIsNoReport)
{
    const Datagram good = datagramOf(reportOf(1, now()));
    Datagram cut;
    for (const std::uint8_t byte : good)
    {
        take(cut);
        cut.push_back(byte);
    }
    EXPECT_EQ(input->counts().malformed, good.size());

    std::mt19937 random(20);
    for (int i = 0; i < 2000; ++i)
    {
        Datagram noise(random() % 2000);
        std::generate(noise.begin(), noise.end(), random);
        take(noise);
    }
    vuEntityState nowhere = reportOf(1, now());
    nowhere.location[1] = std::numeric_limits<double>::quiet_NaN();
    take(datagramOf(nowhere));

    const DisCounts &counts = input->counts();
    EXPECT_EQ(counts.datagrams, good.size() + 2001);
    EXPECT_GE(counts.malformed + counts.otherExercise + counts.otherPdus, counts.datagrams);
    EXPECT_EQ(counts.reports + input->entities().size(), 0u);
    const auto kinds = counts.faults.size() - std::count(counts.faults.begin(), counts.faults.end(), 0u);
    EXPECT_EQ(notices.size(), kinds); // one line for each kind, however many came
}

TEST_F(DisInputTest, ChoosesByExerciseTypeAndIdentity)
{
    vuEntityState other = reportOf(1, now());
    other.exerciseId = 9;
    vuEntityState own = reportOf(1, now());
    own.entityId = {1, 1000, 5};
    Datagram fire = datagramOf(reportOf(1, now()));
    fire[2] = 2; // another PDU type
    take(datagramOf(other));
    take(datagramOf(own));
    take(fire);
    const DisCounts &counts = input->counts();
    EXPECT_TRUE(counts.otherExercise == 1 && counts.own == 1 && counts.otherPdus == 1);
    EXPECT_EQ(input->entities().size(), 0u);

    input.reset();
    restart({.exercise = 0, .maxEntities = 2});
    take(datagramOf(other));
    for (const std::uint16_t entity : {1, 2, 3, 4})
    {
        take(datagramOf(reportOf(entity, now())));
    }
    EXPECT_TRUE(input->entities().size() == 2 && input->counts().refused == 2 && notices.size() == 1);
    frameAt(now());
    EXPECT_EQ(input->counts().reports, 3u);
}

TEST_F(DisInputTest, MovesAnEntityFromReportToReportWithoutAJump)
{
    for (int step = 0; step < 100; ++step)
    {
        const double time = 7200.0 + step * 0.04;
        frameAt(time);
        if (step % 13 == 0)
        {
            take(datagramOf(reportOf(1, time)));
        }
    }
    frameAt(7204.02);
    const RemoteEntity *remote = input->entities().find({7, 8, 1});
    ASSERT_NE(remote, nullptr);
    EXPECT_NEAR(remote->entity->position[0], 4e6 + 100.0 * 7204.02, 0.001); // stamps are good to 2 microseconds
    EXPECT_STREQ(remote->entity->node.name, "7:8:1");
    ASSERT_EQ(jumps.size(), 7u); // all but the first report
    EXPECT_LT(*std::max_element(jumps.begin(), jumps.end()), 0.001);

    // An overtaken report must not take the entity back.
    take(datagramOf(reportOf(1, 7203.3)));
    frameAt(7204.06);
    EXPECT_EQ(input->counts().late, 1u);
    EXPECT_NEAR(remote->entity->position[0], 4e6 + 100.0 * 7204.06, 0.001);
}

TEST_F(DisInputTest, RemovesEntitiesThatLeaveOrFallSilent)
{
    take(datagramOf(reportOf(1, 7200.0, 6, 1)));
    take(datagramOf(reportOf(2, 7200.0, 7, 2))); // air
    take(datagramOf(reportOf(3, 7200.0, 7, 1))); // land
    take(datagramOf(reportOf(4, 7200.0, 7, 0))); // no domain
    take(datagramOf(reportOf(5, 7200.0)));
    frameAt(7200.04);
    EXPECT_EQ(input->entities().size(), 5u);

    vuEntityState leaving = reportOf(5, 7200.1);
    leaving.appearance = 1u << 23;
    take(datagramOf(leaving));
    take(datagramOf(leaving));
    for (const double frame : {7200.12, 7200.16}) // what it sent before does not bring it back
    {
        take(datagramOf(reportOf(5, 7200.05)));
        frameAt(frame);
        EXPECT_EQ(input->entities().find({7, 8, 5}), nullptr);
    }
    EXPECT_TRUE(input->counts().left == 1 && input->counts().leaves == 2 && input->counts().late == 2);

    // Only the application of an entity removes it, and never one of ours.
    for (const vuEntityId id : {vuEntityId{7, 9, 6}, {1, 1000, 6}, {7, 8, 6}})
    {
        take(datagramOf(reportOf(6, 7200.16)));
        take(removalOf(id, {id.site, 8, 0}, 7200.17));
        take(removalOf(id, {id.site, id.application, 0}, 7200.17));
        frameAt(7200.2);
        EXPECT_EQ(input->entities().find({7, 8, 6}) != nullptr, id.application != 8) << id.application;
    }
    EXPECT_TRUE(input->counts().otherPdus == 2 && input->counts().own == 1 && input->counts().left == 2);
    Datagram cut = removalOf({7, 8, 6}, {7, 8, 0}, 7200.2);
    cut[9] = 24;
    take(cut);
    EXPECT_EQ(input->counts().faults[static_cast<std::size_t>(PduFault::BodyTooShort)], 1u);

    const std::pair<double, std::size_t> steps[] = {{7211.99, 4}, {7212.01, 2}, {7331.9, 2},
                                                    {7332.1, 1},  {7343.9, 1},  {7344.1, 0}};
    for (const auto &[time, entities] : steps)
    {
        frameAt(time);
        EXPECT_EQ(input->entities().size(), entities) << time;
    }
    EXPECT_EQ(input->counts().silent, 4u);

    // Back again, with two reports that waited too long for their frame.
    take(datagramOf(reportOf(1, now())));
    take(datagramOf(reportOf(1, now() + 0.01)));
    frameAt(now() + 20.0);
    ASSERT_EQ(input->updated().size(), 1u);
    EXPECT_EQ(input->updated()[0]->entity->drState->location[0], reportOf(1, 7344.11).location[0]);
    EXPECT_EQ(input->entities().size(), 1u);
    EXPECT_EQ(vunodesCount(&reinterpret_cast<vuScene *>(root.scenes.first)->entities), 1);
}
