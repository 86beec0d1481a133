#include <tolvin/apps/noisepicture.h>
#include <tolvin/kernel/kernelnoise.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <numeric>
#include <vector>

using namespace tolvin;

namespace
{

[[maybe_unused]] const int isInitialized = noiseInitialize();

using Picture = std::vector<std::vector<double>>;

// One component of all pixels.
Picture pictureOf(const NoiseView &view, NoiseForm form = NoiseForm::Scalar, std::size_t component = 0,
                  double phase = 0.0)
{
    NoiseSlice slice(view, form, phase);
    Picture picture(view.height, std::vector<double>(view.width));
    for (std::uint32_t y = 0; y < view.height; ++y)
    {
        const auto row = slice.row(y);
        for (std::size_t x = 0; x < view.width; ++x)
        {
            picture[y][x] = row[x * static_cast<std::size_t>(form) + component];
        }
    }
    return picture;
}

// Greatest difference and second difference along the lines of a picture that closes: at the seam, or everywhere else.
std::array<double, 2> roughness(const Picture &picture, bool down, bool seam)
{
    std::array<double, 2> most = {};
    const std::size_t length = down ? picture.size() : picture[0].size();
    for (std::size_t line = 0; line < (down ? picture[0].size() : picture.size()); ++line)
    {
        const auto at = [&](std::size_t i) { return down ? picture[i % length][line] : picture[line][i % length]; };
        for (std::size_t i = seam ? length - 2 : 0; i < (seam ? length : length - 2); ++i)
        {
            most[0] = std::max(most[0], std::abs(at(i + 2) - at(i + 1)));
            most[1] = std::max(most[1], std::abs(at(i + 2) - 2.0 * at(i + 1) + at(i)));
        }
    }
    return most;
}

void expectNoSeam(const Picture &picture, bool down)
{
    const auto inside = roughness(picture, down, false);
    const auto seam = roughness(picture, down, true);
    EXPECT_LE(seam[0], inside[0]);
    EXPECT_LE(seam[1], 1.2 * inside[1]); // curvature jumps at lattice points, and at the seam as well
}

double variance(const std::vector<double> &values)
{
    const auto count = static_cast<double>(values.size());
    const double mean = std::accumulate(values.begin(), values.end(), 0.0) / count;
    return std::inner_product(values.begin(), values.end(), values.begin(), 0.0) / count - mean * mean;
}

} // namespace

TEST(NoisePicture, IsTheKernelsNoise)
{
    NoiseView view = {.width = 40, .height = 30, .scale = {8.0, 16.0}, .origin = {-3.0, 7.5, 0.25}, .octaves = 1};
    EXPECT_NEAR(pictureOf(view)[20][12], noise(-1.5f, 8.75f, 0.25f), 1e-12); // 12 / 8 and 20 / 16 on
    view.octaves = 3;
    EXPECT_NEAR(pictureOf(view)[20][12], turbulence(-1.5f, 8.75f, 0.25f, 0.5f, 2.0f, 3) / 1.75, 1e-12);
    float vector[3];
    turbulence3D(vector, -1.5f, 8.75f, 0.25f, 0.5f, 2.0f, 3);
    for (std::size_t axis = 0; axis < 3; ++axis)
    {
        EXPECT_NEAR(pictureOf(view, NoiseForm::Vector, axis)[20][12], vector[axis], 1e-12);
    }
}

TEST(NoisePicture, TilesAndLoopsInValueAndGradient)
{
    // 2.3 and 2.7 lattice units, so that the period is not whole, in steps that the lattice counts exactly.
    NoiseView view = {.width = 300, .height = 340, .scale = {128.0, 128.0}, .octaves = 1};
    for (const NoiseForm form : {NoiseForm::Scalar, NoiseForm::Vector})
    {
        for (const bool down : {false, true})
        {
            SCOPED_TRACE(testing::Message() << "down " << down << ", components " << static_cast<int>(form));
            view.tile = true;
            const Picture tile = pictureOf(view, form);
            expectNoSeam(tile, down);
            view.tile = false;
            EXPECT_GT(roughness(pictureOf(view, form), down, true)[0], 3.0 * roughness(tile, down, false)[0]);
        }
    }
    view = {.height = 1, .octaves = 1, .loopDepth = 2.25};
    Picture lineInTime;
    for (int frame = 0; frame < 288; ++frame)
    {
        lineInTime.push_back(pictureOf(view, NoiseForm::Scalar, 0, frame / 288.0)[0]);
    }
    expectNoSeam(lineInTime, true);
}

// Without care the middle of a tile, a mean of four copies of equal weight, would have a quarter of the variance.
TEST(NoisePicture, VarianceIsTheSameEverywhere)
{
    NoiseView view = {.width = 8, .height = 8, .scale = {0.25, 0.25}, .octaves = 1, .tile = true}; // 32 units each
    std::vector<double> corner, edge, middle;
    for (int i = 0; i < 4000; ++i)
    {
        view.origin = {64.3 * (i % 60), 64.3 * (i / 60), 0.37 * i};
        const Picture tile = pictureOf(view);
        corner.push_back(tile[0][0]);
        edge.push_back(tile[0][4]);
        middle.push_back(tile[4][4]);
    }
    // The estimates scatter by sqrt(2 / 4000), 2.2 %; in the noise itself values beyond 0 and 1 are cut off.
    EXPECT_NEAR(variance(edge) / variance(corner), 1.0, 0.12);
    EXPECT_NEAR(variance(middle) / variance(corner), 1.0, 0.12);
}

TEST(ColourRamp, GoesFromEndToEnd)
{
    for (const ColourRamp &ramp : colourRamps())
    {
        SCOPED_TRACE(ramp.name);
        EXPECT_EQ(colourRampNamed(ramp.name), &ramp);
        EXPECT_TRUE(ramp.stops.front().at == 0.0f && ramp.stops.back().at == 1.0f);
        EXPECT_TRUE(std::ranges::is_sorted(ramp.stops, {}, &ColourStop::at));
        EXPECT_EQ(colourAt(ramp, -0.5), ramp.stops.front().colour);
        EXPECT_EQ(colourAt(ramp, std::nan("")), ramp.stops.front().colour);
        EXPECT_EQ(colourAt(ramp, 1.5), ramp.stops.back().colour);
    }
    static constexpr ColourStop kStops[] = {{0.0f, {0, 100, 0}}, {0.5f, {200, 100, 0}}, {1.0f, {0, 100, 255}}};
    EXPECT_EQ(colourAt({"", 1, false, kStops}, 0.25), (Colour{100, 100, 0}));
    EXPECT_EQ(colourAt({"", 1, false, kStops}, 0.8), (Colour{80, 100, 153}));
    EXPECT_EQ(colourAt({"", 4, false, kStops}, 0.3125), (Colour{100, 100, 0})); // a quarter into the second cycle
}

TEST(Drawing, SpreadsTheRangeAndKeepsNormalsUnit)
{
    const double values[] = {0.3, 0.4, 0.5};
    std::uint8_t grey[3];
    drawColours(values, {0.3, 0.5}, *colourRampNamed("grey"), grey);
    EXPECT_EQ(std::vector<int>(grey, grey + 3), (std::vector{0, 128, 255}));

    const double vectors[] = {0.0, 0.0, 0.0, 1.0, 0.0, -0.5, 0.3, -2.0, 3.0, -1.0, 1.0, -2.0};
    std::uint8_t pixels[12];
    drawNormals(vectors, 2.0, pixels);
    EXPECT_EQ(std::vector<int>(pixels, pixels + 6), (std::vector{128, 128, 255, 255, 128, 128}));
    for (std::size_t i = 0; i < 12; i += 3)
    {
        const double length =
            std::hypot(pixels[i] / 127.5 - 1.0, pixels[i + 1] / 127.5 - 1.0, pixels[i + 2] / 127.5 - 1.0);
        EXPECT_NEAR(length, 1.0, std::sqrt(3.0) / 255.0) << i / 3; // half a step on each axis
    }
}
