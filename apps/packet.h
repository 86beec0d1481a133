// Packets as captures have them: from the link layer down to the UDP datagram, and back. Whatever a file can hold is safe to hand
// in: what is not there as a whole comes back as nothing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <tuple>
#include <vector>

#include <asio/ip/udp.hpp>

namespace tolvin
{

using Octets = std::span<const std::uint8_t>;

// Link types are libpcap's DLT_ numbers.
bool isKnownLinkType(int linkType);

// The IPv4 packet in a frame, and whatever fills the frame up behind it. None when it carries anything else.
std::optional<Octets> ipv4Within(int linkType, Octets frame);

// A packet of UDP, or a fragment of one (RFC 791).
struct UdpPacket
{
    asio::ip::address_v4 from;
    asio::ip::address_v4 to;
    std::uint16_t id;   // which fragments of one packet share
    std::size_t offset; // of the payload within that of the whole packet
    bool isLast;        // nothing follows the payload
    Octets payload;     // part of the packet
};

// The packet without what is behind it. None when it is not there as a whole, or not one of UDP.
std::optional<UdpPacket> parseIpv4(Octets packet);

struct UdpDatagram
{
    asio::ip::udp::endpoint from;
    asio::ip::udp::endpoint to;
    Octets bytes;
};

// Checksums are not looked at: those of packets that a machine sends itself are captured before they are there.
std::optional<UdpDatagram> parseUdp(const asio::ip::address_v4 &from, const asio::ip::address_v4 &to, Octets payload);

inline constexpr std::size_t kMostDatagramBytes = 65507;

// The packet of a datagram of at most that many bytes, with all checksums. Both addresses are IPv4.
std::vector<std::uint8_t> packetOf(const UdpDatagram &datagram);

// Puts fragments together, whatever order they come in. What they do not fill stays for 30 seconds of the capture, and while there
// are no more than 64 such.
class FragmentAssembler
{
public:
    struct Whole
    {
        Octets payload; // until the next call
        std::uint64_t fragments;
    };

    // The payload of the packet that has become whole with this fragment. time is in nanoseconds.
    std::optional<Whole> add(const UdpPacket &fragment, std::int64_t time);

private:
    using Key = std::tuple<asio::ip::address_v4, asio::ip::address_v4, std::uint16_t>;

    struct Partial
    {
        std::int64_t begun;
        std::uint64_t fragments = 0;
        std::optional<std::size_t> size{}; // of the whole, once its end is there
        std::size_t filled = 0;
        std::vector<std::uint8_t> bytes{};
        std::vector<bool> isThere{}; // for each of bytes
    };

    void makeRoom(std::int64_t time);
    static bool put(Partial &partial, const UdpPacket &fragment);

    std::map<Key, Partial> partials_;
    std::vector<std::uint8_t> whole_;
};

} // namespace tolvin
