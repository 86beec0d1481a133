#include <tolvin/apps/udp.h>

#include <algorithm>
#include <csignal>
#include <vector>

#include <sys/time.h>

#include <gtest/gtest.h>

using namespace tolvin;
using Bytes = std::vector<std::uint8_t>;
using SteadyClock = std::chrono::steady_clock;

namespace
{

const auto kLoopback = asio::ip::address_v4::loopback();
const auto kForeign = asio::ip::make_address_v4("192.0.2.1"); // reserved for documentation

std::int64_t wallNow()
{
    return std::chrono::nanoseconds(std::chrono::system_clock::now().time_since_epoch()).count();
}

std::size_t receiveWaiting(UdpReceiver &receiver)
{
    return receiver.receiveUntil(SteadyClock::now(), [](auto, auto) {});
}

void expectRefusal(const std::function<void()> &action, const std::string &text)
{
    try
    {
        action();
        ADD_FAILURE() << "took what should be refused with " << text;
    }
    catch (const std::runtime_error &error)
    {
        EXPECT_NE(std::string(error.what()).find(text), std::string::npos) << error.what();
    }
}

} // namespace

TEST(Udp, ParsesAndRefusesAddresses)
{
    EXPECT_EQ(textOf(parseEndpoint("239.1.2.3")), "239.1.2.3:3000");
    EXPECT_EQ(textOf(parseEndpoint("localhost:65535", 0)), "127.0.0.1:65535");
    for (const std::string text : {"", ":3000", "127.0.0.1:", "127.0.0.1:65536", "127.0.0.1:-1", "127.0.0.1:3000x",
                                   "256.1.1.1", "1.2.3", "::1", "[::1]:3000"})
    {
        expectRefusal([&] { parseEndpoint(text); }, text + ": expected");
    }
    EXPECT_TRUE(parseInterface("").is_unspecified());
    expectRefusal([] { parseInterface("lo0"); }, "lo0: expected");
    expectRefusal([] { UdpReceiver({kForeign, 0}); }, "192.0.2.1:0");
    expectRefusal([] { UdpReceiver(parseEndpoint("239.255.17.4:0"), kForeign); }, "192.0.2.1");
    expectRefusal([] { UdpSender({kLoopback, 9}, kForeign); }, "192.0.2.1");
    expectRefusal([] { UdpSender({kLoopback, 0}); }, "port");
}

TEST(Udp, DeliversEverySizeInOrderWithItsTime)
{
    UdpReceiver receiver({kLoopback, 0});
    UdpSender sender({kLoopback, receiver.localPort()});
    const std::int64_t before = wallNow();
    std::vector<Bytes> sent = {Bytes(0), Bytes(60'000, 7), Bytes(65'507, 8)};
    for (std::uint8_t i = 0; i < 100; ++i) // several batches
    {
        std::ranges::generate(sent.emplace_back(144), [byte = i]() mutable { return byte += 3; });
    }
    for (const Bytes &datagram : sent)
    {
        EXPECT_FALSE(sender.send(datagram));
    }
    EXPECT_TRUE(sender.send(Bytes(65'508))) << "more than UDP can carry";
    std::vector<Bytes> received;
    const auto take = [&](std::span<const std::uint8_t> datagram, std::int64_t arrival)
    {
        received.emplace_back(datagram.begin(), datagram.end());
        EXPECT_EQ(arrival, std::clamp(arrival, before, wallNow()));
    };
    EXPECT_EQ(receiver.receiveUntil(SteadyClock::time_point::min(), take), sent.size());
    EXPECT_TRUE(received == sent);
}

TEST(Udp, WaitEndsInTimeOrWithASignal)
{
    UdpReceiver receiver({kLoopback, 0});
    auto deadline = SteadyClock::now() + std::chrono::milliseconds(20);
    EXPECT_EQ(receiver.receiveUntil(deadline, [](auto, auto) {}), 0u);
    EXPECT_GE(SteadyClock::now(), deadline);
    // A datagram that begets another one never lets the socket run dry.
    UdpSender sender({kLoopback, receiver.localPort()});
    EXPECT_FALSE(sender.send(Bytes(1)));
    EXPECT_GE(receiver.receiveUntil(SteadyClock::now(), [&](auto datagram, auto) { sender.send(datagram); }), 1u);

    receiveWaiting(receiver);
    std::signal(SIGALRM, [](int) {});
    const itimerval never = {}, soon = {{0, 10'000}, {0, 10'000}}; // again, since the first may come before the wait
    setitimer(ITIMER_REAL, &soon, nullptr);
    deadline = SteadyClock::now() + std::chrono::hours(1);
    receiver.receiveUntil(deadline, [](auto, auto) {});
    EXPECT_LT(SteadyClock::now(), deadline);
    setitimer(ITIMER_REAL, &never, nullptr);
}

TEST(Udp, CountsWhatTheBufferCouldNotHold)
{
    UdpReceiver receiver({kLoopback, 0});
    UdpSender sender({kLoopback, receiver.localPort()});
    for (int i = 0; i < 600; ++i) // 36 MB
    {
        EXPECT_FALSE(sender.send(Bytes(60'000)));
    }
    const std::size_t received = receiveWaiting(receiver);
    EXPECT_FALSE(sender.send(Bytes(1))); // brings the count along
    EXPECT_EQ(receiveWaiting(receiver), 1u);
    EXPECT_GT(receiver.dropped(), 0u);
    EXPECT_EQ(received + receiver.dropped(), 600u);
}

TEST(Udp, EveryReceiverOfAGroupHearsIt)
{
    UdpReceiver first(parseEndpoint("239.255.17.4:0"), kLoopback);
    UdpReceiver second(parseEndpoint("239.255.17.4", first.localPort()), kLoopback);
    UdpReceiver other(parseEndpoint("239.255.17.5", first.localPort()), kLoopback);
    UdpSender sender(parseEndpoint("239.255.17.4", first.localPort()), kLoopback, 0);
    EXPECT_FALSE(sender.send(Bytes(144)));
    EXPECT_EQ(receiveWaiting(first), 1u);
    EXPECT_EQ(receiveWaiting(second), 1u);
    EXPECT_EQ(receiveWaiting(other), 0u);
}

TEST(Udp, BroadcastsAndSilenceAreNoErrors)
{
    auto receiver = std::make_unique<UdpReceiver>(parseEndpoint("0.0.0.0:0"));
    EXPECT_FALSE(UdpSender(parseEndpoint("127.255.255.255", receiver->localPort())).send(Bytes(144)));
    EXPECT_EQ(receiveWaiting(*receiver), 1u);
    UdpSender sender({kLoopback, receiver->localPort()});
    receiver.reset();
    EXPECT_FALSE(sender.send(Bytes(144))) << "nobody listens any more";
    EXPECT_FALSE(sender.send(Bytes(144))) << "and the sender has been told";
}

TEST(Udp, TellsBothEnds)
{
    UdpReceiver receiver(parseEndpoint("0.0.0.0:0"));
    asio::io_context context;
    using asio::ip::udp;
    udp::socket first(context, udp::endpoint(kLoopback, 0)), second(context, udp::endpoint(kLoopback, 0));
    std::vector<std::pair<std::string, std::string>> sent, told;
    for (const std::string address : {"127.0.0.1", "127.255.255.255", "127.0.0.2"})
    {
        for (udp::socket *const socket : {&first, &second})
        {
            const udp::endpoint to = parseEndpoint(address, receiver.localPort());
            socket->set_option(udp::socket::broadcast(true));
            socket->send_to(asio::buffer("x"), to);
            sent.emplace_back(textOf(socket->local_endpoint()), textOf(to));
        }
    }
    receiver.receiveUntil(SteadyClock::now(),
                          [&](auto, auto) { told.emplace_back(textOf(receiver.from()), textOf(receiver.to())); });
    EXPECT_EQ(told, sent);
}
