// The land of valley.png: mountains, a river in its valley, and a road round one side of it.
#pragma once

#include "course.h"
#include "erosion.h"

#include <vector>

namespace tolvin
{

constexpr std::size_t kMapSide = 513;
constexpr double kMapSpacing = 16.0;      // metres
constexpr double kLowestGround = 600.0;   // of the map, black
constexpr double kHighestGround = 1500.0; // white

struct Landscape
{
    HeightField land;
    std::vector<Place> road; // closed, points about 8 m apart
};

// noiseInitialize must have succeeded.
Landscape makeLandscape();

} // namespace tolvin
