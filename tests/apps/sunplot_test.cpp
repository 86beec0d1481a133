#include <tolvin/apps/sunplot.h>
#include <tolvin/apps/timescale.h>

#include "support/temporaryfolder.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

using namespace tolvin;

namespace
{

struct Circle
{
    double x, y;
    bool filled;
};

std::string plotOf(const char *date, double zone, const Place &place)
{
    const TemporaryFolder folder;
    writeSunPlot(folder / "sun.svg", parseDate(date), zone, place);
    std::ostringstream text;
    text << std::ifstream(folder / "sun.svg").rdbuf();
    return text.str();
}

// The first of that radius after the text.
Circle circleAfter(const std::string &svg, const char *text, double radius)
{
    Circle circle{};
    double found = 0.0;
    char fill[8] = "";
    for (const char *at = std::strstr(svg.c_str(), text); at != nullptr; at = std::strstr(at + 1, "<circle"))
    {
        if (std::sscanf(at, "<circle cx='%lf' cy='%lf' r='%lf' fill='%7[^']", &circle.x, &circle.y, &found, fill) >=
                3 &&
            found == radius)
        {
            circle.filled = fill[0] == '#';
            return circle;
        }
    }
    ADD_FAILURE() << "no circle of radius " << radius;
    return circle;
}

} // namespace

// On the equator at the equinox the sun goes straight from east over the zenith to west, 15 degrees an hour.
TEST(SunPlot, PutsTheSunWhereItIs)
{
    const Place place = {0.0, 0.0};
    const char *const start = "<clipPath id='sky'>";
    const Circle zenith = circleAfter(plotOf("2026-03-20T12:00", 0.0, place), start, 220.0);
    const Circle sun = circleAfter(plotOf("2026-03-20T15:07:30", 0.0, place), start, 8.0);
    EXPECT_TRUE(sun.filled);
    EXPECT_NEAR(sun.x - zenith.x, -110.0, 1.0); // half-way down to the west
    EXPECT_NEAR(sun.y, zenith.y, 1.0);
    // Where the sun passes the nadir its azimuth leaps: nothing is drawn there, as a line would cross the sky.
    const std::string honolulu = plotOf("2026-11-28T12:00", -10.0 / 24.0, {21.31, -157.86});
    std::istringstream path(honolulu.substr(honolulu.find("clip-path='url(#sky)' d='M") + 26));
    double x, y;
    char command = 'L';
    for (int points = 0; command == 'L'; ++points)
    {
        path >> x >> y >> command;
        EXPECT_LT(std::hypot(x - zenith.x, y - zenith.y), 220.0 * 93.1 / 90.0) << points;
        EXPECT_LT(points, 13 * 12); // the path of 11 hours by five minutes
    }
    const std::string night = plotOf("2026-03-20T23:00", 0.0, place);
    EXPECT_FALSE(circleAfter(night, start, 8.0).filled);
    EXPECT_NE(night.find("below the horizon"), std::string::npos);
    EXPECT_TRUE(night.ends_with("</svg>\n"));
}

TEST(SunPlot, DrawsAnyPlaceAndYear)
{
    for (const char *date : {"-2000-01-01", "-0001-12-31", "1582-10-04", "3000-12-31"})
    {
        for (const Place &place : {Place{90.0, 0.0}, Place{-90.0, 180.0}, Place{23.44, -180.0}})
        {
            const std::string svg = plotOf(date, 14.0 / 24.0, place);
            EXPECT_EQ(svg.find("nan"), std::string::npos) << date;
            EXPECT_EQ(svg.find("inf"), std::string::npos) << date;
        }
    }
}
