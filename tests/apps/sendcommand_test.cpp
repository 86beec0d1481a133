#include "support/capture.h"

#include <tolvin/apps/dispdu.h>
#include <tolvin/apps/sendcommand.h>
#include <tolvin/apps/udp.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <string>
#include <vector>

#include <gtest/gtest.h>

using namespace tolvin;

namespace
{

struct Traffic
{
    std::vector<std::size_t> datagrams; // sizes
    std::vector<vuEntityState> reports;
};

// Seconds from the stamp of one report to that of another.
double between(const vuEntityState &from, const vuEntityState &to)
{
    return std::remainder(((to.timestamp >> 1) - 1.0 * (from.timestamp >> 1)) * (3600.0 / 2147483648.0), 3600.0);
}

int sendWith(const std::string &arguments)
{
    CLI::App app;
    int exitCode = -1;
    addSendCommand(app, exitCode);
    app.parse("send --quiet " + arguments);
    return exitCode;
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
            EXPECT_EQ(decodeEntityState(pdu, traffic.reports.emplace_back()), PduFault::None);
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
        EXPECT_TRUE(i % 12 == 0 || i > 12 || std::abs(between(reports[i - 1], report) - 1.1 / 12) < 2e-6);
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
    EXPECT_NEAR(std::hypot(way(0), way(1), way(2)), between(reports[0], reports[1]) * 10000, 1e-4);
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
