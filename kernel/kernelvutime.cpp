#include "kernelvutime.h"

#include "kernellanes.hpp"
#include "kernelutil.h"
#include "kernelvutimetables.hpp"

#include <sys/time.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <optional>
#include <tuple>

namespace
{

constexpr char kModule[] = "kernelvutime";
constexpr int32_t kMicroseconds = 1000000;
constexpr int8_t kMonthDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};

// Day numbers of -2147483648 January 1 and 2147483647 December 31, the dates whose years fit 32 bits.
constexpr double kFirstDay = -784369096028.0;
constexpr double kLastDay = 784351602344.0;
constexpr double kGregorianReform = -115860.0; // last Julian day, 1582 October 4

// Second argument of every reading of the clock; the C library may clear it.
struct timezone gmt = {0, 0};

struct DatedMjd
{
    double mjd;
    double day;
    uint16_t month;
    int32_t year;
};

int32_t saturate(int64_t value)
{
    return static_cast<int32_t>(std::clamp<int64_t>(value, INT32_MIN, INT32_MAX));
}

// Toward zero; a value beyond 32 bits gives the nearest limit, NaN gives 0.
int32_t toInt32(double value)
{
    return std::isnan(value) ? 0 : static_cast<int32_t>(std::clamp<double>(value, INT32_MIN, INT32_MAX));
}

// What a failed reading does not write stays as it was.
bool readClock(vutimeval &clock)
{
    timeval now = {clock.sec, clock.usec};
    const bool ok = gettimeofday(&now, &gmt) == 0;
    clock = {saturate(now.tv_sec), saturate(now.tv_usec)};
    return ok;
}

void setDateAndTime(vutimeTM &tm, int32_t year, const struct tm &from)
{
    tm.year = year;
    tm.month = static_cast<uint16_t>(from.tm_mon + 1);
    tm.day = static_cast<uint16_t>(from.tm_mday);
    tm.hour = static_cast<uint16_t>(from.tm_hour);
    tm.min = static_cast<uint16_t>(from.tm_min);
    tm.sec = static_cast<uint16_t>(from.tm_sec);
}

void setUTC(vutimeTM &tm, time_t seconds)
{
    struct tm utc;
    if (!gmtime_r(&seconds, &utc))
    {
        return;
    }
    const int64_t century = utc.tm_year > 69 ? 1900 : 2000;
    setDateAndTime(tm, saturate(century + utc.tm_year), utc);
    tm.usec = 0;
}

// Seconds since 1970 of a date and time with that daylight-saving flag (-1: let the C library choose), into which
// mktime also turns the flag that holds then. None when there is no such time.
std::optional<int64_t> secondsWithFlag(const vutimeTM &tm, int &daylightSaving)
{
    const int64_t sinceYear1900 = int64_t{tm.year} - 1900;
    if (sinceYear1900 < INT_MIN)
    {
        return std::nullopt;
    }
    struct tm local = {};
    local.tm_year = static_cast<int>(sinceYear1900);
    local.tm_mon = tm.month - 1;
    local.tm_mday = tm.day;
    local.tm_hour = tm.hour;
    local.tm_min = tm.min;
    local.tm_sec = tm.sec;
    local.tm_isdst = daylightSaving;
    // mktime's failure, -1, is also the second before 1970; only success sets the day of the week.
    local.tm_wday = -1;
    const int64_t seconds = mktime(&local);
    daylightSaving = local.tm_isdst;
    return local.tm_wday < 0 ? std::nullopt : std::optional(seconds);
}

// Seconds since 1970 of a local date and time; where both flags are possible, with the preferred one.
std::optional<int64_t> localSeconds(const vutimeTM &tm, int preferred)
{
    int daylightSaving = preferred;
    const std::optional<int64_t> seconds = secondsWithFlag(tm, daylightSaving);
    if (daylightSaving == preferred)
    {
        return seconds;
    }
    int any = -1;
    return secondsWithFlag(tm, any);
}

bool toLocal(int64_t seconds, struct tm &local)
{
    const auto time = static_cast<time_t>(seconds);
    return time == seconds && localtime_r(&time, &local) && local.tm_year <= INT_MAX - 1900;
}

bool isGregorian(double day, uint16_t month, int32_t year)
{
    return !(year < 1582 || (year == 1582 && (month < 10 || (month == 10 && day < 15.0))));
}

bool isLeapYear(int32_t year)
{
    return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
}

// The inverse of vutimeGetMJD. 36524.25 days are a Gregorian century and 365.25 a Julian year; years are counted from
// March, so that the leap day comes last and months follow each other every 30.6 days (30.6001 against rounding).
DatedMjd dateOf(double mjd)
{
    const double d = mjd + 0.5;
    double i = std::floor(d);
    double f = d - i;
    if (f == 1.0)
    {
        f = 0.0;
        i += 1.0;
    }
    i = std::fmin(std::fmax(i, kFirstDay), kLastDay);
    if (i > kGregorianReform)
    {
        const double a = std::floor(i / 36524.25 + 0.99835726) + 14.0;
        i += 1.0 + a - std::floor(a * 0.25);
    }
    const double b = std::floor(i / 365.25 + 0.802601);
    const double ce = i - std::floor(b * 365.25 + 0.750001) + 416.0;
    const double g = std::floor(ce / 30.6001);

    DatedMjd date = {mjd, ce - std::floor(30.6001 * g) + f, static_cast<uint16_t>(g - 1.0), 0};
    if (g > 13.5)
    {
        date.month = static_cast<uint16_t>(g - 13.0);
    }
    const int64_t year = static_cast<int64_t>(b) + (date.month <= 2 ? 1900 : 1899);
    date.year = static_cast<int32_t>(year < 1 ? year - 1 : year); // there is no year 0
    return date;
}

constexpr double kJ2000 = 36525.0; // MJD
constexpr double kPi = 3.141592653589793;
constexpr double kTurn = 6.283185307179586;
constexpr double kNever = std::numeric_limits<double>::quiet_NaN(); // equals no MJD, not even itself

// Terms are left out by a precision of 1e-5 radian: q = -log10(1e-5) - 2, and the threshold is 1e8 times the
// precision over 10 q, in units of the table.
constexpr double kPrecisionDigits = 3.0;
constexpr double kThreshold = 100.00000000000001 / kPrecisionDigits;

// The series are summed in lanes, as many on every processor, so that results do not depend on what it can do.
constexpr size_t kLanes = 4;
constexpr size_t kAlignment = 8 * kLanes;

struct SeriesBlock
{
    alignas(kAlignment) double amplitude[kLanes];
    alignas(kAlignment) double phase[kLanes]; // turns
    alignas(kAlignment) double rate[kLanes];  // turns per millennium
    double largest;                           // amplitude in this block and the following ones of the group
};

constexpr size_t kGroups = 15; // of vx_earth: longitude, latitude and radius by powers of tau

constexpr size_t blocksFor(size_t terms)
{
    return (terms + kLanes - 1) / kLanes;
}

// The rows of vx_earth where group g begins; the last entry is where the last one ends.
constexpr auto kGroupRows = []
{
    std::array<size_t, kGroups + 1> rows = {};
    size_t group = 0;
    for (size_t coordinate = 0; coordinate < 3; ++coordinate)
    {
        for (size_t power = 0; vn_earth[power + 1][coordinate] != 0; ++power)
        {
            rows[group++] = static_cast<size_t>(vn_earth[power][coordinate]);
        }
    }
    rows[group] = std::size(vx_earth);
    return rows;
}();

constexpr auto kGroupBlocks = []
{
    std::array<size_t, kGroups + 1> blocks = {};
    for (size_t g = 0; g < kGroups; ++g)
    {
        blocks[g + 1] = blocks[g] + blocksFor(kGroupRows[g + 1] - kGroupRows[g]);
    }
    return blocks;
}();

// vx_earth in columns, each group filled up with terms of amplitude 0.
constexpr auto kSeries = []
{
    std::array<SeriesBlock, kGroupBlocks[kGroups]> series = {};
    for (size_t g = 0; g < kGroups; ++g)
    {
        double largest = 0.0;
        for (size_t row = kGroupRows[g + 1]; row-- > kGroupRows[g];)
        {
            const size_t place = row - kGroupRows[g];
            SeriesBlock &block = series[kGroupBlocks[g] + place / kLanes];
            block.amplitude[place % kLanes] = vx_earth[row][0];
            block.phase[place % kLanes] = vx_earth[row][1] / kTurn;
            block.rate[place % kLanes] = vx_earth[row][2] / kTurn;
            largest = std::max(largest, vx_earth[row][0]);
            block.largest = largest;
        }
    }
    return series;
}();

constexpr size_t kNutationTerms = std::size(multarg);
constexpr size_t kNutationLanes = blocksFor(kNutationTerms) * kLanes;

// ampconst and ampsecul in columns, filled up with terms of amplitude 0.
struct NutationColumns
{
    alignas(kAlignment) double longitude[kNutationLanes];
    alignas(kAlignment) double longitudeRate[kNutationLanes];
    alignas(kAlignment) double obliquity[kNutationLanes];
    alignas(kAlignment) double obliquityRate[kNutationLanes];
};

constexpr NutationColumns kNutation = []
{
    NutationColumns columns = {};
    const auto *secular = ampsecul;
    for (size_t n = 0; n < kNutationTerms; ++n)
    {
        columns.longitude[n] = ampconst[n][0];
        columns.obliquity[n] = ampconst[n][1];
        if (ampconst[n][0] == 0 && ampconst[n][1] == 0)
        {
            const auto &row = *secular++;
            columns.longitude[n] = row[1];
            columns.longitudeRate[n] = row[2];
            columns.obliquity[n] = row[3];
            columns.obliquityRate[n] = row[4];
        }
    }
    return columns;
}();

// Coefficients of sin(2 pi y) / y in powers of y^2: Taylor's, enough for 1e-15 up to a quarter turn.
struct SineSeries
{
    double coefficients[10] = {kTurn};

    constexpr SineSeries()
    {
        for (size_t i = 1; i < std::size(coefficients); ++i)
        {
            const double order = 2.0 * static_cast<double>(i);
            coefficients[i] = coefficients[i - 1] * (-kTurn * kTurn / (order * (order + 1.0)));
        }
    }
};

constexpr SineSeries kSine;

// Cosine of x turns. In turns the reduction is exact: x less the nearest integer, found by the rounding of a sum.
// Beyond 2^51, where that fails and the angle is long lost, the result is still a cosine's.
template<size_t n>
INLINE auto cosineOfTurns(const typename LanesOf<n>::Doubles &x)
{
    using Doubles = typename LanesOf<n>::Doubles;
    using Bits = typename LanesOf<n>::Bits;
    constexpr double kIntegers = 6755399441055744.0; // 1.5 * 2^52: sums with it have no fraction
    const Doubles signedRest = x - ((x + kIntegers) - kIntegers);
    const Bits rest = reinterpret_cast<Bits>(signedRest) & INT64_MAX;
    const Bits tooMuch = reinterpret_cast<Bits>(reinterpret_cast<Doubles>(rest) > 0.5);
    const Doubles complement = 0.25 - reinterpret_cast<Doubles>(rest & ~tooMuch); // keeps NaN
    return Doubles(complement * polynomial(Doubles(complement * complement), kSine.coefficients));
}

// Lanes in memory, which holds kLanes of them.
template<size_t n>
INLINE const typename LanesOf<n>::Doubles &lanesAt(const double *place)
{
    return *reinterpret_cast<const typename LanesOf<n>::Doubles *>(place);
}

template<class Doubles>
INLINE double sumOf(const Doubles &sums)
{
    double lanes[kLanes];
    std::memcpy(lanes, &sums, sizeof lanes);
    return (lanes[0] + lanes[2]) + (lanes[1] + lanes[3]);
}

// Sum of the terms of a group at tau, without those of an amplitude below the threshold.
template<size_t n>
INLINE double sumGroup(size_t group, double tau, double threshold)
{
    using Doubles = typename LanesOf<n>::Doubles;
    using Bits = typename LanesOf<n>::Bits;
    Doubles sums[kLanes / n] = {};
    for (size_t b = kGroupBlocks[group]; b < kGroupBlocks[group + 1] && !(kSeries[b].largest < threshold); ++b)
    {
        const SeriesBlock &block = kSeries[b];
        for (size_t i = 0; i < kLanes; i += n)
        {
            const Doubles amplitude = lanesAt<n>(block.amplitude + i);
            const Bits leftOut = reinterpret_cast<Bits>(amplitude < threshold);
            const auto counted = reinterpret_cast<Doubles>(reinterpret_cast<Bits>(amplitude) & ~leftOut);
            sums[i / n] += counted * cosineOfTurns<n>(lanesAt<n>(block.phase + i) + lanesAt<n>(block.rate + i) * tau);
        }
    }
    return sumOf(sums);
}

// The three coordinates in units of the table. A term counts if it exceeds the threshold after multiplication with
// tau^k and with the change of tau^k over 1e-4 millennia; the last summand is against division by 0.
template<size_t n>
INLINE void sumSeries(double tau, double (&result)[3])
{
    size_t group = 0;
    for (size_t coordinate = 0; coordinate < 3; ++coordinate)
    {
        result[coordinate] = 0.0;
        double power = 1.0;       // tau^k
        double powerBefore = 0.0; // |tau|^(k-1)
        for (int k = 0; vn_earth[k + 1][coordinate] != 0; ++k)
        {
            const double size = std::fabs(power) + k * powerBefore * 1e-4 + 1e-35;
            result[coordinate] += power * sumGroup<n>(group++, tau, kThreshold / size);
            powerBefore = std::fabs(power);
            power *= tau;
        }
    }
}

// delcache[j][4 + k]: k times fundamental argument j, in turns.
using ArgumentMultiples = double[5][9];

// Nutation in obliquity and longitude in 0.0001 arcseconds; tenT in tens of Julian centuries.
template<size_t n>
INLINE void sumNutation(const ArgumentMultiples &delcache, double tenT, double &deps, double &dpsi)
{
    alignas(kAlignment) double arguments[kNutationLanes];
    std::fill(arguments + kNutationTerms, std::end(arguments), 0.0);
    for (size_t term = 0; term < kNutationTerms; ++term)
    {
        const auto &m = multarg[term];
        arguments[term] = delcache[0][4 + m[0]] + delcache[1][4 + m[1]] + delcache[2][4 + m[2]] +
                          delcache[3][4 + m[3]] + delcache[4][4 + m[4]];
    }
    typename LanesOf<n>::Doubles longitude[kLanes / n] = {}, obliquity[kLanes / n] = {};
    for (size_t term = 0; term < kNutationLanes; term += n)
    {
        const auto &argument = lanesAt<n>(arguments + term);
        const auto s = lanesAt<n>(kNutation.longitude + term) + lanesAt<n>(kNutation.longitudeRate + term) * tenT;
        const auto c = lanesAt<n>(kNutation.obliquity + term) + lanesAt<n>(kNutation.obliquityRate + term) * tenT;
        const size_t place = term % kLanes / n;
        longitude[place] += s * cosineOfTurns<n>(argument - 0.25);
        obliquity[place] += c * cosineOfTurns<n>(argument);
    }
    dpsi = sumOf(longitude);
    deps = sumOf(obliquity);
}

// The same code for every x86 processor and for those with AVX2.
void sumSeriesPlain(double tau, double (&result)[3])
{
    sumSeries<2>(tau, result);
}

[[gnu::target("avx2")]] void sumSeriesAvx2(double tau, double (&result)[3])
{
    sumSeries<4>(tau, result);
}

void sumNutationPlain(const ArgumentMultiples &delcache, double tenT, double &deps, double &dpsi)
{
    sumNutation<2>(delcache, tenT, deps, dpsi);
}

[[gnu::target("avx2")]] void sumNutationAvx2(const ArgumentMultiples &delcache, double tenT, double &deps, double &dpsi)
{
    sumNutation<4>(delcache, tenT, deps, dpsi);
}

double meanAnomaly(double d)
{
    return normalize_angle(6.240040768070287 + 0.017201970343643867 * d);
}

} // namespace

void vutimeTMInit(vutimeTM *tm)
{
    *tm = {.year = 0, .month = 1, .day = 1, .hour = 0, .min = 0, .sec = 0, .usec = 0};
}

void vutimeTMSetLocal(vutimeTM *tm)
{
    timeval now = {0, 0};
    if (gettimeofday(&now, &gmt) != 0)
    {
        vuMessage("Warning", kModule, 141, "timeofday failed");
    }
    setUTC(*tm, now.tv_sec);
}

void vutimeTMCopy(vutimeTM *dst, const vutimeTM *src)
{
    *dst = *src;
}

void vutimeTMAdd(vutimeTM *tm, int32_t seconds, int32_t microseconds)
{
    const int32_t carried = std::max(microseconds, 0) / kMicroseconds;
    const int64_t step = int64_t{seconds} + carried;
    // The hour that the end of daylight saving repeats is taken for the one that lies in the direction of the step, so
    // that a clock which is moved in small steps gets past it.
    const std::optional<int64_t> start = localSeconds(*tm, step < 0 ? 1 : 0);
    struct tm local;
    if (!start || !toLocal(*start + step, local))
    {
        return;
    }
    setDateAndTime(*tm, local.tm_year + 1900, local);
    tm->usec = saturate(int64_t{tm->usec} + microseconds - int64_t{carried} * kMicroseconds);
}

int vutimeTMloweqThen(const vutimeTM *a, const vutimeTM *b)
{
    return std::tie(a->year, a->month, a->day, a->hour, a->min, a->sec, a->usec) <=
           std::tie(b->year, b->month, b->day, b->hour, b->min, b->sec, b->usec);
}

int32_t vutimeInit(vutime *time)
{
    if (!readClock(time->start))
    {
        vuMessage(nullptr, kModule, 379, "timeofday failed");
    }
    readClock(time->animStart);
    time->tv08 = {0, 0};
    time->sim = time->start;
    setUTC(time->simTM, time->start.sec);
    vutimeTMInit(&time->animTM);

    struct tm j2000 = {};
    j2000.tm_year = 100;
    j2000.tm_mday = 1;
    j2000.tm_hour = 12;
    j2000.tm_wday = 6;
    time->j2000 = saturate(mktime(&j2000));
    return time->j2000;
}

void vutimeAnimReset(vutime *time)
{
    readClock(time->animStart);
    time->animTM = {};
    time->animSeconds = 0.0;
}

void vutimeCalcAnimTMFromAnimTime(vutime *time)
{
    const int32_t s = toInt32(time->animSeconds);
    const double fraction = time->animSeconds - s;
    // Only seconds that do not fit leave more than a fraction.
    const int32_t usec = std::fabs(fraction) < 1.0 ? toInt32(fraction * kMicroseconds) : 0;
    const int32_t hour = s / 3600;
    const int32_t r = s - hour * 3600;
    time->animTM.usec = usec;
    time->animTM.hour = static_cast<uint16_t>(hour);
    time->animTM.min = static_cast<uint16_t>(r / 60);
    time->animTM.sec = static_cast<uint16_t>(r % 60);
    vu_warn("Debug", kModule, 460, "usec: %d sec: %d", usec, time->animTM.sec);
}

// Julian day numbers after J. Meeus, Astronomical Algorithms, chapter 7, counted from 1899 December 31.5.
double vutimeGetMJD(double day, uint16_t month, int32_t year)
{
    static DatedMjd last;
    if (month == last.month && year == last.year && day == last.day)
    {
        return last.mjd;
    }
    // January and February end the year before; year -1 comes right before year 1.
    const bool endsYear = month == 1 || month == 2;
    const int64_t m = month + (endsYear ? 12 : 0);
    const int64_t y = int64_t{year} + (year < 0) - endsYear;
    int64_t b = 0;
    if (isGregorian(day, month, year))
    {
        const int64_t a = y / 100;
        b = 2 - a + a / 4;
    }
    const auto c = static_cast<int64_t>(365.25 * static_cast<double>(y) - (y < 0 ? 0.75 : 0.0)) - 694025;
    const auto d = static_cast<int64_t>(30.6001 * static_cast<double>(m + 1));
    last = {static_cast<double>(b + c + d) + day - 0.5, day, month, year};
    return last.mjd;
}

void vutimeReverseMJD(double mjd, double *day, uint16_t *month, int32_t *year)
{
    static DatedMjd last;
    if (mjd == 0.0)
    {
        *day = 31.5;
        *month = 12;
        *year = 1899;
        return;
    }
    if (mjd != last.mjd)
    {
        last = dateOf(mjd);
    }
    *day = last.day;
    *month = last.month;
    *year = last.year;
}

int isvalidDayOfMonth(uint16_t month, uint16_t day, int32_t year)
{
    if (month < 1 || month > 12)
    {
        return 0;
    }
    const int limit = month == 2 && isLeapYear(year) ? 29 : kMonthDays[month - 1];
    return day >= 1 && day <= limit;
}

int updateSimtime(vutime *time)
{
    using namespace std::chrono;
    constexpr sys_seconds kEpoch = sys_days(2000y / January / 1) + 12h;
    const vutimeTM &tm = time->simTM;
    // Years outside these give seconds beyond 32 bits whatever the other fields hold, and std::chrono ends at 32767.
    const year_month monthOfYear = year(std::clamp(tm.year, 1600, 2400)) / std::clamp<int>(tm.month, 1, 12);
    const sys_seconds moment =
        sys_days(monthOfYear / 1) + days(tm.day - 1) + hours(tm.hour) + minutes(tm.min) + seconds(tm.sec);
    time->sim.sec = saturate(time->j2000 + (moment - kEpoch).count());
    return 1;
}

double normalize_angle(double x)
{
    // So many turns are taken away at once: subtracting them one by one would take long, or never end.
    if (std::fabs(x) > 1e5)
    {
        x = std::remainder(x, kTurn);
    }
    while (x > kPi)
    {
        x -= kTurn;
    }
    while (x <= -kPi)
    {
        x += kTurn;
    }
    return x;
}

double sun_position(double d)
{
    const double longitude = normalize_angle(4.894950420143297 + 0.017202792393721557 * d);
    const double anomaly = meanAnomaly(d);
    std::fprintf(stderr, "Ma %f lon %f\n", anomaly, longitude * 180.0 / kPi);
    return normalize_angle(longitude + 0.03342305517569141 * std::sin(anomaly) +
                           0.00034906585039886593 * std::sin(2.0 * anomaly));
}

double sun_velocity(double d)
{
    const double anomaly = meanAnomaly(d);
    return 0.017202792393721557 + 0.0005749424039262163 * std::cos(anomaly) +
           1.2009240813080238e-5 * std::cos(2.0 * anomaly);
}

double days_after_J2000(const vutime *time)
{
    const double days = difftime(time->sim.sec, time->j2000) / 86400.0;
    std::fprintf(stderr, "Days after J2000 %f\n", days);
    return days;
}

void vsop87sun(double mjd, double *ret)
{
    std::fprintf(stderr, "q: %17f\n", kPrecisionDigits);
    const double tau = (mjd - kJ2000) / 365250.0;
    double sums[3];
    (hasAvx2() ? sumSeriesAvx2 : sumSeriesPlain)(tau, sums);
    double longitude = sums[0] / 1e8;
    const double latitude = sums[1] / 1e8;
    longitude -= std::floor(longitude / kTurn) * kTurn;

    // From the dynamical equinox of the theory to FK5.
    const double turned = longitude - (13.97 * tau - 0.031 * tau * tau) * kPi / 180.0;
    const double cosine = std::cos(turned), sine = std::sin(turned);
    ret[0] = longitude + (-0.09033 + 0.03916 * (cosine + sine) * std::tan(latitude)) * kPi / 180.0 / 3600.0;
    ret[1] = latitude + 0.03916 * (cosine - sine) * kPi / 180.0 / 3600.0;
    ret[2] = sums[2] / 1e8;
}

void sunpos(double mjd, double *lsn, double *rsn, double *bsn)
{
    static double last = kNever, last_lsn, last_rsn, last_bsn;
    if (mjd != last)
    {
        double earth[3];
        vsop87sun(mjd, earth);
        last = mjd;
        last_lsn = earth[0] - kPi;
        last_rsn = earth[2];
        last_bsn = -earth[1];
    }
    *lsn = last_lsn;
    *rsn = last_rsn;
    if (bsn)
    {
        *bsn = last_bsn;
    }
}

double obliquity(double mjd)
{
    static double last = kNever, lasteps;
    if (mjd != last)
    {
        const double t = (mjd - kJ2000) / 36525.0;
        lasteps = (23.4392911 + t * (-46.815 + t * (-0.00059 + t * 0.001813)) / 3600.0) * kPi / 180.0;
        last = mjd;
    }
    return lasteps;
}

void nutation(double mjd, double *deps, double *dpsi)
{
    static double last = kNever, lastdeps, lastdpsi;
    static ArgumentMultiples delcache;
    if (mjd != last)
    {
        const double t = (mjd - kJ2000) / 36525.0;
        for (size_t j = 0; j < std::size(delaunay); ++j)
        {
            const auto &c = delaunay[j];
            double turns = (c[0] + c[1] * t + c[2] * (t * t) + c[3] * (t * t * t)) / 1296000.0;
            turns -= std::floor(turns);
            for (int k = -4; k <= 4; ++k)
            {
                delcache[j][4 + k] = k * turns;
            }
        }
        (hasAvx2() ? sumNutationAvx2 : sumNutationPlain)(delcache, t / 10.0, lastdeps, lastdpsi);
        lastdeps = lastdeps / 3600.0 / 10000.0 * kPi / 180.0;
        lastdpsi = lastdpsi / 3600.0 / 10000.0 * kPi / 180.0;
        last = mjd;
    }
    *deps = lastdeps;
    *dpsi = lastdpsi;
}
