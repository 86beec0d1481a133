#include <tolvin/apps/reportclock.h>

#include <tolvin/kernel/kerneldisdr.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <random>
#include <span>
#include <utility>
#include <vector>

using namespace tolvin;

namespace
{

constexpr double kStart = 1699999200 - 30; // half a minute before a full hour
constexpr double kSpeed = 100, kLeastDelay = 0.01, kJitter = 0.03;

std::uint32_t stampAt(double time, std::uint32_t flag = 0, double unitsPerSecond = 2147483648.0 / 3600)
{
    return static_cast<std::uint32_t>(std::fmod(time, 3600) * unitsPerSecond) << 1 | flag;
}

// The kernel's position at `now` of an entity moving along x, when reports made at these places so long ago are
// handed over at `clock`.
double position(vutimeval clock, std::span<const double> places, std::span<const double> ages, vutimeval now)
{
    vuEntityState state{};
    vuEntity entity{};
    vuScene scene{};
    vuRootNode root{};
    entity.receive = VU_RECEIVE_DIS;
    entity.drState = &state;
    scene.entities = {&entity.node, &entity.node};
    root.scenes = {&scene.node, &scene.node};
    root.time.sim = clock;
    std::vector<vuEntityState> reports(places.size());
    for (std::size_t i = 0; i < places.size(); ++i)
    {
        reports[i].deadReckoning.algorithm = VU_DR_FPW;
        reports[i].velocity[0] = kSpeed;
        reports[i].location[0] = places[i];
    }
    handOver(&root, reports, ages);
    EXPECT_TRUE(root.time.sim.sec == clock.sec && root.time.sim.usec == clock.usec);
    root.time.sim = now;
    disDeadRecon(&root, &entity, &state);
    return entity.position[0];
}

// Reports are delayed, received, handed over in the next frame of 40 ms and extrapolated.
struct Traffic
{
    std::function<double(double)> fast; // sender's clock minus local clock, at seconds after the start
    std::uint32_t flag = 0;
    double lead = -kLeastDelay; // expected position against the true one, in seconds of motion
    double settled = 30, tolerance = 0.002, before = kJitter + 1e-5;
    unsigned jumps = 0;
    double rate = 5, seconds = 120, units = 2147483648.0 / 3600;
};

void check(const Traffic &traffic)
{
    SCOPED_TRACE(traffic.fast(100));
    std::mt19937 random(1);
    std::vector<std::pair<double, double>> packets; // arrived, sent
    for (double sent = 0; sent < traffic.seconds; sent += 1 / traffic.rate)
    {
        packets.push_back({sent + kLeastDelay + kJitter * random() / 0x1p32, sent});
    }
    std::ranges::sort(packets);
    SenderClock clock;
    std::vector<double> steps;
    double former = 0;
    for (const auto &[arrived, sent] : packets)
    {
        const std::uint32_t stamp = stampAt(kStart + sent + traffic.fast(sent), traffic.flag, traffic.units);
        const int frame = static_cast<int>(std::ceil(arrived * 25));
        const double age = ageOnArrival(clock, kStart + arrived, stamp) + frame * 0.04 - arrived;
        const double place = kSpeed * sent;
        const vutimeval now = {static_cast<std::int32_t>(kStart) + frame / 25, frame % 25 * 40000};
        const double lead = position(now, {&place, 1}, {&age, 1}, now) / kSpeed - frame * 0.04;
        EXPECT_NEAR(lead, traffic.lead, sent < traffic.settled ? traffic.before : traffic.tolerance) << sent;
        steps.push_back(kSpeed * std::abs(lead - former));
        former = lead;
    }
    std::ranges::nth_element(steps, steps.begin() + steps.size() / 2);
    EXPECT_LT(steps[steps.size() / 2], 0.001); // metres
    EXPECT_EQ(clock.jumps, traffic.jumps);
}

} // namespace

// Position is off by the constant delay, which no difference of clocks shows, and by nothing when the stamps are
// trusted.
TEST(ReportClock, PlacesMovingEntities)
{
    const auto fast = [](double seconds) { return [=](double) { return seconds; }; };
    for (const double seconds : {0.0, 20.0, -1000.0, 1800.025}) // 20: the sender's hour turns
    {
        check({.fast = fast(seconds)});
        check({.fast = fast(seconds), .rate = 300, .units = 596523});
    }
    for (const auto &[seconds, lead] : {std::pair(0.0, 0.0), {-1, 1}, {0.02, -kLeastDelay}, {-5, -kLeastDelay}})
    {
        check({.fast = fast(seconds), .flag = 1, .lead = lead});
    }
    for (const double drift : {100e-6, -100e-6})
    {
        check({.fast = [=](double time) { return drift * time; }, .settled = 120, .seconds = 600});
    }
    for (const double jump : {0.2, -0.2, 5.0, -5.0, 1700.0, 1800.015})
    {
        const auto jumps = [=](double time) { return time < 40 ? 0 : jump; };
        const double before = kJitter + (std::abs(jump) < 1 ? 0.2 : 1e-5);
        check({.fast = jumps, .settled = 42.1, .tolerance = 0.015, .before = before, .jumps = 1});
        check({.fast = jumps, .settled = 42.1, .tolerance = 0.015, .before = before, .jumps = 1, .rate = 300});
    }
}

TEST(ReportClock, TakesSenselessStampsForNow)
{
    std::mt19937 random(2);
    SenderClock still, unset, senseless, mixed, freezing, disturbed;
    for (int i = 0; i < 1000; ++i)
    {
        const double time = 1000 + i * 0.05, delay = i % 7 * 0.001;
        EXPECT_EQ(ageOnArrival(still, time, 0x12345678), 0);
        EXPECT_EQ(ageOnArrival(unset, time, i & 1), 0);
        EXPECT_EQ(ageOnArrival(senseless, time, random()), 0);
        const std::uint32_t mixedStamp = i % 4 == 0 ? stampAt(time) : i % 40 == 1 ? stampAt(time + 1234) : 0;
        EXPECT_NEAR(ageOnArrival(mixed, time + delay, mixedStamp), i % 4 == 0 ? delay : 0, 2e-6);
        const double age = time > 1020.2 ? 0 : delay + std::max(time - 1020, 0.0);
        EXPECT_NEAR(ageOnArrival(freezing, time + delay, stampAt(std::min(time, 1020.0))), age, 2e-6);
        // Single stamps ahead do not move the others; some seconds late is believed.
        const double ahead = i < 20 ? 0 : i % 28 == 20 ? 0.9 : i % 28 == 25 ? -2 : 0;
        EXPECT_NEAR(ageOnArrival(disturbed, time + delay, stampAt(time + ahead)), ahead > 0 ? 0 : delay - ahead, 2e-6);
    }
    EXPECT_EQ(mixed.untimed, 750u);
    EXPECT_EQ(still.jumps + senseless.jumps + mixed.jumps + freezing.jumps + disturbed.jumps, 0u);
}

TEST(ReportClock, HandsOverExactAges)
{
    const double places[] = {7, 8, 9}; // the last one wins
    const double ages[] = {0.0123456, 0, 0.02, 1800, 12.25, 0.5, 0.0123456};
    const vutimeval clocks[] = {{1699999199, 999999}, {1699999200, 0}, {0, 0},     {-1, 500000},
                                {-7200, 10000},       {-3600, 0},      {-5500, 1}, {INT32_MAX, 999999}};
    for (const vutimeval &clock : clocks)
    {
        for (std::size_t i = 0; i < 5; ++i)
        {
            const double x = position(clock, places, {ages + i, 3}, {clock.sec - 100, clock.usec});
            EXPECT_NEAR(x, 9 + kSpeed * (ages[i + 2] - 100), 2e-6 * kSpeed) << clock.sec;
        }
    }
    for (const auto &[age, taken] : {std::pair(-0.25, -0.25), {-9.0, -1.0}, {double(NAN), 0.0}, {1e300, 1800.0}})
    {
        EXPECT_NEAR(position({1000, 0}, {places, 1}, {&age, 1}, {1000, 0}), 7 + kSpeed * taken, 2e-6 * kSpeed);
    }
}
