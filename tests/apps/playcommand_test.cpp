#include "support/capture.h"

#include <tolvin/apps/capturefile.h>
#include <tolvin/apps/playcommand.h>
#include <tolvin/apps/udp.h>
#include <tolvin/kernel/kerneldis.h>

#include <chrono>
#include <cmath>
#include <csignal>
#include <filesystem>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include <unistd.h>

#include <gtest/gtest.h>

using namespace tolvin;
using Bytes = std::vector<std::uint8_t>;

namespace
{

constexpr std::int64_t kMillisecond = 1'000'000;

std::int64_t wallClock()
{
    return std::chrono::nanoseconds(std::chrono::system_clock::now().time_since_epoch()).count();
}

// A PDU of a type that nobody knows, with that stamp.
Bytes pdu(std::uint32_t stamp, std::uint8_t size)
{
    Bytes bytes = {7, 1, 250, 99};
    for (int shift = 24; shift >= 0; shift -= 8)
    {
        bytes.push_back(static_cast<std::uint8_t>(stamp >> shift));
    }
    bytes.insert(bytes.end(), {0, size, 0, 0});
    bytes.resize(size, 0x5A);
    return bytes;
}

struct Sent
{
    std::int64_t time; // nanoseconds
    Bytes bytes;
};

struct Heard
{
    int exitCode;
    std::int64_t start;              // nanoseconds since 1970
    std::vector<std::int64_t> after; // nanoseconds from before the command
    std::vector<Bytes> contents;
};

class Play : public testing::Test
{
protected:
    ~Play() override
    {
        std::filesystem::remove(file_);
    }

    void record(const std::vector<Sent> &datagrams)
    {
        const asio::ip::udp::endpoint end(asio::ip::address_v4::loopback(), 9);
        CaptureWriter writer(file_);
        for (const Sent &datagram : datagrams)
        {
            writer.write({1'700'000'000'000'000'000 + datagram.time, end, end, datagram.bytes});
        }
        writer.close();
    }

    Heard play(const std::string &options)
    {
        UdpReceiver receiver(parseEndpoint("127.0.0.1:0"));
        CommandLine line("");
        addPlayCommand(line);
        std::istringstream words("play " + file_ + " --quiet --to 127.0.0.1:" + std::to_string(receiver.localPort()) +
                                 " " + options);
        Heard heard;
        heard.start = wallClock();
        heard.exitCode = line.run({std::istream_iterator<std::string>(words), {}});
        receiver.receiveUntil(std::chrono::steady_clock::now(),
                              [&](auto bytes, auto arrival)
                              {
                                  heard.contents.emplace_back(bytes.begin(), bytes.end());
                                  heard.after.push_back(arrival - heard.start);
                              });
        return heard;
    }

    const std::string file_ = testing::TempDir() + "playcommand_test." + std::to_string(getpid()) + ".pcap";
};

} // namespace

TEST_F(Play, SendsWhatWasRecorded)
{
    const std::vector<Bytes> contents = {pdu(7, 12), {}, {1, 2, 3}, Bytes(65507, 9), pdu(9, 200)};
    record({{0, contents[0]},
            {0, contents[1]},
            {3'600'000 * kMillisecond, contents[2]},
            {0, contents[3]},
            {0, contents[4]}});
    const Heard heard = play("--speed 0");
    EXPECT_EQ(heard.exitCode, 0);
    EXPECT_TRUE(heard.contents == contents);
}

TEST_F(Play, StampsAnew)
{
    Bytes bundle = pdu(0x1234'5679, 16); // absolute
    const Bytes relative = pdu(0xFFFF'FFFE, 12), garbage = {7, 1, 2, 3, 4, 5, 6, 7, 8, 9};
    bundle.insert(bundle.end(), relative.begin(), relative.end());
    bundle.insert(bundle.end(), garbage.begin(), garbage.end());
    record({{0, bundle}, {100 * kMillisecond, garbage}});
    const Heard heard = play("--now");
    const double start = static_cast<double>(heard.start % 3'600'000'000'000) * 1e-9;
    ASSERT_EQ(heard.contents.size(), 2u);
    EXPECT_EQ(heard.contents[1], garbage);
    Bytes sent = heard.contents[0];
    ASSERT_EQ(sent.size(), bundle.size());
    for (const std::size_t at : {4, 20})
    {
        const std::uint32_t stamp =
            std::uint32_t{sent[at]} << 24 | sent[at + 1] << 16 | sent[at + 2] << 8 | sent[at + 3];
        EXPECT_EQ(stamp & 1, at == 4 ? 1u : 0u);
        const double since = std::remainder(disTimeSeconds(stamp) - start, 3600.0);
        EXPECT_GE(since, -4e-6); // a unit of the stamp
        EXPECT_LE(since, static_cast<double>(heard.after[0]) * 1e-9 + 4e-6);
        std::copy_n(bundle.begin() + static_cast<std::ptrdiff_t>(at), 4,
                    sent.begin() + static_cast<std::ptrdiff_t>(at));
    }
    EXPECT_EQ(sent, bundle) << "the rest";
}

// Not before their times, those that go back at once; a pass as long after the one before as datagrams are apart, on average, or a
// second of the recording.
TEST_F(Play, KeepsTimesPassByPass)
{
    record({{0, {0}}, {20 * kMillisecond, {1}}, {10 * kMillisecond, {2}}, {90 * kMillisecond, {3}}});
    const Heard heard = play("--speed 2 --loop 3");
    EXPECT_EQ(heard.contents, (std::vector<Bytes>{{0}, {1}, {2}, {3}, {0}, {1}, {2}, {3}, {0}, {1}, {2}, {3}}));
    const int due[] = {0, 10, 10, 45, 60, 70, 70, 105, 120, 130, 130, 165};
    for (std::size_t i = 0; i < std::size(due); ++i)
    {
        EXPECT_GE(heard.after.at(i), due[i] * kMillisecond) << i;
    }
    record({{5, {0}}});
    const Heard single = play("--speed 50 --loop 2");
    EXPECT_TRUE(single.after.size() == 2 && single.after[1] >= 20 * kMillisecond);
    record({});
    EXPECT_EQ(play("--loop 0").exitCode, 0) << "ends, since there is nothing to send";
}

TEST_F(Play, EndsOnSignalsAndTellsWhatIsWrong)
{
    record({{0, {1}}, {1, {2}}});
    sigset_t blocked = {}, former;
    sigaddset(&blocked, SIGINT);
    pthread_sigmask(SIG_BLOCK, &blocked, &former);
    raise(SIGINT); // waits until somebody asks for it
    EXPECT_EQ(play("--loop 0").exitCode, 0);
    pthread_sigmask(SIG_SETMASK, &former, nullptr);

    std::filesystem::resize_file(file_, std::filesystem::file_size(file_) - 1);
    Heard heard;
    const std::string told = capturedStderr([&] { heard = play(""); });
    EXPECT_EQ(heard.exitCode, 2);
    EXPECT_EQ(heard.contents, std::vector<Bytes>{{1}}) << "what is there is sent";
    EXPECT_NE(told.find("Error: " + file_ + ": truncated"), std::string::npos) << told;
    std::filesystem::remove(file_);
    EXPECT_NE(capturedStderr([&] { heard = play(""); }).find(file_ + ": No such file"), std::string::npos);
    std::filesystem::create_symlink("/dev/null", file_);
    capturedStderr([&] { heard = play("--loop 2"); });
    EXPECT_EQ(heard.exitCode, 2);
}
