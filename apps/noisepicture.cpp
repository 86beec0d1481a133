#include "noisepicture.h"

#include <tolvin/kernel/kernelnoise.h>

#include <algorithm>
#include <cmath>

namespace tolvin
{

namespace
{

double sumOfAmplitudes(const NoiseView &view)
{
    double sum = 1.0;
    double amplitude = 1.0;
    for (int octave = 2; octave <= view.octaves; ++octave)
    {
        amplitude *= view.amplitudeFactor;
        sum += amplitude;
    }
    return sum;
}

std::uint8_t byteOf(double share)
{
    return static_cast<std::uint8_t>(std::lround(255.0 * share));
}

} // namespace

// The s-curve is flat at both ends, so the edges agree in value and gradient. A weighted mean of two unrelated copies
// varies less than either, which would show as a blurred band in the middle: dividing the weights by the root of the
// sum of their squares keeps the variance the same everywhere.
NoiseSlice::Fade NoiseSlice::fadeAt(double period, double place)
{
    if (period == 0.0)
    {
        return {{1.0, 0.0}};
    }
    const double share = place / period;
    const double s = share * share * (3.0 - 2.0 * share);
    const double norm = std::hypot(1.0 - s, s);
    return {{(1.0 - s) / norm, s / norm}};
}

NoiseSlice::NoiseSlice(const NoiseView &view, NoiseForm form, double phase)
    : view_(view),
      form_(form),
      total_(sumOfAmplitudes(view)),
      mean_(form == NoiseForm::Scalar ? 0.5 * total_ : 0.0),
      period_{view.tile ? view.width / view.scale[0] : 0.0, view.tile ? view.height / view.scale[1] : 0.0,
              view.loopDepth},
      depth_(phase * view.loopDepth),
      scalars_(form == NoiseForm::Scalar ? view.width : 0),
      vectors_(form == NoiseForm::Vector ? view.width : 0),
      values_(view.width * static_cast<std::size_t>(form))
{
    columnFades_.reserve(view.width);
    for (std::uint32_t x = 0; x < view.width; ++x)
    {
        columnFades_.push_back(fadeAt(period_[0], x / view.scale[0]));
    }
}

std::span<const double> NoiseSlice::row(std::uint32_t y)
{
    const std::array<double, 3> place = {0.0, y / view_.scale[1], depth_};
    const Fade fades[2] = {fadeAt(period_[1], place[1]), fadeAt(period_[2], place[2])};
    std::fill(values_.begin(), values_.end(), 0.0);
    for (std::size_t copy = 0; copy < 8; ++copy) // a bit for each axis: shifted or not
    {
        const std::size_t shifted[3] = {copy & 1, copy >> 1 & 1, copy >> 2};
        const double weight = fades[0].weight[shifted[1]] * fades[1].weight[shifted[2]];
        if (weight == 0.0 || (shifted[0] == 1 && period_[0] == 0.0))
        {
            continue;
        }
        std::array<double, 3> first;
        for (std::size_t axis = 0; axis < 3; ++axis)
        {
            first[axis] = view_.origin[axis] + place[axis] - static_cast<double>(shifted[axis]) * period_[axis];
        }
        addCopy(first, weight, shifted[0]);
    }
    for (double &value : values_)
    {
        value = form_ == NoiseForm::Scalar ? (value + mean_) / total_ : value;
    }
    return values_;
}

void NoiseSlice::addCopy(const std::array<double, 3> &first, double weight, std::size_t copy)
{
    const noiseGridPoints points = {
        {static_cast<float>(first[0]), static_cast<float>(first[1]), static_cast<float>(first[2])},
        {static_cast<float>(1.0 / view_.scale[0]), 0.0f, 0.0f},
        {static_cast<std::int32_t>(view_.width), 1, 1}};
    if (form_ == NoiseForm::Scalar)
    {
        turbulenceGrid(scalars_.data(), &points, view_.amplitudeFactor, view_.frequencyFactor, view_.octaves);
        for (std::size_t x = 0; x < view_.width; ++x)
        {
            values_[x] += weight * columnFades_[x].weight[copy] * (scalars_[x] - mean_);
        }
        return;
    }
    turbulence3DGrid(reinterpret_cast<float(*)[3]>(vectors_.data()), &points, view_.amplitudeFactor,
                     view_.frequencyFactor, view_.octaves);
    for (std::size_t x = 0; x < view_.width; ++x)
    {
        for (std::size_t axis = 0; axis < 3; ++axis)
        {
            values_[3 * x + axis] += weight * columnFades_[x].weight[copy] * vectors_[x][axis];
        }
    }
}

void drawColours(std::span<const double> values, const ValueRange &range, const ColourRamp &ramp, std::uint8_t *pixels)
{
    const double factor = range.high > range.low ? 1.0 / (range.high - range.low) : 0.0;
    const std::size_t channels = ramp.grey ? 1 : 3;
    for (const double value : values)
    {
        const Colour colour = colourAt(ramp, (value - range.low) * factor);
        pixels = std::copy_n(colour.begin(), channels, pixels);
    }
}

void drawNormals(std::span<const double> vectors, double bump, std::uint8_t *pixels)
{
    for (std::size_t i = 0; i < vectors.size(); i += 3)
    {
        float normal[3] = {static_cast<float>(bump * vectors[i]), static_cast<float>(bump * vectors[i + 1]),
                           static_cast<float>(1.0 + bump * vectors[i + 2])};
        VNormalize(normal, normal);
        for (const float component : normal)
        {
            *pixels++ = byteOf(0.5 + 0.5 * component);
        }
    }
}

} // namespace tolvin
