// Smoke: puffs that rise from a source, drift with the wind, grow and fade.
//
// PARAMETER, with the defaults:
//   rate 20      puffs of one instance a second
//   life 6       seconds that each is there
//   rise 1.5     m/s, upwards or along the direction
//   spread 0.3   m/s at most that puffs go apart
//   size 0.5     m, half of their first width
//   grow 0.8     m/s by which that grows
//   wind 0 0 0   m/s east, north, up
#include "fxsource.h"
#include "parameters.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <limits>

namespace
{

struct Smoke
{
    float rate, life, rise, spread, size, grow;
};

const Smoke &smokeOf(const FxState *state)
{
    return *static_cast<const Smoke *>(state->settings);
}

void prepare(const vuEffect *fx, void *settings, FxPlan *plan)
{
    Smoke &smoke = *static_cast<Smoke *>(settings);
    smoke = {20.0F, 6.0F, 1.5F, 0.3F, 0.5F, 0.8F};
    const ParameterWord words[] = {
        {"rate", &smoke.rate, 1, 0.0F, 1000.0F},    {"life", &smoke.life, 1, 0.01F, 600.0F},
        {"rise", &smoke.rise, 1, -100.0F, 100.0F},  {"spread", &smoke.spread, 1, 0.0F, 100.0F},
        {"size", &smoke.size, 1, 0.01F, 100.0F},    {"grow", &smoke.grow, 1, 0.0F, 100.0F},
        {"wind", plan->wind, 3, -1000.0F, 1000.0F},
    };
    parametersRead("smoke", fx, words, static_cast<int>(std::size(words)));
    plan->layers = 1;
    plan->looks[0] = {{0.45F, 0.45F, 0.45F, 0.8F}, {0.75F, 0.75F, 0.75F, 0.3F}, smoke.grow / smoke.size, 0.0F, 1, 1};
    plan->sizes[0] = double{smoke.rate} * smoke.life + 1.0;
}

// A puff that has so many seconds by the end of the frame.
void puff(FxState *state, const FxSource &source, double age, double part)
{
    const Smoke &smoke = smokeOf(state);
    ParticleBirth birth = {};
    float apart[3];
    fxRandomInBall(state, apart);
    for (int axis = 0; axis < 3; ++axis)
    {
        birth.position[axis] = std::lerp(source.before[axis], source.position[axis], part);
        birth.velocity[axis] = source.direction[axis] * smoke.rise + apart[axis] * smoke.spread;
    }
    fxRandomAxes(state, smoke.size * source.scale, &birth);
    birth.age = static_cast<float>(age);
    birth.life = smoke.life;
    birth.moves = std::numeric_limits<float>::infinity();
    birth.shade = 0.8F + 0.2F * fxRandom(state);
    birth.owner = source.number;
    particlesBear(state->particles, 0, &birth);
}

// Puffs come at ages of the source that are multiples of 1 / rate, and those that a long frame would not show, or the pool not
// hold, are left out.
void go(vuRootNode *, FxState *state, FxSource *source, double until, double end)
{
    const Smoke &smoke = smokeOf(state);
    double &born = source->marks[0];
    const double room = static_cast<double>(particlesCapacity(state->particles, 0)) / state->count + 1.0;
    born = std::max({born, std::ceil((end - smoke.life) * smoke.rate), std::ceil(until * smoke.rate - room)});
    for (; born < until * smoke.rate; ++born)
    {
        const double when = born / smoke.rate;
        puff(state, *source, end - when, (when - source->age) / (end - source->age));
    }
}

double lingers(const FxState *state, const FxSource *)
{
    return smokeOf(state).life;
}

} // namespace

const FxKind fxKind = {.name = "smoke",
                       .tag = VU_FX_TAG('S', 'M', 'O', 'K'),
                       .settingsSize = sizeof(Smoke),
                       .hasWind = 1,
                       .attaches = 1,
                       .prepare = prepare,
                       .go = go,
                       .lingers = lingers,
                       .begin = nullptr};
