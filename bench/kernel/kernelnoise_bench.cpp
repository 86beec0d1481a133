// Noise at random points beside the plain version and another library's Perlin noise, and over grids beside loops over
// their points. `sample` is seconds for one.

#define STB_PERLIN_IMPLEMENTATION
#include <stb/stb_perlin.h>

#include <array>
#include <benchmark/benchmark.h>
#include <random>
#include <tolvin/bench/kernel/plainnoise.h>
#include <tolvin/kernel/kernelnoise.h>
#include <vector>

namespace
{

using Point = std::array<float, 3>;

const plain::NoiseTables tables;
const bool initialized = noiseInitialize() != 0;

std::vector<Point> randomPoints(size_t count)
{
    std::mt19937 engine(1);
    std::uniform_real_distribution<float> coordinate(-1000, 1000);
    std::vector<Point> points(count);
    for (Point &point : points)
    {
        for (float &c : point)
        {
            c = coordinate(engine);
        }
    }
    return points;
}

void rateSamples(benchmark::State &state, size_t samples)
{
    using benchmark::Counter;
    state.counters["sample"] =
        Counter(static_cast<double>(samples), Counter::kIsIterationInvariantRate | Counter::kInvert);
}

template<class Sample>
void atRandomPoints(benchmark::State &state, const Sample &sample)
{
    const std::vector<Point> points = randomPoints(static_cast<size_t>(state.range(0)));
    for (auto _ : state)
    {
        for (const auto &[x, y, z] : points)
        {
            benchmark::DoNotOptimize(sample(x, y, z));
        }
    }
    rateSamples(state, points.size());
}

void Noise(benchmark::State &state)
{
    atRandomPoints(state, [](float x, float y, float z) { return noise(x, y, z); });
}

void StbPerlin(benchmark::State &state)
{
    atRandomPoints(state, [](float x, float y, float z) { return stb_perlin_noise3(x, y, z, 0, 0, 0); });
}

void PlainNoise(benchmark::State &state)
{
    atRandomPoints(state, [](float x, float y, float z) { return tables.noise(x, y, z); });
}

void Turbulence4(benchmark::State &state)
{
    atRandomPoints(state, [](float x, float y, float z) { return turbulence(x, y, z, 0.5F, 2.0F, 4); });
}

void Noise3D(benchmark::State &state)
{
    atRandomPoints(state,
                   [](float x, float y, float z)
                   {
                       Point result;
                       noise3D(result.data(), x, y, z);
                       return result[0];
                   });
}

// A slice of as many points as the first argument says in each row; the second is the step in 1/1000.
noiseGridPoints slice(const benchmark::State &state)
{
    const float step = static_cast<float>(state.range(0)) / 1000.0F;
    return {{-3.3F, 17.7F, 0.4F}, {step, step, step}, {static_cast<int32_t>(state.range(1)), 100, 1}};
}

size_t pointsOf(const noiseGridPoints &grid)
{
    return static_cast<size_t>(grid.count[0]) * static_cast<size_t>(grid.count[1]);
}

template<class Store>
void loopOver(const noiseGridPoints &grid, const Store &store)
{
    size_t place = 0;
    for (int j = 0; j < grid.count[1]; ++j)
    {
        const float y = grid.origin[1] + static_cast<float>(j) * grid.step[1];
        for (int i = 0; i < grid.count[0]; ++i)
        {
            store(place++, grid.origin[0] + static_cast<float>(i) * grid.step[0], y, grid.origin[2]);
        }
    }
}

template<class Value, class Fill>
void fillSlice(benchmark::State &state, const Fill &fill)
{
    const noiseGridPoints grid = slice(state);
    std::vector<Value> values(pointsOf(grid));
    for (auto _ : state)
    {
        fill(values.data(), grid);
        benchmark::ClobberMemory();
    }
    rateSamples(state, values.size());
}

void NoiseGrid(benchmark::State &state)
{
    fillSlice<double>(state, [](double *values, const noiseGridPoints &grid) { noiseGrid(values, &grid); });
}

void NoiseLoop(benchmark::State &state)
{
    fillSlice<double>(state, [](double *values, const noiseGridPoints &grid)
                      { loopOver(grid, [&](size_t i, float x, float y, float z) { values[i] = noise(x, y, z); }); });
}

void Noise3DGrid(benchmark::State &state)
{
    fillSlice<float[3]>(state, [](float(*values)[3], const noiseGridPoints &grid) { noise3DGrid(values, &grid); });
}

void Noise3DLoop(benchmark::State &state)
{
    fillSlice<float[3]>(state, [](float(*values)[3], const noiseGridPoints &grid)
                        { loopOver(grid, [&](size_t i, float x, float y, float z) { noise3D(values[i], x, y, z); }); });
}

BENCHMARK(Noise)->Arg(1000)->Arg(100000);
BENCHMARK(StbPerlin)->Arg(1000)->Arg(100000);
BENCHMARK(PlainNoise)->Arg(1000)->Arg(100000);
BENCHMARK(Turbulence4)->Arg(1000)->Arg(100000);
BENCHMARK(Noise3D)->Arg(1000)->Arg(100000);
BENCHMARK(NoiseGrid)->ArgsProduct({{20, 100, 300, 700, 1370, 5100}, {1000}});
BENCHMARK(NoiseLoop)->ArgsProduct({{20, 100, 300, 700, 1370, 5100}, {1000}});
BENCHMARK(Noise3DGrid)->ArgsProduct({{20, 300, 1370}, {1000}});
BENCHMARK(Noise3DLoop)->ArgsProduct({{20, 300, 1370}, {1000}});

} // namespace
