#include <tolvin/apps/loghistogram.h>
#include <tolvin/apps/trackmap.h>

#include "support/temporaryfolder.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

using namespace tolvin;

static std::string mapOf(const std::vector<MapTrack> &tracks, const char *title)
{
    const TemporaryFolder folder;
    writeTrackMap(folder / "map.svg", tracks, title);
    std::ostringstream text;
    text << std::ifstream(folder / "map.svg").rdbuf();
    return text.str();
}

TEST(SampledTrack, StaysBoundedAndEven)
{
    SampledTrack track;
    for (int i = 0; i < 100000; ++i)
    {
        track.add({double(i), 0.0, 0.0});
    }
    const auto &positions = track.positions();
    ASSERT_LE(positions.size(), SampledTrack::kMost);
    ASSERT_GE(positions.size(), SampledTrack::kMost / 2);
    const double step = positions[1][0] - positions[0][0];
    for (std::size_t i = 1; i < positions.size(); ++i)
    {
        ASSERT_EQ(positions[i][0] - positions[i - 1][0], step);
    }
    EXPECT_GT(positions.back()[0], 100000 - 2 * step);
}

// On the equator at the prime meridian east is +y and north is +z of the geocentric axes.
TEST(TrackMap, DrawsEastToTheRightAndNorthUp)
{
    const double radius = 6378137.0;
    MapTrack track;
    for (const double east : {-1000.0, 1000.0})
    {
        track.reported.add({radius, east, 500.0 * east / 1000.0});
    }
    const std::string svg = mapOf({track}, "A & B <c>\x1B\t");
    EXPECT_NE(svg.find("A &amp; B &lt;c&gt;\xEF\xBF\xBD\t"), std::string::npos);
    EXPECT_NE(svg.find(">-1000<"), std::string::npos); // a tick on the axes

    double x[2], y[2];
    const char *at = svg.c_str() + svg.find("<g fill='#e4572e'>");
    for (int i = 0; i < 2; ++i)
    {
        at = std::strstr(at, "<circle");
        ASSERT_NE(at, nullptr);
        ASSERT_EQ(std::sscanf(at, "<circle cx='%lf' cy='%lf'", &x[i], &y[i]), 2);
        ++at;
    }
    EXPECT_GT(x[1], x[0]);
    EXPECT_LT(y[1], y[0]);
    EXPECT_NEAR(x[1] - x[0], 2.0 * (y[0] - y[1]), 0.5); // one scale on both axes
    EXPECT_NE(mapOf({}, "empty").find("no entity was heard"), std::string::npos);
}

TEST(LogHistogram, KnowsQuantilesWithinItsBins)
{
    LogHistogram histogram;
    EXPECT_EQ(histogram.quantile(0.5), 0.0);
    for (int i = 1; i <= 10000; ++i)
    {
        histogram.add(i * 1e-3);
    }
    histogram.add(-1.0);
    histogram.add(std::nan(""));
    EXPECT_EQ(histogram.count(), 10000u);
    EXPECT_EQ(histogram.greatest(), 10.0);
    for (const double fraction : {0.05, 0.5, 0.95})
    {
        EXPECT_NEAR(histogram.quantile(fraction), 10.0 * fraction, 10.0 * fraction * 0.011);
    }
    histogram.add(1e30); // beyond the bins
    EXPECT_EQ(histogram.quantile(1.0), 1e30);
    histogram.clear();
    histogram.add(0.0);
    EXPECT_EQ(histogram.quantile(0.5), 0.0);
}
