#include "receivecommand.h"

#include "counted.h"
#include "description.h"
#include "entityid.h"
#include "entityreceiver.h"
#include "exitcode.h"
#include "plaintext.h"
#include "runstatistics.h"
#include "stopsignal.h"
#include "udp.h"

#include <tolvin/kernel/tolvin.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace tolvin
{

namespace
{

using SteadyClock = std::chrono::steady_clock;

struct ReceiveOptions
{
    std::string scene; // description file, may be empty
    std::vector<int> keys;
    std::vector<std::string> ids;
    std::uint32_t size = sizeof(EntityVars); // of segments that are named by keys
    std::string dis = "0.0.0.0:3000";
    std::string interface;
    int exercise = 1;
    double duration = 0.0; // seconds, 0 for no end
    bool quiet = false;
    bool list = false;
    bool reap = false;
    std::vector<Option> receiving; // those above but the last two
};

unsigned long long number(std::uint64_t value)
{
    return value;
}

void printNotice(const std::string &line)
{
    std::fprintf(stderr, "tolvin receive: %s\n", line.c_str());
}

vuEntityId parseIdentity(const std::string &text)
{
    std::uint16_t parts[3] = {};
    const char *at = text.data();
    const char *const end = at + text.size();
    bool isGood = true;
    for (int i = 0; i < 3 && isGood; ++i)
    {
        isGood = i == 0 || (at != end && *at++ == ':');
        const auto [rest, error] = std::from_chars(at, end, parts[i]);
        isGood = isGood && error == std::errc();
        at = rest;
    }
    if (!isGood || at != end)
    {
        throw std::runtime_error("--id " + plainText(text) + ": expected SITE:APPLICATION:ENTITY");
    }
    return {parts[0], parts[1], parts[2]};
}

// Entities of the description that have an identity, variables that are large enough, and no motion of their own.
std::vector<SegmentAssignment> assignmentsOf(const std::string &file)
{
    const Description description = readSceneFile(file);
    std::vector<SegmentAssignment> assignments;
    for (const EntityDescription &entity : description.entities)
    {
        if (isReceived(entity) && entity.id.has_value())
        {
            assignments.push_back({entity.shmKey, entity.shmSize, *entity.id});
        }
    }
    if (assignments.empty())
    {
        throw std::runtime_error(file +
                                 ": expected an ENTITY with ID, without MOTION, and with SHM KEY BYTES of at least " +
                                 std::to_string(VU_SHM_FIRST_KEY) + " and " + std::to_string(sizeof(EntityVars)));
    }
    return assignments;
}

std::vector<SegmentAssignment> assignmentsOf(const ReceiveOptions &options)
{
    if (options.keys.size() != options.ids.size())
    {
        throw std::runtime_error("--key and --id: expected one --id for each --key, found " +
                                 std::to_string(options.keys.size()) + " and " + std::to_string(options.ids.size()));
    }
    std::vector<SegmentAssignment> assignments;
    if (!options.scene.empty())
    {
        assignments = assignmentsOf(options.scene);
    }
    for (std::size_t i = 0; i < options.keys.size(); ++i)
    {
        assignments.push_back({options.keys[i], options.size, parseIdentity(options.ids[i])});
    }
    std::set<std::int32_t> keys;
    for (const SegmentAssignment &assignment : assignments)
    {
        if (!keys.insert(assignment.key).second)
        {
            throw std::runtime_error("key " + std::to_string(assignment.key) +
                                     ": expected one entity for it, found two");
        }
    }
    if (assignments.empty())
    {
        throw std::runtime_error("nothing to receive: expected --key and --id, or a description file");
    }
    return assignments;
}

void printLine(double time, double period, std::uint64_t written, const EntityReceiver &receiver)
{
    const ReceiverCounts &c = receiver.counts();
    std::printf("%6.1f s  %.0f reports/s written  %zu of %s heard  %llu unknown  %llu malformed\n", time,
                static_cast<double>(written) / period, receiver.heard(),
                counted(receiver.segments(), "segment").c_str(), number(c.unknown), number(c.malformed));
    flushOutput();
}

void printTotals(const ReceiverCounts &c, std::uint64_t lost)
{
    std::printf("\n%s: %s written, %llu for unknown entities, %llu late, %llu malformed, %llu of other "
                "exercises, %llu other PDUs; %llu lost by the socket\n",
                counted(c.datagrams, "datagram").c_str(), counted(c.written, "report").c_str(), number(c.unknown),
                number(c.late), number(c.malformed), number(c.otherExercise), number(c.otherPdus), number(lost));
    printFaults(stdout, c.faults);
    flushOutput();
}

// A second at a time, until the duration or a signal ends it.
void receive(const ReceiveOptions &options)
{
    const std::vector<SegmentAssignment> assignments = assignmentsOf(options);
    const auto local = parseEndpoint(options.dis);
    const auto interface = parseInterface(options.interface);
    takeStopSignals(); // not before: a description may come from a pipe
    EntityReceiver receiver(assignments, static_cast<std::uint8_t>(options.exercise), printNotice);
    UdpReceiver socket(local, interface); // now: who is refused takes no datagrams from the one that is there
    tellPort(local, socket, printNotice);
    const auto take = [&receiver](std::span<const std::uint8_t> datagram, std::int64_t arrival)
    { receiver.take(datagram, arrival); };

    const SteadyClock::time_point begin = SteadyClock::now();
    const std::chrono::duration<double> duration(options.duration > 0.0 ? options.duration : 1e9);
    const SteadyClock::time_point end = begin + std::chrono::duration_cast<SteadyClock::duration>(duration);
    const auto isOver = [end] { return isStopAsked() || SteadyClock::now() >= end; };
    const auto secondsAt = [begin](SteadyClock::time_point time)
    { return std::chrono::duration<double>(time - begin).count(); };
    for (SteadyClock::time_point line = begin; !isOver();)
    {
        const std::uint64_t before = receiver.counts().written;
        const SteadyClock::time_point next = std::min(end, line + std::chrono::seconds(1));
        do
        {
            socket.receiveUntil(next, take);
        } while (!isOver() && SteadyClock::now() < next);
        receiver.keepSegments();
        const SteadyClock::time_point now = SteadyClock::now();
        if (!options.quiet && !isOver())
        {
            printLine(secondsAt(now), secondsAt(now) - secondsAt(line), receiver.counts().written - before, receiver);
        }
        line = now;
    }
    printTotals(receiver.counts(), socket.dropped());
}

std::string processText(pid_t process, bool isThere)
{
    return process == 0 ? "-" : std::to_string(process) + (isThere ? " alive" : " gone");
}

std::string lastText(const SegmentInfo &segment)
{
    if (!segment.last.has_value())
    {
        return "-";
    }
    const vuEntityState &state = segment.last->state;
    const std::string marking(state.marking.text, strnlen(state.marking.text, sizeof state.marking.text));
    char age[48];
    std::snprintf(age, sizeof age, "%.1f s ago, ",
                  (static_cast<double>(wallClock()) - static_cast<double>(segment.last->arrival)) * 1e-9);
    return age + textOf(state.entityId) + (marking.empty() ? "" : " \"" + plainText(marking) + '"') +
           (leaves(state) ? ", left" : "");
}

void list()
{
    std::printf("%10s %6s %8s  %-15s %-15s %10s  %s\n", "key", "bytes", "attached", "made by", "written by", "reports",
                "last report");
    for (const SegmentInfo &segment : findSegments())
    {
        std::printf("%10d %6zu %8zu  %-15s %-15s %10u  %s\n", segment.key, segment.size, segment.attached,
                    processText(segment.creator, segment.isCreatorAlive).c_str(),
                    processText(segment.writer, segment.isWriterAlive).c_str(), segment.reports,
                    lastText(segment).c_str());
    }
}

void reap()
{
    std::string failures;
    std::size_t removed = 0;
    for (const SegmentInfo &segment : findSegments())
    {
        if (!isAbandoned(segment))
        {
            continue;
        }
        const std::error_code error = removeAbandoned(segment);
        const std::string name = "segment " + std::to_string(segment.key);
        if (error)
        {
            failures += (failures.empty() ? "" : "; ") + name + " stays: " + error.message();
            continue;
        }
        ++removed;
        std::printf("removed %s, made by process %d, which is gone\n", name.c_str(), segment.creator);
    }
    std::printf("%s removed\n", counted(removed, "segment").c_str());
    if (!failures.empty())
    {
        flushOutput();
        throw std::runtime_error(failures);
    }
}

void run(const ReceiveOptions &options)
{
    if (!options.list && !options.reap)
    {
        receive(options);
        return;
    }
    refuseBeside(options.list ? "--list" : "--reap", options.receiving);
    if (options.reap)
    {
        reap();
    }
    if (options.list)
    {
        list();
    }
    flushOutput();
}

} // namespace

void addReceiveCommand(CommandLine &line)
{
    const auto options = std::make_shared<ReceiveOptions>();
    const Command command = line.addCommand(
        "receive", "receive DIS reports of entities into shared-memory segments, where tolvin run reads them",
        [options] { run(*options); });
    const Option key =
        command.add("--key", options->keys, "key of a segment, 2000 or more; may be repeated, each with its --id")
            .check(within(VU_SHM_FIRST_KEY, 2147483647))
            .onePerUse();
    options->receiving = {
        key,
        command.add("scene", options->scene,
                    "description file: its entities with ID and SHM, without MOTION, go to their keys"),
        command
            .add("--id", options->ids,
                 "SITE:APPLICATION:ENTITY whose reports go to the segment of that place among the keys")
            .onePerUse(),
        command
            .add("--size", options->size,
                 "bytes of the segments of --key, as drawing programs have them in their descriptions")
            .check(within(sizeof(EntityVars), 2147483647))
            .needs(key)
            .showDefault(),
        command.add("--dis", options->dis, "local address and UDP port to receive on, or a multicast group to join")
            .showDefault(),
        command.add("--interface", options->interface, "address of the interface for a multicast group"),
        command.add("--exercise", options->exercise, "exercise to listen to, 1 to 255; 0 takes all")
            .check(within(0, 255))
            .showDefault(),
        command.add("--duration", options->duration, "seconds to receive; 0 receives until interrupted")
            .check(within(0.0, 1e9))
            .showDefault(),
        command.addFlag("--quiet", options->quiet, "print no line per second, only the totals at the end")};
    command.addFlag("--list", options->list, "print the segments of this machine, and receive nothing");
    command.addFlag("--reap", options->reap,
                    "remove segments that nobody is attached to and whose maker is gone, and receive nothing");
}

} // namespace tolvin
