#include "listencommand.h"

#include "capturefile.h"
#include "counted.h"
#include "exitcode.h"
#include "listener.h"
#include "stopsignal.h"
#include "udp.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

namespace tolvin
{

namespace
{

using SteadyClock = std::chrono::steady_clock;

struct ListenOptions
{
    std::string dis = "0.0.0.0:3000";
    std::string interface;
    std::optional<std::string> file; // capture, instead of the network
    double duration = 0.0;
    std::uint64_t pdus = 0;
    PduFilter filter;
    bool line = false;
    bool json = false;
    bool stats = false;
    bool quiet = false;
    std::vector<Option> hearing; // those that mean nothing to a capture

    PduView view() const
    {
        return line ? PduView::Line : json ? PduView::Json : stats ? PduView::None : PduView::Fields;
    }
};

void printNotice(const std::string &line)
{
    std::fprintf(stderr, "tolvin listen: %s\n", line.c_str());
}

bool isOver(const Listener &listener)
{
    return isStopAsked() || listener.isEnough() || std::ferror(stdout) != 0;
}

void readFile(const ListenOptions &options, CaptureReader &capture, Listener &listener)
{
    const bool isStream = options.file == "-";
    for (CapturedDatagram datagram; !isOver(listener) && capture.next(datagram);)
    {
        listener.take(datagram.bytes, datagram.time, textOf(datagram.from));
        isStream ? flushOutput() : void(); // whoever feeds it may take any time
    }
    if (capture.skipped() > 0)
    {
        printNotice(*options.file + ": " + counted(capture.skipped(), "packet") +
                    " skipped: no whole datagrams of UDP over IPv4");
    }
}

// Whoever looks on, or reads from a pipe, sees what has come within a tenth of a second.
void hear(const ListenOptions &options, UdpReceiver &receiver, Listener &listener)
{
    constexpr std::chrono::milliseconds kPatience(100);
    const auto forever = std::chrono::hours(24 * 365 * 100);
    const auto end = SteadyClock::now() + (options.duration > 0.0 ? std::chrono::duration_cast<SteadyClock::duration>(
                                                                        std::chrono::duration<double>(options.duration))
                                                                  : forever);
    const auto take = [&](std::span<const std::uint8_t> datagram, std::int64_t arrival)
    {
        if (!isOver(listener))
        {
            listener.take(datagram, arrival, textOf(receiver.from()));
        }
    };
    while (!isOver(listener) && SteadyClock::now() < end)
    {
        receiver.receiveUntil(std::min(end, SteadyClock::now() + kPatience), take);
        flushOutput();
    }
    if (receiver.dropped() > 0)
    {
        printNotice(counted(receiver.dropped(), "datagram") + " lost by the socket");
    }
}

// One of them.
void open(const ListenOptions &options, std::optional<CaptureReader> &capture, std::optional<UdpReceiver> &receiver)
{
    if (options.file.has_value())
    {
        capture.emplace(*options.file);
        return;
    }
    const auto local = parseEndpoint(options.dis);
    receiver.emplace(local, parseInterface(options.interface));
    tellPort(local, *receiver, printNotice);
}

// Behind JSON, the table would be no JSON.
void summarize(const ListenOptions &options, const Listener &listener)
{
    if (options.stats)
    {
        listener.printSenders(options.json ? stderr : stdout);
    }
    if (!options.quiet)
    {
        std::fflush(stdout);
        printNotice(listener.totals());
    }
}

void runListen(const ListenOptions &options)
{
    if (options.line && options.json)
    {
        throw std::runtime_error("--one-line and --json: expected one of them");
    }
    if (options.file.has_value())
    {
        refuseBeside("--read", options.hearing);
    }
    takeStopSignals();
    Listener listener(options.filter, options.view(), options.pdus, stdout, printNotice);
    std::optional<CaptureReader> capture;
    std::optional<UdpReceiver> receiver;
    try
    {
        open(options, capture, receiver);
        capture ? readFile(options, *capture, listener) : hear(options, *receiver, listener);
    }
    catch (const std::exception &error)
    {
        // Of a capture without its end, what came before was shown. An interrupt may have ended a read; it is no excuse for output
        // that is lost.
        if (!isStopAsked() || dynamic_cast<const std::system_error *>(&error) != nullptr)
        {
            capture || receiver ? summarize(options, listener) : void();
            throw;
        }
    }
    summarize(options, listener);
    flushOutput();
}

} // namespace

void addListenCommand(CommandLine &line)
{
    const auto options = std::make_shared<ListenOptions>();
    const Command command =
        line.addCommand("listen", "print the DIS PDUs that are on the network, or in a capture of it",
                        [options] { runListen(*options); });
    command.widerHelp();
    options->hearing = {
        command.add("--dis", options->dis, "local address and UDP port to receive on, or a multicast group to join")
            .showDefault(),
        command.add("--interface", options->interface, "address of the interface for a multicast group"),
        command.add("--duration", options->duration, "seconds to listen; 0 listens until interrupted")
            .check(within(0.0, 1e9))
            .showDefault()};
    command.add("--read", options->file, "read this capture (pcap or pcapng, - for standard input) instead");
    command.add("--pdus", options->pdus, "PDUs to print; 0 sets no limit").check(within(0.0, 1e15)).showDefault();
    command.add("--exercise", options->filter.exercises, "only of these exercises; may be repeated, as all of these")
        .check(within(0, 255))
        .onePerUse();
    command.add("--site", options->filter.sites, "only about or from entities of these sites")
        .check(within(0, 65535))
        .onePerUse();
    command.add("--application", options->filter.applications, "only about or from entities of these applications")
        .check(within(0, 65535))
        .onePerUse();
    command.add("--type", options->filter.types, "only PDUs of these types, by number")
        .check(within(0, 255))
        .onePerUse();
    command.add("--kind", options->filter.kinds, "only Entity States of entities of these kinds, by number")
        .check(within(0, 255))
        .onePerUse();
    command.addFlag("--one-line", options->line, "a line for each PDU");
    command.addFlag("--json", options->json, "a JSON object on a line for each PDU");
    command.addFlag("--stats", options->stats,
                    "at the end, a table of senders with their rates; alone, without the PDUs themselves");
    command.addFlag("--quiet", options->quiet, "do not tell totals at the end");
}

} // namespace tolvin
