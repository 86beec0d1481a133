// What tolvin run prints about itself: a line a second, and tables at the end.
#pragma once

#include "disinput.h"
#include "loghistogram.h"

#include <array>
#include <cstdio>

namespace tolvin
{

// A line for each kind of fault that came.
void printFaults(std::FILE *out, const std::array<std::uint64_t, kPduFaultCount> &faults);

class RunStatistics
{
public:
    // A jump of an entity, in metres, under that dead-reckoning algorithm.
    void addJump(std::uint8_t algorithm, double metres);

    // A frame whose work took that long, in seconds, the datagrams that it waited for included.
    void addFrame(double seconds);

    // Prints and restarts the figures of the last period, which lasted that many seconds.
    void printLine(std::FILE *out, double time, double period, const DisCounts &counts, std::size_t entities);

    // Prints what came since the start: jumps by algorithm, latency and clock by sender, counts.
    // lost: datagrams for which the socket had no room.
    void printTables(std::FILE *out, const DisCounts &counts, const EntityTable &entities, std::uint64_t lost) const;

private:
    std::array<LogHistogram, 256> jumpsByAlgorithm_;
    LogHistogram jumps_;     // of the period, metres
    LogHistogram frames_;    // of the period, seconds
    LogHistogram allFrames_; // seconds
    DisCounts last_;         // counts when the period began
};

} // namespace tolvin
