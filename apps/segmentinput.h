// From shared-memory segments to the kernel: reports that tolvin receive has put there, for entities of a description.
#pragma once

#include "disinput.h"
#include "entityvars.h"
#include "frameclock.h"
#include "world.h"

#include <cstdint>
#include <cstdio>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace tolvin
{

struct SegmentCounts
{
    std::uint64_t reports = 0;  // handed on
    std::uint64_t old = 0;      // so old that their entity counts as silent
    std::uint64_t others = 0;   // of another entity than the description's
    std::uint64_t replaced = 0; // segments, by new ones of their key
};

// Each frame: take(), then DisInput::frame, then show().
class SegmentInput
{
public:
    // A line for the person at the screen, without a newline.
    using NoticeSink = std::function<void(const std::string &line)>;

    // All outlive it.
    SegmentInput(World &world, DisInput &input, const FrameClock &clock, NoticeSink notice);

    // Hands reports that are new on, at that time in nanoseconds of the wall clock. They go the way of those from the network.
    void take(std::int64_t now);

    // Puts the description's entities where theirs are now. One that has left, or not come yet, stays where it is.
    void show();

    // Nothing when no entity is received.
    void printSummary(std::FILE *out) const;

    const SegmentCounts &counts() const
    {
        return counts_;
    }

private:
    struct Source
    {
        OwnEntity *own;
        std::uint32_t seen = 0;            // sequence of the last report
        std::optional<vuEntityId> id = {}; // of it
        std::uint64_t others = 0;
        bool isUnattached = false; // and somebody has been told
    };

    void keepSegments(std::int64_t now);
    void attach(Source &source);
    void handOn(Source &source, const EntityReport &report, std::int64_t now);

    World &world_;
    DisInput &input_;
    const FrameClock &clock_;
    NoticeSink notice_;
    std::vector<Source> sources_;
    std::vector<std::pair<Source *, EntityReport>> fresh_; // of this frame
    std::int64_t checked_ = 0; // when segments were looked after, nanoseconds of the wall clock
    SegmentCounts counts_;
};

} // namespace tolvin
