// Terrain collision of 1,000 vehicles, beside nothing but the same segments, in turn; and one frame of driving.
//
// Scattered/N  vehicles all over a height field of N triangles
// Convoy/N     vehicles one behind the other, 10 m apart, across it
//
// `entity` is seconds for one vehicle, `segments` those of its four segments by themselves, `ratio` the first by the
// second: medians of processor time, as other work on the machine hits one or the other. `hit` is the share of segments
// that meet the ground.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <ctime>
#include <memory>
#include <random>
#include <vector>

#include <tolvin/kernel/kernelentity.h>
#include <tolvin/kernel/kernelgeneric.h>
#include <tolvin/performer/pf.h>

namespace
{

constexpr int kVehicles = 1000;
constexpr float kCell = 10; // metres
constexpr vuProbe kProbes[] = {
    {{-1, 1.5F, 0}, {0, 0, -1}, 6}, {{1, 1.5F, 0}, {0, 0, -1}, 6}, {{0, -2, 0}, {0, 0, -1}, 6}};

struct Deleter
{
    void operator()(void *object) const
    {
        pfDelete(object);
    }
};

float heightAt(float x, float y)
{
    return 300 + 80 * std::sin(x / 700) * std::cos(y / 500) + 15 * std::sin(x / 90 + y / 130);
}

// Rows of squares, a triangle strip each.
class HeightField
{
public:
    const int columns, rows;
    const std::unique_ptr<pfGeode, Deleter> geode{pfNewGeode(pfGetSharedArena())};

    explicit HeightField(int triangles)
        : columns(triangles == 1000 ? 25 : 1000),
          rows(triangles / 2 / columns),
          lengths(static_cast<size_t>(rows), 2 * (columns + 1))
    {
        for (int i = 0; i < rows * lengths[0]; ++i)
        {
            const int row = i / lengths[0], corner = i % lengths[0];
            const float x = kCell * static_cast<float>(corner / 2),
                        y = kCell * static_cast<float>(row + 1 - corner % 2);
            coordinates.insert(coordinates.end(), {x, y, heightAt(x, y)});
        }
        pfGeoSet *field = pfNewGSet(pfGetSharedArena());
        pfGSetPrimType(field, PFGS_TRISTRIPS);
        pfGSetNumPrims(field, rows);
        pfGSetPrimLengths(field, lengths.data());
        pfGSetAttr(field, PFGS_COORD3, PFGS_PER_VERTEX, coordinates.data(), nullptr);
        pfAddGSet(geode.get(), field);
    }

private:
    std::vector<int> lengths;
    std::vector<float> coordinates;
};

// Records in the arena, one after the other as an application would make them.
class Vehicle
{
public:
    vuEntity *const entity = static_cast<vuEntity *>(pfMalloc(sizeof(vuEntity), pfGetSharedArena()));

    Vehicle(float x, float y)
    {
        std::memset(static_cast<void *>(entity), 0, sizeof *entity);
        entity->motionKind = VU_MOTION_DRIVE;
        entity->entityFlags = VU_ENTITY_FOLLOW_TERRAIN;
        entity->word18 = ~0U;
        std::ranges::copy(kProbes, entity->probes);
        entity->nodes[1] = reinterpret_cast<pfNode *>(node.get());
        pfDCSRot(node.get(), x, 0, 0);
        pfDCSTrans(node.get(), x, y, heightAt(x, y) + 3);
    }

    // Those that checkCollisions will shoot.
    void addSegments(std::vector<pfSeg> &segments) const
    {
        pfMatrix place;
        pfGetDCSMat(node.get(), place);
        pfSeg segment = {{0, 0, 0}, {0, 0, -1}, 150000};
        pfXformPt3(segment.pos, segment.pos, place);
        segments.push_back(segment);
        for (const vuProbe &probe : kProbes)
        {
            pfXformPt3(segment.pos, probe.pos, place);
            segment.length = probe.length;
            segments.push_back(segment);
        }
    }

private:
    std::unique_ptr<pfDCS, Deleter> node{pfNewDCS(pfGetSharedArena())};
    std::unique_ptr<vuEntity, decltype(&pfFree)> owned{entity, pfFree};
};

class World
{
public:
    vuRootNode root = {};
    std::vector<pfSeg> segments;

    World(int triangles, bool convoy) : field(triangles)
    {
        scene.sceneNode = reinterpret_cast<pfNode *>(field.geode.get());
        scene.collideWord = ~0U;
        vunodeAppend(&root.scenes, &scene.node);
        std::mt19937 random(6);
        const float width = kCell * static_cast<float>(field.columns), depth = kCell * static_cast<float>(field.rows);
        std::uniform_real_distribution<float> anyX(0.02F * width, 0.98F * width), anyY(0.02F * depth, 0.98F * depth);
        for (int i = 0; i < kVehicles; ++i)
        {
            const float along = 0.02F * width + std::fmod(static_cast<float>(i) * 10, 0.96F * width);
            const Vehicle &vehicle =
                vehicles.emplace_back(convoy ? along : anyX(random), convoy ? along / width * depth : anyY(random));
            vunodeAppend(&scene.entities, &vehicle.entity->node);
            vehicle.addSegments(segments);
        }
    }

    // Returns how many were hit.
    int intersectAll()
    {
        pfSegSet set = {};
        set.mode = PFTRAV_IS_PRIM | PFTRAV_IS_NORM | PFTRAV_IS_NEAREST;
        set.activeMask = 1;
        set.isectMask = scene.collideWord;
        pfHit **hits[PFIS_MAX_SEGS];
        int hit = 0;
        for (const pfSeg &segment : segments)
        {
            set.segs[0] = segment;
            hit += pfNodeIsectSegs(scene.sceneNode, &set, hits);
        }
        return hit;
    }

private:
    HeightField field;
    vuScene scene = {};
    std::vector<Vehicle> vehicles;
};

double medianOf(std::vector<double> &values)
{
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

double cpuSeconds()
{
    timespec used;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
    return static_cast<double>(used.tv_sec) + 1e-9 * static_cast<double>(used.tv_nsec);
}

template<typename Work>
double secondsFor(Work work)
{
    const double start = cpuSeconds();
    work();
    return cpuSeconds() - start;
}

void collisions(benchmark::State &state, bool convoy)
{
    World world(static_cast<int>(state.range(0)), convoy);
    std::vector<double> together, alone, ratio;
    int hit = world.intersectAll(); // which also builds the hierarchy
    for (auto _ : state)
    {
        together.push_back(secondsFor([&] { checkCollisions(&world.root); }));
        alone.push_back(secondsFor([&] { hit = world.intersectAll(); }));
        ratio.push_back(together.back() / alone.back());
        state.SetIterationTime(together.back());
    }
    state.counters["entity"] = medianOf(together) / kVehicles;
    state.counters["segments"] = medianOf(alone) / kVehicles;
    state.counters["ratio"] = medianOf(ratio);
    state.counters["hit"] = hit / static_cast<double>(world.segments.size());
}

BENCHMARK_CAPTURE(collisions, Scattered, false)->Name("Scattered")->Arg(1000)->Arg(1000000)->UseManualTime();
BENCHMARK_CAPTURE(collisions, Convoy, true)->Name("Convoy")->Arg(1000)->Arg(1000000)->UseManualTime();

void drive(benchmark::State &state, void (*work)(vuRootNode *, vuEntity *, vuChannel *))
{
    const Vehicle vehicle(0, 0);
    vuRootNode root = {};
    vuChannel channel = {};
    const std::unique_ptr<pfChannel, Deleter> window(pfNewChan(pfGetSharedArena()));
    channel.channel = window.get();
    channel.width = 640;
    channel.mouseInput = 1;
    root.frameDelta = 0.02;
    resetXForm(vehicle.entity);
    pfuMouse mouse = {};
    mouse.flags = PFUMOUSE_LEFT;
    mouse.inWindow = 1;
    for (auto _ : state)
    {
        mouse.x = (mouse.x + 7) % 640;
        pfuSetMouse(&mouse);
        work(&root, vehicle.entity, &channel);
        benchmark::ClobberMemory();
    }
}

BENCHMARK_CAPTURE(drive, DoXForm, doXForm)->Name("DoXForm");
BENCHMARK_CAPTURE(drive, DoXFormI_COLLIDE, doXFormI_COLLIDE)->Name("DoXFormI_COLLIDE");

} // namespace
