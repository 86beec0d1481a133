#include "timescale.h"

#include <tolvin/kernel/kernelvutime.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <iterator>
#include <stdexcept>
#include <string_view>
#include <type_traits>
#include <utility>

namespace tolvin
{

namespace
{

constexpr double kSecondsPerDay = 86400.0;
constexpr double kUnixEpoch = 25567.5;
constexpr double kTaiToTerrestrial = 32.184;
constexpr int kFirstYear = -2000;
constexpr int kLastYear = 3000;
constexpr int kLeapSecondsUntil = 2050;

// Months at whose start TAI - UTC grew by a second; it was 10 s in the first (IERS Bulletin C).
constexpr std::pair<int, int> kLeapSeconds[] = {
    {1972, 1}, {1972, 7}, {1973, 1}, {1974, 1}, {1975, 1}, {1976, 1}, {1977, 1}, {1978, 1}, {1979, 1}, {1980, 1},
    {1981, 7}, {1982, 7}, {1983, 7}, {1985, 7}, {1988, 1}, {1990, 1}, {1991, 1}, {1992, 7}, {1993, 7}, {1994, 7},
    {1996, 1}, {1997, 7}, {1999, 1}, {2006, 1}, {2009, 1}, {2012, 7}, {2015, 7}, {2017, 1}};

// Seconds, a polynomial of (year - origin) / unit up to that year.
struct DeltaTFit
{
    double until;
    double origin;
    double unit;
    std::array<double, 8> coefficients;
};

constexpr DeltaTFit kDeltaTFits[] = {
    {-500, 1820, 100, {-20, 0, 32}},
    {500, 0, 100, {10583.6, -1014.41, 33.78311, -5.952053, -0.1798452, 0.022174192, 0.0090316521}},
    {1600, 1000, 100, {1574.2, -556.01, 71.23472, 0.319781, -0.8503463, -0.005050998, 0.0083572073}},
    {1700, 1600, 1, {120, -0.9808, -0.01532, 1.0 / 7129}},
    {1800, 1700, 1, {8.83, 0.1603, -0.0059285, 0.00013336, -1.0 / 1174000}},
    {1860, 1800, 1, {13.72, -0.332447, 0.0068612, 0.0041116, -0.00037436, 0.0000121272, -0.0000001699, 0.000000000875}},
    {1900, 1860, 1, {7.62, 0.5737, -0.251754, 0.01680668, -0.0004473624, 1.0 / 233174}},
    {1920, 1900, 1, {-2.79, 1.494119, -0.0598939, 0.0061966, -0.000197}},
    {1941, 1920, 1, {21.20, 0.84493, -0.076100, 0.0020936}},
    {1961, 1950, 1, {29.07, 0.407, -1.0 / 233, 1.0 / 2547}},
    {1986, 1975, 1, {45.45, 1.067, -1.0 / 260, -1.0 / 718}},
    {2150, 1820, 100, {-20 - 0.5628 * 330, 56.28, 32}}, // in one: the parabola of the next, less 0.5628 (2150 - year)
    {HUGE_VAL, 1820, 100, {-20, 0, 32}}};

double fittedDeltaT(double year)
{
    const DeltaTFit &fit = *std::find_if(std::begin(kDeltaTFits), std::end(kDeltaTFits),
                                         [year](const DeltaTFit &f) { return year < f.until; });
    const double u = (year - fit.origin) / fit.unit;
    double seconds = 0.0;
    for (auto c = fit.coefficients.rbegin(); c != fit.coefficients.rend(); ++c)
    {
        seconds = seconds * u + *c;
    }
    return seconds;
}

// Takes a number without sign from the start of text; -1 when there is none.
template<typename Number>
Number takeNumber(std::string_view &text)
{
    Number value{};
    if (text.empty() || text[0] < '0' || text[0] > '9')
    {
        return -1;
    }
    const char *const textEnd = text.data() + text.size();
    std::from_chars_result read{};
    if constexpr (std::is_floating_point_v<Number>)
    {
        read = std::from_chars(text.data(), textEnd, value, std::chars_format::fixed);
    }
    else
    {
        read = std::from_chars(text.data(), textEnd, value);
    }
    if (read.ec != std::errc())
    {
        return -1;
    }
    text.remove_prefix(static_cast<std::size_t>(read.ptr - text.data()));
    return value;
}

bool takeOneOf(std::string_view &text, std::string_view characters)
{
    const bool found = !text.empty() && characters.find(text[0]) != std::string_view::npos;
    text.remove_prefix(found ? 1 : 0);
    return found;
}

[[noreturn]] void refuse(const std::string &text, const std::string &expected)
{
    throw std::runtime_error(text + ": expected " + expected);
}

bool isJulian(int year, int month, int day)
{
    return std::array{year, month, day} < std::array{1582, 10, 15};
}

bool isDay(int year, int month, int day)
{
    // The library knows Gregorian months. Of the years -1 and -5 there are leap days, as no year 0 lies between -1 and 1.
    const bool julianLeap = (year < 0 ? year + 1 : year) % 4 == 0;
    const int like = !isJulian(year, month, day) ? year : julianLeap ? 2004 : 2001;
    return month <= 12 && day <= 31 &&
           isvalidDayOfMonth(static_cast<std::uint16_t>(month), static_cast<std::uint16_t>(day), like) == 1;
}

// The start of the day.
double takeDay(std::string_view &rest, const std::string &text)
{
    const bool beforeChrist = takeOneOf(rest, "-");
    const auto number = takeNumber<int>(rest);
    const auto month = takeOneOf(rest, "-") ? takeNumber<int>(rest) : -1;
    const auto day = takeOneOf(rest, "-") ? takeNumber<int>(rest) : -1;
    if (number < 0 || month < 0 || day < 0)
    {
        refuse(text, "YYYY-MM-DD, alone or with THH:MM[:SS], in UTC");
    }
    const int year = beforeChrist ? -number : number;
    if (year < kFirstYear || year > kLastYear || year == 0)
    {
        refuse(text, "a year from -2000 to 3000, of which 0 is none");
    }
    if (!isDay(year, month, day))
    {
        refuse(text, "a day that the calendar has");
    }
    if (year == 1582 && month == 10 && day > 4 && day < 15)
    {
        refuse(text, "a day before 1582-10-05 or after 1582-10-14: the calendar leaves out those between");
    }
    return vutimeGetMJD(day, static_cast<std::uint16_t>(month), year);
}

double takeTimeOfDay(std::string_view &rest, const std::string &text)
{
    const auto hour = takeNumber<int>(rest);
    const auto minute = takeOneOf(rest, ":") ? takeNumber<int>(rest) : -1;
    const auto second = takeOneOf(rest, ":") ? takeNumber<double>(rest) : 0.0;
    takeOneOf(rest, "Zz");
    if (hour < 0 || hour > 23 || minute < 0 || minute > 59 || second < 0.0 || second >= 60.0 || !rest.empty())
    {
        refuse(text, "a time from 00:00 or 00:00:00 to 23:59:59.999, in UTC, with or without a Z");
    }
    return (hour * 3600 + minute * 60 + second) / kSecondsPerDay;
}

} // namespace

double parseDate(const std::string &text)
{
    std::string_view rest = text;
    const double day = takeDay(rest, text);
    if (rest.empty())
    {
        return day + 0.5;
    }
    if (!takeOneOf(rest, "Tt "))
    {
        refuse(text, "T or a blank between the day and the time");
    }
    return day + takeTimeOfDay(rest, text);
}

double parseZone(const std::string &text)
{
    std::string_view rest = text;
    if (rest == "Z" || rest == "z" || rest == "UTC")
    {
        return 0.0;
    }
    const bool west = rest.starts_with('-');
    const bool hasSign = takeOneOf(rest, "+-");
    const auto hours = takeNumber<int>(rest);
    const auto minutes = takeOneOf(rest, ":") ? takeNumber<int>(rest) : 0;
    if (!hasSign || hours < 0 || hours > 15 || minutes < 0 || minutes > 59 || !rest.empty())
    {
        refuse(text, "+HH:MM or -HH:MM with less than 16 hours, or Z");
    }
    const double zone = (hours * 60 + minutes) / 1440.0;
    return west ? -zone : zone;
}

double currentDate()
{
    using namespace std::chrono;
    const auto seconds = floor<std::chrono::seconds>(system_clock::now()).time_since_epoch().count();
    return kUnixEpoch + static_cast<double>(seconds) / kSecondsPerDay;
}

std::string dayText(double date)
{
    double day;
    std::uint16_t month;
    std::int32_t year;
    vutimeReverseMJD(midnight(date, 0.0), &day, &month, &year);
    char text[32];
    std::snprintf(text, sizeof text, "%s%04d-%02d-%02d", year < 0 ? "-" : "", std::abs(year), month,
                  static_cast<int>(day));
    return text;
}

std::string dateText(double date)
{
    const double start = midnight(date, 0.0);
    const double seconds = std::round((date - start) * kSecondsPerDay);
    return seconds < kSecondsPerDay ? dayText(start) + ' ' + durationText(seconds / kSecondsPerDay)
                                    : dayText(start + 1.0) + " 00:00:00";
}

std::string durationText(double days)
{
    const long seconds = std::lround(days * kSecondsPerDay);
    char text[32];
    std::snprintf(text, sizeof text, "%02ld:%02ld:%02ld", seconds / 3600, seconds / 60 % 60, seconds % 60);
    return text;
}

std::string zoneText(double date, double zone)
{
    const int minutes = static_cast<int>(std::lround(std::abs(zone) * 1440.0));
    if (minutes == 0)
    {
        return deltaT(date).taiMinusUtc != 0 ? "UTC" : "UT1";
    }
    char text[32];
    std::snprintf(text, sizeof text, "%c%02d:%02d", zone < 0.0 ? '-' : '+', minutes / 60, minutes % 60);
    return text;
}

double midnight(double date, double zone)
{
    // A date that is midnight but for the rounding of the sum counts as midnight.
    return std::floor(date + zone + 0.5 + 1e-8) - 0.5 - zone;
}

DeltaT deltaT(double date)
{
    double day;
    std::uint16_t month;
    std::int32_t year;
    vutimeReverseMJD(date, &day, &month, &year);
    if (year < 1972 || year >= kLeapSecondsUntil)
    {
        // Years of 365.25 days from J2000, which is exact enough and, unlike the calendar, goes on without steps.
        return {fittedDeltaT(2000.0 + (date - 36525.0) / 365.25), 0};
    }
    const auto later =
        std::upper_bound(std::begin(kLeapSeconds), std::end(kLeapSeconds), std::pair<int, int>(year, month));
    const int taiMinusUtc = 9 + static_cast<int>(later - std::begin(kLeapSeconds));
    return {taiMinusUtc + kTaiToTerrestrial, taiMinusUtc};
}

double terrestrialTime(double date)
{
    return date + deltaT(date).seconds / kSecondsPerDay;
}

} // namespace tolvin
