#include "support/capture.h"

#include <tolvin/apps/dispdu.h>
#include <tolvin/apps/sendcommand.h>
#include <tolvin/apps/udp.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <iterator>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

using namespace tolvin;

namespace
{

struct Traffic
{
    std::vector<std::size_t> datagrams; // sizes
    std::vector<vuEntityState> reports;
    std::vector<Fire> fires;
    std::vector<Detonation> detonations;
};

// Seconds from one stamp to another.
double between(std::uint32_t from, std::uint32_t to)
{
    return std::remainder(((to >> 1) - 1.0 * (from >> 1)) * (3600.0 / 2147483648.0), 3600.0);
}

int sendWith(const std::string &arguments)
{
    CommandLine line("");
    addSendCommand(line);
    std::istringstream words("send --quiet " + arguments);
    return line.run({std::istream_iterator<std::string>(words), {}});
}

// Sends over loopback and returns what arrived.
Traffic trafficOf(const std::string &arguments)
{
    UdpReceiver receiver(parseEndpoint("127.0.0.1:0"));
    EXPECT_EQ(sendWith(arguments + " --to 127.0.0.1:" + std::to_string(receiver.localPort())), 0);
    Traffic traffic;
    const auto take = [&](std::span<const std::uint8_t> datagram, auto)
    {
        traffic.datagrams.push_back(datagram.size());
        PduReader reader(datagram);
        for (Pdu pdu; reader.next(pdu);)
        {
            const PduKind kind = kindOf(pdu.header);
            EXPECT_EQ(kind == PduKind::Fire         ? decodeFire(pdu, traffic.fires.emplace_back())
                      : kind == PduKind::Detonation ? decodeDetonation(pdu, traffic.detonations.emplace_back())
                                                    : decodeEntityState(pdu, traffic.reports.emplace_back()),
                      PduFault::None);
        }
    };
    receiver.receiveUntil(std::chrono::steady_clock::now(), take);
    return traffic;
}

} // namespace

TEST(Send, SpreadsReportsAndTakesLeave)
{
    const auto reports =
        trafficOf("--entities 12 --rate 1 --duration 1 --leave --first-entity 40 --marking Eagle-Squad "
                  "--site 3 --application 4 --exercise 9 --version 6 --motion circle,line "
                  "--algorithm 2-3,9 --clock-drift 100000") // gains a tenth
            .reports;
    ASSERT_EQ(reports.size(), 24u);
    const std::uint8_t algorithms[] = {2, 3, 9, 2, 3, 9, 3, 9, 2, 3, 9, 2}; // shifted when both lists are through
    for (std::size_t i = 0; i < 24; ++i)
    {
        const vuEntityState &report = reports[i];
        EXPECT_TRUE(report.protocolVersion == 6 && report.exerciseId == 9);
        EXPECT_TRUE(report.entityId.site == 3 && report.entityId.application == 4);
        EXPECT_EQ(report.entityId.entity, 40 + i % 12);
        EXPECT_EQ(std::string(report.marking.text, 11), "Eagle-Squ" + std::to_string(40 + i % 12));
        EXPECT_EQ(report.deadReckoning.algorithm, algorithms[i % 12]);
        EXPECT_EQ(report.deadReckoning.angularVel[2] != 0, i % 2 == 0) << "circle, line and so on";
        EXPECT_EQ(leaves(report), i >= 12);
        EXPECT_TRUE(i % 12 == 0 || i > 12 ||
                    std::abs(between(reports[i - 1].timestamp, report.timestamp) - 1.1 / 12) < 2e-6);
    }
}

TEST(Send, JitterAndLoss)
{
    auto reports = trafficOf("--entities 200 --rate 1 --duration 1 --loss 50 --jitter 0.2 --stamp absolute").reports;
    EXPECT_NEAR(reports.size(), 100, 40); // deviation 7
    const auto entity = [](const vuEntityState &report) { return report.entityId.entity; };
    EXPECT_FALSE(std::ranges::is_sorted(reports, {}, entity)) << "delays reorder entities";
    std::ranges::sort(reports, {}, entity);
    EXPECT_EQ(std::ranges::adjacent_find(reports, {}, entity), reports.end()) << "one report each";
    EXPECT_TRUE(std::ranges::all_of(reports, [](const auto &report) { return report.timestamp & 1; }));
}

// At 10 km/s a unit of the stamp is 17 mm.
TEST(Send, StatesBelongToTheirStamps)
{
    const auto reports = trafficOf("--rate 2 --duration 1 --motion line --speed 10000").reports;
    ASSERT_EQ(reports.size(), 2u);
    const auto way = [&](int axis) { return reports[1].location[axis] - reports[0].location[axis]; };
    EXPECT_NEAR(std::hypot(way(0), way(1), way(2)), between(reports[0].timestamp, reports[1].timestamp) * 10000, 1e-4);
}

// Both signals end an endless run in good order: after the first bundle the entities still leave.
TEST(Send, BundlesAndEndsOnSignals)
{
    for (const int signal : {SIGINT, SIGTERM})
    {
        sigset_t blocked = {}, former;
        sigaddset(&blocked, signal);
        pthread_sigmask(SIG_BLOCK, &blocked, &former);
        raise(signal); // waits until somebody asks for it
        const Traffic traffic = trafficOf("--entities 20 --rate 1 --bundle --leave");
        EXPECT_EQ(traffic.datagrams, (std::vector<std::size_t>{9 * 144, 9 * 144, 9 * 144, 2 * 144}));
        EXPECT_TRUE(traffic.reports.size() == 29 && leaves(traffic.reports.back()));
        pthread_sigmask(SIG_SETMASK, &former, nullptr);
    }
}

// Where the equator meets the meridian of Greenwich a geocentric place is 6378137 m and the height, 0, 0; at the pole z is
// 6356752.314 m.
TEST(Send, ShotsAndDetonationsAtTheirTimes)
{
    const Traffic traffic = trafficOf(
        "--entities 0 --detonate=-90,0,0,0.1 --fire 0,0,100,0.2 --detonate 0,0,5 --version 6 --exercise 9 --site 3 "
        "--application 4");
    EXPECT_EQ(traffic.datagrams, (std::vector<std::size_t>{104, 104, 96}));
    ASSERT_TRUE(traffic.reports.empty() && traffic.fires.size() == 1 && traffic.detonations.size() == 2);
    const Fire &fire = traffic.fires[0];
    const Detonation &first = traffic.detonations[0], &second = traffic.detonations[1];
    EXPECT_TRUE(fire.location[0] == 6378237.0 && first.location[0] == 6378142.0);
    EXPECT_NEAR(second.location[2], -6356752.314, 0.001);
    EXPECT_TRUE(fire.event.number == 1 && first.event.number == 2 && second.event.number == 1);
    EXPECT_TRUE(first.result == 3 && first.descriptor.munition.country == 225 && first.descriptor.quantity == 1);
    for (const auto &[header, firing, time] : {std::tuple(first.header, first.firing, 0.0),
                                               {second.header, second.firing, 0.1},
                                               {fire.header, fire.firing, 0.2}})
    {
        EXPECT_TRUE(header.protocolVersion == 6 && header.exerciseId == 9);
        EXPECT_TRUE(firing.site == 3 && firing.application == 4 && firing.entity == 0);
        EXPECT_NEAR(between(first.header.timestamp, header.timestamp), time, 2e-6);
    }

    // Among reports, in their datagram; the first entity fires.
    const Traffic mixed = trafficOf("--entities 2 --first-entity 7 --rate 2 --duration 1 --bundle --leave "
                                    "--fire 0,0,0,0.5 --detonate 0,0,0,1");
    EXPECT_EQ(mixed.datagrams, (std::vector<std::size_t>{288, 384, 104, 288}));
    EXPECT_TRUE(mixed.fires.at(0).firing.entity == 7 && mixed.detonations.at(0).event.number == 1);

    for (const char *wrong : {"--fire 0,0", "--detonate 91,0,0", "--fire 0,0,0,-1", "--fire 0,0,0,nan",
                              "--fire 0,0,0,1,2", "--duration 2 --detonate 0,0,0,2.1", "--fire 0,0,0,", "--quiet"})
    {
        int exitCode = 0;
        EXPECT_NE(capturedStderr([&] { exitCode = sendWith(std::string("--entities 0 ") + wrong); }), "") << wrong;
        EXPECT_EQ(exitCode, 2) << wrong;
    }
}
