#include "support/capture.h"

#include <tolvin/apps/dispdu.h>
#include <tolvin/apps/sendcommand.h>
#include <tolvin/apps/udp.h>

#include <chrono>
#include <cmath>
#include <csignal>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

using namespace tolvin;

namespace
{

struct Received
{
    vuEntityState report;
    double age; // arrival minus stamp, seconds, -1800 to 1800
};

struct Traffic
{
    std::vector<std::size_t> datagrams; // sizes
    std::vector<Received> reports;
};

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
    const std::string to = "127.0.0.1:" + std::to_string(receiver.localPort());
    EXPECT_EQ(sendWith(arguments + " --quiet --to " + to), 0);
    Traffic traffic;
    const auto take = [&](std::span<const std::uint8_t> datagram, std::int64_t arrival)
    {
        traffic.datagrams.push_back(datagram.size());
        PduReader reader(datagram);
        for (Pdu pdu; reader.next(pdu);)
        {
            Received received{};
            EXPECT_EQ(decodeEntityState(pdu, received.report), PduFault::None);
            const double stamp = (received.report.timestamp >> 1) * (3600.0 / 2147483648.0);
            received.age = std::remainder(static_cast<double>(arrival % 3'600'000'000'000) * 1e-9 - stamp, 3600.0);
            traffic.reports.push_back(received);
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
                  "--algorithm 2-3,9");
    ASSERT_EQ(traffic.reports.size(), 24u);
    EXPECT_EQ(traffic.datagrams, std::vector<std::size_t>(24, 144));
    const std::uint8_t algorithms[] = {2, 3, 9, 2, 3, 9, 3, 9, 2, 3, 9, 2}; // shifted when both lists are through
    for (std::size_t i = 0; i < 24; ++i)
    {
        const vuEntityState &report = traffic.reports[i].report;
        EXPECT_EQ(report.entityId.entity, 40 + i % 12);
        EXPECT_EQ(report.entityId.site, 3);
        EXPECT_EQ(report.entityId.application, 4);
        EXPECT_EQ(report.exerciseId, 9);
        EXPECT_EQ(report.protocolVersion, 6);
        EXPECT_EQ(std::string(report.marking.text, 11), "Eagle-Squ" + std::to_string(40 + i % 12));
        EXPECT_EQ(report.deadReckoning.algorithm, algorithms[i % 12]);
        EXPECT_EQ(report.deadReckoning.angularVel[2] != 0, i % 2 == 0) << "circle, line and so on";
        EXPECT_EQ(leaves(report), i >= 12);
        EXPECT_GE(traffic.reports[i].age, -1e-9);
        if (i > 0 && i < 12)
        {
            const std::uint32_t step = (report.timestamp - traffic.reports[i - 1].report.timestamp) / 2;
            EXPECT_NEAR(step, 2147483648.0 / 3600 / 12, 1);
        }
    }
}

TEST(Send, BundlesUpTo1400Bytes)
{
    const Traffic traffic = trafficOf("--entities 20 --rate 1 --duration 1 --bundle");
    EXPECT_EQ(traffic.datagrams, (std::vector<std::size_t>{9 * 144, 9 * 144, 2 * 144}));
    EXPECT_EQ(traffic.reports.size(), 20u);
}

TEST(Send, JitterLossAndClock)
{
    const Traffic traffic = trafficOf("--entities 200 --rate 1 --duration 1 --loss 50 --jitter 0.2 --stamp absolute "
                                      "--clock-offset 100");
    EXPECT_GT(traffic.reports.size(), 60u); // 100 expected, deviation 7
    EXPECT_LT(traffic.reports.size(), 140u);
    double least = 1e9;
    double most = -1e9;
    std::set<int> entities;
    bool ordered = true;
    for (const Received &received : traffic.reports)
    {
        least = std::min(least, received.age + 100);
        most = std::max(most, received.age + 100);
        EXPECT_EQ(received.report.timestamp & 1, 1u);
        ordered = ordered && (entities.empty() || *entities.rbegin() < received.report.entityId.entity);
        EXPECT_TRUE(entities.insert(received.report.entityId.entity).second);
    }
    EXPECT_GE(least, 0.0);
    EXPECT_LT(least, 0.1);
    EXPECT_GT(most, 0.1);
    EXPECT_FALSE(ordered) << "delays reorder entities";
}

TEST(Send, DriftAndZeroStamps)
{
    const auto ages = trafficOf("--entities 4 --rate 1 --duration 1 --clock-drift 100000").reports; // gains a tenth
    ASSERT_EQ(ages.size(), 4u);
    const std::uint32_t gained = (ages[3].report.timestamp - ages[0].report.timestamp) / 2;
    EXPECT_NEAR(gained, 0.825 * 2147483648.0 / 3600, 1);
    EXPECT_EQ(trafficOf("--duration 0.1 --stamp zero").reports.at(0).report.timestamp, 0u);
}

// At 10 km/s a unit of the stamp is 17 mm.
TEST(Send, StateBelongsToTheStamp)
{
    const auto reports = trafficOf("--rate 2 --duration 1 --motion line --speed 10000").reports;
    ASSERT_EQ(reports.size(), 2u);
    const vuEntityState &a = reports[0].report;
    const vuEntityState &b = reports[1].report;
    const double distance = std::hypot(b.location[0] - a.location[0], b.location[1] - a.location[1], //
                                       b.location[2] - a.location[2]);
    EXPECT_NEAR(distance, (b.timestamp - a.timestamp) / 2 * (3600.0 / 2147483648.0) * 10000, 1e-4);
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
        EXPECT_TRUE(leaves(traffic.reports.back().report));
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
        {"--origin nan,0", "Error: --origin nan,0: expected"},
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
