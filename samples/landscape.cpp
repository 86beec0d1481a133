#include "landscape.h"

#include "erosion.h"

#include <tolvin/kernel/kernelnoise.h>

#include <algorithm>
#include <cmath>

namespace tolvin
{

namespace
{

constexpr double kReach = 120.0; // metres beside a river or a road whose ground they shape
constexpr double kCourseStep = 8.0;

// The valley comes from the north and leaves to the south; both ends are beyond the map.
constexpr Place kValley[] = {{-300.0, 6800.0},   {-500.0, 5600.0},   {-1300.0, 4200.0},  {-1700.0, 2900.0},
                             {-900.0, 1600.0},   {-500.0, 300.0},    {-1300.0, -1000.0}, {-2100.0, -2200.0},
                             {-1700.0, -3500.0}, {-1000.0, -4700.0}, {-1400.0, -5900.0}, {-1500.0, -7000.0}};

// The road: down the valley, up a slope in bends, and back high above the valley.
constexpr Place kRoad[] = {
    {-620.0, 1150.0},   {-560.0, 850.0},    {-440.0, 580.0},    {-500.0, 250.0},    {-600.0, -30.0},
    {-690.0, -330.0},   {-930.0, -560.0},   {-1060.0, -850.0},  {-1130.0, -1120.0}, {-1310.0, -1380.0},
    {-1350.0, -1650.0}, {-1310.0, -1900.0}, {-1390.0, -2130.0}, {-1400.0, -2380.0}, {-1400.0, -2650.0},
    {-1180.0, -2670.0}, {-1150.0, -2400.0}, {-1060.0, -2160.0}, {-980.0, -1940.0},  {-740.0, -1930.0},
    {-790.0, -2190.0},  {-690.0, -2450.0},  {-430.0, -2450.0},  {-200.0, -2350.0},  {0.0, -2350.0},
    {100.0, -2180.0},   {70.0, -1980.0},    {110.0, -1760.0},   {110.0, -1580.0},   {-20.0, -1450.0},
    {20.0, -1260.0},    {-20.0, -1090.0},   {-90.0, -900.0},    {-130.0, -720.0},   {-10.0, -560.0},
    {50.0, -390.0},     {-20.0, -220.0},    {-200.0, -90.0},    {-130.0, 110.0},    {110.0, 240.0},
    {20.0, 430.0},      {-200.0, 510.0},    {-150.0, 700.0},    {60.0, 840.0},      {60.0, 1020.0},
    {-130.0, 1110.0},   {-300.0, 1290.0},   {-540.0, 1400.0}};

constexpr double kSteepestRoad = 0.09;
constexpr double kRoadway = 24.0; // metres on either side of the middle that are level: grid squares are 16 m wide
constexpr double kSlopes = 84.0;  // where the ground beside the road is as it was
constexpr double kEmbankment = 1.5;

double smoothStep(double low, double high, double value)
{
    const double share = std::clamp((value - low) / (high - low), 0.0, 1.0);
    return share * share * (3.0 - 2.0 * share);
}

double mix(double from, double to, double share)
{
    return from + (to - from) * share;
}

// Noise around 0, mostly within -1 and 1, with features of about that many metres.
double roughness(const Place &place, double metres, float layer, int octaves)
{
    const double sum = turbulence(static_cast<float>(place.east / metres), static_cast<float>(place.north / metres),
                                  layer, 0.5f, 2.0f, octaves);
    const double most = 2.0 - 1.0 / static_cast<double>(1 << (octaves - 1));
    return (sum / most - 0.5) * 4.0;
}

Place placeOf(const HeightField &land, std::size_t column, std::size_t row)
{
    const double half = static_cast<double>(land.side - 1) / 2.0;
    return {(static_cast<double>(column) - half) * land.spacing, (half - static_cast<double>(row)) * land.spacing};
}

struct Nearest
{
    std::size_t index = 0;
    double distance = HUGE_VAL;
};

Nearest nearestOf(const std::vector<Place> &points, const Place &place, std::size_t stride)
{
    Nearest nearest;
    for (std::size_t i = 0; i < points.size(); i += stride)
    {
        const double far = distance(points[i], place);
        if (far < nearest.distance)
        {
            nearest = {i, far};
        }
    }
    return nearest;
}

// For each place of the land that is within reach of a course, which of its points is the nearest.
std::vector<Nearest> nearestAround(const HeightField &land, const std::vector<Place> &points)
{
    std::vector<Nearest> nearest(land.heights.size());
    const double half = static_cast<double>(land.side - 1) / 2.0;
    const auto cell = [&](double metres)
    { return static_cast<std::size_t>(std::clamp(metres / land.spacing + half, 0.0, 2.0 * half)); };
    for (std::size_t i = 0; i < points.size(); ++i)
    {
        const Place &point = points[i];
        for (std::size_t row = cell(-point.north - kReach); row <= cell(-point.north + kReach); ++row)
        {
            for (std::size_t column = cell(point.east - kReach); column <= cell(point.east + kReach); ++column)
            {
                Nearest &known = nearest[row * land.side + column];
                const double far = distance(point, placeOf(land, column, row));
                if (far < known.distance)
                {
                    known = {i, far};
                }
            }
        }
    }
    return nearest;
}

double heightAt(const HeightField &land, const Place &place)
{
    const double half = static_cast<double>(land.side - 1) / 2.0;
    const double x = std::clamp(place.east / land.spacing + half, 0.0, 2.0 * half - 0.001);
    const double y = std::clamp(half - place.north / land.spacing, 0.0, 2.0 * half - 0.001);
    const auto column = static_cast<std::size_t>(x);
    const auto row = static_cast<std::size_t>(y);
    const double right = x - static_cast<double>(column);
    return mix(mix(land.at(column, row), land.at(column + 1, row), right),
               mix(land.at(column, row + 1), land.at(column + 1, row + 1), right), y - static_cast<double>(row));
}

// By the cubics of E. Catmull and R. Rom, so that slopes have no steps.
double heightBetween(const HeightField &land, const Place &place)
{
    const double half = static_cast<double>(land.side - 1) / 2.0;
    const double x = place.east / land.spacing + half;
    const double y = half - place.north / land.spacing;
    const auto column = static_cast<std::size_t>(x);
    const auto row = static_cast<std::size_t>(y);
    const auto cubic = [](const double(&v)[4], double t)
    {
        return v[1] + 0.5 * t *
                          (v[2] - v[0] +
                           t * (2.0 * v[0] - 5.0 * v[1] + 4.0 * v[2] - v[3] + t * (3.0 * (v[1] - v[2]) + v[3] - v[0])));
    };
    double rows[4];
    for (std::size_t j = 0; j < 4; ++j)
    {
        double values[4];
        for (std::size_t i = 0; i < 4; ++i)
        {
            values[i] = land.at(column + i - 1, row + j - 1);
        }
        rows[j] = cubic(values, x - static_cast<double>(column));
    }
    return cubic(rows, y - static_cast<double>(row));
}

// Height of the water where the valley is nearest at that point of it.
double waterLevel(const std::vector<Place> &valley, std::size_t index)
{
    return mix(kLowestGround + 58.0, kLowestGround + 6.0,
               static_cast<double>(index) / static_cast<double>(valley.size() - 1));
}

// Mountains of streams on either side of the valley; wider than the map, so that no divide runs along its edge.
HeightField mountains(const std::vector<Place> &valley)
{
    HeightField land(337, 32.0);
    std::vector<double> uplift(land.heights.size());
    std::vector<bool> outlet(land.heights.size());
    for (std::size_t row = 0; row < land.side; ++row)
    {
        for (std::size_t column = 0; column < land.side; ++column)
        {
            const std::size_t i = row * land.side + column;
            const Place place = placeOf(land, column, row);
            const Nearest nearest = nearestOf(valley, place, 4);
            const double plain = 290.0 + 90.0 * roughness(place, 900.0, 3.5f, 3);
            outlet[i] = nearest.distance < plain;
            land.heights[i] = waterLevel(valley, nearest.index) + 0.018 * nearest.distance;
            uplift[i] = mix(0.15, 1.0, smoothStep(200.0, 2900.0, nearest.distance)) *
                        std::max(0.15, 1.0 + 0.6 * roughness(place, 2600.0, 9.5f, 3));
            if (!outlet[i])
            {
                land.heights[i] += 12.0 * (1.0 + roughness(place, 300.0, 17.5f, 5)); // where the streams begin to run
            }
        }
    }
    erode(land, uplift, outlet, {70, 6.5, 0.04, 0.32, 0.6});
    return land;
}

// The river winds within the valley.
std::vector<Place> riverIn(const std::vector<Place> &valley)
{
    constexpr std::size_t kBend = 42; // points of the valley from bend to bend
    std::vector<Place> controls;
    for (std::size_t i = 1; i + 1 < valley.size(); i += kBend)
    {
        const double length = distance(valley[i - 1], valley[i + 1]);
        const double east = (valley[i + 1].east - valley[i - 1].east) / length;
        const double north = (valley[i + 1].north - valley[i - 1].north) / length;
        const double side = (i / kBend % 2 == 0 ? 1.0 : -1.0) * (190.0 + 60.0 * roughness(valley[i], 500.0, 31.5f, 2));
        controls.push_back({valley[i].east - side * north, valley[i].north + side * east});
    }
    return course(controls, kCourseStep, false);
}

HeightField magnified(const HeightField &coarse)
{
    HeightField land(kMapSide, kMapSpacing);
    for (std::size_t row = 0; row < land.side; ++row)
    {
        for (std::size_t column = 0; column < land.side; ++column)
        {
            const Place place = placeOf(land, column, row);
            const double height = heightBetween(coarse, place);
            const double steep = std::abs(heightAt(coarse, {place.east + 32.0, place.north}) - height) +
                                 std::abs(heightAt(coarse, {place.east, place.north + 32.0}) - height);
            land.at(column, row) =
                height + (0.3 + 4.0 * std::min(1.0, steep / 30.0)) * roughness(place, 140.0, 43.5f, 3);
        }
    }
    return land;
}

void digRiver(HeightField &land, const std::vector<Place> &river, const std::vector<Place> &valley)
{
    const std::vector<Nearest> nearest = nearestAround(land, river);
    for (std::size_t i = 0; i < nearest.size(); ++i)
    {
        if (nearest[i].distance < kReach)
        {
            const double level = waterLevel(valley, nearestOf(valley, river[nearest[i].index], 1).index);
            const double bank = smoothStep(14.0, 52.0, nearest[i].distance);
            land.heights[i] = mix(level - 5.0,
                                  mix(std::min(land.heights[i], level + 5.0), land.heights[i],
                                      smoothStep(60.0, kReach, nearest[i].distance)),
                                  bank);
        }
    }
}

// The mean over that many points before and behind each, on a closed course.
std::vector<double> averaged(const std::vector<double> &values, std::size_t reach)
{
    std::vector<double> result(values.size());
    for (std::size_t i = 0; i < values.size(); ++i)
    {
        double sum = 0.0;
        for (std::size_t k = 0; k <= 2 * reach; ++k)
        {
            sum += values[(i + values.size() + k - reach) % values.size()];
        }
        result[i] = sum / static_cast<double>(2 * reach + 1);
    }
    return result;
}

// The heights nearest below (or above, with the sign -1) that rise and fall by no more than `most` from point to point.
std::vector<double> limited(std::vector<double> heights, double most, double sign)
{
    const std::size_t count = heights.size();
    for (std::size_t i = 0; i < 2 * count; ++i)
    {
        const double before = heights[i % count];
        double &next = heights[(i + 1) % count];
        next = sign * std::min(sign * next, sign * before + most);
    }
    for (std::size_t i = 2 * count; i > 0; --i)
    {
        const double behind = heights[i % count];
        double &next = heights[(i - 1) % count];
        next = sign * std::min(sign * next, sign * behind + most);
    }
    return heights;
}

// Cuts and fills balance.
std::vector<double> roadHeights(const HeightField &land, const std::vector<Place> &road)
{
    std::vector<double> ground;
    for (const Place &place : road)
    {
        ground.push_back(heightAt(land, place) + kEmbankment);
    }
    ground = averaged(averaged(ground, 10), 10);
    const double most = kSteepestRoad * distance(road[0], road[1]);
    const std::vector<double> low = limited(ground, most, 1.0);
    const std::vector<double> high = limited(ground, most, -1.0);
    for (std::size_t i = 0; i < ground.size(); ++i)
    {
        ground[i] = (low[i] + high[i]) / 2.0;
    }
    return averaged(averaged(ground, 8), 8);
}

void buildRoad(HeightField &land, const std::vector<Place> &road)
{
    const std::vector<double> heights = roadHeights(land, road);
    const std::vector<Nearest> nearest = nearestAround(land, road);
    for (std::size_t i = 0; i < nearest.size(); ++i)
    {
        if (nearest[i].distance < kSlopes)
        {
            land.heights[i] =
                mix(heights[nearest[i].index], land.heights[i], smoothStep(kRoadway, kSlopes, nearest[i].distance));
        }
    }
}

} // namespace

Landscape makeLandscape()
{
    const std::vector<Place> valley = course(kValley, kCourseStep, false);
    Landscape made{magnified(mountains(valley)), course(kRoad, kCourseStep, true)};
    digRiver(made.land, riverIn(valley), valley);
    buildRoad(made.land, made.road);
    return made;
}

} // namespace tolvin
