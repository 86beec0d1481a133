// From datagrams to shared-memory segments: the last report of each entity that is asked for, where tolvin run reads it.
#pragma once

#include "dispdu.h"
#include "entitysegment.h"

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace tolvin
{

// Which entity's reports go where.
struct SegmentAssignment
{
    std::int32_t key = 0;
    std::uint32_t size = sizeof(EntityVars);
    vuEntityId id = {};
};

struct ReceiverCounts
{
    std::uint64_t datagrams = 0;
    std::uint64_t written = 0; // reports, each segment counted
    std::uint64_t unknown = 0; // reports of entities that go nowhere
    std::uint64_t late = 0;    // overtaken by a later report of the same entity
    std::uint64_t otherExercise = 0;
    std::uint64_t otherPdus = 0; // well-formed, of no use here
    std::uint64_t malformed = 0; // PDUs or rests of datagrams with a fault
    std::array<std::uint64_t, kPduFaultCount> faults{};
};

class EntityReceiver
{
public:
    // A line for the person at the screen, without a newline.
    using NoticeSink = std::function<void(const std::string &line)>;

    // Attaches to all segments. Reports of other exercises are dropped; 0 takes every exercise. Throws std::runtime_error when a
    // segment is not to be had, not ours, or written by another process; then none is left behind.
    EntityReceiver(const std::vector<SegmentAssignment> &assignments, std::uint8_t exercise, NoticeSink notice);

    // Takes one datagram, of any content, that arrived at that time in nanoseconds of the wall clock.
    void take(std::span<const std::uint8_t> datagram, std::int64_t arrival);

    // Once a second or so: has new segments in the place of those that other programs have removed, with the last reports, and gives
    // those up that another receiver writes until that one leaves them.
    void keepSegments();

    const ReceiverCounts &counts() const
    {
        return counts_;
    }

    std::size_t segments() const
    {
        return targets_.size();
    }

    // Segments with a report of this receiver.
    std::size_t heard() const;

private:
    struct Target
    {
        SegmentAssignment assignment;
        std::unique_ptr<WrittenSegment> segment; // null while it is not to be had
        std::uint32_t size = 0;                  // of the last one
        bool isGivenUp = false;                  // another receiver writes it
        bool isHeard = false;
        EntityReport last = {};
    };

    const Target *heardTarget(const vuEntityId &id) const;
    PduFault takePdu(const Pdu &pdu, std::int64_t arrival);
    void takeReport(const EntityReport &report);
    void takeUpdate(const EntityStateUpdate &update, std::int64_t arrival);
    void takeRemoval(const RemoveEntity &removal, std::int64_t arrival);
    void fault(PduFault kind);
    void attach(Target &target);
    void shareWriting(Target &target);

    std::uint8_t exercise_;
    NoticeSink notice_;
    std::multimap<std::uint64_t, Target> targets_; // by identity
    ReceiverCounts counts_;
};

} // namespace tolvin
