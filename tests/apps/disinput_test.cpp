#include "support/capture.h"
#include "support/fullarena.h"

#include <tolvin/apps/disinput.h>
#include <tolvin/apps/dismessage.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <string>
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
    EXPECT_EQ(encodeRemoveEntity({{6, 1, 0, 0, stampAt(seconds), 0, 0}, by, id, 1}, datagram), datagram.size());
    return datagram;
}

// The entity flies on with other velocity and place.
Datagram updateOf(const vuEntityState &report, double seconds, float speed, std::uint32_t appearance = 0)
{
    EntityStateUpdate update = {};
    update.header = {7, 1, 67, 1, stampAt(seconds), 0, 0};
    update.entityId = report.entityId;
    update.velocity[0] = speed;
    update.location[0] = report.location[0];
    update.appearance = appearance;
    return encode({update, {}, {}, {}, {}, {}, {}});
}

// An initialised root node with an input, whose clock the tests move; everything is released at the end.
struct DisInputTest : testing::Test
{
    DisInputTest()
    {
        capturedStderr([this] { initRootNode(&root); });
        root.time.sim = {7200, 0};
        restart({});
    }
    ~DisInputTest() override
    {
        capturedStderr([this] { input.reset(); });
        EXPECT_TRUE(blocksInUse() == 0 && root.scenes.first == nullptr);
    }

    void restart(const DisInputOptions &options)
    {
        input.reset();
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
        root.time.sim.sec = static_cast<std::int32_t>(seconds);
        root.time.sim.usec = static_cast<std::int32_t>(std::lround((seconds - root.time.sim.sec) * 1e6));
        input->frame([this](std::uint8_t, double metres) { jumps.push_back(metres); });
    }

    vuRootNode root{};
    std::unique_ptr<DisInput> input;
    std::vector<std::string> notices;
    std::vector<double> jumps;
};

} // namespace

TEST_F(DisInputTest, DropsAndCountsWhatIsNotTaken)
{
    vuEntityState other = reportOf(1, now()), own = other, nowhere = other;
    const Datagram good = datagramOf(other);
    for (std::size_t size = 0; size < good.size(); ++size)
    {
        take(Datagram(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(size)));
    }
    nowhere.location[1] = NAN;
    take(datagramOf(nowhere));
    const DisCounts &counts = input->counts();
    EXPECT_TRUE(counts.datagrams == good.size() + 1 && counts.malformed == counts.datagrams);
    const auto kinds = counts.faults.size() - std::count(counts.faults.begin(), counts.faults.end(), 0u);
    EXPECT_EQ(notices.size(), kinds); // one line for each kind, however many came

    other.exerciseId = 9;
    own.entityId = {1, 1000, 5};
    Datagram fire = good;
    fire[2] = 2; // another PDU type
    take(datagramOf(other));
    take(datagramOf(own));
    take(fire);
    EXPECT_TRUE(counts.otherExercise == 1 && counts.own == 1 && counts.otherPdus == 1);
    EXPECT_EQ(counts.reports + input->entities().size(), 0u);

    notices.clear();
    restart({.exercise = 0, .maxEntities = 2});
    take(datagramOf(other));
    for (const std::uint16_t entity : {1, 2, 3, 4})
    {
        take(datagramOf(reportOf(entity, now())));
    }
    EXPECT_TRUE(input->entities().size() == 2 && input->counts().refused == 2 && notices.size() == 1);
    EXPECT_EQ(input->counts().reports, 3u);
}

TEST_F(DisInputTest, HandsShotsOfOthersOn)
{
    const auto send = [&](const vuEntityId &firing, std::uint8_t exercise, float velocity)
    {
        const auto one = [&](auto shot, auto encode)
        {
            shot.header = {6, exercise, 0, 0, 0, 0, 0};
            shot.firing = firing;
            shot.velocity[2] = velocity;
            Datagram datagram(kDetonationSize);
            datagram.resize(encode(shot, datagram));
            take(datagram);
        };
        one(Fire{}, encodeFire);
        one(Detonation{}, encodeDetonation);
    };
    std::vector<unsigned> heard;
    const auto hear = [&](const auto &shot) { heard.push_back(shot.header.pduType * 100u + shot.firing.entity); };
    const DisCounts &counts = input->counts();
    send({7, 8, 1}, 1, 0); // nobody listens
    EXPECT_TRUE(counts.otherPdus == 2 && heard.empty());
    input->setWarfareSinks({}, hear);
    send({7, 8, 2}, 1, 0);
    EXPECT_TRUE(counts.otherPdus == 3 && counts.fires == 0 && counts.detonations == 1);
    input->setWarfareSinks(hear, hear);
    send({7, 1000, 3}, 1, 0);
    send({1, 1000, 4}, 1, 0); // ours
    send({7, 8, 5}, 9, 0);
    send({7, 8, 6}, 1, NAN);
    EXPECT_EQ(heard, (std::vector<unsigned>{302, 203, 303}));
    EXPECT_TRUE(counts.fires == 1 && counts.detonations == 2 && counts.own == 2 && counts.otherExercise == 2);
    EXPECT_EQ(counts.faults[static_cast<std::size_t>(PduFault::NonFinite)], 2u);
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
    // Version 6, land; version 7, air, land and of no domain.
    for (const vuEntityState &report : {reportOf(1, 7200, 6, 1), reportOf(2, 7200, 7, 2), reportOf(3, 7200, 7, 1),
                                        reportOf(4, 7200, 7, 0), reportOf(5, 7200)})
    {
        take(datagramOf(report));
    }
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

    using Step = std::pair<double, std::size_t>;
    for (const auto &[time, entities] :
         {Step{7211.99, 4}, {7212.01, 2}, {7331.9, 2}, {7332.1, 1}, {7343.9, 1}, {7344.1, 0}})
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

TEST_F(DisInputTest, FollowsUpdatesOfEntitiesThatItKnows)
{
    frameAt(7201.0);
    vuEntityState report = reportOf(3, now());
    report.deadReckoning.algorithm = VU_DR_FVW;
    report.deadReckoning.linearAcc[1] = 2.0f;
    take(updateOf(report, now(), 9.0f));
    EXPECT_TRUE(input->counts().otherPdus == 1 && input->entities().size() == 0);
    take(datagramOf(report));
    take(updateOf(report, now(), 50.0f)); // before the report was ever handed over
    take(updateOf(report, now() - 0.5, 9.0f));
    frameAt(7202.0);
    const RemoteEntity *const remote = input->entities().find(report.entityId);
    EXPECT_TRUE(input->counts().late == 1 && input->counts().reports == 2);
    EXPECT_NEAR(remote->entity->position[0], report.location[0] + 50.0, 1e-3);
    EXPECT_NEAR(remote->entity->position[1], 1.0, 1e-3); // the acceleration goes on
    take(updateOf(report, now(), 50.0f, kAppearanceDeactivated));
    take(updateOf(report, now(), 50.0f)); // it has left
    frameAt(7202.1);
    EXPECT_TRUE(input->entities().size() == 0 && input->counts().left == 1);
}
