// Makes the sample textures: sample_textures FOLDER writes ground.rgb, road.rgb and foliage.rgba there. Every run and
// every machine gives the same bytes: numbers go through the four operations and square roots only.
#include "../apps/noisepicture.h"
#include "../apps/picture.h"
#include "samplemain.h"

#include <tolvin/kernel/kernelnoise.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

using namespace tolvin;

namespace
{

constexpr std::uint32_t kSide = 256;

using Shade = std::array<double, 3>; // red, green, blue, from 0 to 1

Shade mix(const Shade &from, const Shade &to, double share)
{
    Shade shade;
    for (std::size_t i = 0; i < 3; ++i)
    {
        shade[i] = from[i] + (to[i] - from[i]) * share;
    }
    return shade;
}

Shade dimmed(const Shade &shade, double factor)
{
    return mix({}, shade, factor);
}

double smoothStep(double low, double high, double value)
{
    const double share = std::clamp((value - low) / (high - low), 0.0, 1.0);
    return share * share * (3.0 - 2.0 * share);
}

std::uint8_t byteOf(double share)
{
    return static_cast<std::uint8_t>(std::lround(255.0 * std::clamp(share, 0.0, 1.0)));
}

// Noise that continues at the opposite edges, around one half.
class Field
{
public:
    Field(double scale, double z, int octaves)
    {
        NoiseView view;
        view.width = view.height = kSide;
        view.scale = {scale, scale};
        view.origin = {7.3, 11.6, z};
        view.octaves = octaves;
        view.tile = true;
        NoiseSlice slice(view, NoiseForm::Scalar, 0.0);
        for (std::uint32_t y = 0; y < kSide; ++y)
        {
            const auto row = slice.row(y);
            values_.insert(values_.end(), row.begin(), row.end());
        }
    }

    double operator()(std::uint32_t x, std::uint32_t y) const
    {
        return values_[y * kSide + x];
    }

private:
    std::vector<double> values_;
};

template<typename Painter>
void writeTexture(const std::string &file, PixelFormat format, const Painter &paint)
{
    const auto channels = static_cast<std::size_t>(format);
    std::vector<std::uint8_t> row(kSide * channels);
    writePicture(file, {kSide, kSide, format},
                 [&](std::uint32_t y)
                 {
                     for (std::uint32_t x = 0; x < kSide; ++x)
                     {
                         const std::array<double, 4> texel = paint(x, y);
                         std::transform(texel.begin(), texel.begin() + static_cast<std::ptrdiff_t>(channels),
                                        row.begin() + static_cast<std::ptrdiff_t>(x * channels), byteOf);
                     }
                     return row.data();
                 });
}

std::array<double, 4> opaque(const Shade &shade)
{
    return {shade[0], shade[1], shade[2], 1.0};
}

// Grass with worn places; tiles in both directions.
void writeGround(const std::string &file)
{
    const Field patches(40.0, 0.5, 5);
    const Field tint(90.0, 20.5, 3);
    const Field grain(5.0, 40.5, 3);
    writeTexture(file, PixelFormat::Rgb,
                 [&](std::uint32_t x, std::uint32_t y)
                 {
                     const Shade grass = mix({0.22, 0.36, 0.10}, {0.46, 0.50, 0.20}, smoothStep(0.3, 0.7, tint(x, y)));
                     const Shade earth = {0.46, 0.36, 0.24};
                     const double worn = smoothStep(0.52, 0.64, patches(x, y) + 0.15 * (grain(x, y) - 0.5));
                     return opaque(dimmed(mix(grass, earth, worn), 0.55 + 0.9 * grain(x, y)));
                 });
}

// Two lanes between shoulders of gravel; tiles along the road, which runs from bottom to top.
void writeRoad(const std::string &file)
{
    const Field grain(2.6, 60.5, 2);
    const Field stains(36.0, 80.5, 4);
    const Field wear(9.0, 100.5, 4);
    writeTexture(file, PixelFormat::Rgb,
                 [&](std::uint32_t x, std::uint32_t y)
                 {
                     const double fromAxis = std::fabs(x + 0.5 - kSide / 2.0);
                     const double edge = 116.0 + 14.0 * (stains(x, y) - 0.5);
                     const double lane = std::fabs(std::fabs(fromAxis - 54.0) - 20.0); // from the nearest wheel track
                     Shade shade = dimmed({0.34, 0.34, 0.36}, 0.7 + 0.6 * stains(x, y));
                     shade = dimmed(shade, 0.86 + 0.14 * smoothStep(0.0, 12.0, lane));
                     const bool isEdgeLine = fromAxis > 98.0 && fromAxis < 104.0;
                     const bool isDash = fromAxis < 3.0 && y >= kSide / 4 && y < 3 * kSide / 4;
                     if (isEdgeLine || isDash)
                     {
                         shade = mix({0.86, 0.86, 0.80}, shade, smoothStep(0.52, 0.66, wear(x, y)));
                     }
                     const Shade gravel = mix({0.42, 0.37, 0.30}, {0.62, 0.57, 0.48}, wear(x, y));
                     shade = mix(shade, gravel, smoothStep(edge - 3.0, edge + 3.0, fromAxis));
                     const double roughness = fromAxis < edge ? 0.5 : 0.9;
                     return opaque(dimmed(shade, 1.0 + roughness * (grain(x, y) - 0.5)));
                 });
}

struct Leaf
{
    double x, y;           // middle, texels
    double alongX, alongY; // unit vector from stalk to tip
    double length;         // half of it, texels
    Shade shade;
};

// A leaf's outline is that of two arcs. Nothing of it where the point is outside.
double depthInLeaf(const Leaf &leaf, double x, double y, double &across)
{
    const double along = ((x - leaf.x) * leaf.alongX + (y - leaf.y) * leaf.alongY) / leaf.length;
    across = ((y - leaf.y) * leaf.alongX - (x - leaf.x) * leaf.alongY) / leaf.length;
    return 0.42 * (1.0 - along * along) - std::fabs(across);
}

std::vector<Leaf> leavesOfCrown(std::size_t count)
{
    std::mt19937 generator(7);
    const auto random = [&](double low, double high) { return low + (high - low) * (generator() / 4294967296.0); };
    std::vector<Leaf> leaves;
    while (leaves.size() < count)
    {
        const double u = random(-1.0, 1.0), v = random(-1.0, 1.0);
        const double along = random(-1.0, 1.0), down = random(-1.0, 1.0);
        const double norm = std::sqrt(along * along + down * down);
        if (u * u + v * v > 1.0 || norm < 0.1)
        {
            continue;
        }
        // Those that are drawn later lie outside and get more light, those further down less.
        const double light = 0.35 + 0.5 * static_cast<double>(leaves.size()) / static_cast<double>(count) - 0.2 * v;
        const Shade green = mix({0.20, 0.42, 0.10}, {0.48, 0.60, 0.16}, random(0.0, 1.0));
        leaves.push_back({128.0 + 108.0 * u, 128.0 + 108.0 * v, along / norm, down / norm, random(8.0, 15.0),
                          dimmed(green, light + random(-0.1, 0.1))});
    }
    return leaves;
}

// Samples of the crown, four by four in a texel: shade, and whether there is a leaf.
class Crown
{
public:
    Crown() : samples_(kSamples * kSamples)
    {
        for (const Leaf &leaf : leavesOfCrown(700))
        {
            draw(leaf);
        }
    }

    // Where nothing is, a green like theirs: filtering mixes it into the edges.
    std::array<double, 4> operator()(std::uint32_t x, std::uint32_t y) const
    {
        Shade sum = {};
        double covered = 0.0;
        for (std::uint32_t i = 0; i < kPerTexel * kPerTexel; ++i)
        {
            const Sample &sample = samples_[(y * kPerTexel + i / kPerTexel) * kSamples + x * kPerTexel + i % kPerTexel];
            if (sample.covered)
            {
                sum = {sum[0] + sample.shade[0], sum[1] + sample.shade[1], sum[2] + sample.shade[2]};
                covered += 1.0;
            }
        }
        const Shade shade = covered > 0.0 ? dimmed(sum, 1.0 / covered) : Shade{0.20, 0.30, 0.08};
        return {shade[0], shade[1], shade[2], covered / (kPerTexel * kPerTexel)};
    }

private:
    static constexpr std::uint32_t kPerTexel = 4;
    static constexpr std::uint32_t kSamples = kPerTexel * kSide;

    struct Sample
    {
        bool covered = false;
        Shade shade = {};
    };

    static std::uint32_t sampleAt(double texel)
    {
        return static_cast<std::uint32_t>(std::clamp(texel * kPerTexel, 0.0, kSamples - 1.0));
    }

    void draw(const Leaf &leaf)
    {
        for (std::uint32_t y = sampleAt(leaf.y - leaf.length); y <= sampleAt(leaf.y + leaf.length); ++y)
        {
            for (std::uint32_t x = sampleAt(leaf.x - leaf.length); x <= sampleAt(leaf.x + leaf.length); ++x)
            {
                double across;
                const double depth = depthInLeaf(leaf, (x + 0.5) / kPerTexel, (y + 0.5) / kPerTexel, across);
                if (depth > 0.0)
                {
                    const double light = std::fabs(across) < 0.04 ? 1.25 : across < 0.0 ? 1.0 : 0.86;
                    samples_[y * kSamples + x] = {true, dimmed(leaf.shade, light)};
                }
            }
        }
    }

    std::vector<Sample> samples_;
};

} // namespace

int main(int argc, char **argv)
{
    return sampleMain(argc, argv,
                      [](const std::string &folder)
                      {
                          if (noiseInitialize() != 1)
                          {
                              throw std::runtime_error("no room for the tables of the noise");
                          }
                          writeGround(folder + "/ground.rgb");
                          writeRoad(folder + "/road.rgb");
                          writeTexture(folder + "/foliage.rgba", PixelFormat::Rgba, Crown());
                          noiseFree();
                      });
}
