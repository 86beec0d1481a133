// Any bytes as a capture: what is found lies in them and is no more than UDP can carry, and a capture written of it has it again.
// The library that takes files apart is not instrumented, so the bytes are packets of every link type as well.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include <tolvin/apps/capturefile.h>

#include <pcap/dlt.h>

using namespace tolvin;

static void require(bool condition)
{
    if (!condition)
    {
        std::abort();
    }
}

static void checkFile(std::vector<std::uint8_t> bytes)
{
    try
    {
        CaptureReader reader(fmemopen(bytes.data(), bytes.size(), "rb"), "memory");
        for (CapturedDatagram datagram; reader.next(datagram);)
        {
            require(datagram.time >= 0 && datagram.bytes.size() <= kMostDatagramBytes);
            const std::vector<std::uint8_t> packet = packetOf({datagram.from, datagram.to, datagram.bytes});
            const auto parsed = parseIpv4(packet);
            require(parsed && parsed->offset == 0 && parsed->isLast);
            const auto again = parseUdp(parsed->from, parsed->to, parsed->payload);
            require(again && again->from == datagram.from && again->to == datagram.to);
            require(std::vector(again->bytes.begin(), again->bytes.end()) ==
                    std::vector(datagram.bytes.begin(), datagram.bytes.end()));
        }
    }
    catch (const std::runtime_error &)
    {
    }
}

// Packets of a byte of length and that many bytes each.
static void checkPackets(const std::uint8_t *data, std::size_t size)
{
    FragmentAssembler fragments;
    for (std::size_t at = 0; at < size; at += 1 + data[at])
    {
        const std::vector<std::uint8_t> frame(data + at + 1, data + std::min<std::size_t>(size, at + 1 + data[at]));
        for (const int linkType : {DLT_EN10MB, DLT_RAW, DLT_LINUX_SLL, DLT_LINUX_SLL2, DLT_NULL})
        {
            const auto within = ipv4Within(linkType, frame);
            const auto packet = within ? parseIpv4(*within) : std::nullopt;
            const auto whole = packet ? fragments.add(*packet, static_cast<std::int64_t>(at) << 25) : std::nullopt;
            const auto datagram = whole ? parseUdp(packet->from, packet->to, whole->payload) : std::nullopt;
            require(!datagram || (whole->fragments > 0 && datagram->bytes.size() <= kMostDatagramBytes));
        }
    }
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    checkFile({data, data + size});
    checkPackets(data, size);
    return 0;
}
