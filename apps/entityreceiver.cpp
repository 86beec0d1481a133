#include "entityreceiver.h"

#include "entityid.h"
#include "entitytable.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace tolvin
{

namespace
{

// Whether a report was made before another one, and overtaken by it. The upper 31 bits of a stamp are a fraction of an hour, so that
// the difference takes no notice of the turn of the hour. One that is older by far comes of a clock that was set.
bool isOvertaken(std::uint32_t stamp, std::uint32_t last)
{
    const auto difference = static_cast<std::int32_t>((stamp & ~1u) - (last & ~1u));
    return difference < 0 && difference * (3600.0 / 0x1p32) > -kLatestReport;
}

} // namespace

EntityReceiver::EntityReceiver(const std::vector<SegmentAssignment> &assignments, std::uint8_t exercise,
                               NoticeSink notice)
    : exercise_(exercise),
      notice_(std::move(notice))
{
    for (const SegmentAssignment &assignment : assignments)
    {
        targets_.emplace(keyOf(assignment.id),
                         Target{.assignment = assignment,
                                .segment = std::make_unique<WrittenSegment>(assignment.key, assignment.size)});
    }
}

std::size_t EntityReceiver::heard() const
{
    return static_cast<std::size_t>(std::ranges::count_if(targets_, [](const auto &entry)
                                                          { return entry.second.isHeard && !entry.second.isGivenUp; }));
}

void EntityReceiver::fault(PduFault kind)
{
    ++counts_.malformed;
    if (++counts_.faults[static_cast<std::size_t>(kind)] == 1)
    {
        notice_(std::string("dropped a malformed datagram: ") + faultText(kind) + " (further ones are only counted)");
    }
}

void EntityReceiver::take(std::span<const std::uint8_t> datagram, std::int64_t arrival)
{
    ++counts_.datagrams;
    PduReader reader(datagram);
    Pdu pdu;
    while (reader.next(pdu))
    {
        if (exercise_ != 0 && pdu.header.exerciseId != exercise_)
        {
            ++counts_.otherExercise;
        }
        else if (const PduFault kind = takePdu(pdu, arrival); kind != PduFault::None)
        {
            fault(kind);
        }
    }
    if (reader.fault() != PduFault::None)
    {
        fault(reader.fault());
    }
}

PduFault EntityReceiver::takePdu(const Pdu &pdu, std::int64_t arrival)
{
    PduFault kind = PduFault::None;
    EntityReport report;
    EntityStateUpdate update;
    RemoveEntity removal;
    switch (kindOf(pdu.header))
    {
    case PduKind::EntityState:
        kind = decodeEntityState(pdu, report.state);
        if (kind == PduFault::None)
        {
            report.arrival = arrival;
            takeReport(report);
        }
        break;
    case PduKind::EntityStateUpdate:
        kind = decodeEntityStateUpdate(pdu, update);
        if (kind == PduFault::None)
        {
            takeUpdate(update, arrival);
        }
        break;
    case PduKind::RemoveEntity:
        kind = decodeRemoveEntity(pdu, removal);
        if (kind == PduFault::None)
        {
            takeRemoval(removal, arrival);
        }
        break;
    default:
        ++counts_.otherPdus;
    }
    return kind;
}

void EntityReceiver::takeReport(const EntityReport &report)
{
    const auto [begin, end] = targets_.equal_range(keyOf(report.state.entityId));
    counts_.unknown += begin == end ? 1 : 0;
    for (auto entry = begin; entry != end; ++entry)
    {
        Target &target = entry->second;
        if (target.isHeard && isOvertaken(report.state.timestamp, target.last.state.timestamp))
        {
            ++counts_.late;
            continue;
        }
        target.last = report;
        target.isHeard = true;
        if (target.segment != nullptr && !target.isGivenUp)
        {
            writeReport(target.segment->vars(), report);
            ++counts_.written;
        }
    }
}

// The first of those with that identity, when it has a report; all of them have the same.
const EntityReceiver::Target *EntityReceiver::heardTarget(const vuEntityId &id) const
{
    const auto entry = targets_.find(keyOf(id));
    return entry != targets_.end() && entry->second.isHeard ? &entry->second : nullptr;
}

// Of an entity that has not come yet, has left or was silent for too long it says too little.
void EntityReceiver::takeUpdate(const EntityStateUpdate &update, std::int64_t arrival)
{
    const Target *const target = heardTarget(update.entityId);
    if (target == nullptr || leaves(target->last.state) ||
        static_cast<double>(arrival - target->last.arrival) * 1e-9 > silenceLimit(target->last.state))
    {
        ++(targets_.contains(keyOf(update.entityId)) ? counts_.otherPdus : counts_.unknown);
        return;
    }
    takeReport({arrival, reportAfter(target->last.state, update)});
}

// A segment tells by the last report, which then says so, that the entity has left. Nobody removes what belongs to others.
void EntityReceiver::takeRemoval(const RemoveEntity &removal, std::int64_t arrival)
{
    const vuEntityId &from = removal.originating, &id = removal.receiving;
    const Target *const target = heardTarget(id);
    if (from.site != id.site || from.application != id.application || target == nullptr)
    {
        ++counts_.otherPdus;
        return;
    }
    EntityReport report = {arrival, target->last.state};
    report.state.timestamp = removal.header.timestamp;
    report.state.appearance |= kAppearanceDeactivated;
    takeReport(report);
}

// What stands in the way is told once, not every second.
void EntityReceiver::attach(Target &target)
{
    const bool hadOne = target.segment != nullptr;
    const SegmentAssignment &wanted = target.assignment;
    target.size = hadOne ? target.segment->size() : target.size;
    target.segment.reset();
    target.isGivenUp = false;
    try
    {
        // Whoever made the last one larger may want it so again; what there is has the size that it has.
        target.segment = std::make_unique<WrittenSegment>(
            wanted.key, isSegmentThere(wanted.key) ? wanted.size : std::max(wanted.size, target.size));
    }
    catch (const std::runtime_error &error)
    {
        hadOne ? notice_(error.what()) : void();
        return;
    }
    if (target.isHeard)
    {
        writeReport(target.segment->vars(), target.last);
    }
    notice_("shared-memory segment " + std::to_string(target.assignment.key) +
            (target.segment->isCreated() ? " was removed; there is a new one" : " is there again"));
}

// Of two receivers that cannot see each other, the later one has the writing until it leaves it: they would take it from each other for
// ever. Somebody may also have left it to nobody.
void EntityReceiver::shareWriting(Target &target)
{
    const std::string name = "shared-memory segment " + std::to_string(target.assignment.key);
    const pid_t other = target.segment->otherWriter();
    if (other != 0 && !target.isGivenUp)
    {
        target.isGivenUp = true;
        notice_(name + " is written by process " + std::to_string(other) + " now; it is left to that one");
    }
    if (target.segment->claimIfFree())
    {
        target.isGivenUp ? notice_(name + " is free again") : void();
        target.isGivenUp = false;
        if (target.isHeard)
        {
            writeReport(target.segment->vars(), target.last);
        }
    }
}

void EntityReceiver::keepSegments()
{
    for (auto &[id, target] : targets_)
    {
        if (target.segment == nullptr || target.segment->isReplaced())
        {
            attach(target);
        }
        else
        {
            shareWriting(target);
        }
    }
}

} // namespace tolvin
