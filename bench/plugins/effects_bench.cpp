// One frame of 100 effects with all their instances going on.
//
// Forwarding/N  a plug-in that does nothing, with N instances in all
// Smoke/N       puffs of 20 a second, for 6 s each
// Blast/N       bursts one after the other, of 4 s
// Trail/N       a piece each metre, for 4 s each
//
// Time is that of effectUpdate for all 100, `particles` the mean number of those shown, `shown` that for each
// second. All instances move at 10 m/s. Frames are those of a clock with 60 Hz.

#include <benchmark/benchmark.h>

#include <cstring>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include <tolvin/plugin.h>

namespace
{

constexpr int kEffects = 100;
constexpr double kFrame = 1.0 / 60;

// What set-up has to say of thousands of instances is no result.
class Silence
{
public:
    Silence() : stream(dup(STDERR_FILENO))
    {
        const int nowhere = open("/dev/null", O_WRONLY);
        dup2(nowhere, STDERR_FILENO);
        close(nowhere);
    }
    ~Silence()
    {
        dup2(stream, STDERR_FILENO);
        close(stream);
    }
    Silence(const Silence &) = delete;
    Silence &operator=(const Silence &) = delete;

private:
    const int stream;
};

char *inArena(const std::string &text)
{
    return static_cast<char *>(memcpy(pfMalloc(text.size() + 1, pfGetSharedArena()), text.c_str(), text.size() + 1));
}

class Effects
{
public:
    Effects(const std::string &plugin, const char *parameter, double duration, int wanted)
    {
        const Silence silence;
        for (int i = 0; i < kEffects; ++i)
        {
            auto *fx = static_cast<vuEffect *>(pfMalloc(sizeof(vuEffect), pfGetSharedArena()));
            effectInit(fx, (plugin + std::to_string(i)).c_str());
            fx->pluginFile = inArena(plugin);
            fx->parameter = inArena(parameter);
            fx->num = wanted / kEffects;
            fx->duration = duration;
            fx->fade = 1;
            vunodeAppend(&root.effects, &fx->node);
        }
        effectSetupAll(&root);
        begin();
    }
    ~Effects()
    {
        effectUnloadAll(&root);
        effectFreeAll(&root);
    }
    Effects(const Effects &) = delete;
    Effects &operator=(const Effects &) = delete;

    void frame()
    {
        root.frameDelta = kFrame;
        effectUpdate(&root);
    }

    void moveAll()
    {
        east += 10 * kFrame;
        for (const Instance &going : instances)
        {
            const double position[] = {east, going.north, 0};
            effectSetInstData(&root, going.fx, VU_FX_INST_POSITION, going.word, reinterpret_cast<uintptr_t>(position));
        }
    }

    double countParticles()
    {
        double count = 0;
        forEach([&](vuEffect *fx) { count += static_cast<double>(effectGetData(&root, fx, VU_FX_PARTICLES, 0)); });
        return count;
    }

private:
    struct Instance
    {
        vuEffect *fx;
        uintptr_t word;
        double north;
    };

    vuRootNode root = {};
    std::vector<Instance> instances;
    double east = 0;

    template<typename Work>
    void forEach(Work work)
    {
        for (vunode *node = root.effects.first; node != nullptr; node = node->next)
        {
            work(reinterpret_cast<vuEffect *>(node));
        }
    }

    void begin()
    {
        forEach(
            [&](vuEffect *fx)
            {
                for (int i = 0; i < fx->num; ++i)
                {
                    const vuFxEvent event = {{0, 20.0 * i, 0}, {0, 0, 0}, {0, 0, 0}, 1};
                    instances.push_back(
                        {fx, effectObtain(&root, fx, reinterpret_cast<uintptr_t>(&event)), event.position[1]});
                }
            });
    }
};

void forward(benchmark::State &state)
{
    Effects effects(TOLVIN_EMPTY_PLUGIN, "", 1, static_cast<int>(state.range(0)));
    for (auto _ : state)
    {
        effects.frame();
    }
}

void update(benchmark::State &state, const char *plugin, const char *parameter, double duration)
{
    Effects effects(plugin, parameter, duration, static_cast<int>(state.range(0)));
    for (int i = 0; i < 7 * 60; ++i) // until as many go as come
    {
        effects.moveAll();
        effects.frame();
    }
    double particles = 0;
    for (auto _ : state)
    {
        effects.frame();
        state.PauseTiming();
        particles += effects.countParticles();
        effects.moveAll();
        state.ResumeTiming();
    }
    state.counters["particles"] = particles / static_cast<double>(state.iterations());
    state.counters["shown"] = benchmark::Counter(particles, benchmark::Counter::kIsRate);
}

#define PLUGIN(name) TOLVIN_PLUGINS "/" name ".so"

void sizes(benchmark::internal::Benchmark *all)
{
    all->Arg(1000)->Arg(6400)->Unit(benchmark::kMicrosecond);
}

BENCHMARK(forward)->Name("Forwarding")->Apply(sizes);
BENCHMARK_CAPTURE(update, Smoke, PLUGIN("smoke"), "rate 20 life 6 wind 2 0 0", 1)->Name("Smoke")->Apply(sizes);
BENCHMARK_CAPTURE(update, Blast, PLUGIN("blast"), "", 4)->Name("Blast")->Apply(sizes);
BENCHMARK_CAPTURE(update, Trail, PLUGIN("trail"), "spacing 1 life 4 pieces 48", 1)->Name("Trail")->Apply(sizes);

} // namespace
