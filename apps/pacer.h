// Times at which to send, kept by the monotonic clock.
#pragma once

#include <chrono>
#include <cstdint>
#include <limits>

#include <signal.h>

namespace tolvin
{

using Nanoseconds = std::int64_t; // since the start of sending, unless a name says otherwise

inline constexpr Nanoseconds kSecond = 1'000'000'000;
inline constexpr Nanoseconds kNever = std::numeric_limits<Nanoseconds>::max();

// Blocks SIGINT, SIGTERM, and SIGHUP unless that is ignored, while it lives, so that none is lost between a test and a wait.
class StopSignals
{
public:
    StopSignals();
    ~StopSignals();

    StopSignals(const StopSignals &) = delete;
    StopSignals &operator=(const StopSignals &) = delete;

    // Waits for that long, or until one arrives: true then.
    bool arrive(Nanoseconds wait);

    // Blocks them or lets them through again.
    void hold(bool held);

private:
    sigset_t signals_;
    sigset_t former_;
};

// Time since the start, and waiting for it.
class Pacer
{
public:
    Nanoseconds now() const;

    // False when a signal asked to stop.
    bool waitUntil(Nanoseconds time);

    // Whether they wait for waitUntil, which is so at first, or do what they would do without this.
    void holdSignals(bool held)
    {
        stop_.hold(held);
    }

private:
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
    StopSignals stop_;
};

} // namespace tolvin
