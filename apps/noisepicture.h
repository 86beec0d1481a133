// Pictures of the kernel's noise, row by row: values of a slice through it, wrapped if wanted, and their colours.
#pragma once

#include "colourramp.h"

#include <array>
#include <cstdint>
#include <span>
#include <vector>

namespace tolvin
{

// A slice through the noise, seen along z.
struct NoiseView
{
    std::uint32_t width = 512; // pixels
    std::uint32_t height = 512;
    std::array<double, 2> scale = {64.0, 64.0}; // pixels per lattice unit, along x and y
    std::array<double, 3> origin = {};          // of the first pixel, lattice units
    int octaves = 6;
    float amplitudeFactor = 0.5f; // 0 or more
    float frequencyFactor = 2.0f;
    bool tile = false;      // the right edge continues at the left one, and the lower at the upper
    double loopDepth = 0.0; // lattice units of z after which the slice is back where it began; 0: never
};

enum class NoiseForm
{
    Scalar = 1, // turbulence divided by the sum of its amplitudes, around one half
    Vector = 3  // turbulence3D, around (0, 0, 0)
};

// Gives the values of a view. noiseInitialize must have succeeded, and be in force as long as rows are asked for.
class NoiseSlice
{
public:
    // phase  where in the loop, from 0 to 1; without a loop it means nothing
    NoiseSlice(const NoiseView &view, NoiseForm form, double phase);

    // The values of row y, one or three for each pixel; they last until the next call.
    std::span<const double> row(std::uint32_t y);

private:
    // Where an axis wraps, two copies of the noise, one shifted by the period, fade into each other.
    struct Fade
    {
        std::array<double, 2> weight; // of the copy that is not shifted, and of the other
    };

    static Fade fadeAt(double period, double place);
    void addCopy(const std::array<double, 3> &first, double weight, std::size_t copy);

    NoiseView view_;
    NoiseForm form_;
    double total_; // of the amplitudes
    double mean_;
    std::array<double, 3> period_; // 0: the axis does not wrap
    double depth_;                 // of the slice, from the origin
    std::vector<Fade> columnFades_;
    std::vector<double> scalars_;
    std::vector<std::array<float, 3>> vectors_;
    std::vector<double> values_;
};

// The values that are drawn as the ends of a ramp.
struct ValueRange
{
    double low = 0.0;
    double high = 1.0;
};

// One colour for each value, as one byte for a grey ramp and as three for others.
void drawColours(std::span<const double> values, const ValueRange &range, const ColourRamp &ramp, std::uint8_t *pixels);

// A normal map: (0, 0, 1) plus bump times the vector, made a unit vector n, as the bytes nearest to 255 (0.5 + 0.5 n).
void drawNormals(std::span<const double> vectors, double bump, std::uint8_t *pixels);

} // namespace tolvin
