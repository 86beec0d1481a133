#include "reportclock.h"

#include <tolvin/kernel/kerneldis.h>
#include <tolvin/kernel/kerneldisdr.h>

#include <algorithm>
#include <cassert>
#include <cmath>

namespace tolvin
{
namespace
{

constexpr double kHour = 3600;

// A stretch contributes its least delayed report. It lasts until it has seen enough of them, within limits, so that
// senders of a report every few seconds get a longer memory.
constexpr double kStretch = 10;
constexpr double kLongestStretch = 30;
constexpr int kStretchReports = 10;
constexpr double kMemory = 300; // silence, or step of the local clock, after which a clock is unknown again

// No working clock drifts faster: time daemons slew at 500 ppm.
constexpr double kMaxDrift = 500e-6;
// The drift is believed only as far as the envelope shows it this long before and after the middle of its points;
// with less to go by, the luck of a few reports would pass for drift.
constexpr double kDriftMargin = 20;
// Falls of the envelope beyond this are a step of the clock or a faster path, not drift.
constexpr double kStep = 0.005;

constexpr double kJump = 1;
constexpr double kLatest = 3;          // a delay that is believed beyond kJump, when the clock is well known
constexpr std::uint64_t kSettled = 16; // timed reports after which it is
constexpr double kRivalSpread = 0.25;  // delays that still agree on one offset
constexpr double kRivalTime = 0.5;     // longer than the spread: stamps that stand still never agree
constexpr int kRivalReports = 4;

// Time daemons step a clock by 0.128 s and more, so less than this is congestion of the network.
constexpr double kLate = 0.1;
constexpr double kLateTime = 1.5;
constexpr int kLateReports = 5;

constexpr double kFrozen = 0.25; // one frame of a sender may spread that far under one stamp
constexpr int kDoubtful = 4;
constexpr int kMaxDoubt = 8;

double envelopeAt(const SenderClock &clock, double arrival)
{
    return clock.support.offset + clock.drift * (arrival - clock.support.arrival);
}

struct Hull
{
    std::array<ClockPoint, std::tuple_size_v<decltype(SenderClock::points)>> points;
    int count = 0;
};

// Lower convex hull from left to right (Andrew, "Another efficient algorithm for convex hulls in two dimensions",
// 1979).
Hull lowerHull(std::span<const ClockPoint> points)
{
    Hull hull;
    for (const ClockPoint &point : points)
    {
        const auto turnsLeft = [&](const ClockPoint &a, const ClockPoint &b) {
            return (b.offset - a.offset) * (point.arrival - b.arrival) <
                   (point.offset - b.offset) * (b.arrival - a.arrival);
        };
        while (hull.count >= 2 && !turnsLeft(hull.points[hull.count - 2], hull.points[hull.count - 1]))
        {
            --hull.count;
        }
        hull.points[hull.count++] = point;
    }
    return hull;
}

// Slope of the hull; it falls without end left of the points and rises without end right of them.
double slopeAt(const Hull &hull, double arrival)
{
    constexpr double kWall = std::numeric_limits<double>::infinity();
    int right = 0;
    while (right < hull.count && hull.points[right].arrival < arrival)
    {
        ++right;
    }
    if (right == 0 || right == hull.count)
    {
        return right == 0 ? -kWall : kWall;
    }
    const ClockPoint &a = hull.points[right - 1], &b = hull.points[right];
    return (b.offset - a.offset) / (b.arrival - a.arrival);
}

// Lay the envelope under the points. Of all lines below them, the one that is highest in the middle has the least mean
// distance (Moon, Skelly and Towsley, "Estimation and removal of clock skew from network delay measurements", 1999);
// the margin around the middle prefers smaller drifts.
void fitEnvelope(SenderClock &clock)
{
    const std::span points(clock.points.data(), clock.pointCount);
    const Hull hull = lowerHull(points);
    const double base = points.back().arrival;
    double middle = 0;
    for (const ClockPoint &point : points)
    {
        middle += (point.arrival - base) / clock.pointCount;
    }
    const double drift =
        std::clamp(0.0, slopeAt(hull, base + middle - kDriftMargin), slopeAt(hull, base + middle + kDriftMargin));
    clock.drift = std::clamp(drift, -kMaxDrift, kMaxDrift);
    const auto height = [&](const ClockPoint &point) { return point.offset - clock.drift * (point.arrival - base); };
    clock.support = *std::ranges::min_element(points, {}, height);
}

void startEnvelope(SenderClock &clock, double arrival, double offset)
{
    clock.points[0] = {arrival, offset};
    clock.pointCount = 1;
    clock.stretchStart = clock.lastArrival = arrival;
    clock.stretchReports = 0;
    clock.relativeArrival = -std::numeric_limits<double>::infinity();
    clock.absolute = false;
    clock.lateCount = clock.rivalCount = clock.doubt = 0;
    clock.offset = offset;
    fitEnvelope(clock);
}

// A step of the clock leaves its drift as it was.
void shiftEnvelope(SenderClock &clock, double step)
{
    for (int i = 0; i < clock.pointCount; ++i)
    {
        clock.points[i].offset += step;
    }
    clock.support.offset += step;
    clock.offset += step;
}

void followEnvelope(SenderClock &clock, double arrival, double offset)
{
    const double below = envelopeAt(clock, arrival) - offset;
    if (below > kStep)
    {
        shiftEnvelope(clock, -below);
        if (below > kLate && clock.pointCount > 1) // before, it may be the first reports that were late
        {
            ++clock.jumps;
        }
    }
    ++clock.stretchReports;
    ClockPoint &last = clock.points[clock.pointCount - 1];
    const double length = arrival - clock.stretchStart;
    const bool full = length >= kStretch && (clock.stretchReports > kStretchReports || length >= kLongestStretch);
    if (full && arrival > last.arrival)
    {
        if (clock.pointCount == std::ssize(clock.points))
        {
            std::ranges::move(clock.points.begin() + 1, clock.points.end(), clock.points.begin());
            --clock.pointCount;
        }
        clock.points[clock.pointCount++] = {arrival, offset};
        clock.stretchStart = arrival;
        clock.stretchReports = 0;
        fitEnvelope(clock);
    }
    else if (offset < last.offset + clock.drift * (arrival - last.arrival))
    {
        last = {arrival, offset};
        if (below > 0)
        {
            fitEnvelope(clock);
        }
    }
    // When better reports leave the memory the envelope rises; spread that out, as nothing happened to the clock.
    const double highest = clock.offset + kMaxDrift * (arrival - clock.lastArrival);
    clock.offset = std::min({envelopeAt(clock, arrival), highest, offset});
    clock.lastArrival = arrival;
}

// A clock that was set back looks like delay at first. When not one of many reports comes as early as the others did,
// it is no delay: with exponential delays the chance of that is exp(-count * least / mean), here below exp(-20).
void noticeLateRun(SenderClock &clock, double arrival, double offset)
{
    const double late = offset - clock.offset;
    if (late <= kLate)
    {
        clock.lateCount = 0;
        return;
    }
    if (clock.lateCount++ == 0)
    {
        clock.lateSince = arrival;
        clock.lateLeast = late;
        clock.lateMean = clock.meanLatency;
    }
    clock.lateLeast = std::min(clock.lateLeast, late);
    if (clock.lateCount >= kLateReports && arrival - clock.lateSince >= kLateTime &&
        clock.lateLeast * clock.lateCount > 20 * clock.lateMean)
    {
        shiftEnvelope(clock, clock.lateLeast);
        clock.lateCount = 0;
        ++clock.jumps;
    }
}

// True when the stamp far off the envelope is the last of enough that agree: then the envelope has started anew there.
bool acceptRival(SenderClock &clock, double arrival, double &offset)
{
    clock.doubt = std::min(clock.doubt + 1, kMaxDoubt);
    const double difference = std::remainder(offset - clock.rival.offset, kHour);
    const bool agrees = clock.rivalCount > 0 && std::abs(difference) <= kRivalSpread;
    if (!agrees)
    {
        clock.rival = {arrival, offset};
        clock.rivalLeast = offset;
        clock.rivalCount = 0;
    }
    else
    {
        offset = clock.rival.offset + difference;
        clock.rivalLeast = std::min(clock.rivalLeast, offset);
    }
    ++clock.rivalCount;
    if (clock.rivalCount < kRivalReports || arrival - clock.rival.arrival < kRivalTime)
    {
        return false;
    }
    startEnvelope(clock, arrival, clock.rivalLeast);
    ++clock.jumps;
    return true;
}

// The bounds for giving trust up are wider than those for giving it, so that it does not come and go.
void judgeAbsolute(SenderClock &clock, double arrival, std::uint32_t stamp)
{
    const double ahead = clockOffset(clock);
    if ((stamp & 1) == 0)
    {
        clock.relativeArrival = arrival;
        clock.absolute = false;
    }
    else if (clock.absolute)
    {
        clock.absolute = ahead >= -0.1 && ahead <= 3;
    }
    else
    {
        clock.absolute = ahead >= -0.05 && ahead <= 2 && arrival - clock.relativeArrival > kStretch;
    }
}

// The entities of a sender may share the stamp of a frame, so a stamp stands still only after a while, but for a sender
// that never moved its stamp yet.
bool standsStill(SenderClock &clock, double arrival, std::uint32_t time)
{
    if (time != clock.stamp)
    {
        clock.stampMoves = clock.stamp != 0;
        clock.stamp = time;
        clock.stampArrival = arrival;
        return false;
    }
    return !clock.stampMoves || arrival - clock.stampArrival > kFrozen;
}

// Offset of the report, in the turn of the hour that is nearest to the envelope; false when its stamp is of no use. age
// is then the one that the report has all the same.
bool timeReport(SenderClock &clock, double arrival, std::uint32_t stamp, double &offset, double &age)
{
    // A stamp of 0 was never set, unless it agrees with the others just at the turn of the hour.
    const bool isSet = stamp >> 1 != 0;
    if (isSet && standsStill(clock, arrival, stamp >> 1))
    {
        return false;
    }
    offset = std::remainder(arrival - disTimeSeconds(stamp), kHour);
    if (clock.pointCount == 0 || std::abs(arrival - clock.lastArrival) > kMemory)
    {
        if (isSet)
        {
            startEnvelope(clock, arrival, offset);
        }
        return isSet;
    }
    const double expected = envelopeAt(clock, arrival);
    const double late = std::remainder(offset - expected, kHour);
    offset = expected + late;
    if (!isSet && (late < 0 || late > kLate))
    {
        return false;
    }
    const bool settled = clock.timed >= kSettled;
    if (std::abs(late) > kJump || (late < -kLate && settled))
    {
        if (acceptRival(clock, arrival, offset))
        {
            return true;
        }
        // Some seconds late may be true, and then the report is no news; more, or ahead of the others, is not.
        age = settled && clock.doubt < kDoubtful && late > 0 && late <= kLatest ? late : 0;
        return false;
    }
    clock.rivalCount = 0;
    const bool doubtful = clock.doubt >= kDoubtful;
    clock.doubt = std::max(clock.doubt - 2, 0);
    return !doubtful;
}

} // namespace

double ageOnArrival(SenderClock &clock, double arrival, std::uint32_t stamp)
{
    double offset = 0, untimedAge = 0;
    if (!timeReport(clock, arrival, stamp, offset, untimedAge))
    {
        ++clock.untimed;
        return clock.latency = untimedAge;
    }
    arrival = std::max(arrival, clock.lastArrival);
    followEnvelope(clock, arrival, offset);
    noticeLateRun(clock, arrival, offset);
    judgeAbsolute(clock, arrival, stamp);
    // Trusted clocks agree with the local one; what remains above 0 is delay.
    const double constantDelay = clock.absolute ? std::max(clockOffset(clock), 0.0) : 0;
    clock.latency = std::max(offset - clock.offset + constantDelay, 0.0);
    ++clock.timed;
    clock.meanLatency +=
        (clock.latency - clock.meanLatency) / static_cast<double>(std::min<std::uint64_t>(clock.timed, 64));
    return clock.latency;
}

double clockOffset(const SenderClock &clock)
{
    return std::remainder(clock.offset, kHour);
}

std::uint32_t stampForKernel(double now, double age)
{
    constexpr double kUnits = 2147483647; // of the kernel's reading, in one hour
    const double past = std::clamp(std::fmod(now, kHour) + age, 0.0, kHour);
    return static_cast<std::uint32_t>(std::llround(past / kHour * kUnits)) << 1;
}

namespace
{

constexpr std::int64_t kSecondUs = 1000000;
constexpr std::int64_t kHourUs = 3600 * kSecondUs;

double clampAge(double age)
{
    return age >= -1 ? std::min(age, 1800.0) : age < -1 ? -1.0 : 0.0;
}

// The clock nearest to `clock` (microseconds) at which the stamps of ages from youngest to oldest can be expressed. A
// report made at t needs (clock mod hour) + clock - t between 0 and an hour, where the clock counts twice.
std::int64_t clockForAges(std::int64_t clock, double youngest, double oldest)
{
    const std::int64_t past = clock % kHourUs; // negative on negative clocks, as the kernel's
    const auto above = past + static_cast<std::int64_t>(std::ceil(oldest * kSecondUs)) - kHourUs;
    const auto below = -past - static_cast<std::int64_t>(std::floor(std::max(youngest, 0.0) * kSecondUs));
    return above > 0 ? clock - (above + 1) / 2 : below > 0 ? clock + (below + 1) / 2 : clock;
}

vutimeval timevalOf(std::int64_t us)
{
    const std::int64_t rest = (us % kSecondUs + kSecondUs) % kSecondUs;
    return {static_cast<std::int32_t>((us - rest) / kSecondUs), static_cast<std::int32_t>(rest)};
}

} // namespace

void handOver(vuRootNode *root, std::span<vuEntityState> reports, std::span<const double> ages)
{
    assert(reports.size() == ages.size());
    if (reports.empty())
    {
        return;
    }
    const vutimeval kept = root->time.sim;
    const std::int64_t clock = kept.sec * kSecondUs + kept.usec;
    const auto [youngest, oldest] = std::ranges::minmax(ages, {}, clampAge);
    const std::int64_t during = clockForAges(clock, clampAge(youngest), clampAge(oldest));
    const double shift = static_cast<double>(during - clock) / kSecondUs;
    const vutimeval sim = timevalOf(during);
    for (std::size_t i = 0; i < reports.size(); ++i)
    {
        reports[i].timestamp = stampForKernel(sim.sec + sim.usec / 1e6, clampAge(ages[i]) + shift);
    }
    root->time.sim = sim;
    disUpdateEntities(root, reports.data(), reports.size());
    root->time.sim = kept;
}

} // namespace tolvin
