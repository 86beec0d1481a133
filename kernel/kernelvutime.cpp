#include "kernelvutime.h"

#include "kernelutil.h"

#include <sys/time.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cmath>
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

// Seconds since 1970 of a date and time with that daylight-saving flag (-1: let the C library choose), into which mktime
// also turns the flag that holds then. None when there is no such time.
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
