// What nodes of the platform layer show, seen from above.
#pragma once

#include <array>
#include <cstddef>
#include <vector>

#include <tolvin/performer/pf.h>

namespace tolvin
{

// A primitive: its outline, one or two corners for points and lines.
struct MapShape
{
    std::vector<std::array<double, 2>> corners; // east and north of the scene, metres
    double height;                              // of the highest corner
    std::array<float, 4> colour;                // red, green, blue, alpha, 0 to 1
};

// The primitives of a node, which is in scene coordinates itself, from the lowest to the highest: at most so many (not 0), evenly taken when
// there are more. Without those that cannot be seen: transparent ones, and what has no finite coordinates. Of switches the
// children that are on count, of LODs the finest.
std::vector<MapShape> shapesOf(pfNode *node, std::size_t most);

} // namespace tolvin
