#include "capturefile.h"

#include "outputfile.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <pcap/pcap.h>
#include <stdio_ext.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tolvin
{

namespace
{

constexpr std::int64_t kSecond = 1'000'000'000;
constexpr std::int64_t kMostSeconds = std::numeric_limits<std::int64_t>::max() / kSecond - 1;
constexpr std::size_t kFileHeader = 24;
constexpr std::size_t kPacketHeader = 16;
constexpr off_t kFlushedTogether = 1 << 18; // bytes
constexpr std::size_t kBuffer = 1 << 19;    // that and a packet fit, so that nothing is written before it is flushed

std::runtime_error failure(const std::string &name, const std::string &what)
{
    return std::runtime_error(name + ": " + what);
}

std::FILE *opened(const std::string &file)
{
    std::FILE *const stream = file == "-" ? stdin : std::fopen(file.c_str(), "rb");
    if (stream == nullptr)
    {
        throw failure(file, std::generic_category().message(errno));
    }
    return stream;
}

pcap *openCapture(std::FILE *stream, const std::string &name)
{
    char error[PCAP_ERRBUF_SIZE] = "";
    pcap *const handle = pcap_fopen_offline_with_tstamp_precision(stream, PCAP_TSTAMP_PRECISION_NANO, error);
    if (handle == nullptr)
    {
        if (stream != stdin)
        {
            std::fclose(stream);
        }
        throw failure(name, std::string(error) + "; expected a capture, pcap or pcapng");
    }
    return handle;
}

// Files of pcap have seconds without a sign, which the library takes for some with one. Numbers that no clock shows are cut.
std::int64_t timeOf(const timeval &time)
{
    const std::int64_t seconds = time.tv_sec < 0 && time.tv_sec >= std::numeric_limits<std::int32_t>::min()
                                     ? static_cast<std::uint32_t>(time.tv_sec)
                                     : std::int64_t{time.tv_sec};
    return std::clamp<std::int64_t>(seconds, 0, kMostSeconds) * kSecond +
           std::clamp<std::int64_t>(time.tv_usec, 0, kSecond - 1); // of nanoseconds, as they were asked for
}

// Standard output goes on where it is; opening it by its name would start a file anew.
std::FILE *openedForWriting(const std::string &file)
{
    const int descriptor = file == "-" ? STDOUT_FILENO : descriptorNamed(file);
    const int copy = descriptor < 0 ? -1 : dup(descriptor);
    std::FILE *const stream = descriptor < 0 ? std::fopen(file.c_str(), "wb") : copy < 0 ? nullptr : fdopen(copy, "wb");
    if (stream == nullptr)
    {
        const int error = errno;
        if (copy >= 0)
        {
            ::close(copy);
        }
        throw failure(file, std::generic_category().message(error));
    }
    return stream;
}

// Where a file begins that can be cut off at the end; -1 for pipes, and for what others may append to.
off_t startOf(int descriptor)
{
    struct stat status;
    const bool isFile = fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode);
    return isFile && (fcntl(descriptor, F_GETFL) & O_APPEND) == 0 ? lseek(descriptor, 0, SEEK_CUR) : -1;
}

} // namespace

CaptureReader::CaptureReader(const std::string &file) : CaptureReader(opened(file), file)
{
}

CaptureReader::CaptureReader(std::FILE *stream, const std::string &name)
    : name_(name),
      handle_(openCapture(stream, name), pcap_close),
      linkType_(pcap_datalink(handle_.get()))
{
    if (!isKnownLinkType(linkType_))
    {
        throw failure(name, std::string("a capture of ") + pcap_datalink_val_to_description_or_dlt(linkType_) +
                                " packets; expected Ethernet, raw IP, Linux cooked or loopback");
    }
}

bool CaptureReader::next(CapturedDatagram &out)
{
    pcap_pkthdr *header = nullptr;
    const u_char *bytes = nullptr;
    int result;
    while ((result = pcap_next_ex(handle_.get(), &header, &bytes)) == 1)
    {
        CapturedDatagram datagram;
        datagram.time = timeOf(header->ts);
        if (take({bytes, header->caplen}, datagram))
        {
            out = datagram;
            return true;
        }
    }
    if (result != PCAP_ERROR_BREAK)
    {
        throw failure(name_, pcap_geterr(handle_.get()));
    }
    return false;
}

bool CaptureReader::take(std::span<const std::uint8_t> frame, CapturedDatagram &out)
{
    ++skipped_; // unless it proves to be good
    const auto within = ipv4Within(linkType_, frame);
    const auto packet = within ? parseIpv4(*within) : std::nullopt;
    if (!packet)
    {
        return false;
    }
    FragmentAssembler::Whole whole = {packet->payload, 1};
    if (packet->offset > 0 || !packet->isLast)
    {
        const auto assembled = fragments_.add(*packet, out.time);
        if (!assembled)
        {
            return false;
        }
        whole = *assembled;
    }
    const auto datagram = parseUdp(packet->from, packet->to, whole.payload);
    if (!datagram)
    {
        return false;
    }
    skipped_ -= whole.fragments;
    out.from = datagram->from;
    out.to = datagram->to;
    out.bytes = datagram->bytes;
    return true;
}

CaptureWriter::CaptureWriter(const std::string &file)
    : name_(file),
      handle_(pcap_open_dead_with_tstamp_precision(DLT_IPV4, 65535, PCAP_TSTAMP_PRECISION_NANO), pcap_close),
      buffer_(kBuffer),
      dumper_(nullptr, pcap_dump_close)
{
    if (handle_ == nullptr)
    {
        throw std::bad_alloc();
    }
    stream_ = openedForWriting(file);
    start_ = startOf(fileno(stream_));
    std::setvbuf(stream_, buffer_.data(), _IOFBF, buffer_.size());
    dumper_.reset(pcap_dump_fopen(handle_.get(), stream_)); // which closes the stream when it fails
    if (dumper_ == nullptr)
    {
        throw failure(file, pcap_geterr(handle_.get()));
    }
    ends_.push_back(kFileHeader);
    flush(); // tells now what cannot be written to at all
}

void CaptureWriter::write(const CapturedDatagram &datagram)
{
    const std::vector<std::uint8_t> packet = packetOf({datagram.from, datagram.to, datagram.bytes});
    pcap_pkthdr header{};
    header.ts.tv_sec = static_cast<time_t>(datagram.time / kSecond);
    header.ts.tv_usec = static_cast<suseconds_t>(datagram.time % kSecond);
    header.caplen = header.len = static_cast<bpf_u_int32>(packet.size());
    ends_.push_back((ends_.empty() ? flushed_ : ends_.back()) + static_cast<off_t>(kPacketHeader + packet.size()));
    pcap_dump(reinterpret_cast<u_char *>(dumper_.get()), &header, packet.data());
    if (std::ferror(stream_) != 0)
    {
        fail();
    }
    if (ends_.back() - flushed_ >= kFlushedTogether)
    {
        flush();
    }
}

void CaptureWriter::flush()
{
    if (std::fflush(stream_) != 0)
    {
        fail();
    }
    flushed_ = ends_.empty() ? flushed_ : ends_.back();
    ends_.clear();
}

void CaptureWriter::close()
{
    flush();
    // As a last word of file systems that tell only now; the dumper would not pass it on.
    if (::close(dup(fileno(stream_))) != 0)
    {
        throw std::system_error(errno, std::generic_category(), name_);
    }
    dumper_.reset();
}

// Part of a packet may have got through: it goes again.
void CaptureWriter::fail()
{
    const int error = errno;
    const off_t written = lseek(fileno(stream_), 0, SEEK_CUR) - start_;
    __fpurge(stream_);
    off_t whole = flushed_;
    for (const off_t end : ends_)
    {
        whole = end <= written ? end : whole;
    }
    const bool isCut = start_ < 0 || ftruncate(fileno(stream_), start_ + whole) == 0;
    dumper_.reset();
    throw std::system_error(error, std::generic_category(),
                            name_ + (isCut ? "" : " (and the end of the file cannot be mended)"));
}

} // namespace tolvin
