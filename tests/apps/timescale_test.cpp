#include <tolvin/apps/timescale.h>

#include "support/capture.h"

#include <gtest/gtest.h>

#include <erfa.h>

#include <cmath>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

using namespace tolvin;

TEST(Timescale, ReadsDatesAndPrintsThem)
{
    const std::tuple<const char *, double, const char *> cases[] = {
        {"2000-01-01T12:00:00Z", 36525.0, "2000-01-01 12:00:00"},
        {"2000-01-01", 36525.0, "2000-01-01 12:00:00"},
        {"1970-1-1 00:00", 25567.5, "1970-01-01 00:00:00"},
        {"1582-10-15T00:00", -115859.5, "1582-10-15 00:00:00"},
        {"1582-10-04T18:00", -115859.75, "1582-10-04 18:00:00"},
        {"0001-01-01T00:00", -693596.5, "0001-01-01 00:00:00"},
        {"-0001-12-31T23:59:59.5", -693596.5 - 0.5 / 86400, "0001-01-01 00:00:00"}, // rounded into the next year
        {"-1-02-29T00:00", -693962.5 + 59, "-0001-02-29 00:00:00"},
        {"1500-02-29", 2268992.0 - 2415020.0, "1500-02-29 12:00:00"}, // leap in the Julian calendar only
    };
    for (const auto &[text, date, printed] : cases)
    {
        EXPECT_NEAR(parseDate(text), date, 1e-9) << text;
        EXPECT_EQ(dateText(parseDate(text)), printed);
    }
}

TEST(Timescale, RefusesWhatIsNoDateOrZone)
{
    const std::pair<const char *, std::vector<const char *>> dates[] = {
        {"YYYY-MM-DD", {"", "tomorrow", "2026-06", "+2026-06-21"}},
        {"a year from", {"0-01-01", "3001-01-01", "-2001-01-01"}},
        // 65565 is 29 in 16 bits; leap years before Christ are -1 and -5
        {"a day that", {"2026-13-01", "2026-00-01", "2026-02-65565", "1900-02-29", "-0004-02-29"}},
        {"leaves out", {"1582-10-05", "1582-10-14T12:00"}},
        {"T or a blank", {"2026-06-21X12:00"}},
        {"a time",
         {"2026-06-21T", "2026-06-21T24:00", "2026-06-21T12:60", "2026-06-21T12:00:60", "2026-06-21T12:00:1e1",
          "2026-06-21T12:00:00+02:00"}}};
    for (const auto &[expected, texts] : dates)
    {
        for (const char *text : texts)
        {
            EXPECT_NE(refusalOf([&] { parseDate(text); }).find(expected), std::string::npos) << text;
        }
    }
    for (const char *zone : {"", "2", "02:00", "+16:00", "+02:60", "+2:", "-", "CET", "+02:00Z"})
    {
        EXPECT_NE(refusalOf([&] { parseZone(zone); }).find("+HH:MM"), std::string::npos) << zone;
    }
}

TEST(Timescale, KnowsTheDayOfAZone)
{
    EXPECT_EQ(parseZone("Z"), 0.0);
    EXPECT_EQ(zoneText(46000.0, parseZone("+00:00")), "UTC");
    EXPECT_EQ(zoneText(-46000.0, 0.0), "UT1");
    EXPECT_DOUBLE_EQ(parseZone("-05"), -5.0 / 24.0);
    for (const char *text : {"+05:45", "-09:30", "+14:00", "-00:30", "+02:00"})
    {
        const double zone = parseZone(text);
        EXPECT_EQ(zoneText(46000.0, zone), text);
        // The zone's midnights belong to the day that they begin, whatever the sums round to.
        for (int day = 0; day < 2000; ++day)
        {
            const double start = 46000.5 + day - zone;
            ASSERT_NEAR(midnight(start, zone), start, 1e-9);
            ASSERT_NEAR(midnight(start + 0.99999, zone), start, 1e-9);
        }
    }
    EXPECT_EQ(dayText(parseDate("2026-06-21T23:30") + parseZone("+02:00")), "2026-06-22");
    EXPECT_EQ(durationText(1.0), "24:00:00");
    EXPECT_EQ(durationText(1.6 / 86400.0 + 0.5), "12:00:02");
}

TEST(Timescale, CountsLeapSeconds)
{
    for (int year = 1972; year <= 2026; ++year)
    {
        for (int month = 1; month <= 12; ++month)
        {
            double epoch, day, taiMinusUtc;
            ASSERT_EQ(eraCal2jd(year, month, 1, &epoch, &day), 0);
            ASSERT_GE(eraDat(year, month, 1, 0.0, &taiMinusUtc), 0);
            const double date = epoch + day - 2415020.0;
            EXPECT_EQ(deltaT(date).taiMinusUtc, taiMinusUtc) << year << '-' << month;
            EXPECT_NEAR(deltaT(date).seconds, taiMinusUtc + 32.184, 1e-9);
            EXPECT_NEAR(terrestrialTime(date) - date, (taiMinusUtc + 32.184) / 86400.0, 1e-10);
        }
    }
}

// Observed values from L. Morrison and F. Stephenson, Journal for the History of Astronomy 35, 2004; the first and
// the last three from the parabola by hand.
TEST(Timescale, KnowsDeltaTOfOtherTimes)
{
    const std::pair<int, double> cases[] = {
        {-2000, 46650.3}, {-501, 17190}, {-401, 15530}, {-301, 14080}, {-201, 12790}, {-101, 11640}, {100, 9600},
        {200, 8640},      {300, 7680},   {400, 6700},   {500, 5710},   {600, 4740},   {700, 3810},   {800, 2960},
        {900, 2200},      {1000, 1570},  {1100, 1090},  {1200, 740},   {1300, 490},   {1400, 320},   {1500, 200},
        {1600, 120},      {1700, 9},     {1750, 13},    {1800, 14},    {1850, 7},     {1900, -3},    {1950, 29},
        {1955, 31.1},     {1960, 33.2},  {1965, 35.7},  {1970, 40.2},  {2100, 202.7}, {2151, 330.6}, {3000, 4435.7}};
    for (const auto &[year, seconds] : cases)
    {
        const DeltaT delta = deltaT(parseDate(std::to_string(year) + "-01-01"));
        EXPECT_NEAR(delta.seconds, seconds, 1.0 + 0.01 * std::abs(seconds)) << year;
        EXPECT_EQ(delta.taiMinusUtc, 0);
    }
    for (const int year : {-501, 500, 1600, 1700, 1800, 1860, 1900, 1920, 1941, 1961, 1972}) // where fits meet
    {
        const double date = parseDate(std::to_string(year) + "-01-01");
        EXPECT_NEAR(deltaT(date - 20.0).seconds, deltaT(date + 20.0).seconds, year < 1600 ? 3.0 : 0.6) << year;
    }
    EXPECT_EQ(deltaT(parseDate("2016-12-31T23:59:59.999")).taiMinusUtc, 36);
    EXPECT_EQ(deltaT(parseDate("2049-12-31")).taiMinusUtc, 37);
}
