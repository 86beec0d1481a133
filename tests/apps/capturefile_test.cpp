#include "support/capture.h"

#include <tolvin/apps/capturefile.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>
#include <tuple>
#include <vector>

#include <sys/resource.h>
#include <unistd.h>

#include <gtest/gtest.h>

using namespace tolvin;
using Bytes = std::vector<std::uint8_t>;

namespace
{

const std::string kFile = testing::TempDir() + "capturefile_test." + std::to_string(getpid()) + ".pcap";

Bytes big(std::uint64_t number, int width)
{
    Bytes bytes;
    while (width-- > 0)
    {
        bytes.push_back(static_cast<std::uint8_t>(number >> 8 * width));
    }
    return bytes;
}

Bytes joined(const std::vector<Bytes> &parts)
{
    Bytes all;
    for (const Bytes &part : parts)
    {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

Bytes udp(const Bytes &content)
{
    return joined({big(0x0BB8'1F90, 4), big(8 + content.size(), 2), big(0, 2), content}); // from port 3000 to 8080
}

// From 10.0.0.1 to 10.0.0.255. fragment: flags and offset as they are on the wire.
Bytes ipv4(const Bytes &payload, std::uint16_t id = 0, std::uint16_t fragment = 0x4000, std::uint8_t protocol = 17)
{
    return joined({big(0x4500, 2), big(20 + payload.size(), 2), big(id, 2), big(fragment, 2), big(0x40, 1),
                   big(protocol, 1), big(0, 2), big(0x0A00'0001'0A00'00FF, 8), payload});
}

struct Frame
{
    Bytes bytes;
    std::uint32_t seconds = 0;
    std::size_t cut = 0; // bytes that are not in the file
};

// A pcap file in big-endian order, with microseconds.
Bytes pcapOf(std::uint32_t linkType, const std::vector<Frame> &frames)
{
    Bytes file = joined({big(0xA1B2'C3D4'0002'0004, 8), big(0, 8), big(65535, 4), big(linkType, 4)});
    for (const Frame &frame : frames)
    {
        const Bytes kept(frame.bytes.begin(), frame.bytes.end() - static_cast<std::ptrdiff_t>(frame.cut));
        file = joined({file, big(frame.seconds, 4), big(7, 4), big(kept.size(), 4), big(frame.bytes.size(), 4), kept});
    }
    return file;
}

struct Found
{
    std::vector<Bytes> contents;
    std::vector<std::int64_t> times;
    std::string ends; // the addresses of the last one
    std::uint64_t skipped;
};

Found readAll(CaptureReader &reader)
{
    Found found = {};
    for (CapturedDatagram datagram; reader.next(datagram);)
    {
        found.contents.emplace_back(datagram.bytes.begin(), datagram.bytes.end());
        found.times.push_back(datagram.time);
        found.ends = datagram.from.address().to_string() + ":" + std::to_string(datagram.from.port()) + " " +
                     datagram.to.address().to_string() + ":" + std::to_string(datagram.to.port());
    }
    found.skipped = reader.skipped();
    return found;
}

Found foundIn(Bytes file)
{
    CaptureReader reader(fmemopen(file.data(), file.size(), "rb"), "memory");
    return readAll(reader);
}

} // namespace

TEST(CaptureFile, ReadsWhatItWrote)
{
    const asio::ip::udp::endpoint from(asio::ip::make_address("192.0.2.7"), 40000),
        to(asio::ip::make_address("239.1.2.3"), 3000);
    const std::vector<Bytes> contents = {{}, {9}, Bytes(1400, 3), Bytes(8193, 4), Bytes(65507, 5)};
    // The last of what 32 bits of seconds can tell, in 2106; and past 2038.
    const std::vector<std::int64_t> times = {0, 1, 2'200'000'000'123'456'789, 1'800'000'000'999'999'999,
                                             4'294'967'295'000'000'001};
    CaptureWriter writer(kFile);
    for (std::size_t i = 0; i < contents.size(); ++i)
    {
        writer.write({times[i], from, to, contents[i]});
    }
    EXPECT_THROW(writer.write({0, from, to, Bytes(65508)}), std::invalid_argument);
    writer.close();
    CaptureReader reader(kFile);
    const Found found = readAll(reader);
    EXPECT_TRUE(found.contents == contents);
    EXPECT_EQ(found.times, times);
    EXPECT_EQ(found.ends, "192.0.2.7:40000 239.1.2.3:3000");
    EXPECT_EQ(found.skipped, 0u);
    std::filesystem::remove(kFile);
}

TEST(CaptureFile, KnowsLinkTypes)
{
    const Bytes content = {1, 2, 3};
    const Bytes macs(12, 0xEE), padding(4, 0xAA);
    for (const auto &[linkType, before] : std::vector<std::tuple<std::uint32_t, Bytes>>{
             {1, joined({macs, big(0x0800, 2)})},
             {1, joined({macs, big(0x8100'0005'0800, 6)})},
             {1, joined({macs, big(0x88A8'0005'8100, 6), big(0x0006'0800, 4)})},
             {12, {}},
             {101, {}},
             {228, {}},
             {113, joined({Bytes(14, 0xEE), big(0x0800, 2)})},
             {276, joined({big(0x0800, 2), Bytes(18, 0xEE)})},
             {0, big(2, 4)},
             {0, big(0x0200'0000, 4)},
             {108, big(2, 4)}})
    {
        SCOPED_TRACE(linkType);
        Bytes withOptions = ipv4(joined({Bytes(4, 0x01), udp(content)}));
        withOptions[0] = 0x46; // no operations, before the UDP header
        Bytes wrong = before;
        wrong.resize(std::max<std::size_t>(wrong.size(), 1));
        wrong[linkType == 276 ? 1 : wrong.size() - 1] ^= 0x40; // another protocol
        const std::vector<Frame> frames = {{joined({before, ipv4(udp(content)), padding})},
                                           {joined({before, withOptions, padding})},
                                           {joined({wrong, ipv4(udp(content))})},
                                           {joined({before, ipv4(udp(content), 0, 0, 6)})}, // TCP
                                           {before}};
        const Found found = foundIn(pcapOf(linkType, frames));
        EXPECT_EQ(found.contents, (std::vector<Bytes>(2, content)));
        EXPECT_EQ(found.times, std::vector<std::int64_t>(2, 7000));
        EXPECT_EQ(found.ends, "10.0.0.1:3000 10.0.0.255:8080");
        EXPECT_EQ(found.skipped, 3u);
        for (std::size_t cut = 1; cut <= frames[1].bytes.size(); ++cut) // the padding may be missing
        {
            EXPECT_EQ(foundIn(pcapOf(linkType, {{frames[1].bytes, 0, cut}})).contents.size(), cut <= 4 ? 1u : 0u)
                << cut;
        }
    }
    EXPECT_NE(
        refusalOf([] { foundIn(pcapOf(105, {})); }).find("memory: a capture of 802.11 packets; expected Ethernet"),
        std::string::npos);
}

TEST(CaptureFile, PutsFragmentsTogether)
{
    Bytes content(3000);
    for (std::size_t i = 0; i < content.size(); ++i)
    {
        content[i] = static_cast<std::uint8_t>(i / 8);
    }
    const Bytes whole = udp(content);
    const auto piece = [&](std::size_t first, std::size_t last, std::uint16_t id = 1, std::uint32_t seconds = 0)
    {
        const auto at = static_cast<std::uint16_t>(first / 8 | (last < whole.size() ? 0x2000u : 0u));
        return Frame{ipv4({whole.begin() + static_cast<std::ptrdiff_t>(first),
                           whole.begin() + static_cast<std::ptrdiff_t>(last)},
                          id, at),
                     seconds};
    };
    const std::size_t end = whole.size();
    std::vector<Frame> flood = {piece(0, 1000)};
    for (std::uint16_t id = 2; id < 70; ++id)
    {
        flood.push_back(piece(0, 8, id, 1));
    }
    flood.push_back(piece(1000, end));
    for (const auto &[frames, wholes, skipped] : std::vector<std::tuple<std::vector<Frame>, std::size_t, std::size_t>>{
             {{piece(0, 1000), piece(1000, 2000), piece(2000, end)}, 1, 0},
             {{piece(2000, end, 2), piece(2000, end), piece(0, 2000, 2), piece(1000, 2000), piece(0, 1000)}, 2, 0},
             {{piece(0, 1000), piece(0, 1000), piece(800, 2000), piece(2000, end)}, 1, 0}, // twice, and overlapping
             {{piece(0, 1000), piece(2000, end)}, 0, 2},                                   // a gap
             {{piece(0, 1000), piece(1000, 2000, 2), piece(1000, end, 3)}, 0, 3},          // of different packets
             {{piece(0, 1000), piece(1000, end, 1, 30)}, 1, 0},
             {{piece(0, 1000), piece(0, 8, 2, 31), piece(1000, end, 1, 31)}, 0, 3}, // too late
             {flood, 0, 70},
             {{{ipv4(whole, 1, 0x1FFF)}}, 0, 1},                                       // beyond what a packet may have
             {{{ipv4(Bytes(800), 1, 0x2000 | 200)}, {ipv4(Bytes(8), 1, 100)}}, 0, 2}}) // behind its end
    {
        SCOPED_TRACE(frames.size());
        const Found found = foundIn(pcapOf(228, frames));
        EXPECT_TRUE(found.contents == std::vector<Bytes>(wholes, content));
        EXPECT_EQ(found.skipped, skipped);
    }
}

// A section, an interface of Ethernet whose clock counts nanoseconds, and a packet.
TEST(CaptureFile, ReadsPcapng)
{
    const Bytes frame = joined({Bytes(12), big(0x0800, 2), ipv4(udp({5, 6}))}); // 44 bytes
    const Bytes file =
        joined({big(0x0A0D'0D0A'0000'001C, 8), big(0x1A2B'3C4D'0001'0000, 8), Bytes(8, 0xFF), big(28, 4),
                big(0x0000'0001'0000'0020, 8), big(0x0001'0000'0000'0000, 8), big(0x0009'0001'0900'0000, 8), big(0, 4),
                big(32, 4), big(0x0000'0006'0000'004C, 8), big(0, 4), big(1'700'000'000'123'456'789, 8), big(44, 4),
                big(44, 4), frame, big(76, 4)});
    const Found found = foundIn(file);
    EXPECT_EQ(found.contents, (std::vector<Bytes>{{5, 6}}));
    EXPECT_EQ(found.times, std::vector<std::int64_t>{1'700'000'000'123'456'789});
}

// Every beginning of a file gives what is there as a whole; what is missing is told.
TEST(CaptureFile, TellsWhatCannotBeRead)
{
    const Bytes file = pcapOf(228, {{ipv4(udp({1}))}, {ipv4(udp({2}))}});
    const std::size_t first = 24 + 16 + 29, second = first + 16 + 29;
    ASSERT_EQ(file.size(), second);
    for (std::size_t size = 1; size < second; ++size)
    {
        Bytes part(file.begin(), file.begin() + static_cast<std::ptrdiff_t>(size));
        std::size_t count = 0;
        const auto read = [&]
        {
            CaptureReader reader(fmemopen(part.data(), part.size(), "rb"), "memory");
            for (CapturedDatagram datagram; reader.next(datagram); ++count)
            {
            }
        };
        EXPECT_EQ(refusalOf(read).starts_with("memory: "), size != 24 && size != first) << size;
        EXPECT_EQ(count, size >= first ? 1u : 0u) << size;
    }
    EXPECT_EQ(refusalOf([] { CaptureReader("/nonexistent/x"); }), "/nonexistent/x: No such file or directory");
    EXPECT_TRUE(refusalOf([] { CaptureReader(testing::TempDir()); }).starts_with(testing::TempDir() + ": "));
    EXPECT_EQ(refusalOf([] { CaptureWriter("/nonexistent/x"); }), "/nonexistent/x: No such file or directory");
    EXPECT_TRUE(refusalOf([] { CaptureWriter("/dev/full"); }).starts_with("/dev/full: No space left on device"));
}

// There is room for 100 packets, and some of the next one.
TEST(CaptureFile, KeepsWholePacketsWhenThereIsNoRoom)
{
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit former;
    getrlimit(RLIMIT_FSIZE, &former);
    const rlimit small = {24 + 100 * (16 + 28 + 100) + 70, former.rlim_max};
    for (const int perFlush : {1, 7, 1000})
    {
        CaptureWriter writer(kFile);
        setrlimit(RLIMIT_FSIZE, &small);
        const auto fill = [&]
        {
            const asio::ip::udp::endpoint end(asio::ip::address_v4::loopback(), 3000);
            for (int i = 1; i < 5000; ++i)
            {
                writer.write({i, end, end, Bytes(100, 1)});
                if (i % perFlush == 0)
                {
                    writer.flush();
                }
            }
        };
        EXPECT_EQ(refusalOf(fill), kFile + ": File too large");
        setrlimit(RLIMIT_FSIZE, &former);
        CaptureReader reader(kFile);
        EXPECT_EQ(readAll(reader).contents.size(), 100u);
    }
    std::filesystem::remove(kFile);
}

TEST(CaptureFile, HasWholePacketsAtAnyTime)
{
    CaptureWriter writer(kFile);
    const asio::ip::udp::endpoint end(asio::ip::address_v4::loopback(), 3000);
    for (int i = 1; i < 1000; ++i)
    {
        writer.write({i, end, end, Bytes(972, 1)});
        ASSERT_EQ((std::filesystem::file_size(kFile) - 24) % (16 + 28 + 972), 0u) << i;
    }
    std::filesystem::remove(kFile);
}
