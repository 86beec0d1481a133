#include "colourramp.h"

#include <algorithm>
#include <cmath>

namespace tolvin
{

namespace
{

constexpr ColourStop kGrey[] = {{0.0f, {0, 0, 0}}, {1.0f, {255, 255, 255}}};

// Noise has most of its values around the middle, so that is where these have their detail.
constexpr ColourStop kClouds[] = {{0.0f, {28, 78, 156}},   {0.4f, {72, 134, 204}},   {0.5f, {124, 174, 222}},
                                  {0.6f, {214, 228, 242}}, {0.72f, {255, 255, 255}}, {0.84f, {240, 242, 246}},
                                  {1.0f, {196, 204, 216}}};
constexpr ColourStop kFire[] = {{0.0f, {0, 0, 0}},      {0.36f, {28, 2, 2}},     {0.48f, {140, 16, 4}},
                                {0.57f, {232, 84, 8}},  {0.67f, {255, 180, 36}}, {0.8f, {255, 244, 160}},
                                {1.0f, {255, 255, 255}}};
constexpr ColourStop kMarble[] = {{0.0f, {190, 186, 182}},   {0.3f, {236, 234, 230}},   {0.36f, {206, 200, 194}},
                                  {0.375f, {240, 238, 234}}, {0.46f, {214, 213, 213}},  {0.494f, {104, 108, 116}},
                                  {0.505f, {60, 64, 74}},    {0.52f, {170, 171, 174}},  {0.57f, {240, 238, 234}},
                                  {0.66f, {250, 249, 247}},  {0.675f, {206, 190, 168}}, {0.7f, {246, 243, 238}},
                                  {1.0f, {226, 220, 212}}};
constexpr ColourStop kTerrain[] = {{0.0f, {6, 20, 62}},      {0.36f, {16, 62, 128}},   {0.49f, {74, 158, 196}},
                                   {0.5f, {226, 214, 160}},  {0.52f, {178, 176, 104}}, {0.54f, {92, 146, 60}},
                                   {0.63f, {36, 92, 40}},    {0.69f, {104, 94, 66}},   {0.77f, {138, 130, 122}},
                                   {0.82f, {236, 238, 244}}, {1.0f, {255, 255, 255}}};
// One annual ring: early wood, slowly darker late wood, and back at once.
constexpr ColourStop kWood[] = {
    {0.0f, {214, 164, 104}}, {0.5f, {196, 140, 82}}, {0.88f, {132, 80, 40}}, {1.0f, {214, 164, 104}}};

constexpr ColourRamp kRamps[] = {{"grey", 1, true, kGrey},        {"clouds", 1, false, kClouds},
                                 {"fire", 1, false, kFire},       {"marble", 1, false, kMarble},
                                 {"terrain", 1, false, kTerrain}, {"wood", 12, false, kWood}};

} // namespace

std::span<const ColourRamp> colourRamps()
{
    return kRamps;
}

const ColourRamp *colourRampNamed(std::string_view name)
{
    const auto *const found = std::ranges::find(kRamps, name, &ColourRamp::name);
    return found == std::end(kRamps) ? nullptr : found;
}

Colour colourAt(const ColourRamp &ramp, double value)
{
    const double scaled = value > 0.0 ? std::min(value, 1.0) * ramp.cycles : 0.0; // NaN is 0 as well
    const double place = scaled < ramp.cycles ? scaled - std::floor(scaled) : 1.0;
    const auto next =
        std::find_if(ramp.stops.begin() + 1, ramp.stops.end() - 1, [&](const ColourStop &s) { return place < s.at; });
    const ColourStop &low = *(next - 1);
    const double share = (place - low.at) / (next->at - low.at);
    Colour colour;
    for (std::size_t i = 0; i < colour.size(); ++i)
    {
        colour[i] = static_cast<std::uint8_t>(std::lround(low.colour[i] + share * (next->colour[i] - low.colour[i])));
    }
    return colour;
}

} // namespace tolvin
