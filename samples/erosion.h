// Land that rises while streams cut into it.
#pragma once

#include <cstddef>
#include <vector>

namespace tolvin
{

// A square of heights, row after row from the north, each from the west.
struct HeightField
{
    HeightField(std::size_t points, double metres) : side(points), spacing(metres), heights(points * points)
    {
    }

    double &at(std::size_t column, std::size_t row)
    {
        return heights[row * side + column];
    }

    double at(std::size_t column, std::size_t row) const
    {
        return heights[row * side + column];
    }

    std::size_t side;
    double spacing; // metres
    std::vector<double> heights;
};

struct ErosionRates
{
    int steps;
    double uplift;   // metres a step where `uplift` is 1
    double incision; // metres a step on a slope of 1 with one square metre upstream
    double creep;    // share of the difference to its neighbours that a place loses in a step
    double steepest; // slope that holds
};

// Lifts the land and lets streams carve it, by the stream power law (A. D. Howard 1994) with the square root of the area that
// drains through a place, in the implicit scheme of J. Braun and S. D. Willett (Geomorphology 180-181, 2013). Water leaves
// where `outlet` is set; these keep their heights.
void erode(HeightField &land, const std::vector<double> &uplift, const std::vector<bool> &outlet,
           const ErosionRates &rates);

} // namespace tolvin
