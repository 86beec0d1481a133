#include "packet.h"

#include <algorithm>
#include <limits>
#include <stdexcept>

#include <pcap/dlt.h>

namespace tolvin
{

namespace
{

using asio::ip::address_v4;

constexpr std::uint16_t kEtherIpv4 = 0x0800;
constexpr std::uint16_t kEtherVlans[] = {0x8100, 0x88A8, 0x9100};
constexpr std::uint8_t kUdp = 17;
constexpr std::size_t kIpHeader = 20; // without options
constexpr std::size_t kUdpHeader = 8;
constexpr std::size_t kMostPayload = 65535 - kIpHeader;
constexpr std::int64_t kFragmentLife = 30'000'000'000; // as long as Linux waits
constexpr std::size_t kMostPartials = 64;

// Big-endian, at a place that has been checked.
std::uint16_t wordAt(Octets bytes, std::size_t at)
{
    return static_cast<std::uint16_t>(bytes[at] << 8 | bytes[at + 1]);
}

address_v4 addressAt(Octets bytes, std::size_t at)
{
    return address_v4(std::uint32_t{wordAt(bytes, at)} << 16 | wordAt(bytes, at + 2));
}

// What is behind the EtherType at that place and behind all VLAN tags.
std::optional<Octets> behindEtherType(Octets frame, std::size_t at, std::size_t rest)
{
    while (frame.size() >= rest)
    {
        const std::uint16_t type = wordAt(frame, at);
        if (type == kEtherIpv4)
        {
            return frame.subspan(rest);
        }
        if (std::ranges::find(kEtherVlans, type) == std::end(kEtherVlans))
        {
            return std::nullopt;
        }
        at = rest + 2;
        rest += 4;
    }
    return std::nullopt;
}

// The address family is in the byte order of the machine that captured; that of IPv4 is 2 on all.
std::optional<Octets> behindFamily(Octets frame)
{
    const bool isIpv4 = frame.size() >= 4 && frame[1] == 0 && frame[2] == 0 &&
                        ((frame[0] == 2 && frame[3] == 0) || (frame[0] == 0 && frame[3] == 2));
    return isIpv4 ? std::optional(frame.subspan(4)) : std::nullopt;
}

void put16(std::vector<std::uint8_t> &bytes, std::size_t number)
{
    bytes.push_back(static_cast<std::uint8_t>(number >> 8));
    bytes.push_back(static_cast<std::uint8_t>(number));
}

// RFC 1071, of what follows a sum.
std::uint16_t checksum(Octets bytes, std::uint32_t sum = 0)
{
    for (std::size_t i = 0; i < bytes.size(); ++i)
    {
        sum += i % 2 == 0 ? std::uint32_t{bytes[i]} << 8 : bytes[i];
    }
    while (sum > 0xFFFF)
    {
        sum = (sum & 0xFFFF) + (sum >> 16);
    }
    return static_cast<std::uint16_t>(~sum);
}

void write16(std::vector<std::uint8_t> &bytes, std::size_t at, std::uint16_t number)
{
    bytes[at] = static_cast<std::uint8_t>(number >> 8);
    bytes[at + 1] = static_cast<std::uint8_t>(number);
}

} // namespace

bool isKnownLinkType(int linkType)
{
    constexpr int kKnown[] = {DLT_EN10MB, DLT_RAW, DLT_IPV4, DLT_LINUX_SLL, DLT_LINUX_SLL2, DLT_NULL, DLT_LOOP};
    return std::ranges::find(kKnown, linkType) != std::end(kKnown);
}

std::optional<Octets> ipv4Within(int linkType, Octets frame)
{
    switch (linkType)
    {
    case DLT_EN10MB:
        return behindEtherType(frame, 12, 14);
    case DLT_LINUX_SLL:
        return behindEtherType(frame, 14, 16);
    case DLT_LINUX_SLL2:
        return behindEtherType(frame, 0, 20);
    case DLT_NULL:
    case DLT_LOOP:
        return behindFamily(frame);
    default:
        return frame;
    }
}

std::optional<UdpPacket> parseIpv4(Octets packet)
{
    if (packet.size() < kIpHeader)
    {
        return std::nullopt;
    }
    const std::size_t header = (packet[0] & 15u) * 4;
    const std::size_t size = wordAt(packet, 2);
    if (packet[0] >> 4 != 4 || header < kIpHeader || size < header || size > packet.size() || packet[9] != kUdp)
    {
        return std::nullopt;
    }
    const std::uint16_t fragment = wordAt(packet, 6);
    return UdpPacket{addressAt(packet, 12),    addressAt(packet, 16),    wordAt(packet, 4),
                     (fragment & 0x1FFFu) * 8, (fragment & 0x2000) == 0, packet.subspan(header, size - header)};
}

std::optional<UdpDatagram> parseUdp(const address_v4 &from, const address_v4 &to, Octets payload)
{
    const std::size_t size = payload.size() < kUdpHeader ? 0 : wordAt(payload, 4);
    if (size < kUdpHeader || size > payload.size())
    {
        return std::nullopt;
    }
    return UdpDatagram{
        {from, wordAt(payload, 0)}, {to, wordAt(payload, 2)}, payload.subspan(kUdpHeader, size - kUdpHeader)};
}

std::vector<std::uint8_t> packetOf(const UdpDatagram &datagram)
{
    if (datagram.bytes.size() > kMostDatagramBytes)
    {
        throw std::invalid_argument("a datagram of more than 65507 bytes");
    }
    std::vector<std::uint8_t> packet;
    const std::size_t udpSize = kUdpHeader + datagram.bytes.size();
    packet.reserve(kIpHeader + udpSize);
    put16(packet, 0x4500);
    put16(packet, kIpHeader + udpSize);
    put16(packet, 0);              // needed for fragments only
    put16(packet, 0x4000);         // not to be fragmented
    put16(packet, 64 << 8 | kUdp); // hops
    put16(packet, 0);              // checksum
    for (const auto &address : {datagram.from.address().to_v4(), datagram.to.address().to_v4()})
    {
        put16(packet, address.to_uint() >> 16);
        put16(packet, address.to_uint());
    }
    write16(packet, 10, checksum(packet));
    put16(packet, datagram.from.port());
    put16(packet, datagram.to.port());
    put16(packet, udpSize);
    put16(packet, 0); // checksum
    packet.insert(packet.end(), datagram.bytes.begin(), datagram.bytes.end());
    // RFC 768: over both addresses, the protocol and the length as well; 0 would say that there is none.
    const std::uint16_t sum = checksum(Octets(packet).subspan(12), static_cast<std::uint32_t>(kUdp + udpSize));
    write16(packet, 26, sum == 0 ? 0xFFFF : sum);
    return packet;
}

// Those whose rest will not come any more, and in a flood of them the oldest.
void FragmentAssembler::makeRoom(std::int64_t time)
{
    std::erase_if(partials_, [time](const auto &item) { return time - item.second.begun > kFragmentLife; });
    if (partials_.size() > kMostPartials)
    {
        partials_.erase(std::ranges::min_element(partials_, {}, [](const auto &item) { return item.second.begun; }));
    }
}

// False for what cannot be a part of the same packet as the others.
bool FragmentAssembler::put(Partial &partial, const UdpPacket &fragment)
{
    const std::size_t end = fragment.offset + fragment.payload.size();
    if (fragment.isLast)
    {
        if (partial.size.value_or(end) != end || end < partial.bytes.size())
        {
            return false;
        }
        partial.size = end;
    }
    if (end > partial.size.value_or(kMostPayload) || end > kMostPayload)
    {
        return false;
    }
    if (end > partial.bytes.size())
    {
        partial.bytes.resize(end);
        partial.isThere.resize(end);
    }
    std::ranges::copy(fragment.payload, partial.bytes.begin() + static_cast<std::ptrdiff_t>(fragment.offset));
    for (std::size_t i = fragment.offset; i < end; ++i)
    {
        partial.filled += !partial.isThere[i];
        partial.isThere[i] = true;
    }
    ++partial.fragments;
    return true;
}

std::optional<FragmentAssembler::Whole> FragmentAssembler::add(const UdpPacket &fragment, std::int64_t time)
{
    const auto old = partials_.find({fragment.from, fragment.to, fragment.id});
    if (old != partials_.end() && time - old->second.begun > kFragmentLife)
    {
        partials_.erase(old); // the number is used again
    }
    const auto [place, isNew] = partials_.try_emplace({fragment.from, fragment.to, fragment.id}, Partial{time});
    if (!put(place->second, fragment))
    {
        partials_.erase(place);
        return std::nullopt;
    }
    if (place->second.filled == place->second.size)
    {
        const std::uint64_t fragments = place->second.fragments;
        whole_ = std::move(place->second.bytes);
        partials_.erase(place);
        return Whole{whole_, fragments};
    }
    if (isNew)
    {
        makeRoom(time);
    }
    return std::nullopt;
}

} // namespace tolvin
