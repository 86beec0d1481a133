#include "udp.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <ctime>
#include <optional>
#include <stdexcept>

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <asio/ip/multicast.hpp>

namespace tolvin
{

namespace
{

using asio::ip::udp;

constexpr std::size_t kBatchSize = 32;
constexpr std::size_t kMostBytes = 65536; // more than any UDP datagram has
constexpr int kReceiveBuffer = 8 << 20;   // bytes; the kernel takes twice that and charges 768 for a report

// Layout of SO_TIMESTAMPNS_NEW, the same on every target.
struct KernelTime
{
    std::int64_t seconds;
    std::int64_t nanoseconds;
};

std::runtime_error failure(const std::string &what, const std::string &expected)
{
    return std::runtime_error(what + ": " + expected);
}

asio::ip::address_v4 lookUp(const std::string &host)
{
    asio::io_context context;
    asio::error_code error;
    const auto found = udp::resolver(context).resolve(udp::v4(), host, "", error);
    if (error || found.empty())
    {
        throw failure(host, "no IPv4 address found for this name (" + error.message() + ")");
    }
    return found.begin()->endpoint().address().to_v4();
}

// Runs a set-up step and turns its error into one that says what was attempted.
template<typename Step>
void attempt(const std::string &what, Step step)
{
    asio::error_code error;
    step(error);
    if (error)
    {
        throw failure(what, error.message());
    }
}

bool setOption(udp::socket &socket, int option, int value)
{
    return setsockopt(socket.native_handle(), SOL_SOCKET, option, &value, sizeof value) == 0;
}

udp::endpoint endpointOf(const in_addr &address, std::uint16_t port)
{
    return {asio::ip::address_v4(ntohl(address.s_addr)), port};
}

// Errors of earlier datagrams and of the network, which pass.
bool isPassing(int error)
{
    constexpr std::array kPassing = {ECONNREFUSED, EHOSTUNREACH, EHOSTDOWN, ENETUNREACH, ENETDOWN, ENOBUFS, ENOMEM};
    return std::ranges::find(kPassing, error) != kPassing.end();
}

} // namespace

std::int64_t wallClock()
{
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

asio::ip::udp::endpoint parseEndpoint(std::string_view text, std::uint16_t defaultPort)
{
    const std::string_view host = text.substr(0, text.find(':'));
    std::uint16_t port = defaultPort;
    bool valid = !host.empty();
    if (host.size() < text.size())
    {
        const char *const last = text.data() + text.size();
        const auto [end, error] = std::from_chars(text.data() + host.size() + 1, last, port);
        valid = valid && error == std::errc() && end == last;
    }
    if (!valid)
    {
        throw failure(std::string(text), "expected HOST[:PORT], HOST an IPv4 address or a name, PORT from 0 to 65535");
    }
    asio::error_code error;
    const auto address = asio::ip::make_address_v4(host, error);
    if (error && host.find_first_not_of("0123456789.") == std::string_view::npos)
    {
        throw failure(std::string(text), "expected four numbers from 0 to 255 in the IPv4 address");
    }
    return {error ? lookUp(std::string(host)) : address, port};
}

asio::ip::address_v4 parseInterface(std::string_view text)
{
    asio::error_code error;
    const auto address = text.empty() ? asio::ip::address_v4::any() : asio::ip::make_address_v4(text, error);
    if (error)
    {
        throw failure(std::string(text), "expected the IPv4 address of a local interface");
    }
    return address;
}

std::string textOf(const asio::ip::udp::endpoint &endpoint)
{
    return endpoint.address().to_string() + ":" + std::to_string(endpoint.port());
}

UdpSender::UdpSender(const udp::endpoint &to, const asio::ip::address_v4 &interface, int timeToLive)
    : socket_(context_),
      to_(to)
{
    using namespace asio::ip::multicast;
    const std::string name = textOf(to);
    if (to.port() == 0)
    {
        throw failure(name, "expected a port from 1 to 65535 to send to");
    }
    attempt(name + ": cannot open a socket", [&](auto &error) { socket_.open(udp::v4(), error); });
    attempt(name + ": broadcast", [&](auto &error) { socket_.set_option(udp::socket::broadcast(true), error); });
    if (!interface.is_unspecified())
    {
        attempt(name + ": cannot send from interface " + interface.to_string(),
                [&](auto &error) {
                    socket_.bind({interface, 0}, error);
                });
    }
    if (to.address().is_multicast())
    {
        attempt(name + ": time to live", [&](auto &error) { socket_.set_option(hops(timeToLive), error); });
        attempt(name + ": loopback", [&](auto &error) { socket_.set_option(enable_loopback(true), error); });
        attempt(name + ": cannot send multicasts from interface " + interface.to_string(),
                [&](auto &error) { socket_.set_option(outbound_interface(interface), error); });
    }
}

std::error_code UdpSender::send(std::span<const std::uint8_t> datagram)
{
    // Not connected: an ICMP message about an earlier datagram, say that nobody listens, is no error of this one.
    asio::error_code error;
    socket_.send_to(asio::buffer(datagram.data(), datagram.size()), to_, 0, error);
    return error;
}

// Buffers of one recvmmsg call.
struct UdpReceiver::Batch
{
    struct alignas(cmsghdr) Control
    {
        std::array<unsigned char, 256> bytes;
    };

    std::array<mmsghdr, kBatchSize> messages{};
    std::array<iovec, kBatchSize> vectors{};
    std::array<Control, kBatchSize> controls{};
    std::array<sockaddr_in, kBatchSize> sources{};
    // Not cleared, so that pages which no datagram reaches are never touched.
    std::unique_ptr<std::uint8_t[]> bytes = std::make_unique_for_overwrite<std::uint8_t[]>(kBatchSize * kMostBytes);

    Batch()
    {
        for (std::size_t i = 0; i < kBatchSize; ++i)
        {
            vectors[i] = {bytes.get() + i * kMostBytes, kMostBytes};
            messages[i].msg_hdr.msg_iov = &vectors[i];
            messages[i].msg_hdr.msg_iovlen = 1;
            messages[i].msg_hdr.msg_control = controls[i].bytes.data();
            messages[i].msg_hdr.msg_name = &sources[i];
        }
    }

    // Reads what waits and does not block. Number of datagrams, or -1 with errno.
    int receive(int socket)
    {
        for (std::size_t i = 0; i < kBatchSize; ++i)
        {
            messages[i].msg_hdr.msg_controllen = sizeof(Control); // the kernel shortens both
            messages[i].msg_hdr.msg_namelen = sizeof(sockaddr_in);
        }
        return recvmmsg(socket, messages.data(), kBatchSize, MSG_DONTWAIT, nullptr);
    }

    std::span<const std::uint8_t> datagram(std::size_t i) const
    {
        return {bytes.get() + i * kMostBytes, messages[i].msg_len};
    }

    template<typename Value>
    std::optional<Value> ancillary(std::size_t i, int level, int type)
    {
        msghdr *const header = &messages[i].msg_hdr;
        for (cmsghdr *c = CMSG_FIRSTHDR(header); c != nullptr; c = CMSG_NXTHDR(header, c))
        {
            if (c->cmsg_level == level && c->cmsg_type == type && c->cmsg_len >= CMSG_LEN(sizeof(Value)))
            {
                Value value;
                std::memcpy(&value, CMSG_DATA(c), sizeof value);
                return value;
            }
        }
        return std::nullopt;
    }
};

UdpReceiver::UdpReceiver(const udp::endpoint &local, const asio::ip::address_v4 &interface)
    : socket_(context_),
      batch_(std::make_unique<Batch>())
{
    const std::string name = textOf(local);
    attempt(name + ": cannot open a socket", [&](auto &error) { socket_.open(udp::v4(), error); });
    attempt(name + ": address reuse",
            [&](auto &error) { socket_.set_option(udp::socket::reuse_address(true), error); });
    // Bound to a group's own address the socket hears nothing but that group.
    attempt(name + ": cannot receive here", [&](auto &error) { socket_.bind(local, error); });
    if (local.address().is_multicast())
    {
        const int onlyJoined = 0; // and not what others on this machine have joined, on other interfaces
        setsockopt(socket_.native_handle(), IPPROTO_IP, IP_MULTICAST_ALL, &onlyJoined, sizeof onlyJoined);
        const asio::ip::multicast::join_group join(local.address().to_v4(), interface);
        attempt(name + ": cannot join this group on interface " + interface.to_string(),
                [&](auto &error) { socket_.set_option(join, error); });
    }
    // Only a privileged process may pass the system's limit; the others get as much as that allows.
    if (!setOption(socket_, SO_RCVBUFFORCE, kReceiveBuffer))
    {
        setOption(socket_, SO_RCVBUF, kReceiveBuffer);
    }
    // Where the kernel has no such stamps or counts, the clock is read instead and no drops are known.
    setOption(socket_, SO_TIMESTAMPNS_NEW, 1);
    setOption(socket_, SO_RXQ_OVFL, 1);
    const int wanted = 1;
    setsockopt(socket_.native_handle(), IPPROTO_IP, IP_PKTINFO, &wanted, sizeof wanted);
}

UdpReceiver::~UdpReceiver() = default;

std::uint16_t UdpReceiver::localPort() const
{
    return socket_.local_endpoint().port();
}

udp::endpoint UdpReceiver::from() const
{
    const sockaddr_in &source = batch_->sources[current_];
    return endpointOf(source.sin_addr, ntohs(source.sin_port));
}

udp::endpoint UdpReceiver::to() const
{
    const udp::endpoint local = socket_.local_endpoint();
    const auto info = batch_->ancillary<in_pktinfo>(current_, IPPROTO_IP, IP_PKTINFO);
    return info ? endpointOf(info->ipi_addr, local.port()) : local;
}

// Hands over one batch of waiting datagrams. Returns their number, 0 when none waits. waitedSince is when the last of
// them arrived, 0 if it may have come only now. That is also what a datagram looks like that arrived before stamping,
// which takes a moment to start after a socket asked for it, had begun: the kernel then stamps it when it is read.
std::size_t UdpReceiver::receiveBatch(const Handler &handler, std::int64_t &waitedSince)
{
    const std::int64_t asked = wallClock();
    const int received = batch_->receive(socket_.native_handle());
    if (received < 0)
    {
        if (errno != EAGAIN && errno != EINTR && !isPassing(errno))
        {
            throw std::system_error(errno, std::generic_category(), "receiving datagrams");
        }
        return 0;
    }
    const auto count = static_cast<std::size_t>(received);
    for (std::size_t i = 0; i < count; ++i)
    {
        const auto time = batch_->ancillary<KernelTime>(i, SOL_SOCKET, SO_TIMESTAMPNS_NEW);
        const std::int64_t arrival = time ? time->seconds * 1'000'000'000 + time->nanoseconds : asked;
        waitedSince = arrival <= asked ? arrival : 0;
        dropped_ = batch_->ancillary<std::uint32_t>(i, SOL_SOCKET, SO_RXQ_OVFL).value_or(dropped_);
        current_ = i;
        handler(batch_->datagram(i), arrival);
    }
    return count;
}

// False when a signal ended the wait.
bool UdpReceiver::waitUntil(std::chrono::steady_clock::time_point deadline)
{
    using namespace std::chrono;
    const nanoseconds left = std::max<nanoseconds>(deadline - steady_clock::now(), nanoseconds(0));
    // A day at a time: more could overflow the 32-bit seconds of i386.
    const auto wholeSeconds = std::min<std::int64_t>(duration_cast<seconds>(left).count(), 86'400);
    const timespec timeout = {static_cast<std::time_t>(wholeSeconds), static_cast<long>((left % seconds(1)).count())};
    pollfd descriptor = {socket_.native_handle(), POLLIN, 0};
    const int ready = ppoll(&descriptor, 1, &timeout, nullptr);
    if (ready < 0 && errno != EINTR)
    {
        throw std::system_error(errno, std::generic_category(), "waiting for datagrams");
    }
    return ready >= 0;
}

std::size_t UdpReceiver::receiveUntil(std::chrono::steady_clock::time_point deadline, const Handler &handler)
{
    std::size_t total = 0;
    std::optional<std::int64_t> end; // on the wall clock, once the deadline has passed
    while (true)
    {
        if (!end && std::chrono::steady_clock::now() >= deadline)
        {
            end = wallClock();
        }
        std::int64_t waitedSince = 0;
        const std::size_t count = receiveBatch(handler, waitedSince);
        total += count;
        const bool drained = count == 0;
        if (end ? drained || waitedSince >= *end : drained && !waitUntil(deadline))
        {
            return total;
        }
    }
}

void tellPort(const udp::endpoint &asked, const UdpReceiver &receiver,
              const std::function<void(const std::string &line)> &notice)
{
    if (asked.port() == 0)
    {
        notice("receiving on " + textOf(udp::endpoint(asked.address(), receiver.localPort())));
    }
}

} // namespace tolvin
