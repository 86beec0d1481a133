// Datagrams over UDP (IPv4): unicast, broadcast and multicast, sent and received with the time at which the kernel
// got them.
//
// What a person can get wrong (addresses, interfaces, ports in use) is thrown as std::runtime_error whose text names
// it.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <system_error>

#include <asio/io_context.hpp>
#include <asio/ip/udp.hpp>

namespace tolvin
{

inline constexpr std::uint16_t kDisPort = 3000; // registered for DIS

// Reads HOST[:PORT]: a dotted address or a name, which is looked up, and a port from 0 to 65535.
asio::ip::udp::endpoint parseEndpoint(std::string_view text, std::uint16_t defaultPort = kDisPort);

// Reads the dotted address of an interface of this machine. An empty text leaves the choice to the routing table.
asio::ip::address_v4 parseInterface(std::string_view text);

std::string textOf(const asio::ip::udp::endpoint &endpoint);

// Nanoseconds since 1970 (CLOCK_REALTIME), as arrivals are told.
std::int64_t wallClock();

class UdpSender
{
public:
    // interface: address of the local interface to send from, or any. timeToLive: hops that a multicast datagram may
    // take, 0 (this machine only) to 255. Multicasts come back to receivers on this machine.
    explicit UdpSender(const asio::ip::udp::endpoint &to, const asio::ip::address_v4 &interface = {},
                       int timeToLive = 1);

    // Waits while the socket's buffer is full. An error is that of this datagram alone; later ones may get through.
    std::error_code send(std::span<const std::uint8_t> datagram);

private:
    asio::io_context context_;
    asio::ip::udp::socket socket_;
    asio::ip::udp::endpoint to_;
};

class UdpReceiver
{
public:
    // A datagram of up to 65507 bytes, valid for the call, and when it arrived: nanoseconds of the wall clock
    // (CLOCK_REALTIME), stamped by the kernel.
    using Handler = std::function<void(std::span<const std::uint8_t> datagram, std::int64_t arrival)>;

    // local: an address of this machine or 0.0.0.0, which hears broadcasts as well; or a multicast group, which is
    // joined on the interface with that address. Port 0 takes a free one. Several receivers may share a port: each
    // gets every multicast and broadcast, but only the latest one the unicasts.
    explicit UdpReceiver(const asio::ip::udp::endpoint &local, const asio::ip::address_v4 &interface = {});
    ~UdpReceiver();

    // Hands all datagrams over that wait, then those that come until the deadline, and returns their number. A signal
    // makes it return early. What arrives after the deadline is left for the next call, so that no flood can hold it.
    // Throws std::system_error when the socket fails; errors that the network reports back are passed over.
    std::size_t receiveUntil(std::chrono::steady_clock::time_point deadline, const Handler &handler);

    std::uint16_t localPort() const;

    // Who sent the datagram that the handler is called with, and to which address of this machine, broadcast or group.
    asio::ip::udp::endpoint from() const;
    asio::ip::udp::endpoint to() const;

    // Datagrams lost because the socket's buffer was full, as far as later ones have told.
    std::uint32_t dropped() const
    {
        return dropped_;
    }

private:
    struct Batch;

    std::size_t receiveBatch(const Handler &handler, std::int64_t &waitedSince);
    bool waitUntil(std::chrono::steady_clock::time_point deadline);

    asio::io_context context_;
    asio::ip::udp::socket socket_;
    std::unique_ptr<Batch> batch_;
    std::size_t current_ = 0; // of the batch
    std::uint32_t dropped_ = 0;
};

// Where the receiver was to take a free port, tells which one that is.
void tellPort(const asio::ip::udp::endpoint &asked, const UdpReceiver &receiver,
              const std::function<void(const std::string &line)> &notice);

} // namespace tolvin
