#include "segmentinput.h"

#include "counted.h"
#include "entityid.h"
#include "entitysegment.h"
#include "plaintext.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace tolvin
{

namespace
{

constexpr std::int64_t kCheckEvery = 1'000'000'000; // nanoseconds

// Seconds. A segment may hold any number; as a difference of two it must not overflow.
double ageOf(std::int64_t arrival, std::int64_t now)
{
    return (static_cast<double>(now) - static_cast<double>(arrival)) * 1e-9;
}

} // namespace

SegmentInput::SegmentInput(World &world, DisInput &input, const FrameClock &clock, NoticeSink notice)
    : world_(world),
      input_(input),
      clock_(clock),
      notice_(std::move(notice))
{
    for (OwnEntity &own : world_.entities())
    {
        if (own.isReceived)
        {
            sources_.push_back({.own = &own});
        }
    }
}

// A wall clock that was set back lets the next look wait no longer either.
void SegmentInput::keepSegments(std::int64_t now)
{
    if (std::abs(now - checked_) < kCheckEvery)
    {
        return;
    }
    checked_ = now;
    for (Source &source : sources_)
    {
        if (varsOf(*source.own->entity) == nullptr || isReplaced(*source.own->entity))
        {
            attach(source);
        }
    }
}

// What stands in the way is told once, not every second.
void SegmentInput::attach(Source &source)
{
    vuEntity &entity = *source.own->entity;
    releaseSegment(entity);
    std::string why;
    if (!attachSegment(entity))
    {
        why = whyNoSegment(entity.shmKey, source.own->layout.size);
    }
    else if (!prepareSegment(entity))
    {
        why = foreignSegment(entity.shmKey);
    }
    source.seen = 0;
    counts_.replaced += why.empty() ? 1 : 0;
    if (!why.empty())
    {
        releaseSegment(entity);
    }
    if (!why.empty() && !source.isUnattached)
    {
        notice_(plainText(source.own->description->name) + ": " + why);
    }
    source.isUnattached = !why.empty();
}

// In the order of their arrival, as senders' clocks are estimated.
void SegmentInput::take(std::int64_t now)
{
    keepSegments(now);
    fresh_.clear();
    for (Source &source : sources_)
    {
        const EntityVars *const vars = varsOf(*source.own->entity);
        if (vars == nullptr)
        {
            continue;
        }
        if (const auto report = readNewReport(*vars, source.seen); report.has_value())
        {
            fresh_.emplace_back(&source, *report);
        }
    }
    std::ranges::stable_sort(fresh_, {}, [](const auto &entry) { return entry.second.arrival; });
    for (const auto &[source, report] : fresh_)
    {
        handOn(*source, report, now);
    }
}

void SegmentInput::handOn(Source &source, const EntityReport &report, std::int64_t now)
{
    const std::optional<vuEntityId> &wanted = source.own->description->id;
    if (wanted.has_value() && keyOf(*wanted) != keyOf(report.state.entityId))
    {
        ++counts_.others;
        if (++source.others == 1)
        {
            notice_(plainText(source.own->description->name) + ": its segment has reports of " +
                    textOf(report.state.entityId) + ", expected " + textOf(*wanted) +
                    " (further ones are only counted)");
        }
        return;
    }
    const double age = ageOf(report.arrival, now);
    if (age > silenceLimit(report.state))
    {
        ++counts_.old; // left behind by a receiver that is gone
        return;
    }
    if (input_.takeReport(report.state, clock_.ofWall(age > 0.0 ? report.arrival : now))) // a clock may have been set
    {
        ++counts_.reports;
        source.id = report.state.entityId;
    }
}

void SegmentInput::show()
{
    for (Source &source : sources_)
    {
        const RemoteEntity *const remote = source.id ? input_.entities().find(*source.id) : nullptr;
        if (remote != nullptr && remote->reported)
        {
            world_.show(*source.own, *remote->entity);
        }
    }
}

void SegmentInput::printSummary(std::FILE *out) const
{
    if (!sources_.empty())
    {
        std::fprintf(out, "  %s received by segment: %s, %llu too old, %llu of others; %s replaced\n",
                     sources_.size() == 1 ? "1 entity" : (std::to_string(sources_.size()) + " entities").c_str(),
                     counted(counts_.reports, "report").c_str(), static_cast<unsigned long long>(counts_.old),
                     static_cast<unsigned long long>(counts_.others), counted(counts_.replaced, "segment").c_str());
    }
}

} // namespace tolvin
