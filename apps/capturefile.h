// UDP datagrams in capture files: read from pcap and pcapng, written as pcap.
#pragma once

#include "packet.h"

#include <cstdint>
#include <cstdio>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include <sys/types.h>

#include <asio/ip/udp.hpp>

struct pcap;
struct pcap_dumper;

namespace tolvin
{

struct CapturedDatagram
{
    std::int64_t time; // nanoseconds since 1970, not negative
    asio::ip::udp::endpoint from;
    asio::ip::udp::endpoint to;
    std::span<const std::uint8_t> bytes; // what UDP carries; of a reader's, valid until its next
};

// Reads pcap and pcapng files of Ethernet (VLAN tags among it), raw IP, Linux cooked (both versions) and loopback packets. Fragments
// are put together. Whatever a file has in it, nothing happens but what is said here.
class CaptureReader
{
public:
    // "-" is standard input. Throws std::runtime_error, which names the file, when it cannot be opened or is no such capture.
    explicit CaptureReader(const std::string &file);

    // The same of a stream, which becomes the reader's; name is for messages.
    CaptureReader(std::FILE *stream, const std::string &name);

    // Gives the next datagram; false at the end, then out is as it was. Throws std::runtime_error, which names the file, where it
    // cannot be read on, as when its end is missing: what came before was good.
    bool next(CapturedDatagram &out);

    // Packets so far that are no whole UDP datagrams over IPv4: others, cut ones, fragments that lack the rest.
    std::uint64_t skipped() const
    {
        return skipped_;
    }

private:
    bool take(std::span<const std::uint8_t> frame, CapturedDatagram &out);

    std::string name_;
    std::unique_ptr<pcap, void (*)(pcap *)> handle_;
    int linkType_ = 0;
    FragmentAssembler fragments_;
    std::uint64_t skipped_ = 0;
};

// Writes IPv4 packets with times in nanoseconds. The file is one that can be read, as far as it goes, after every flush, and when
// writing has failed.
class CaptureWriter
{
public:
    // "-" is standard output. Replaces a file of that name. Throws std::runtime_error, which names the file, when it cannot be opened.
    explicit CaptureWriter(const std::string &file);

    // Both endpoints are of IPv4; at most kMostDatagramBytes; time before 2106. As flush and close, throws std::system_error, which
    // names the file, when that fails, for instance because the disk is full: then the file ends with the last whole packet for
    // which there was room, and the writer is done.
    void write(const CapturedDatagram &datagram);
    void flush();
    void close();

private:
    [[noreturn]] void fail();

    std::string name_;
    std::unique_ptr<pcap, void (*)(pcap *)> handle_;
    std::vector<char> buffer_; // of the stream
    std::unique_ptr<pcap_dumper, void (*)(pcap_dumper *)> dumper_;
    std::FILE *stream_ = nullptr; // the dumper's
    off_t start_ = 0;
    off_t flushed_ = 0;       // since the start
    std::vector<off_t> ends_; // of packets, since the start, that are not flushed yet
};

} // namespace tolvin
