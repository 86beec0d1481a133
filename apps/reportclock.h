// From the time stamps of received reports to stamps that the kernel reads right.
//
// The kernel takes a report for (now - recvTime) - ((recvTime mod 3600) - pduTime) seconds old, recvTime being the
// root clock when the report was handed over at T and pduTime the seconds past the hour in its stamp. So a report
// made at local time t needs pduTime = (T mod 3600) + (T - t): the stamp has to carry how old the report is, not when
// the sender's clock says it was made. What a sender's stamps tell about age is estimated per sender (ageOnArrival);
// handOver() writes the result into the stamps and gives the reports to the kernel.
//
// All times are seconds; the local clock is the one the root clock follows.
#pragma once

#include <tolvin/kernel/kerneldisstate.h>
#include <tolvin/kernel/kernelgeneric.h>

#include <array>
#include <cstdint>
#include <limits>
#include <span>

namespace tolvin
{

// A report's arrival on the local clock, and arrival minus stamp: the difference of the two clocks plus the delay.
struct ClockPoint
{
    double arrival = 0;
    double offset = 0;
};

// What is known about the clock of one sender (site and application). Start with a default-constructed record; only
// ageOnArrival() changes it. Readers want the first block.
struct SenderClock
{
    double offset = 0;  // arrival - stamp of a report without avoidable delay at the last timed arrival, modulo 3600
    double drift = 0;   // change of offset in seconds per second, at most 500 ppm either way
    double latency = 0; // age on arrival of the last report, never negative
    double meanLatency = 0;    // running mean of latency over about 64 timed reports
    std::uint64_t timed = 0;   // reports whose stamp was used
    std::uint64_t untimed = 0; // reports taken to be made on arrival, because their stamp makes no sense
    std::uint32_t jumps = 0;   // times the sender's clock was set
    bool absolute = false;     // stamps are absolute and plausible: constant delay counts as age

    // The least delayed report of each of the latest stretches of time, oldest first, arrivals increasing.
    std::array<ClockPoint, 16> points;
    int pointCount = 0;      // 0: nothing known yet
    ClockPoint support;      // the point through which the envelope passes
    double stretchStart = 0; // arrival of the first report of the last stretch
    int stretchReports = 0;
    double lastArrival = 0;                                            // latest arrival of a timed report
    double relativeArrival = -std::numeric_limits<double>::infinity(); // latest arrival of a relative stamp

    std::uint32_t stamp = 0; // last stamp, without its lowest bit
    double stampArrival = 0; // when it was first seen
    bool stampMoves = false; // two different stamps were seen
    int doubt = 0;           // 0 to 8: rises with stamps far off the envelope, falls with good ones

    ClockPoint rival; // first of the consecutive stamps that agree on another offset
    double rivalLeast = 0;
    int rivalCount = 0;
    double lateSince = 0; // the current run of reports that all came late
    double lateLeast = 0; // least delay in it
    double lateMean = 0;  // meanLatency before it
    int lateCount = 0;
};

// How old a report was on arrival, at least 0. arrival is the local clock when it came in and must be finite; stamp
// is its DIS time stamp as sent. Hand over the reports of one sender in order of arrival. Allocates nothing, constant
// time.
//
// The offset follows the lower envelope of arrival - stamp: a straight line under the least delayed reports of the
// last minutes, whose slope is the drift of the two clocks. Delays above the envelope are age. The constant part of
// the delay cannot be told from a difference of the clocks and counts only for absolute stamps whose envelope lies
// within -0.05 to 2 s of the local clock; other absolute stamps are read as relative ones. The turn of the hour, on
// either clock, changes nothing.
//
// A report whose stamp makes no sense counts as made on arrival (0) and leaves the estimate alone: a stamp that was
// never set, one stamp for more than 0.25 s, stamps more than 1 s off the envelope, and, once 16 reports are known,
// stamps more than 0.1 s ahead of it. Then, too, up to 3 s late is believed. When stamps off the envelope agree with
// one another for 0.5 s, or when all reports of 1.5 s come at least 0.1 s late, the sender's clock was set and the
// envelope moves there at once.
double ageOnArrival(SenderClock &clock, double arrival, std::uint32_t stamp);

// Difference of the clocks (local minus sender's, with the least delay in it), -1800 to 1800 s; 0 without timed
// reports.
double clockOffset(const SenderClock &clock);

// Stamp that the kernel reads as (now mod 3600) + age, to 0.9 microseconds, bit 0 clear. A sum outside 0 to 3600 cannot
// be expressed and gives the nearer end; handOver() deals with those.
std::uint32_t stampForKernel(double now, double age);

// Give reports to the kernel, in order, each to be extrapolated from the age in ages (as many): the kernel's age of a
// report at any later time is that time minus (root clock - age), to 2 microseconds. Ages count on the root clock as it
// stands, so they include the wait between arrival and this call; -1 to 1800 s, others are cut to that.
//
// Overwrites the stamps. A report whose stamp would have to reach past the turn of the hour is why the root clock
// (root->time.sim) is set back or ahead during the call, by no more than half the greatest age; it is restored before
// the call returns. On clocks before 1970, which count down to the hour, it is set ahead by up to half an hour. The
// entities' recvTime shows the clock of the call.
void handOver(vuRootNode *root, std::span<vuEntityState> reports, std::span<const double> ages);

} // namespace tolvin
