#include "suncommand.h"

#include "exitcode.h"
#include "quietstderr.h"
#include "solar.h"
#include "sunevents.h"
#include "sunplot.h"
#include "timescale.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace tolvin
{

namespace
{

constexpr double kJulianDateOfMjd0 = 2415020.0;

struct SunOptions
{
    std::optional<std::string> date;
    std::string zone = "Z";
    Place place{};
    std::optional<std::string> plot;
};

// Text of at most 95 characters, as printf makes it.
template<typename... Arguments>
std::string formatted(const char *format, Arguments... arguments)
{
    char text[96];
    std::snprintf(text, sizeof text, format, arguments...);
    return text;
}

void printRow(const char *name, const std::string &value, const std::string &remark = "")
{
    std::printf("  %-32s %s%s%s\n", name, value.c_str(), remark.empty() ? "" : "   ", remark.c_str());
}

std::string degreesText(double radians, const char *format = "%12.5f deg")
{
    return formatted(format, radians / kDegree);
}

// An angle from 0 to 360 degrees, which is 0 as well.
std::string turnText(double radians, int decimals)
{
    const double unit = std::pow(10.0, -decimals);
    const double degrees = std::round(radians / kDegree / unit) * unit;
    return formatted("%12.*f deg", decimals, degrees < 360.0 ? degrees : 0.0);
}

std::string arcsecondsText(double radians)
{
    return formatted("%+12.3f arcsec", radians / kArcsecond);
}

// Hours, minutes and seconds of an angle, to 0.01 s.
std::string hoursText(double radians)
{
    const long hundredths = std::lround(radians / kDegree / 15.0 * 360000.0) % 8640000;
    return formatted("%2ldh %02ldm %05.2fs", hundredths / 360000, hundredths / 6000 % 60,
                     static_cast<double>(hundredths % 6000) / 100.0);
}

std::string minutesText(double radians)
{
    const long tenths = std::lround(std::abs(radians) / kDegree * 2400.0);
    return formatted("%c%ldm %04.1fs", radians < 0.0 ? '-' : '+', tenths / 600,
                     static_cast<double>(tenths % 600) / 10.0);
}

std::string placeText(const Place &place)
{
    return formatted("latitude %+.5f, longitude %+.5f", place.latitude, place.longitude);
}

void printTime(double date, double zone)
{
    const DeltaT delta = deltaT(date);
    const double tt = terrestrialTime(date);
    std::string source = "polynomial of Espenak and Meeus; the date counts as UT1";
    if (delta.taiMinusUtc != 0)
    {
        source = formatted("32.184 s + %d s of TAI - UTC; ", delta.taiMinusUtc);
        source += date > currentDate() ? "leap seconds to come are not counted" : "UTC for UT1, within 0.9 s";
    }
    std::printf("\nTime\n");
    printRow(delta.taiMinusUtc != 0 ? "UTC" : "UT1", dateText(date));
    printRow("in the zone", dateText(date + zone), zoneText(date, zone));
    printRow("Delta T (TT - UT)", formatted("%.3f s", delta.seconds), source);
    printRow("Julian Date (TT)", formatted("%14.6f", tt + kJulianDateOfMjd0));
    printRow("library MJD (TT)", formatted("%14.6f", tt));
}

void printGeocentric(double date, const ApparentSun &sun)
{
    std::printf("\nSun from the centre of the Earth, apparent, equinox of date\n");
    printRow("ecliptic longitude", turnText(sun.longitude, 5));
    printRow("ecliptic latitude", degreesText(sun.latitude, "%+12.5f deg"));
    printRow("distance", formatted("%12.7f AU", sun.distance));
    printRow("right ascension", hoursText(sun.rightAscension));
    printRow("declination", degreesText(sun.declination, "%+12.5f deg"));
    printRow("equation of time", minutesText(equationOfTime(date, sun)));
    printRow("mean obliquity", degreesText(sun.meanObliquity));
    printRow("true obliquity", degreesText(sun.trueObliquity));
    printRow("nutation in longitude", arcsecondsText(sun.nutationInLongitude));
    printRow("nutation in obliquity", arcsecondsText(sun.nutationInObliquity));
    printRow("Greenwich mean sidereal time", hoursText(meanSiderealTime(date)));
    printRow("Greenwich apparent sidereal time", hoursText(apparentSiderealTime(date, sun)));
}

void printHorizontal(double date, const ApparentSun &sun, const Place &place)
{
    const Horizontal direction = horizontal(date, sun, place);
    const double elevation = topocentricElevation(direction, sun);
    std::printf("\nSun from the place\n");
    printRow("hour angle", degreesText(direction.hourAngle, "%+12.4f deg"));
    printRow("azimuth (north 0, east 90)", turnText(direction.azimuth, 4));
    printRow("elevation without air", degreesText(elevation, "%+12.4f deg"));
    printRow("elevation with refraction", direction.elevation < kRiseElevation
                                              ? std::string("     (below the horizon)")
                                              : degreesText(elevation + refraction(elevation), "%+12.4f deg"));
}

struct Row
{
    double date;
    std::string name;
    std::string detail;
};

void addRows(std::vector<Row> &rows, const std::vector<SunEvent> &events, const std::string &name,
             const char *detail = "", double Horizontal::*angle = &Horizontal::azimuth)
{
    for (const SunEvent &event : events)
    {
        rows.push_back({event.date, name, formatted(detail, event.direction.*angle / kDegree)});
    }
}

struct Level
{
    const Passages &passages;
    const char *up;
    const char *down;
    const char *elevation;
    const char *detail;
};

// What a day that differs from the common one has not.
template<std::size_t Count>
void printAbsences(const Level (&levelsDownwards)[Count])
{
    const char *staysBelow = nullptr;
    for (const auto &[passages, up, down, elevation, detail] : levelsDownwards)
    {
        if (passages.up.empty() != passages.down.empty())
        {
            std::printf("  no %s on this day\n", passages.up.empty() ? up : down);
        }
        else if (passages.up.empty() && passages.daysAbove > 0.5)
        {
            std::printf("  the sun stays above %s\n", elevation);
            break;
        }
        else if (passages.up.empty())
        {
            staysBelow = elevation;
        }
    }
    if (staysBelow != nullptr)
    {
        std::printf("  the sun stays below %s\n", staysBelow);
    }
}

void printDay(double start, double zone, const Place &place, const DayEvents &day)
{
    const Level levels[] = {
        {day.horizon, "rise", "set", "the horizon", "azimuth   %8.2f deg"},
        {day.civil, "civil twilight begins", "civil twilight ends", "-6 degrees", ""},
        {day.nautical, "nautical twilight begins", "nautical twilight ends", "-12 degrees", ""},
        {day.astronomical, "astronomical twilight begins", "astronomical twilight ends", "-18 degrees", ""},
    };
    std::vector<Row> rows;
    addRows(rows, day.transits, "transit", "elevation %+8.2f deg", &Horizontal::elevation);
    for (const auto &level : levels)
    {
        addRows(rows, level.passages.up, level.up, level.detail);
        addRows(rows, level.passages.down, level.down, level.detail);
    }
    std::sort(rows.begin(), rows.end(), [](const Row &a, const Row &b) { return a.date < b.date; });

    std::printf("\nDay %s, times of the zone %s\n", dayText(start + zone).c_str(), zoneText(start, zone).c_str());
    for (const Row &row : rows)
    {
        printRow(row.name.c_str(), durationText(row.date - start), row.detail);
    }
    printRow("sun up for", durationText(day.horizon.daysAbove));
    printAbsences(levels);
    if (std::abs(place.latitude) == 90.0)
    {
        std::printf("  azimuths and the transit are those of the meridian of the longitude\n");
    }
}

// Runs the action of a parser, whose message it completes with the name of the option.
template<typename Parse>
double parsed(const char *option, const std::string &text, Parse parse)
{
    try
    {
        return parse(text);
    }
    catch (const std::runtime_error &error)
    {
        throw std::runtime_error(std::string(option) + " " + error.what());
    }
}

void runSun(const SunOptions &options)
{
    const double date = options.date ? parsed("--date", *options.date, parseDate) : currentDate();
    const double zone = parsed("--zone", options.zone, parseZone);
    if (options.plot && !options.plot->ends_with(".svg"))
    {
        throw std::runtime_error("--plot " + *options.plot + ": expected a name that ends in .svg");
    }
    const Place place = {options.place.latitude, std::remainder(options.place.longitude, 360.0)};

    const double start = midnight(date, zone);
    ApparentSun sun;
    DayEvents day;
    {
        const QuietStandardError quiet;
        sun = apparentSun(date);
        day = eventsOfDay(start, place);
        if (options.plot)
        {
            writeSunPlot(*options.plot, date, zone, place);
        }
    }

    std::printf("Sun at %s\n", placeText(place).c_str());
    printTime(date, zone);
    printGeocentric(date, sun);
    printHorizontal(date, sun, place);
    printDay(start, zone, place, day);
    flushOutput();
}

} // namespace

void addSunCommand(CommandLine &line)
{
    const auto options = std::make_shared<SunOptions>();
    const Command command =
        line.addCommand("sun", "print where the sun is and when it rises and sets, and draw its day and year",
                        [options] { runSun(*options); });
    command.add(
        "--date", options->date,
        "date in UTC: YYYY-MM-DD, alone (12:00) or with THH:MM[:SS[.fraction]][Z]; years -2000 to 3000 without a "
        "year 0, Julian calendar before 1582-10-15 (default: now)");
    command.add("--lat", options->place.latitude, "latitude, degrees north").required().check(within(-90.0, 90.0));
    command.add("--lon", options->place.longitude, "longitude, degrees east").required().check(within(-360.0, 360.0));
    command
        .add("--zone", options->zone,
             "+HH:MM or -HH:MM from UTC, or Z: for the times printed, and for which day is listed")
        .showDefault();
    command.add("--plot", options->plot, "draw the day's path over the sky and the year's analemma into this SVG file");
}

} // namespace tolvin
