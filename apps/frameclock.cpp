#include "frameclock.h"

#include <cmath>

namespace tolvin
{

namespace
{

std::int64_t wallNanoseconds()
{
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::nanoseconds>(now).count();
}

} // namespace

FrameClock::FrameClock(vuRootNode &root, Pace pace, double rate)
    : root_(root),
      pace_(pace),
      rate_(rate),
      start_(pace == Pace::Fast ? 0 : wallNanoseconds() / 1000), // at one moment with the monotonic one
      begin_(std::chrono::steady_clock::now())
{
    show(0);
    root_.frameDelta = 0.0;
}

double FrameClock::advance()
{
    ++frames_;
    const double before = root_.simSeconds;
    const std::int64_t sinceStart =
        pace_ == Pace::Measured ? measured() : std::llround(static_cast<double>(frames_) / rate_ * 1e6);
    show(sinceStart);
    root_.frameDelta = pace_ == Pace::Measured ? root_.simSeconds - before : 1.0 / rate_;
    return static_cast<double>(sinceStart) / 1e6; // the number that is nearest to the decimal one
}

std::int64_t FrameClock::measured() const
{
    const auto passed = std::chrono::steady_clock::now() - begin_;
    return std::chrono::duration_cast<std::chrono::microseconds>(passed).count();
}

void FrameClock::show(std::int64_t sinceStart)
{
    const std::int64_t now = start_ + sinceStart;
    root_.time.sim.sec = static_cast<std::int32_t>(now / 1000000);
    root_.time.sim.usec = static_cast<std::int32_t>(now % 1000000);
    root_.simSeconds = static_cast<double>(now) / 1e6;
    wallAhead_ = wallNanoseconds() - now * 1000;
}

} // namespace tolvin
