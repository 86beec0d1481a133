// Dead reckoning of whole lists, beside the mere walk over them and the plain version, and the take-over of reports.
//
// Bulk and loop take over one report per entity, in random order. `entity` and `report` are seconds for one.

#include <algorithm>
#include <benchmark/benchmark.h>
#include <cstring>
#include <random>
#include <string>
#include <tolvin/bench/kernel/plaindr.h>
#include <tolvin/performer/pf.h>
#include <vector>

namespace
{

constexpr size_t kMost = 100000;
constexpr int kMixed = 0;

// As many entities as any benchmark uses, allocated one after the other as an application would: entity, then report.
// They stay where they are; what changes is the order in which the list goes through them.
class Fleet
{
public:
    vuRootNode root = {};

    Fleet()
    {
        root.scenes = {&scene.node, &scene.node};
        root.time.sim = {1000000, 250000};
        for (size_t i = 0; i < kMost; ++i)
        {
            auto *e = static_cast<vuEntity *>(pfMalloc(sizeof(vuEntity), pfGetSharedArena()));
            auto *s = static_cast<vuEntityState *>(pfMalloc(sizeof(vuEntityState), pfGetSharedArena()));
            std::memset(static_cast<void *>(e), 0, sizeof *e);
            std::memset(static_cast<void *>(s), 0, sizeof *s);
            e->drState = s;
            e->status = VU_STATUS_MOVING;
            e->receive = VU_RECEIVE_DIS;
            e->disId = s->entityId = {1, static_cast<uint16_t>(i >> 16), static_cast<uint16_t>(i)};
            entities.push_back(e);
        }
    }

    void prepare(size_t count, int algorithm, bool shuffled)
    {
        link(count, shuffled);
        std::uniform_real_distribution<float> any(-1, 1);
        for (size_t i = 0; i < count; ++i)
        {
            vuEntity *e = entities[i];
            vuEntityState *s = e->drState;
            for (int j = 0; j < 3; ++j)
            {
                s->velocity[j] = 200 * any(random);
                s->location[j] = 6e6 * double{any(random)};
                s->orientation[j] = (j == 1 ? 1.5F : 3.1F) * any(random);
                s->deadReckoning.linearAcc[j] = 10 * any(random);
                s->deadReckoning.angularVel[j] = any(random);
            }
            s->deadReckoning.algorithm = static_cast<uint8_t>(algorithm == kMixed ? 1 + random() % 9 : algorithm);
            e->recvTime = 1000000 - 2 * (1 + double{any(random)});
            disCalcDRMatrices(e, s);
        }
    }

    // One report for each of the first entities.
    std::vector<vuEntityState> reports(size_t count)
    {
        std::vector<vuEntityState> result;
        for (size_t i = 0; i < count; ++i)
        {
            result.push_back(*entities[i]->drState);
        }
        std::shuffle(result.begin(), result.end(), random);
        return result;
    }

private:
    vuScene scene = {};
    std::vector<vuEntity *> entities; // in memory order
    std::mt19937 random{20};

    void link(size_t count, bool shuffled)
    {
        std::vector<vuEntity *> order(entities.begin(), entities.begin() + static_cast<std::ptrdiff_t>(count));
        if (shuffled)
        {
            std::shuffle(order.begin(), order.end(), random);
        }
        scene.entities = {};
        for (vuEntity *e : order)
        {
            vunodeAppend(&scene.entities, &e->node);
        }
    }
};

Fleet &fleet()
{
    static Fleet theFleet;
    return theFleet;
}

// What the update costs at least: every list link, every condition, and a word of each cache line that the algorithms
// without rotation read or write.
void walk(vuRootNode *root)
{
    double sum = 0;
    for (vunode *scene = root->scenes.first; scene != nullptr; scene = scene->next)
    {
        for (vunode *node = reinterpret_cast<vuScene *>(scene)->entities.first; node != nullptr; node = node->next)
        {
            auto *e = reinterpret_cast<vuEntity *>(node);
            const vuEntityState *s = e->drState;
            if (e->status == VU_STATUS_MOVING && ((e->receive & VU_RECEIVE_DIS) != 0 || e == root->ownEntity) &&
                s != nullptr)
            {
                sum += e->recvTime + e->timeOffset + e->position[0] + e->orientation[2] + s->velocity[0] +
                       s->location[2] + s->deadReckoning.algorithm + s->deadReckoning.linearAcc[2];
            }
        }
    }
    benchmark::DoNotOptimize(sum);
}

void rateEach(benchmark::State &state, const char *name, size_t count)
{
    using benchmark::Counter;
    state.counters[name] = Counter(static_cast<double>(count), Counter::kIsIterationInvariantRate | Counter::kInvert);
}

void frame(benchmark::State &state, void (*work)(vuRootNode *), size_t count, int algorithm, bool shuffled)
{
    fleet().prepare(count, algorithm, shuffled);
    for (auto _ : state)
    {
        work(&fleet().root);
        benchmark::ClobberMemory();
    }
    rateEach(state, "entity", count);
}

void loopUpdate(vuRootNode *root, const vuEntityState *states, size_t count)
{
    for (size_t i = 0; i < count; ++i)
    {
        disUpdateEntity(root, &states[i]);
    }
}

void takeOver(benchmark::State &state, void (*work)(vuRootNode *, const vuEntityState *, size_t), size_t entities,
              size_t count)
{
    fleet().prepare(entities, kMixed, false);
    std::vector<vuEntityState> reports = fleet().reports(entities);
    reports.resize(count);
    for (auto _ : state)
    {
        work(&fleet().root, reports.data(), count);
        benchmark::ClobberMemory();
    }
    rateEach(state, "report", count);
}

const bool registered = []
{
    using benchmark::RegisterBenchmark;
    const char *const algorithms[] = {"Mixed", "Static", "FPW", "RPW", "RVW", "FVW", "FPB", "RPB", "RVB", "FVB"};
    const struct
    {
        const char *suffix;
        size_t count;
        bool shuffled;
    } lists[] = {
        {"1000", 1000, false}, {"10000", 10000, false}, {"100000", 100000, false}, {"100000/Random", 100000, true}};
    for (const auto &list : lists)
    {
        RegisterBenchmark((std::string("Walk/") + list.suffix).c_str(), frame, walk, list.count, kMixed, list.shuffled);
        for (int a = 0; a <= VU_DR_FVB; ++a)
        {
            const std::string tail = std::string(algorithms[a]) + "/" + list.suffix;
            RegisterBenchmark(("Update/" + tail).c_str(), frame, updateEntityPositions, list.count, a, list.shuffled);
            RegisterBenchmark(("Plain/" + tail).c_str(), frame, plain::updatePositions, list.count, a, list.shuffled);
        }
    }
    for (const auto &[entities, count] : {std::pair{10, 2}, {1000, 10}, {1000, 1000}, {10000, 10000}})
    {
        const std::string tail = std::to_string(entities) + "/" + std::to_string(count);
        RegisterBenchmark(("BulkUpdate/" + tail).c_str(), takeOver, disUpdateEntities, entities, count);
        RegisterBenchmark(("LoopUpdate/" + tail).c_str(), takeOver, loopUpdate, entities, count);
    }
    RegisterBenchmark("BulkUpdate/100000/100000", takeOver, disUpdateEntities, kMost, kMost);
    return true;
}();

} // namespace
