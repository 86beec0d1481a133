#include <tolvin/apps/udp.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <vector>

#include <sys/time.h>

#include <gtest/gtest.h>

using namespace tolvin;
using Bytes = std::vector<std::uint8_t>;
using SteadyClock = std::chrono::steady_clock;

namespace
{

asio::ip::udp::endpoint loopback(std::uint16_t port)
{
    return {asio::ip::address_v4::loopback(), port};
}

std::int64_t wallClock()
{
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

Bytes bytesOf(std::size_t size, unsigned seed)
{
    Bytes bytes(size);
    for (std::uint8_t &byte : bytes)
    {
        byte = static_cast<std::uint8_t>((seed = seed * 1664525u + 1013904223u) >> 24);
    }
    return bytes;
}

std::size_t receiveWaiting(UdpReceiver &receiver)
{
    return receiver.receiveUntil(SteadyClock::now(), [](auto, auto) {});
}

// The text of what the action throws.
std::string refusal(const std::function<void()> &action)
{
    try
    {
        action();
    }
    catch (const std::runtime_error &error)
    {
        return error.what();
    }
    return "nothing was thrown";
}

} // namespace

TEST(Endpoint, Parse)
{
    EXPECT_EQ(textOf(parseEndpoint("127.0.0.1")), "127.0.0.1:3000");
    EXPECT_EQ(textOf(parseEndpoint("239.1.2.3:65535")), "239.1.2.3:65535");
    EXPECT_EQ(textOf(parseEndpoint("0.0.0.0:0", 77)), "0.0.0.0:0");
    EXPECT_EQ(textOf(parseEndpoint("localhost", 77)), "127.0.0.1:77");
    for (const char *text : {"", ":3000", "127.0.0.1:", "127.0.0.1:65536", "127.0.0.1:-1", "127.0.0.1:3000x",
                             "256.1.1.1", "1.2.3", "::1", "[::1]:3000"})
    {
        EXPECT_NE(refusal([&] { parseEndpoint(text); }).find(std::string(text) + ": expected"), std::string::npos)
            << text;
    }
    EXPECT_TRUE(parseInterface("").is_unspecified());
    EXPECT_NE(refusal([] { parseInterface("lo0"); }).find("lo0: expected"), std::string::npos);
}

TEST(Udp, RefusesWhatTheMachineDoesNotHave)
{
    const auto foreign = asio::ip::make_address_v4("192.0.2.1"); // reserved for documentation
    const auto group = parseEndpoint("239.255.17.4:0");
    for (const std::string &text :
         {refusal(
              [&] {
                  UdpReceiver({foreign, 0});
              }),
          refusal([&] { UdpReceiver(group, foreign); }), refusal([&] { UdpSender(loopback(9), foreign); }),
          refusal(
              [&] {
                  UdpSender({group.address(), 9}, foreign);
              })})
    {
        EXPECT_NE(text.find("192.0.2.1"), std::string::npos) << text;
    }
    EXPECT_NE(refusal([] { UdpSender(loopback(0)); }).find("port"), std::string::npos);
}

TEST(Udp, DeliversEverySizeInOrderWithItsTime)
{
    UdpReceiver receiver(loopback(0));
    UdpSender sender(loopback(receiver.localPort()));
    std::vector<Bytes> sent;
    const std::int64_t before = wallClock();
    for (const std::size_t size : {0u, 1u, 144u, 60000u, 65507u})
    {
        sent.push_back(bytesOf(size, static_cast<unsigned>(size)));
        EXPECT_FALSE(sender.send(sent.back()));
    }
    EXPECT_TRUE(sender.send(Bytes(65508))) << "more than UDP can carry";
    for (unsigned i = 0; i < 100; ++i) // several batches
    {
        sent.push_back(bytesOf(144, i));
        EXPECT_FALSE(sender.send(sent.back()));
    }
    std::vector<Bytes> received;
    std::int64_t last = 0;
    const auto take = [&](std::span<const std::uint8_t> datagram, std::int64_t arrival)
    {
        received.emplace_back(datagram.begin(), datagram.end());
        EXPECT_GE(arrival, before);
        last = std::max(last, arrival);
    };
    EXPECT_EQ(receiver.receiveUntil(SteadyClock::time_point::min(), take), sent.size());
    EXPECT_LE(last, wallClock());
    EXPECT_TRUE(received == sent);
    EXPECT_EQ(receiver.dropped(), 0u);
}

TEST(Udp, EndsAtTheDeadlineWhateverComes)
{
    UdpReceiver receiver(loopback(0));
    const auto deadline = SteadyClock::now() + std::chrono::milliseconds(20);
    EXPECT_EQ(receiver.receiveUntil(deadline, [](auto, auto) {}), 0u);
    EXPECT_GE(SteadyClock::now(), deadline);
    // A datagram that begets another one never lets the socket run dry.
    UdpSender sender(loopback(receiver.localPort()));
    EXPECT_FALSE(sender.send(Bytes(1)));
    EXPECT_GE(receiver.receiveUntil(SteadyClock::now(), [&](auto datagram, auto) { sender.send(datagram); }), 1u);
}

TEST(Udp, SignalEndsTheWait)
{
    UdpReceiver receiver(loopback(0));
    std::signal(SIGALRM, [](int) {});
    const itimerval soon = {{0, 10'000}, {0, 10'000}}; // again and again, since the first may come before the wait
    setitimer(ITIMER_REAL, &soon, nullptr);
    const auto deadline = SteadyClock::now() + std::chrono::hours(1);
    EXPECT_EQ(receiver.receiveUntil(deadline, [](auto, auto) {}), 0u);
    EXPECT_LT(SteadyClock::now(), deadline);
    const itimerval never = {};
    setitimer(ITIMER_REAL, &never, nullptr);
}

TEST(Udp, CountsWhatTheBufferCouldNotHold)
{
    UdpReceiver receiver(loopback(0));
    UdpSender sender(loopback(receiver.localPort()));
    const Bytes large = bytesOf(60'000, 1);
    constexpr std::size_t kMany = 600; // 36 MB
    for (std::size_t i = 0; i < kMany; ++i)
    {
        EXPECT_FALSE(sender.send(large));
    }
    const std::size_t received = receiveWaiting(receiver);
    EXPECT_FALSE(sender.send(large)); // brings the count along
    EXPECT_EQ(receiveWaiting(receiver), 1u);
    EXPECT_GT(receiver.dropped(), 0u);
    EXPECT_EQ(received + receiver.dropped(), kMany);
}

TEST(Udp, EveryReceiverOfAGroupHearsIt)
{
    const auto lo = asio::ip::address_v4::loopback();
    UdpReceiver first(parseEndpoint("239.255.17.4:0"), lo);
    UdpReceiver second(parseEndpoint("239.255.17.4", first.localPort()), lo);
    UdpReceiver other(parseEndpoint("239.255.17.5", first.localPort()), lo);
    UdpSender sender(parseEndpoint("239.255.17.4", first.localPort()), lo, 0);
    EXPECT_FALSE(sender.send(Bytes(144)));
    EXPECT_EQ(receiveWaiting(first), 1u);
    EXPECT_EQ(receiveWaiting(second), 1u);
    EXPECT_EQ(receiveWaiting(other), 0u);
}

TEST(Udp, BroadcastsAndSilenceAreNoErrors)
{
    UdpReceiver receiver(parseEndpoint("0.0.0.0:0"));
    UdpSender broadcast(parseEndpoint("127.255.255.255", receiver.localPort()));
    EXPECT_FALSE(broadcast.send(Bytes(144)));
    EXPECT_EQ(receiveWaiting(receiver), 1u);

    auto closed = std::make_unique<UdpReceiver>(loopback(0));
    UdpSender sender(loopback(closed->localPort()));
    closed.reset();
    for (int i = 0; i < 3; ++i)
    {
        EXPECT_FALSE(sender.send(Bytes(144))) << "although nobody listens";
    }
}
