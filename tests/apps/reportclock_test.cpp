#include <tolvin/apps/reportclock.h>

#include <tolvin/kernel/kerneldis.h>
#include <tolvin/kernel/kerneldisdr.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <random>
#include <string>
#include <vector>

using namespace tolvin;

namespace
{

constexpr double kHourTurn = 1699999200; // a full hour
constexpr double kSpeed = 100;
constexpr double kLeastDelay = 0.01, kJitter = 0.03;
constexpr double kUnits = 2147483648.0 / 3600; // of a stamp, per second
constexpr std::uint32_t kAbsolute = 1;

vuEntityState reportOf(int entity, double x)
{
    vuEntityState report{};
    report.entityId = {1, 2, static_cast<std::uint16_t>(entity)};
    report.velocity[0] = kSpeed;
    report.location[0] = x;
    report.deadReckoning.algorithm = VU_DR_FPW;
    return report;
}

// Kernel with entities 0, 1, ... that receive reports, linked by hand.
struct Kernel
{
    explicit Kernel(int count) : entities(count), states(count)
    {
        root.scenes = {&scene.node, &scene.node};
        for (int i = 0; i < count; ++i)
        {
            vuEntity &entity = entities[i];
            entity.disId = reportOf(i, 0).entityId;
            entity.receive = VU_RECEIVE_DIS;
            entity.status = VU_STATUS_MOVING;
            entity.drState = &states[i];
            entity.node.next = i + 1 < count ? &entities[i + 1].node : nullptr;
        }
        scene.entities = {&entities.front().node, &entities.back().node};
    }

    vuRootNode root{};
    vuScene scene{};
    std::vector<vuEntity> entities;
    std::vector<vuEntityState> states;
};

struct Traffic
{
    std::function<double(double)> fast; // sender's clock minus local clock, after that many seconds
    std::uint32_t flag = 0;
    double seconds = 120; // from half a minute before the turn of the hour
    int entities = 1;     // each moves along x at kSpeed and reports five times a second
    double units = kUnits;
};

struct Outcome
{
    struct Sample
    {
        double time, lead; // when taken over; position against the truth, in seconds of motion
    };
    std::vector<Sample> samples;
    std::vector<double> jumps; // changes of the lead from report to report, metres
    SenderClock clock;

    double worst(double expected, double from, double to = 1e9) const
    {
        double worst = 0;
        for (const Sample &sample : samples)
        {
            worst = std::max(worst, sample.time >= from && sample.time < to ? std::abs(sample.lead - expected) : 0);
        }
        return worst;
    }
};

// Sends, delays, stamps, receives and extrapolates in frames of 40 ms.
Outcome play(const Traffic &traffic)
{
    struct Packet
    {
        double arrival;
        int entity;
        double sent;
        std::uint32_t stamp;
    };
    const double start = kHourTurn - 30;
    std::mt19937 random(1);
    std::vector<Packet> packets;
    for (int i = 0; i < traffic.seconds * 5 * traffic.entities; ++i)
    {
        const double sent = i * 0.2 / traffic.entities;
        const double delay = kLeastDelay + kJitter * std::uniform_real_distribution()(random);
        const double past = std::fmod(start + sent + traffic.fast(sent), 3600);
        const auto stamp = static_cast<std::uint32_t>(past * traffic.units) << 1 | traffic.flag;
        packets.push_back({sent + delay, i % traffic.entities, sent, stamp});
    }
    std::ranges::sort(packets, {}, &Packet::arrival);

    Outcome outcome;
    Kernel kernel(traffic.entities);
    std::vector<double> leads(traffic.entities, NAN);
    auto packet = packets.begin();
    for (std::int64_t frame = 0; packet != packets.end(); ++frame)
    {
        const std::int64_t us = static_cast<std::int64_t>(start) * 1000000 + frame * 40000;
        kernel.root.time.sim = {static_cast<std::int32_t>(us / 1000000), static_cast<std::int32_t>(us % 1000000)};
        const double now = frame * 0.04;
        std::vector<vuEntityState> reports;
        std::vector<double> ages;
        const auto first = packet;
        for (; packet != packets.end() && packet->arrival <= now; ++packet)
        {
            ages.push_back(ageOnArrival(outcome.clock, start + packet->arrival, packet->stamp) + now - packet->arrival);
            reports.push_back(reportOf(packet->entity, kSpeed * packet->sent));
        }
        handOver(&kernel.root, reports, ages);
        updateEntityPositions(&kernel.root);
        std::for_each(first, packet,
                      [&](const Packet &taken)
                      {
                          const double lead = kernel.entities[taken.entity].position[0] / kSpeed - now;
                          if (now >= 30 && lead != leads[taken.entity])
                          {
                              outcome.jumps.push_back(std::abs(lead - leads[taken.entity]) * kSpeed);
                          }
                          outcome.samples.push_back({now, leads[taken.entity] = lead});
                      });
    }
    std::ranges::sort(outcome.jumps);
    return outcome;
}

double median(const std::vector<double> &sorted)
{
    return sorted[sorted.size() / 2];
}

} // namespace

// Wherever the sender's clock stands, the constant delay alone is missing; with it in a trusted clock, nothing is.
TEST(ReportClock, PlacesReportsWhateverTheClocks)
{
    struct Case
    {
        double fast;
        std::uint32_t flag;
        double lead;
        int entities = 1;
        double units = kUnits;
    };
    for (const Case &c : std::initializer_list<Case>{{0, 0, -kLeastDelay},
                                                     {0, 0, -kLeastDelay, 60},
                                                     {20, 0, -kLeastDelay},
                                                     {-20, 0, -kLeastDelay, 1, 596523},
                                                     {1000, 0, -kLeastDelay},
                                                     {1800, 0, -kLeastDelay},
                                                     {-1800, 0, -kLeastDelay, 60},
                                                     {0, kAbsolute, 0},
                                                     {-1, kAbsolute, 1}, // plausible: taken for delay
                                                     {0.02, kAbsolute, -kLeastDelay},
                                                     {-5, kAbsolute, -kLeastDelay},
                                                     {300, kAbsolute, -kLeastDelay}})
    {
        SCOPED_TRACE(std::to_string(c.fast) + " flag " + std::to_string(c.flag));
        const Outcome outcome = play({[&](double) { return c.fast; }, c.flag, 120, c.entities, c.units});
        EXPECT_LT(outcome.worst(c.lead, 0), kJitter + 1e-5);
        EXPECT_LT(outcome.worst(c.lead, 30), 0.002);
        EXPECT_LT(median(outcome.jumps), 0.001);
        EXPECT_LT(outcome.jumps.back(), 0.2);
        EXPECT_EQ(outcome.clock.jumps + outcome.clock.untimed, 0u);
        EXPECT_NEAR(std::remainder(clockOffset(outcome.clock) + c.fast - kLeastDelay, 3600), 0, 0.002);
    }
}

TEST(ReportClock, FollowsDrift)
{
    for (const double drift : {100e-6, -100e-6, 10e-6})
    {
        const Outcome outcome = play({[&](double time) { return 500 - drift * time; }, 0, 600});
        EXPECT_LT(outcome.worst(-kLeastDelay, 20), 0.007);
        EXPECT_LT(outcome.worst(-kLeastDelay, 120), 0.002);
        EXPECT_LT(median(outcome.jumps), 0.001);
        EXPECT_LT(outcome.jumps.back(), 0.3);
        EXPECT_NEAR(outcome.clock.drift, drift, 20e-6);
        EXPECT_EQ(outcome.clock.jumps, 0u);
    }
}

TEST(ReportClock, NoticesThatAClockWasSet)
{
    for (const double jump : {0.2, -0.2, 5.0, -5.0, 1700.0, 1800.0})
    {
        for (const int entities : {1, 60})
        {
            SCOPED_TRACE(jump);
            const Outcome outcome = play({[&](double time) { return time < 40 ? 0 : jump; }, 0, 120, entities});
            EXPECT_LT(outcome.worst(-kLeastDelay, 0), std::abs(jump) < 1 ? 0.2 + kJitter : kJitter + 1e-5);
            EXPECT_LT(outcome.worst(-kLeastDelay, 42.1), 0.015);
            EXPECT_LT(outcome.worst(-kLeastDelay, 60), 0.006);
            EXPECT_EQ(outcome.clock.jumps, 1u);
        }
    }
}

// One wrong stamp changes neither what follows nor the offset; it counts as made on arrival.
TEST(ReportClock, TakesSenselessStampsForNow)
{
    const auto stampAt = [](double time) { return static_cast<std::uint32_t>(std::fmod(time, 3600) * kUnits) << 1; };
    std::mt19937 random(2);
    SenderClock still, empty, senseless, mixed, freezing;
    for (int i = 0; i < 1000; ++i)
    {
        const double time = 1000 + i * 0.05, delay = i % 7 * 0.001;
        EXPECT_EQ(ageOnArrival(still, time, 0x12345678), 0);
        EXPECT_EQ(ageOnArrival(empty, time, i & 1), 0);
        EXPECT_EQ(ageOnArrival(senseless, time, random()), 0);
        const bool wrong = i % 10 == 9;
        EXPECT_NEAR(ageOnArrival(mixed, time + delay, stampAt(time + (wrong ? 1234 : 0))), wrong ? 0 : delay, 2e-6);
        const double age = ageOnArrival(freezing, time + delay, stampAt(std::min(time, 1020.0)));
        EXPECT_NEAR(age, time > 1020.2 ? 0 : delay + std::max(time - 1020, 0.0), 2e-6);
    }
    EXPECT_EQ(mixed.untimed, 100u);
    EXPECT_EQ(still.jumps + senseless.jumps + mixed.jumps + freezing.jumps, 0u);
}

// A sender that mixes absolute and relative stamps, or wanders about the bound of what is plausible, is not read now one
// way and now the other.
TEST(ReportClock, DoesNotWaverAboutAbsoluteStamps)
{
    for (const double slow : {2.0, -0.05, 0.5})
    {
        SenderClock clock;
        int changes = -1;
        bool absolute = false;
        for (int i = 0; i < 5000; ++i)
        {
            const double time = 100 + i * 0.2, off = slow + 0.02 * std::sin(i * 0.002);
            const bool relative = slow == 0.5 && i % 3 == 0;
            ageOnArrival(clock, time + i % 7 * 0.001,
                         static_cast<std::uint32_t>((time - off) * kUnits) << 1 | !relative);
            changes += i == 0 || clock.absolute != absolute;
            absolute = clock.absolute;
        }
        EXPECT_LE(changes, 1) << slow;
    }
}

TEST(ReportClock, HandsOverExactAges)
{
    const vutimeval clocks[] = {{1699999000, 123457}, {1699999199, 999999}, {1699999200, 0}, {0, 0},
                                {-1, 500000},         {-3600, 0},           {-7200, 10000},  {-5500, 1},
                                {INT32_MAX, 999999}};
    for (const vutimeval &clock : clocks)
    {
        for (const std::vector<double> &ages :
             {std::vector<double>{0.0123456, 0, 0.02}, {0.5, 12.25, 0.001}, {1800, 0, 1799.5}})
        {
            SCOPED_TRACE(std::to_string(clock.sec) + " " + std::to_string(ages[0]));
            Kernel kernel(2);
            kernel.root.time.sim = clock;
            std::vector<vuEntityState> reports = {reportOf(0, 7), reportOf(1, 8), reportOf(0, 9)};
            handOver(&kernel.root, reports, ages);
            EXPECT_EQ(kernel.root.time.sim.sec, clock.sec);
            EXPECT_EQ(kernel.root.time.sim.usec, clock.usec);
            EXPECT_EQ(kernel.states[0].location[0], 9); // the later one of the same entity
            kernel.root.time.sim.sec -= 100;            // any other time; INT32_MAX stays in range
            updateEntityPositions(&kernel.root);
            EXPECT_NEAR(kernel.entities[0].position[0], 9 + kSpeed * (ages[2] - 100), 2e-6 * kSpeed);
            EXPECT_NEAR(kernel.entities[1].position[0], 8 + kSpeed * (ages[1] - 100), 2e-6 * kSpeed);
        }
    }
    const std::pair<double, double> cut[] = {{-0.25, -0.25}, {-9, -1}, {NAN, 0}, {1e300, 1800}};
    for (const auto &[age, taken] : cut)
    {
        Kernel kernel(1);
        kernel.root.time.sim = clocks[0];
        vuEntityState report = reportOf(0, 0);
        handOver(&kernel.root, {&report, 1}, {&age, 1});
        updateEntityPositions(&kernel.root);
        EXPECT_NEAR(kernel.entities[0].position[0], kSpeed * taken, 2e-6 * kSpeed);
    }
}

TEST(ReportClock, StampsSecondsPastTheHour)
{
    EXPECT_EQ(stampForKernel(7200 + 1800, 0), 0x80000000u); // half of 2^31 - 1, rounded up, above a clear bit 0
    EXPECT_EQ(stampForKernel(3599, 1), 0xFFFFFFFEu);
    EXPECT_EQ(stampForKernel(3599, 5), 0xFFFFFFFEu);
    EXPECT_EQ(stampForKernel(3600, -1), 0u);
    EXPECT_NEAR(disTimeSeconds(stampForKernel(kHourTurn + 12.345678, 0.5)), 12.845678, 1.1e-6);
}
