// The simulation clock of the frame loop.
#pragma once

#include <chrono>
#include <cstdint>

#include <tolvin/kernel/kernelgeneric.h>

namespace tolvin
{

// How frames follow each other.
enum class Pace
{
    Measured, // each frame takes what the monotonic clock says, so that a correction of the wall clock never moves an entity
    Steps, // each frame is one period, and those that come late are made up for
    Fast   // each frame is one period, however little time it takes; the clock starts at 0
};

// Drives the clock, simSeconds and frameDelta of a root node, and puts arrival times, which the network gives on the wall
// clock, onto it.
class FrameClock
{
public:
    FrameClock(vuRootNode &root, Pace pace, double rate);

    // Moves the root node's clock on to the next frame; returns the seconds since the start.
    double advance();

    // Seconds on the simulation clock of a moment on the wall clock, given in nanoseconds since 1970.
    double ofWall(std::int64_t nanoseconds) const
    {
        return static_cast<double>(nanoseconds - wallAhead_) * 1e-9;
    }

private:
    std::int64_t measured() const; // microseconds since the start
    void show(std::int64_t sinceStart);

    vuRootNode &root_;
    Pace pace_;
    double rate_;
    std::uint64_t frames_ = 0;
    std::int64_t start_; // microseconds of the simulation clock
    std::chrono::steady_clock::time_point begin_;
    std::int64_t wallAhead_ = 0; // nanoseconds
};

} // namespace tolvin
