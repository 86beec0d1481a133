// The variables of an entity whose reports another program receives: what tolvin receive writes into a shared-memory segment, and
// tolvin run reads from it. One writes, any number read, none waits for another: a sequence lock.
//
// Nothing that is found in a segment harms: anybody may have written it. What a report says is still to be checked (dispdu.h).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

#include <tolvin/kernel/kerneldisstate.h>

namespace tolvin
{

struct EntityReport
{
    std::int64_t arrival; // nanoseconds of the wall clock (CLOCK_REALTIME)
    vuEntityState state;
};

// In the segment, from its first byte on; what is behind it is not used. The same bytes for programs of 32 and of 64 bits. All
// zeros in a new segment.
struct EntityVars
{
    std::uint32_t magic;    // of this layout
    std::uint32_t sequence; // twice the reports so far; odd while one is being written
    std::uint32_t writer;   // token of the process that writes (processtoken.h), 0 for none
    std::uint32_t maker;    // likewise of the one that made the segment, for who finds its process id taken by another
    std::array<std::uint32_t, sizeof(EntityReport) / 4> report; // an EntityReport, so that it is read by word
};

static_assert(sizeof(EntityReport) == 152 && offsetof(EntityReport, state) == 8);
static_assert(sizeof(EntityVars) == 168 && offsetof(EntityVars, report) == 16 && alignof(EntityVars) == 4);

// Makes variables that are all zeros ours. False when they are somebody else's, or of another layout: they are left alone. isMaker: whether
// this process has made the segment, which is then noted.
bool prepareVars(EntityVars &vars, bool isMaker = false);

bool isOurs(const EntityVars &vars);

// Takes the right to write for this process, over a writer that is gone as well. Returns 0, or the process that has it.
int claimWriting(EntityVars &vars);

// Gives it back, if this process has it.
void leaveWriting(EntityVars &vars);

// Only for who has the right to write. A report that its writer has died over is overwritten.
void writeReport(EntityVars &vars, const EntityReport &report);

// Reads the report if it is not the one with the sequence `seen`, 0 for none, which then becomes that of the report. Nothing when
// there is no new one; nor when it is being written all the time, or its writer has died over it: the former one then goes on being
// the last; nor in variables that are not ours any more.
std::optional<EntityReport> readNewReport(const EntityVars &vars, std::uint32_t &seen);

// How many were written; about half a billion times four of them are counted from 0 again.
std::uint32_t reportsOf(const EntityVars &vars);

// Tokens of the process that may write, and of the one that made the segment; 0 for none.
std::uint32_t writerOf(const EntityVars &vars);
std::uint32_t makerOf(const EntityVars &vars);

} // namespace tolvin
