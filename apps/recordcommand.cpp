#include "recordcommand.h"

#include "capturefile.h"
#include "counted.h"
#include "exitcode.h"
#include "outputfile.h"
#include "progressline.h"
#include "stopsignal.h"
#include "udp.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <memory>
#include <string>

#include <unistd.h>

namespace tolvin
{

namespace
{

using SteadyClock = std::chrono::steady_clock;

constexpr Nanoseconds kStep = kSecond / 10; // after which the file has all that came, and a signal counts

struct RecordOptions
{
    std::string file;
    std::string dis = "0.0.0.0:3000";
    std::string interface;
    double duration = 0.0;
    std::uint64_t datagrams = 0; // 0 for no limit
    bool quiet = false;
};

void printNotice(const std::string &line)
{
    std::fprintf(stderr, "tolvin record: %s\n", line.c_str());
}

class Recorder
{
public:
    explicit Recorder(const RecordOptions &options)
        : options_(options),
          receiver_(parseEndpoint(options.dis), parseInterface(options.interface)),
          writer_(options.file),
          end_(options.duration > 0.0 ? std::llround(options.duration * 1e9) : kNever)
    {
        tellPort(parseEndpoint(options.dis), receiver_, printNotice);
    }

    // Until the end, a signal, or the last datagram that is wanted.
    void run()
    {
        ProgressLine progress("datagrams", options_.quiet);
        for (Nanoseconds now; (now = since()) < end_ && !isEnough() && !isStopAsked();)
        {
            const Nanoseconds wait = std::min(kStep, end_ - now);
            receiver_.receiveUntil(SteadyClock::now() + std::chrono::nanoseconds(wait),
                                   [this](auto bytes, auto arrival) { take(bytes, arrival); });
            writer_.flush();
            progress.show(now, datagrams_);
        }
        writer_.close();
    }

    void printSummary() const
    {
        // Standard output may be the capture itself.
        const bool isTaken = options_.file == "-" || descriptorNamed(options_.file) == STDOUT_FILENO;
        std::fprintf(isTaken ? stderr : stdout, "%s, %s recorded, %s lost, %.1f s\n",
                     counted(datagrams_, "datagram").c_str(), counted(bytes_, "byte").c_str(),
                     counted(receiver_.dropped(), "datagram").c_str(), static_cast<double>(since()) * 1e-9);
    }

private:
    Nanoseconds since() const
    {
        return std::chrono::duration_cast<std::chrono::nanoseconds>(SteadyClock::now() - start_).count();
    }

    bool isEnough() const
    {
        return options_.datagrams > 0 && datagrams_ == options_.datagrams;
    }

    void take(std::span<const std::uint8_t> bytes, std::int64_t arrival)
    {
        if (!isEnough()) // more may come in the same batch
        {
            writer_.write({arrival, receiver_.from(), receiver_.to(), bytes});
            ++datagrams_;
            bytes_ += bytes.size();
        }
    }

    const RecordOptions &options_;
    UdpReceiver receiver_;
    CaptureWriter writer_;
    Nanoseconds end_;
    SteadyClock::time_point start_ = SteadyClock::now();
    std::uint64_t datagrams_ = 0;
    std::uint64_t bytes_ = 0;
};

void runRecord(const RecordOptions &options)
{
    takeStopSignals();
    Recorder recorder(options);
    const auto summarize = [&]
    {
        if (!options.quiet)
        {
            recorder.printSummary();
        }
    };
    try
    {
        recorder.run();
    }
    catch (const std::exception &)
    {
        summarize(); // most of it is in the file
        throw;
    }
    summarize();
    flushOutput();
}

} // namespace

void addRecordCommand(CommandLine &line)
{
    const auto options = std::make_shared<RecordOptions>();
    const Command command =
        line.addCommand("record", "record the datagrams that come over the network to a capture file",
                        [options] { runRecord(*options); });
    command.add("file", options->file, "pcap file to write; - for standard output").required();
    command.showDefaults();
    command.add("--dis", options->dis, "local address and UDP port to receive on, or a multicast group to join");
    command.add("--interface", options->interface, "address of the interface for a multicast group");
    command.add("--duration", options->duration, "seconds to record; 0 records until interrupted")
        .check(within(0.0, 1e9));
    command.add("--datagrams", options->datagrams, "datagrams to record; 0 sets no limit").check(within(0.0, 1e15));
    command.addFlag("--quiet", options->quiet, "print no summary, and no progress on a terminal");
}

} // namespace tolvin
