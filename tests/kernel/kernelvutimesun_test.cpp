// The sun's position: tables, short formula, series and caches.
#include <tolvin/kernel/kernelvutime.h>

#include "support/capture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <dlfcn.h>
#include <erfa.h>
#include <fstream>
#include <libnova/libnova.h>
#include <limits>
#include <string>
#include <tolvin/bench/kernel/plainsun.h>
#include <tolvin/kernel/kernelvutimetables.hpp>
#include <vector>

namespace
{

constexpr double kPi = 3.141592653589793;
constexpr double kArcsecond = kPi / 648000.0;
constexpr double kEpoch = 2415020.0; // Julian Date of MJD 0
constexpr double kJ2000 = 36525.0;
const std::string kSeriesLine = "q:          3.000000\n"; // %17f

struct Sun
{
    double longitude = -9.0, distance = -9.0, latitude = -9.0;
};

Sun sunAt(double mjd)
{
    Sun sun;
    sunpos(mjd, &sun.longitude, &sun.distance, &sun.latitude);
    return sun;
}

double mjdOfYear(double year)
{
    return kJ2000 + (year - 2000.0) * 365.25;
}

double arcsecondsBetween(double a, double b)
{
    return std::fabs(std::remainder(a - b, 2.0 * kPi)) / kArcsecond;
}

// The first questions of the process: the caches answer nothing yet, not even for 0.
TEST(SunCaches, StartEmptyAndAnswerTheSameArgumentOnly)
{
    Sun sun;
    EXPECT_EQ(capturedStderr([&] { sun = sunAt(0.0); }), kSeriesLine);
    EXPECT_NEAR(sun.distance, 0.98330, 5e-5); // 1899 December 31
    EXPECT_NEAR(obliquity(0.0) / kArcsecond, 84428.26, 0.01);
    double deps = 0.0, dpsi = 0.0, erfaDeps = 0.0, erfaDpsi = 0.0;
    nutation(0.0, &deps, &dpsi);
    eraNut80(kEpoch, 0.0, &erfaDpsi, &erfaDeps);
    EXPECT_NEAR(dpsi, erfaDpsi, 1e-12);

    Sun again, other;
    double longitude = -9.0, distance = -9.0;
    EXPECT_EQ(capturedStderr([&] { again = sunAt(0.0), sunpos(0.0, &longitude, &distance, nullptr); }), "");
    EXPECT_TRUE(again.longitude == sun.longitude && longitude == sun.longitude && distance == sun.distance);
    const auto change = [&]
    {
        sunpos(kJ2000, &longitude, &distance, nullptr);
        other = sunAt(kJ2000);
        again = sunAt(0.0);
    };
    EXPECT_EQ(capturedStderr(change), kSeriesLine + kSeriesLine);
    EXPECT_NEAR(longitude, -1.38967, 1e-5);
    EXPECT_NEAR(other.latitude / kArcsecond, 0.68, 0.01);
    EXPECT_EQ(again.latitude, sun.latitude);
    double earth[3];
    EXPECT_EQ(capturedStderr([&] { vsop87sun(0.0, earth), vsop87sun(0.0, earth); }), kSeriesLine + kSeriesLine);
    EXPECT_TRUE(earth[0] - kPi == sun.longitude && -earth[1] == sun.latitude && earth[2] == sun.distance);

    nutation(kJ2000, &deps, &dpsi);
    EXPECT_NEAR(dpsi / kArcsecond, -13.92, 0.005);
    EXPECT_NEAR(deps / kArcsecond, -5.77, 0.005);
    double sameDeps = 0.0, sameDpsi = 0.0;
    nutation(kJ2000, &sameDeps, &sameDpsi);
    EXPECT_TRUE(sameDeps == deps && sameDpsi == dpsi);
    EXPECT_EQ(obliquity(kJ2000), 0.4090928040284035);
}

TEST(SunTables, SeriesAreThePublishedOnes)
{
    std::ifstream in(TOLVIN_TEST_DATA "/vsop87d_earth.csv");
    std::string line;
    std::getline(in, line); // names of the columns
    for (size_t i = 0; i < std::size(vx_earth); ++i)
    {
        ASSERT_TRUE(std::getline(in, line)) << i;
        char group = 0;
        int power = 0;
        double row[3];
        ASSERT_EQ(sscanf(line.c_str(), "%c%d,%lf,%lf,%lf", &group, &power, &row[0], &row[1], &row[2]), 5) << line;
        EXPECT_TRUE(std::equal(row, row + 3, vx_earth[i])) << i;
        // The group says of which coordinate and power the row is: that is where the index must have it.
        const size_t coordinate = std::string("LBR").find(group);
        EXPECT_LE(static_cast<size_t>(vn_earth[power][coordinate]), i);
        EXPECT_GT(static_cast<size_t>(vn_earth[power + 1][coordinate]), i);
    }
    EXPECT_FALSE(std::getline(in, line));
}

TEST(SunShortFormula, AnglesComeIntoTheHalfOpenTurn)
{
    const double turn = 6.283185307179586;
    EXPECT_EQ(normalize_angle(kPi), kPi);
    EXPECT_EQ(normalize_angle(-kPi), kPi);
    EXPECT_EQ(normalize_angle(-turn), 0.0);
    EXPECT_EQ(normalize_angle(7.0), 7.0 - turn);
    // Every turn may round by half a unit in the last place of 1000.
    EXPECT_NEAR(normalize_angle(-1000.0), -1000.0 + 159 * turn, 159 * 5.7e-14);
    for (const double x : {1e5 + 1, -3e9, 1e300, -1e308}) // far too many turns to take off one by one
    {
        const double angle = normalize_angle(x);
        EXPECT_TRUE(angle > -kPi && angle <= kPi) << x;
        EXPECT_NEAR(std::sin(angle), std::sin(std::fmod(x, turn)), 1e-9) << x;
    }
    const double inf = std::numeric_limits<double>::infinity();
    EXPECT_TRUE(std::isnan(normalize_angle(inf)) && std::isnan(normalize_angle(-inf)) &&
                std::isnan(normalize_angle(NAN)));
}

TEST(SunShortFormula, PositionVelocityAndDays)
{
    double longitude = 0.0;
    EXPECT_EQ(capturedStderr([&] { longitude = sun_position(0.0); }), "Ma -0.043145 lon -79.540000\n");
    EXPECT_NEAR(longitude, -1.389707, 5e-7);
    vutime time = {};
    double days = 0.0;
    time.j2000 = 946728000;
    time.sim = {946728000 + 9000 * 86400 / 2 - 5, 999999};
    EXPECT_EQ(capturedStderr([&] { days = days_after_J2000(&time); }), "Days after J2000 4499.999942\n");
    EXPECT_DOUBLE_EQ(days, 4500.0 - 5.0 / 86400.0);

    capturedStderr(
        []
        {
            for (double d = -18262.0; d < 18262.0; d += 11.3)
            {
                const double slope = normalize_angle(sun_position(d + 0.01) - sun_position(d - 0.01)) / 0.02;
                EXPECT_NEAR(sun_velocity(d), slope, 1e-9) << d;
                // 0.01 degrees, and the aberration, which the formula has in it.
                EXPECT_LT(arcsecondsBetween(sun_position(d), sunAt(kJ2000 + d).longitude), 36.0 + 20.7) << d;
            }
            EXPECT_GT(sun_position(1.1e9), -kPi);
        });
    EXPECT_EQ(capturedStderr([] { sun_velocity(1.0); }), "");
}

TEST(SunSeries, AreThePlainSums)
{
    const auto libraryVsop87sun = reinterpret_cast<decltype(&vsop87sun)>(dlsym(RTLD_NEXT, "vsop87sun"));
    std::vector<double> dates = {kJ2000, -1e7, 1e7, kJ2000 + 1e-9, kJ2000 - 365250.0};
    for (double year = -3000.0; year < 6000.0; year += 7.37)
    {
        dates.push_back(mjdOfYear(year));
    }
    for (const double mjd : dates)
    {
        double earth[3], expected[3], deps, dpsi, expectedDeps, expectedDpsi;
        capturedStderr([&] { vsop87sun(mjd, earth); });
        plain::earth(mjd, expected);
        // Where this program has the module in it, compiled for any processor, this is the library's own.
        double ofLibrary[3];
        capturedStderr([&] { libraryVsop87sun(mjd, ofLibrary); });
        EXPECT_TRUE(std::equal(earth, earth + 3, ofLibrary)) << mjd;
        // Arguments of terms grow with the time and so do their roundings; the longitude is 6283 radians a millennium.
        const double millennia = std::fabs(mjd - kJ2000) / 365250.0;
        const double rounding = 2e-14 + 2e-13 * millennia;
        const double difference = std::remainder(earth[0] - expected[0], 2.0 * kPi);
        EXPECT_TRUE(earth[0] > -1e-6 && earth[0] < 2.0 * kPi + 1e-6) << mjd;
        EXPECT_NEAR(difference, 0.0, rounding + 8 * DBL_EPSILON * 6283.0 * millennia) << mjd;
        EXPECT_NEAR(earth[1], expected[1], rounding) << mjd;
        EXPECT_NEAR(earth[2], expected[2], rounding) << mjd;
        nutation(mjd, &deps, &dpsi);
        plain::nutation(mjd, expectedDeps, expectedDpsi);
        EXPECT_NEAR(deps, expectedDeps, rounding) << mjd;
        EXPECT_NEAR(dpsi, expectedDpsi, rounding) << mjd;
    }
}

TEST(SunSeries, EndlessAndLostDatesGiveNumbersOrNaN)
{
    const double inf = std::numeric_limits<double>::infinity();
    for (const double mjd : {std::nan(""), inf, -inf, 1e20, -1e300})
    {
        Sun sun;
        EXPECT_EQ(capturedStderr([&] { sun = sunAt(mjd); }), kSeriesLine);
        EXPECT_EQ(capturedStderr([&] { sunAt(mjd); }), std::isnan(mjd) ? kSeriesLine : "");
        EXPECT_EQ(std::isnan(sun.longitude), std::fabs(mjd) != 1e20) << mjd; // powers of the time overflow
        EXPECT_FALSE(mjd == 1e20 && std::fabs(sun.distance) > 2e-9 * std::pow(mjd / 365250.0, 5)); // terms stay cosines
        double deps = 0.0, dpsi = 0.0;
        nutation(mjd, &deps, &dpsi);
        EXPECT_TRUE(std::isnan(deps) || std::fabs(deps) < std::fabs(mjd)) << mjd;
    }
    EXPECT_TRUE(std::isnan(obliquity(NAN)));
}

// The full VSOP87 of libnova, which is referred to the equinox of J2000 and has to be brought to that of date.
TEST(SunReferences, LibnovaFromMinus500To3000)
{
    double ofJ2000[3][3];
    eraIr(ofJ2000);
    eraRx(-eraObl80(2451545.0, 0.0), ofJ2000);
    capturedStderr(
        [&]
        {
            for (double year = -500.0; year < 3000.0; year += 0.11)
            {
                const double mjd = mjdOfYear(year);
                ln_helio_posn reference;
                ln_get_solar_geom_coords(kEpoch + mjd, &reference);
                double precession[3][3], ofDate[3][3], vector[3], longitude, latitude;
                eraPmat76(kEpoch, mjd, precession);
                eraIr(ofDate);
                eraRx(eraObl80(kEpoch, mjd), ofDate);
                eraS2c(reference.L * kPi / 180.0, reference.B * kPi / 180.0, vector);
                eraRxp(ofJ2000, vector, vector);
                eraRxp(precession, vector, vector);
                eraRxp(ofDate, vector, vector);
                eraC2s(vector, &longitude, &latitude);
                const Sun sun = sunAt(mjd);
                // The precession of 1976 departs from that of the theory by some arcseconds over two millennia.
                const bool near = year >= 1500.0;
                ASSERT_LT(arcsecondsBetween(sun.longitude, longitude), near ? 1.2 : 10.0) << year;
                ASSERT_LT(arcsecondsBetween(sun.latitude, latitude), near ? 0.6 : 5.0) << year;
                ASSERT_NEAR(sun.distance, reference.R, 4.5e-6) << year;
            }
        });
}

TEST(SunReferences, ErfaForNutationAndObliquity)
{
    constexpr double kMilliarcsecond = kArcsecond / 1000.0;
    for (double year = -500.0; year < 3000.0; year += 0.037)
    {
        const double mjd = mjdOfYear(year);
        double deps, dpsi, erfaDeps, erfaDpsi;
        nutation(mjd, &deps, &dpsi);
        eraNut80(kEpoch, mjd, &erfaDpsi, &erfaDeps);
        ASSERT_NEAR(deps, erfaDeps, 1e-5 * kMilliarcsecond) << year;
        ASSERT_NEAR(dpsi, erfaDpsi, 1e-5 * kMilliarcsecond) << year;
        // The constant term is rounded to 1e-7 degrees.
        ASSERT_NEAR(obliquity(mjd), eraObl80(kEpoch, mjd), 0.05 * kMilliarcsecond) << year;
    }
}

} // namespace
