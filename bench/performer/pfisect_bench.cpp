// Segments against a height field of triangles with noise, and the hierarchy's building, beside Embree with one ray at a
// time.
//
// Vertical   segments down through the field
// Slanting   Random: in any direction, from a place at most 100 units above it; else down ahead, at 30 to 60 degrees
// Random     anywhere
// Walking    each starts a tenth of a triangle from the former
// Striding   a triangle from it
//
// Nearest    the hierarchy alone
// Scene      pfNodeIsectSegs, one segment at a time, with the point of the hit
//
// `bytes` are those of the hierarchy for one triangle, `hits` the share of segments that hit.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <memory>
#include <numbers>
#include <random>
#include <string>
#include <vector>

#include <tolvin/performer/pf.h>
#include <tolvin/performer/pfhierarchy.hpp>

#ifdef TOLVIN_EMBREE
#include <embree3/rtcore.h>
#endif

namespace
{

constexpr float kSpacing = 1;
constexpr size_t kSegments = 1 << 17;

// A square of about as many triangles, with hills, slopes and noise.
struct Field
{
    size_t edge;
    std::vector<std::array<float, 3>> vertices;
    std::vector<std::array<unsigned, 3>> corners;
    std::vector<pfTriangle> triangles;

    explicit Field(size_t count) : edge(static_cast<size_t>(std::ceil(std::sqrt(static_cast<double>(count) / 2))))
    {
        std::mt19937 random(3);
        std::uniform_real_distribution<float> noise(-0.3F, 0.3F);
        for (size_t i = 0; i < (edge + 1) * (edge + 1); ++i)
        {
            const float x = kSpacing * static_cast<float>(i % (edge + 1));
            const float y = kSpacing * static_cast<float>(i / (edge + 1));
            vertices.push_back({x, y, 20 * std::sin(0.021F * x) * std::cos(0.017F * y) + noise(random)});
        }
        for (size_t i = 0; corners.size() < count; ++i)
        {
            const auto at = static_cast<unsigned>(i / edge * (edge + 1) + i % edge);
            const auto above = static_cast<unsigned>(at + edge + 1);
            corners.push_back({at, at + 1, above});
            corners.push_back({above, at + 1, above + 1});
        }
        corners.resize(count);
        for (const auto &each : corners)
        {
            pfTriangle &triangle = triangles.emplace_back();
            triangle.prim = static_cast<uint32_t>(triangles.size() - 1);
            for (int i = 0; i < 3; ++i)
            {
                std::copy_n(vertices[each[i]].data(), 3, triangle.corners[i]);
            }
        }
    }
};

// What is made once for each size, however often it is measured.
template<typename Made>
Made &madeOf(size_t count)
{
    static std::map<size_t, std::unique_ptr<Made>> all;
    std::unique_ptr<Made> &made = all[count];
    if (made == nullptr)
    {
        made = std::make_unique<Made>(count);
    }
    return *made;
}

struct Kind
{
    const char *name;
    bool isVertical;
    float step; // 0: anywhere
};

constexpr Kind kKinds[] = {{"Vertical/Random", true, 0},
                           {"Vertical/Walking", true, 0.1F * kSpacing},
                           {"Vertical/Striding", true, kSpacing},
                           {"Slanting/Random", false, 0},
                           {"Slanting/Walking", false, 0.1F * kSpacing},
                           {"Slanting/Striding", false, kSpacing}};

std::vector<pfSeg> segmentsOver(const Field &field, const Kind &kind)
{
    std::mt19937 random(7);
    std::uniform_real_distribution<float> unit(0, 1);
    const bool walks = kind.step > 0;
    const float size = kSpacing * static_cast<float>(field.edge);
    float x = size / 2, y = size / 2, heading = 0.4F;
    std::vector<pfSeg> segments(kSegments);
    for (pfSeg &segment : segments)
    {
        heading += 0.1F * (unit(random) - 0.5F);
        x = walks ? x + kind.step * std::cos(heading) : size * unit(random);
        y = walks ? y + kind.step * std::sin(heading) : size * unit(random);
        if (x < 0 || y < 0 || x > size || y > size)
        {
            heading += std::numbers::pi_v<float> / 2;
            x = std::clamp(x, 0.0F, size);
            y = std::clamp(y, 0.0F, size);
        }
        const float turn = walks ? heading : 2 * std::numbers::pi_v<float> * unit(random);
        const float down = walks ? -0.5F - 0.35F * unit(random) : 2 * unit(random) - 1;
        const float level = std::sqrt(1 - down * down);
        segment = {
            {x, y, walks ? 60 : 20 + 80 * unit(random)}, {level * std::cos(turn), level * std::sin(turn), down}, 1000};
        if (kind.isVertical)
        {
            segment.dir[0] = segment.dir[1] = 0;
            segment.dir[2] = -1;
        }
    }
    return segments;
}

void tell(benchmark::State &state, size_t hits)
{
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kSegments));
    state.counters["hits"] = static_cast<double>(hits) / kSegments;
}

void build(benchmark::State &state, size_t count)
{
    const Field &field = madeOf<Field>(count);
    pfArenaInfo before, after;
    pfHierarchy *hierarchy = nullptr;
    void *const arena = pfGetSharedArena();
    pfGetArenaInfo(&before);
    for (auto _ : state)
    {
        pfFree(hierarchy);
        hierarchy = pfBuildHierarchy(field.triangles, arena);
    }
    pfGetArenaInfo(&after);
    pfFree(hierarchy);
    state.counters["bytes"] = static_cast<double>(after.bytesInUse - before.bytesInUse) / static_cast<double>(count);
}

struct Built
{
    pfHierarchy *hierarchy;

    explicit Built(size_t count) : hierarchy(pfBuildHierarchy(madeOf<Field>(count).triangles, pfGetSharedArena()))
    {
    }
};

void intersect(benchmark::State &state, const Kind &kind, size_t count)
{
    const pfHierarchy &hierarchy = *madeOf<Built>(count).hierarchy;
    const std::vector<pfSeg> segments = segmentsOver(madeOf<Field>(count), kind);
    size_t hits = 0;
    for (auto _ : state)
    {
        hits = 0;
        for (const auto &[pos, dir, length] : segments)
        {
            const pfLocalSegment segment = {{pos[0], pos[1], pos[2]}, {dir[0], dir[1], dir[2]}, 0, length};
            pfTriangleHit hit;
            hits += pfNearestHit(hierarchy, segment, hit);
        }
    }
    tell(state, hits);
}

// The field in a scene, a group, a geode and a GeoSet.
struct Graph
{
    std::vector<float> coordinates;
    pfScene *scene;

    explicit Graph(size_t count) : scene(pfNewScene(pfGetSharedArena()))
    {
        void *const arena = pfGetSharedArena();
        for (const pfTriangle &triangle : madeOf<Field>(count).triangles)
        {
            coordinates.insert(coordinates.end(), triangle.corners[0], triangle.corners[0] + 9);
        }
        pfGeoSet *const gset = pfNewGSet(arena);
        pfGSetPrimType(gset, PFGS_TRIS);
        pfGSetNumPrims(gset, static_cast<int>(count));
        pfGSetAttr(gset, PFGS_COORD3, PFGS_PER_VERTEX, coordinates.data(), nullptr);
        pfGeode *const geode = pfNewGeode(arena);
        pfAddGSet(geode, gset);
        pfGroup *const group = pfNewGroup(arena);
        pfAddChild(group, reinterpret_cast<pfNode *>(geode));
        pfAddChild(reinterpret_cast<pfGroup *>(scene), reinterpret_cast<pfNode *>(group));
    }
};

void intersectScene(benchmark::State &state, const Kind &kind, size_t count)
{
    auto *const scene = reinterpret_cast<pfNode *>(madeOf<Graph>(count).scene);
    const std::vector<pfSeg> segments = segmentsOver(madeOf<Field>(count), kind);
    pfSegSet set = {};
    set.mode = PFTRAV_IS_PRIM | PFTRAV_IS_NORM | PFTRAV_IS_NEAREST;
    set.activeMask = 1;
    set.isectMask = ~0U;
    pfHit **found[PFIS_MAX_SEGS];
    pfNodeIsectSegs(scene, &set, found); // builds the hierarchy
    size_t hits = 0;
    for (auto _ : state)
    {
        hits = 0;
        for (const pfSeg &segment : segments)
        {
            set.segs[0] = segment;
            if (pfNodeIsectSegs(scene, &set, found) != 0)
            {
                pfVec3 point;
                pfQueryHit(found[0][0], PFQHIT_POINT, point);
                benchmark::DoNotOptimize(point);
                ++hits;
            }
        }
    }
    tell(state, hits);
}

#ifdef TOLVIN_EMBREE
RTCScene embreeScene(RTCDevice device, const Field &field)
{
    RTCGeometry geometry = rtcNewGeometry(device, RTC_GEOMETRY_TYPE_TRIANGLE);
    rtcSetGeometryBuildQuality(geometry, RTC_BUILD_QUALITY_MEDIUM);
    rtcSetSharedGeometryBuffer(geometry, RTC_BUFFER_TYPE_VERTEX, 0, RTC_FORMAT_FLOAT3, field.vertices.data(), 0, 12,
                               field.vertices.size());
    rtcSetSharedGeometryBuffer(geometry, RTC_BUFFER_TYPE_INDEX, 0, RTC_FORMAT_UINT3, field.corners.data(), 0, 12,
                               field.corners.size());
    rtcCommitGeometry(geometry);
    RTCScene scene = rtcNewScene(device);
    rtcSetSceneBuildQuality(scene, RTC_BUILD_QUALITY_MEDIUM);
    rtcAttachGeometry(scene, geometry);
    rtcReleaseGeometry(geometry);
    rtcCommitScene(scene);
    return scene;
}

void embreeBuild(benchmark::State &state, size_t count, const char *config)
{
    const Field &field = madeOf<Field>(count);
    RTCDevice device = rtcNewDevice(config);
    for (auto _ : state)
    {
        rtcReleaseScene(embreeScene(device, field));
    }
    rtcReleaseDevice(device);
}

struct EmbreeBuilt
{
    RTCDevice device = rtcNewDevice(nullptr);
    RTCScene scene;

    explicit EmbreeBuilt(size_t count) : scene(embreeScene(device, madeOf<Field>(count)))
    {
    }
};

void embreeIntersect(benchmark::State &state, const Kind &kind, size_t count)
{
    RTCScene scene = madeOf<EmbreeBuilt>(count).scene;
    const std::vector<pfSeg> segments = segmentsOver(madeOf<Field>(count), kind);
    size_t hits = 0;
    for (auto _ : state)
    {
        hits = 0;
        for (const pfSeg &segment : segments)
        {
            RTCIntersectContext context;
            rtcInitIntersectContext(&context);
            RTCRayHit ray = {};
            ray.ray.org_x = segment.pos[0];
            ray.ray.org_y = segment.pos[1];
            ray.ray.org_z = segment.pos[2];
            ray.ray.dir_x = segment.dir[0];
            ray.ray.dir_y = segment.dir[1];
            ray.ray.dir_z = segment.dir[2];
            ray.ray.tfar = segment.length;
            ray.ray.mask = UINT32_MAX;
            ray.hit.geomID = RTC_INVALID_GEOMETRY_ID;
            ray.hit.instID[0] = RTC_INVALID_GEOMETRY_ID;
            rtcIntersect1(scene, &context, &ray);
            hits += ray.hit.geomID != RTC_INVALID_GEOMETRY_ID;
        }
    }
    tell(state, hits);
}
#endif

template<typename... Arguments>
void add(const std::string &name, size_t count, Arguments... arguments)
{
    benchmark::RegisterBenchmark((name + "/" + std::to_string(count)).c_str(), arguments...)
        ->Unit(benchmark::kMillisecond)
        ->MeasureProcessCPUTime()
        ->UseRealTime();
}

const bool registered = []
{
    for (const size_t count : {size_t{1000}, size_t{1000000}})
    {
        add("Build", count, build, count);
#ifdef TOLVIN_EMBREE
        add("EmbreeBuild", count, embreeBuild, count, nullptr);
        add("EmbreeBuild/OneThread", count, embreeBuild, count, "threads=1");
#endif
        for (const Kind &kind : kKinds)
        {
            add(std::string("Nearest/") + kind.name, count, intersect, kind, count);
            add(std::string("Scene/") + kind.name, count, intersectScene, kind, count);
#ifdef TOLVIN_EMBREE
            add(std::string("Embree/") + kind.name, count, embreeIntersect, kind, count);
#endif
        }
    }
    return true;
}();

} // namespace
