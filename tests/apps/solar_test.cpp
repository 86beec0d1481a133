#include <tolvin/apps/solar.h>
#include <tolvin/apps/sunevents.h>
#include <tolvin/apps/timescale.h>

#include <gtest/gtest.h>

#include <erfa.h>
#include <erfam.h>

#include <cmath>
#include <random>
#include <string>
#include <tuple>
#include <vector>

using namespace tolvin;

namespace
{

constexpr double kEpoch = 2415020.0; // Julian Date of the dates' zero

double angleBetween(double a, double b)
{
    return std::abs(std::remainder(a - b, 2.0 * kPi));
}

// TT - UTC without the code under test.
double leapSeconds(double utc)
{
    int year, month, day;
    double fraction, taiMinusUtc;
    eraJd2cal(kEpoch, utc, &year, &month, &day, &fraction);
    eraDat(year, month, day, fraction, &taiMinusUtc);
    return taiMinusUtc + 32.184;
}

struct Equatorial
{
    double rightAscension, declination, distance;
};

// Apparent place from ERFA's ephemeris, its aberration by the velocity of the Earth, and IAU 2006/2000A.
Equatorial erfaSun(double tt)
{
    double sunFromEarth[2][3], earth[2][3], direction[3], apparent[3], velocity[3], matrix[3][3];
    eraEpv00(kEpoch, tt, sunFromEarth, earth);
    double distance;
    double fromEarth[3] = {-sunFromEarth[0][0], -sunFromEarth[0][1], -sunFromEarth[0][2]};
    eraPn(fromEarth, &distance, direction);
    eraSxp(ERFA_AULT / ERFA_DAYSEC, earth[1], velocity);
    eraAb(direction, velocity, distance, std::sqrt(1.0 - eraPdp(velocity, velocity)), apparent);
    eraPnm06a(kEpoch, tt, matrix);
    eraRxp(matrix, apparent, direction);
    Equatorial result{0.0, 0.0, distance};
    eraC2s(direction, &result.rightAscension, &result.declination);
    return result;
}

Horizontal erfaHorizontal(double utc, const Place &place)
{
    const Equatorial sun = erfaSun(utc + leapSeconds(utc) / 86400.0);
    const double hourAngle =
        std::remainder(eraGst94(kEpoch, utc) + place.longitude * kDegree - sun.rightAscension, 2.0 * kPi);
    Horizontal result{hourAngle, 0.0, 0.0};
    eraHd2ae(hourAngle, sun.declination, place.latitude * kDegree, &result.azimuth, &result.elevation);
    return result;
}

} // namespace

// I. Reda and A. Andreas, Solar Position Algorithm for Solar Radiation Applications, NREL 2008, appendix A.5.
TEST(Solar, AgreesWithTheExampleOfNrel)
{
    const Place golden = {39.742476, -105.1786};
    const double date = parseDate("2003-10-17T19:30:30");
    const ApparentSun sun = apparentSun(date);
    const Horizontal direction = horizontal(date, sun, golden);
    EXPECT_NEAR(direction.azimuth / kDegree, 194.34024, 3e-4);
    const double elevation = topocentricElevation(direction, sun);
    const double air = 820.0 / 1010.0 * 283.0 / 284.0;
    EXPECT_NEAR((elevation + air * refraction(elevation)) / kDegree, 90.0 - 50.11162, 2e-4);
}

// J. Meeus, Astronomical Algorithms, examples 12.a, 16.a and 28.a.
TEST(Solar, AgreesWithTheExamplesOfMeeus)
{
    const double date = parseDate("1992-10-13T00:00") - 59.184 / 86400.0; // 0h TT
    const ApparentSun sun = apparentSun(date);
    EXPECT_NEAR(equationOfTime(date + 59.184 / 86400.0, sun) / kDegree * 240.0, 13 * 60 + 42.7, 0.3);

    const double morning = parseDate("1987-04-10T00:00");
    const double hour = 15.0 * kDegree;
    EXPECT_NEAR(apparentSiderealTime(morning, apparentSun(morning)) / hour, 13 + 10 / 60.0 + 46.1351 / 3600.0, 1e-6);

    EXPECT_NEAR(refraction(0.5541 * kDegree) / kArcsecond, 24.618 * 60.0, 0.5);
    EXPECT_EQ(refraction(90.0 * kDegree), 0.0);
    EXPECT_EQ(refraction(-5.11 * kDegree), 0.0);
}

TEST(Solar, AgreesWithErfaInOurTime)
{
    std::mt19937 random(1);
    std::uniform_real_distribution<> dates(parseDate("1972-01-01"), parseDate("2049-12-31"));
    std::uniform_real_distribution<> degrees(-89.0, 89.0);
    for (int i = 0; i < 500; ++i)
    {
        const double date = dates(random);
        const Place place = {degrees(random), 2.0 * degrees(random)};
        const ApparentSun sun = apparentSun(date);
        const Equatorial expected = erfaSun(date + leapSeconds(date) / 86400.0);
        ASSERT_LT(angleBetween(sun.rightAscension, expected.rightAscension), 1.2 * kArcsecond) << date;
        ASSERT_NEAR(sun.declination, expected.declination, 0.7 * kArcsecond) << date;
        ASSERT_NEAR(sun.distance, expected.distance, 5e-6);
        ASSERT_LT(angleBetween(meanSiderealTime(date), eraGmst82(kEpoch, date)), 1e-3 * kArcsecond);

        const Horizontal direction = horizontal(date, sun, place);
        const Horizontal reference = erfaHorizontal(date, place);
        ASSERT_NEAR(direction.elevation, reference.elevation, 2.0 * kArcsecond);
        ASSERT_LT(angleBetween(direction.azimuth, reference.azimuth) * std::cos(direction.elevation), 2.0 * kArcsecond);
    }
}

// Every passage that a scan by the minute with ERFA meets is there, once, and lies where ERFA sees the sun at that
// elevation.
TEST(SunEvents, AreThoseOfErfa)
{
    const std::tuple<std::string, Place, double> cases[] = {
        {"2026-06-21", {47.37, 8.54}, 2},  {"2026-12-21", {-33.87, 151.21}, 11}, {"1999-03-21", {0.0, 179.5}, -12},
        {"2026-05-17", {69.65, 18.96}, 2}, // set, and then rise
        {"2026-05-19", {69.65, 18.96}, 2}, {"2026-07-26", {69.65, 18.96}, 2},    {"2026-12-21", {69.65, 18.96}, 1},
        {"2026-12-21", {84.0, 0.0}, 0},    {"2026-03-18", {90.0, 0.0}, 0},       {"2026-09-25", {-90.0, 77.0}, 0},
        {"2008-06-30", {59.33, 18.07}, 2}, {"2026-02-11", {51.48, 0.0}, 12},
    };
    for (const auto &[date, place, zone] : cases)
    {
        SCOPED_TRACE(date + " at " + std::to_string(place.latitude));
        const double start = parseDate(date + "T00:00") - zone / 24.0;
        const DayEvents day = eventsOfDay(start, place);
        std::vector<double> scan;
        for (int minute = 0; minute <= 1440; ++minute)
        {
            scan.push_back(erfaHorizontal(start + minute / 1440.0, place).elevation);
        }
        const std::pair<const Passages &, double> levels[] = {
            {day.horizon, -0.8333}, {day.civil, -6.0}, {day.nautical, -12.0}, {day.astronomical, -18.0}};
        for (const auto &[passages, degrees] : levels)
        {
            const double level = degrees * kDegree;
            std::size_t up = 0, down = 0, minutesAbove = 0;
            for (std::size_t i = 1; i < scan.size(); ++i)
            {
                up += scan[i - 1] < level && scan[i] >= level;
                down += scan[i - 1] >= level && scan[i] < level;
                minutesAbove += scan[i] >= level;
            }
            EXPECT_EQ(passages.up.size(), up) << degrees;
            EXPECT_EQ(passages.down.size(), down) << degrees;
            EXPECT_NEAR(passages.daysAbove * 1440.0, static_cast<double>(minutesAbove), 2.0) << degrees;
            for (const auto *events : {&passages.up, &passages.down})
            {
                for (const SunEvent &event : *events)
                {
                    EXPECT_NEAR(erfaHorizontal(event.date, place).elevation, level, 2.0 * kArcsecond) << degrees;
                }
            }
        }
        ASSERT_EQ(day.transits.size(), 1u);
        EXPECT_NEAR(erfaHorizontal(day.transits[0].date, place).hourAngle, 0.0, 2.0 * kArcsecond);
    }
}

// The sun shows itself for two minutes, or just not, also where this happens right after the day's start or before
// its end. An elevation e at noon lasts for 2 sqrt(2 e / (cos latitude cos declination)).
TEST(SunEvents, GrazesTheHorizon)
{
    const Place place = {66.0, 20.0};
    const SunEvent noon = eventsOfDay(parseDate("2026-12-21T00:00"), place).transits.at(0);
    for (const double startBefore : {0.5, 0.003, 0.99})
    {
        for (const double excess : {-2e-4, 2e-4})
        {
            const double lift = kRiseElevation - noon.direction.elevation + excess * kDegree;
            const Place edge = {place.latitude - lift / kDegree, place.longitude};
            const DayEvents day = eventsOfDay(noon.date - startBefore, edge);
            EXPECT_EQ(day.horizon.up.size(), excess > 0.0 ? 1u : 0u) << startBefore;
            EXPECT_EQ(day.horizon.down.size(), excess > 0.0 ? 1u : 0u) << startBefore;
            EXPECT_NEAR(day.horizon.daysAbove * 1440.0, excess > 0.0 ? 2.04 : 0.0, 0.1);
        }
    }
}

// Days in which the hour angle passes the meridian twice or not at all: the sun's day is up to 30 s longer or shorter.
TEST(SunEvents, FindsTwoTransitsOrNone)
{
    const Place place = {10.0, 0.0};
    const double september = eventsOfDay(parseDate("2026-09-16T00:00"), place).transits.at(0).date; // short days
    EXPECT_EQ(eventsOfDay(september - 5.0 / 86400.0, place).transits.size(), 2u);
    const double december = eventsOfDay(parseDate("2026-12-22T00:00"), place).transits.at(0).date; // long ones
    EXPECT_EQ(eventsOfDay(december + 5.0 / 86400.0, place).transits.size(), 0u);
}
