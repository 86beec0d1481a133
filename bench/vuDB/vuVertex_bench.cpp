// Vertices added to an array all at once, beside a loop over addVertexToArray, and beside meshoptimizer, which has the
// coordinates packed. They are the corners of a regular grid, triangle after triangle, nearly every one six times.
//
// Mesh       in this order, in memory too
// Shuffled   in random order, in memory too
// Scattered  in random order, but in memory in that of the mesh
// Distinct   points that are all different instead, in random order
// Small      as Mesh, into an array that has 50 already
//
// `vertex` is seconds for one; `memory` bytes for one, at the most, beyond what there was before.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <malloc.h>

#include <tolvin/vuDB/vuVertex.h>

#ifdef TOLVIN_MESHOPTIMIZER
#include <meshoptimizer.h>
#endif

namespace
{

enum Order
{
    kMesh,
    kShuffled,
    kScattered,
    kDistinct,
    kSmall
};

constexpr const char *kOrders[] = {"Mesh", "Shuffled", "Scattered", "Distinct", "Small"};

std::vector<Vertex> gridCorners(size_t count)
{
    const auto edge = static_cast<size_t>(std::ceil(std::sqrt(static_cast<double>(count) / 6)));
    const size_t corners[6][2] = {{0, 0}, {1, 0}, {0, 1}, {0, 1}, {1, 0}, {1, 1}};
    std::vector<Vertex> result;
    for (size_t i = 0; i < count; ++i)
    {
        const auto x = static_cast<float>(i / 6 % edge + corners[i % 6][0]);
        const auto y = static_cast<float>(i / 6 / edge + corners[i % 6][1]);
        result.push_back({0.1F * x, 0.1F * y, std::sin(0.01F * x) * std::cos(0.02F * y)});
    }
    return result;
}

class Input
{
public:
    const Order order;
    std::vector<Vertex *> vertices;
    std::vector<float> packed;
    std::vector<int> indices;

    Input(Order theOrder, size_t count) : order(theOrder), indices(count)
    {
        std::mt19937 random(5);
        std::vector<Vertex> made = gridCorners(count);
        for (size_t i = 0; order == kDistinct && i < count; ++i)
        {
            made[i] = {static_cast<float>(i % 4096), static_cast<float>(i / 4096), 1};
        }
        if (order == kShuffled || order == kDistinct)
        {
            std::shuffle(made.begin(), made.end(), random);
        }
        for (const Vertex &vertex : made)
        {
            vertices.push_back(createVertex(vertex.x, vertex.y, vertex.z));
        }
        if (order == kScattered)
        {
            std::shuffle(vertices.begin(), vertices.end(), random);
        }
        for (const Vertex *vertex : vertices)
        {
            packed.insert(packed.end(), {vertex->x, vertex->y, vertex->z});
        }
    }
    Input(const Input &) = delete;
    Input &operator=(const Input &) = delete;
    ~Input()
    {
        std::for_each(vertices.begin(), vertices.end(), free);
    }

    // An array, whose vertices stay those of the input, so that they serve again.
    VertexArray *makeArray() const
    {
        VertexArray *array = createVertexArray();
        array->numVertices = order == kSmall ? 50 : 0;
        std::copy_n(vertices.end() - array->numVertices, array->numVertices, array->vertices);
        return array;
    }

    // Whether indices are given by where coordinates occur first, behind those that the array had.
    bool isMerged(size_t had) const
    {
        std::vector<const Vertex *> held(vertices.end() - static_cast<std::ptrdiff_t>(had), vertices.end());
        bool right = true;
        for (size_t i = 0; i < vertices.size() && right; ++i)
        {
            const auto index = static_cast<size_t>(indices[i]);
            if (index == held.size())
            {
                held.push_back(vertices[i]);
            }
            right = index < held.size() && sameCoords(held[index], vertices[i]) == 1;
        }
        return right;
    }
};

void release(VertexArray *array)
{
    free(array->vertices);
    free(array);
}

using Work = void (*)(Input &, VertexArray *);

void atOnce(Input &input, VertexArray *array)
{
    addVerticesToArray(array, input.vertices.data(), static_cast<int>(input.vertices.size()), input.indices.data());
}

void inALoop(Input &input, VertexArray *array)
{
    std::transform(input.vertices.begin(), input.vertices.end(), input.indices.begin(),
                   [array](Vertex *vertex) { return addVertexToArray(array, vertex); });
}

#ifdef TOLVIN_MESHOPTIMIZER
void meshoptimizer(Input &input, VertexArray *)
{
    meshopt_generateVertexRemap(reinterpret_cast<unsigned *>(input.indices.data()), nullptr, input.vertices.size(),
                                input.packed.data(), input.vertices.size(), 3 * sizeof(float));
}
#endif

// Bytes, from a line of the process's status.
double statusOf(const std::string &name)
{
    char line[200] = {};
    double bytes = 0;
    FILE *file = fopen("/proc/self/status", "r");
    while (file != nullptr && fgets(line, sizeof line, file) != nullptr)
    {
        bytes = std::string(line).starts_with(name) ? 1024 * std::atof(line + name.size()) : bytes;
    }
    if (file != nullptr)
    {
        fclose(file);
    }
    return bytes;
}

// The memory that the work takes at its peak.
double measuredMemory(Work work, Input &input, VertexArray *array)
{
    malloc_trim(0);
    if (FILE *file = fopen("/proc/self/clear_refs", "w"); file != nullptr)
    {
        fputs("5", file);
        fclose(file);
    }
    const double before = statusOf("VmRSS:");
    work(input, array);
    return statusOf("VmHWM:") - before;
}

void add(benchmark::State &state, Work work, Order order, size_t count)
{
    static std::unique_ptr<Input> input;
    if (input == nullptr || input->order != order || input->vertices.size() != count)
    {
        input.reset();
        input = std::make_unique<Input>(order, count);
    }
    VertexArray *array = input->makeArray();
    const auto had = static_cast<size_t>(array->numVertices);
    const double memory = measuredMemory(work, *input, array);
    if (!input->isMerged(had))
    {
        state.SkipWithError("wrong indices");
    }
    release(array);
    for (auto _ : state)
    {
        array = input->makeArray();
        work(*input, array);
        release(array);
    }
    using benchmark::Counter;
    const auto vertices = static_cast<double>(count);
    state.counters["vertex"] = Counter(vertices, Counter::kIsIterationInvariantRate | Counter::kInvert);
    state.counters["memory"] = Counter(memory / vertices);
}

const bool registered = []
{
    const struct
    {
        Order order;
        size_t count;
    } cases[] = {{kMesh, 1000},         {kMesh, 1000000},     {kMesh, 6000000},     {kShuffled, 1000},
                 {kShuffled, 1000000},  {kShuffled, 6000000}, {kScattered, 1000},   {kScattered, 1000000},
                 {kScattered, 6000000}, {kDistinct, 1000000}, {kDistinct, 6000000}, {kSmall, 100}};
    for (const auto &each : cases)
    {
        const std::string tail = std::string("/") + kOrders[each.order] + "/" + std::to_string(each.count);
        const auto registerCase = [&](const char *name, Work work)
        {
            benchmark::RegisterBenchmark((name + tail).c_str(), add, work, each.order, each.count)
                ->Unit(benchmark::kMillisecond);
        };
        registerCase("AddVertices", atOnce);
        if (each.count <= 1000)
        {
            registerCase("Loop", inALoop);
        }
#ifdef TOLVIN_MESHOPTIMIZER
        if (each.order != kSmall)
        {
            registerCase("Meshoptimizer", meshoptimizer);
        }
#endif
    }
    return true;
}();

} // namespace
