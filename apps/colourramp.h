// Named colour ramps: colours between the ends of a scale.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string_view>

namespace tolvin
{

using Colour = std::array<std::uint8_t, 3>; // red, green, blue

struct ColourStop
{
    float at;
    Colour colour;
};

// Linear between the stops, which rise from 0 to 1.
struct ColourRamp
{
    std::string_view name;
    int cycles; // how often the stops are run through from end to end of the scale
    bool grey;  // red, green and blue are the same everywhere
    std::span<const ColourStop> stops;
};

std::span<const ColourRamp> colourRamps();

// Null when no ramp has the name.
const ColourRamp *colourRampNamed(std::string_view name);

// The colour at a value; below 0 and above 1 that of the end, NaN as 0.
Colour colourAt(const ColourRamp &ramp, double value);

} // namespace tolvin
