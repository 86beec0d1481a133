#include "support/capture.h"

#include <tolvin/apps/dispdu.h>
#include <tolvin/apps/sendcommand.h>
#include <tolvin/apps/udp.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <csignal>
#include <map>
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
    std::vector<double> ages; // arrival minus stamp, seconds, -1800 to 1800
};

double secondsOf(std::uint32_t stamp)
{
    return (stamp >> 1) * (3600.0 / 2147483648.0);
}

int sendWith(const std::string &arguments)
{
    CLI::App app;
    int exitCode = -1;
    addSendCommand(app, exitCode);
    app.parse("send " + arguments);
    return exitCode;
}

// Sends over loopback and returns what arrived.
Traffic trafficOf(const std::string &arguments)
{
    UdpReceiver receiver(parseEndpoint("127.0.0.1:0"));
    EXPECT_EQ(sendWith(arguments + " --quiet --to 127.0.0.1:" + std::to_string(receiver.localPort())), 0);
    Traffic traffic;
    const auto take = [&](std::span<const std::uint8_t> datagram, std::int64_t arrival)
    {
        traffic.datagrams.push_back(datagram.size());
        PduReader reader(datagram);
        for (Pdu pdu; reader.next(pdu);)
        {
            EXPECT_EQ(decodeEntityState(pdu, traffic.reports.emplace_back()), PduFault::None);
            const double pastHour = static_cast<double>(arrival % 3'600'000'000'000) * 1e-9;
            traffic.ages.push_back(std::remainder(pastHour - secondsOf(traffic.reports.back().timestamp), 3600.0));
        }
        EXPECT_EQ(reader.fault(), PduFault::None);
    };
    receiver.receiveUntil(std::chrono::steady_clock::now(), take);
    return traffic;
}

} // namespace

TEST(Send, SpreadsReportsAndTakesLeave)
{
    const Traffic traffic =
        trafficOf("--entities 12 --rate 1 --duration 1 --leave --first-entity 40 --marking Eagle-Squad "
                  "--site 3 --application 4 --exercise 9 --version 6 --motion circle,line "
                  "--algorithm 2-3,9 --clock-drift 100000"); // gains a tenth
    ASSERT_EQ(traffic.reports.size(), 24u);
    EXPECT_EQ(traffic.datagrams, std::vector<std::size_t>(24, 144));
    const std::uint8_t algorithms[] = {2, 3, 9, 2, 3, 9, 3, 9, 2, 3, 9, 2}; // shifted when both lists are through
    for (std::size_t i = 0; i < 24; ++i)
    {
        const vuEntityState &report = traffic.reports[i];
        EXPECT_EQ(
            std::tie(report.protocolVersion, report.exerciseId, report.entityId.site, report.entityId.application),
            std::make_tuple(6, 9, 3, 4));
        EXPECT_EQ(report.entityId.entity, 40 + i % 12);
        EXPECT_EQ(std::string(report.marking.text, 11), "Eagle-Squ" + std::to_string(40 + i % 12));
        EXPECT_EQ(report.deadReckoning.algorithm, algorithms[i % 12]);
        EXPECT_EQ(report.deadReckoning.angularVel[2] != 0, i % 2 == 0) << "circle, line and so on";
        EXPECT_EQ(leaves(report), i >= 12);
        if (i > 0 && i < 12)
        {
            const double step = secondsOf(report.timestamp) - secondsOf(traffic.reports[i - 1].timestamp);
            EXPECT_NEAR(std::remainder(step, 3600.0), 1.1 / 12, 2e-6);
        }
    }
}

TEST(Send, BundlesUpTo1400Bytes)
{
    const Traffic traffic = trafficOf("--entities 20 --rate 1 --duration 1 --bundle");
    EXPECT_EQ(traffic.datagrams, (std::vector<std::size_t>{9 * 144, 9 * 144, 2 * 144}));
    EXPECT_EQ(traffic.reports.size(), 20u);
}

TEST(Send, JitterLossAndOffset)
{
    Traffic traffic = trafficOf("--entities 200 --rate 1 --duration 1 --loss 50 --jitter 0.2 --stamp absolute "
                                "--clock-offset 100");
    EXPECT_NEAR(traffic.reports.size(), 100, 40); // deviation 7
    EXPECT_GE(std::ranges::min(traffic.ages), -100.0);
    EXPECT_LT(std::ranges::min(traffic.ages), -99.9);
    EXPECT_GT(std::ranges::max(traffic.ages), -99.9);
    const auto entity = [](const vuEntityState &report) { return report.entityId.entity; };
    EXPECT_FALSE(std::ranges::is_sorted(traffic.reports, {}, entity)) << "delays reorder entities";
    std::ranges::sort(traffic.reports, {}, entity);
    EXPECT_EQ(std::ranges::adjacent_find(traffic.reports, {}, entity), traffic.reports.end()) << "one report each";
    EXPECT_TRUE(std::ranges::all_of(traffic.reports, [](const auto &report) { return report.timestamp & 1; }));
}

TEST(Send, StatesBelongToTheirStamps)
{
    // At 10 km/s a unit of the stamp is 17 mm.
    const auto reports = trafficOf("--rate 2 --duration 1 --motion line --speed 10000").reports;
    ASSERT_EQ(reports.size(), 2u);
    const double time = std::remainder(secondsOf(reports[1].timestamp) - secondsOf(reports[0].timestamp), 3600.0);
    const auto way = [&](int axis) { return reports[1].location[axis] - reports[0].location[axis]; };
    EXPECT_NEAR(std::hypot(way(0), way(1), way(2)), time * 10000, 1e-4);
    EXPECT_EQ(trafficOf("--duration 0.1 --stamp zero").reports.at(0).timestamp, 0u);
}

// Both signals end an endless run in good order: the entities still leave.
TEST(Send, EndsOnSignals)
{
    for (const int signal : {SIGINT, SIGTERM})
    {
        sigset_t blocked;
        sigset_t former;
        sigemptyset(&blocked);
        sigaddset(&blocked, signal);
        pthread_sigmask(SIG_BLOCK, &blocked, &former);
        raise(signal); // waits until somebody asks for it
        const Traffic traffic = trafficOf("--entities 3 --leave");
        ASSERT_GE(traffic.reports.size(), 3u);
        EXPECT_TRUE(leaves(traffic.reports.back()));
        pthread_sigmask(SIG_SETMASK, &former, nullptr);
    }
}

TEST(Send, ExplainsMistakes)
{
    const std::map<std::string, std::string> cases = {
        {"--to 127.0.0.1:99999", "Error: 127.0.0.1:99999: expected"},
        {"--interface 192.0.2.1", "192.0.2.1"},
        {"--motion circle,sideways", "Error: --motion sideways: expected static"},
        {"--algorithm 3-10", "Error: --algorithm 3-10: expected"},
        {"--algorithm 5-2", "Error: --algorithm 5-2: expected"},
        {"--origin 91,0", "Error: --origin 91,0: expected"},
        {"--origin -33.9,151.2,", "Error: --origin -33.9,151.2,: expected"},
        {"--entities 2 --first-entity 65534", "Error: --first-entity 65534: expected"},
    };
    for (const auto &[arguments, text] : cases)
    {
        int exitCode = 0;
        const std::string call = arguments + " --duration 0.1";
        const std::string said = capturedStderr([&] { exitCode = sendWith(call); });
        EXPECT_EQ(exitCode, 2) << call;
        EXPECT_NE(said.find(text), std::string::npos) << said;
    }
    for (const char *arguments : {"--rate 0", "--rate nan", "--loss 101", "--version 8", "--stamp never", "--ttl 256"})
    {
        EXPECT_THROW(sendWith(arguments), CLI::ParseError) << arguments;
    }
}
