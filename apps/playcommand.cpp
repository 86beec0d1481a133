#include "playcommand.h"

#include "capturefile.h"
#include "counted.h"
#include "dispdu.h"
#include "exitcode.h"
#include "motion.h"
#include "progressline.h"
#include "udp.h"

#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

namespace tolvin
{

namespace
{

constexpr std::size_t kStampAt = 4; // in the header of a PDU
constexpr Nanoseconds kLongest = 1'000'000'000 * kSecond;

struct PlayOptions
{
    std::string file;
    std::string to = "127.0.0.1:3000";
    std::string interface;
    int timeToLive = 1;
    double speed = 1.0;
    std::uint64_t loop = 1;
    bool now = false;
    bool quiet = false;
};

// Not a file that can be read again. What there is not is told by who opens it.
bool isStream(const std::string &file)
{
    std::error_code error;
    const std::filesystem::file_status status = std::filesystem::status(file, error);
    return file == "-" || (std::filesystem::exists(status) && !std::filesystem::is_regular_file(status) &&
                           !std::filesystem::is_directory(status));
}

// The time at which it is sent, in every PDU; whether that is absolute is left as it is.
void restamp(std::span<std::uint8_t> datagram)
{
    const std::uint32_t word = stampOf(wallClock()).word;
    PduReader reader(datagram);
    for (Pdu pdu; reader.next(pdu);)
    {
        std::uint8_t *const stamp = datagram.data() + (pdu.bytes.data() - datagram.data()) + kStampAt;
        stamp[0] = static_cast<std::uint8_t>(word >> 24);
        stamp[1] = static_cast<std::uint8_t>(word >> 16);
        stamp[2] = static_cast<std::uint8_t>(word >> 8);
        stamp[3] = static_cast<std::uint8_t>((word & 0xFE) | (stamp[3] & 1));
    }
}

// When the datagrams of a capture are due, pass by pass.
class Timetable
{
public:
    explicit Timetable(double speed) : speed_(speed)
    {
    }

    Nanoseconds due(std::int64_t captured)
    {
        if (!first_)
        {
            first_ = last_ = captured;
        }
        last_ = std::max(last_, captured);
        ++datagrams_;
        return passStart_ + scaled(captured - *first_);
    }

    // The next pass begins as long after the last datagram as they are apart on average; a second if that is not known.
    void endPass()
    {
        const std::int64_t span = last_ - first_.value_or(last_);
        const std::int64_t gap = span > 0 ? span / (datagrams_ - 1) : kSecond;
        passStart_ = std::min(passStart_ + scaled(span) + scaled(gap), kLongest);
        first_.reset();
        datagrams_ = 0;
    }

private:
    Nanoseconds scaled(std::int64_t captured) const
    {
        constexpr auto kMost = static_cast<double>(kLongest);
        return speed_ == 0.0 ? 0 : std::llround(std::clamp(static_cast<double>(captured) / speed_, -kMost, kMost));
    }

    double speed_;
    Nanoseconds passStart_ = 0;
    std::optional<std::int64_t> first_; // of the pass
    std::int64_t last_ = 0;
    std::int64_t datagrams_ = 0;
};

class Player
{
public:
    explicit Player(const PlayOptions &options)
        : options_(options),
          isStream_(isStream(options.file)),
          reader_(options.file),
          sender_(parseEndpoint(options.to), parseInterface(options.interface), options.timeToLive),
          timetable_(options.speed),
          progress_(std::in_place, "datagrams", options.quiet)
    {
    }

    // Pass by pass until the last one, a signal, or one with nothing to send.
    void run()
    {
        while (playPass() && ++passes_ != options_.loop)
        {
            timetable_.endPass();
            CaptureReader again(options_.file);
            skipped_ += reader_.skipped();
            reader_ = std::move(again);
        }
    }

    void printSummary()
    {
        progress_.reset();
        const double seconds = static_cast<double>(pacer_.now()) * 1e-9;
        std::printf("%s, %s sent, %" PRIu64 " failed, %s skipped, %.1f s, %.1f datagrams/s\n",
                    counted(sent_, "datagram").c_str(), counted(bytes_, "byte").c_str(), failed_,
                    counted(skipped_ + reader_.skipped(), "packet").c_str(), seconds,
                    static_cast<double>(sent_) / seconds);
    }

private:
    // False when there was nothing to send, or a signal asked to stop.
    bool playPass()
    {
        bool isEmpty = true;
        for (CapturedDatagram datagram; next(datagram); isEmpty = false)
        {
            if (!waitUntil(timetable_.due(datagram.time)))
            {
                return false;
            }
            send(datagram.bytes);
        }
        return !isEmpty;
    }

    // Who feeds a pipe may take any time, during which signals have to end the program.
    bool next(CapturedDatagram &datagram)
    {
        if (!isStream_)
        {
            return reader_.next(datagram);
        }
        pacer_.holdSignals(false);
        const bool isThere = reader_.next(datagram);
        pacer_.holdSignals(true);
        return isThere;
    }

    bool waitUntil(Nanoseconds due)
    {
        do
        {
            progress_->show(pacer_.now(), sent_);
            if (!pacer_.waitUntil(std::min(due, progress_->next())))
            {
                return false;
            }
        } while (pacer_.now() < due);
        return true;
    }

    void send(std::span<const std::uint8_t> bytes)
    {
        copy_.assign(bytes.begin(), bytes.end());
        if (options_.now)
        {
            restamp(copy_);
        }
        const std::error_code error = sender_.send(copy_);
        if (!error)
        {
            ++sent_;
            bytes_ += copy_.size();
        }
        else if (sent_ == 0)
        {
            throw std::runtime_error(options_.to + ": " + error.message());
        }
        else if (++failed_ == 1)
        {
            std::fprintf(stderr, "tolvin play: %s: %s; going on\n", options_.to.c_str(), error.message().c_str());
        }
    }

    const PlayOptions &options_;
    bool isStream_;
    CaptureReader reader_;
    UdpSender sender_;
    Timetable timetable_;
    std::optional<ProgressLine> progress_; // until the summary
    std::vector<std::uint8_t> copy_;
    std::uint64_t passes_ = 0;
    std::uint64_t sent_ = 0;
    std::uint64_t bytes_ = 0;
    std::uint64_t failed_ = 0;
    std::uint64_t skipped_ = 0; // in former passes
    Pacer pacer_;
};

void runPlay(const PlayOptions &options)
{
    if (options.loop != 1 && isStream(options.file))
    {
        throw std::runtime_error("--loop " + std::to_string(options.loop) + ": expected 1, since " + options.file +
                                 " can be read only once");
    }
    Player player(options);
    const auto summarize = [&]
    {
        if (!options.quiet)
        {
            player.printSummary();
        }
    };
    try
    {
        player.run();
    }
    catch (const std::exception &)
    {
        summarize(); // of a capture without its end, what came before was sent
        throw;
    }
    summarize();
    flushOutput();
}

} // namespace

void addPlayCommand(CommandLine &line)
{
    const auto options = std::make_shared<PlayOptions>();
    const Command command =
        line.addCommand("play", "send the UDP datagrams of a capture file", [options] { runPlay(*options); });
    command.add("file", options->file, "pcap or pcapng file; - for standard input").required();
    command.showDefaults();
    command.add("--to", options->to, "ADDRESS[:PORT] to send to: unicast, broadcast or multicast");
    command.add("--interface", options->interface, "address of the local interface to send from");
    command.add("--ttl", options->timeToLive, "hops that a multicast may take").check(within(0, 255));
    command.add("--speed", options->speed, "how many times as fast as it was recorded; 0 is as fast as possible")
        .check(within(0.0, 1e6));
    command.add("--loop", options->loop, "times to play it; 0 plays it until interrupted").check(within(0.0, 1e15));
    command.addFlag("--now", options->now, "put the time of sending into the time stamps of the PDUs");
    command.addFlag("--quiet", options->quiet, "print no summary, and no progress on a terminal");
}

} // namespace tolvin
