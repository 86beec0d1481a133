// Trail: tracks, or a wake, on the ground behind something that moves.
//
// PARAMETER, with the defaults:
//   width 0.4     m across
//   gauge 0       m between the middles of two tracks side by side; 0 for one
//   spacing 0.5   m of way after which a piece is laid, which is as long
//   life 30       seconds that each is there
//   grow 0        m/s by which they become wider on each side, and longer in proportion
//   lift 0.02     m above the source
//   pieces 512    of one instance, after which the oldest ones go before their time
#include "fxsource.h"
#include "parameters.h"

#include <algorithm>
#include <cmath>
#include <iterator>

namespace
{

struct Trail
{
    float width, gauge, spacing, life, grow, lift, pieces;
};

const Trail &trailOf(const FxState *state)
{
    return *static_cast<const Trail *>(state->settings);
}

void prepare(const vuEffect *fx, void *settings, FxPlan *plan)
{
    Trail &trail = *static_cast<Trail *>(settings);
    trail = {0.4F, 0.0F, 0.5F, 30.0F, 0.0F, 0.02F, 512.0F};
    const ParameterWord words[] = {
        {"width", &trail.width, 1, 0.01F, 1000.0F},
        {"gauge", &trail.gauge, 1, 0.0F, 1000.0F},
        {"spacing", &trail.spacing, 1, 0.05F, 1000.0F},
        {"life", &trail.life, 1, 0.01F, 86400.0F},
        {"grow", &trail.grow, 1, 0.0F, 100.0F},
        {"lift", &trail.lift, 1, -100.0F, 100.0F},
        {"pieces", &trail.pieces, 1, 1.0F, PARTICLES_MOST},
    };
    parametersRead("trail", fx, words, static_cast<int>(std::size(words)));
    plan->layers = 1;
    plan->looks[0] = {{1.0F, 1.0F, 1.0F, 1.0F}, {1.0F, 1.0F, 1.0F, 1.0F}, 2.0F * trail.grow / trail.width, 0.0F, 0, 1};
    plan->sizes[0] = double{trail.pieces} * (trail.gauge > 0.0F ? 2.0 : 1.0);
}

// What the source does in a frame.
struct Way
{
    double step[3], length, across; // metres, across the ground for the last

    explicit Way(const FxSource &source)
    {
        std::transform(source.position, source.position + 3, source.before, step, std::minus<>());
        across = std::hypot(step[0], step[1]);
        length = std::hypot(across, step[2]);
    }
};

void lay(FxState *state, const FxSource &source, const Way &way, double part, double side, double age)
{
    const Trail &trail = trailOf(state);
    const double right[3] = {way.step[1] / way.across, -way.step[0] / way.across, 0.0};
    ParticleBirth birth = {};
    for (int axis = 0; axis < 3; ++axis)
    {
        birth.position[axis] = source.before[axis] + way.step[axis] * part + right[axis] * side * source.scale;
        birth.along[axis] = static_cast<float>(way.step[axis] / way.length * 0.5 * trail.spacing);
        birth.across[axis] = static_cast<float>(right[axis] * 0.5 * trail.width * source.scale);
    }
    birth.position[2] += trail.lift;
    birth.age = static_cast<float>(age);
    birth.life = trail.life;
    birth.shade = 1.0F;
    birth.owner = source.number;
    particlesBear(state->particles, 0, &birth);
}

// The middles of pieces are at half a spacing of the way, and each spacing after that.
void go(vuRootNode *, FxState *state, FxSource *source, double until, double end)
{
    const Trail &trail = trailOf(state);
    const double seconds = end - source->age;
    for (int axis = 0; axis < 3; ++axis)
    {
        source->position[axis] += double{source->velocity[axis]} * seconds;
    }
    const Way way(*source);
    double &since = source->marks[0]; // way since the end of the last piece
    if (way.length > double{trail.pieces} * trail.spacing)
    {
        since = 0.0; // it was put there, or nothing of what is laid first would stay
        return;
    }
    if (way.across <= 0.0)
    {
        return; // up and down leaves nothing on the ground
    }
    const double first = 0.5 * trail.spacing - since, stop = way.length * (until - source->age) / seconds;
    int laid = 0;
    for (double at = first; at < stop; at = first + ++laid * double{trail.spacing})
    {
        const double part = at / way.length, age = seconds * (1.0 - part);
        lay(state, *source, way, part, 0.5 * trail.gauge, age);
        if (trail.gauge > 0.0F)
        {
            lay(state, *source, way, part, -0.5 * trail.gauge, age);
        }
    }
    since += way.length - laid * double{trail.spacing};
}

double lingers(const FxState *state, const FxSource *)
{
    return trailOf(state).life;
}

} // namespace

const FxKind fxKind = {.name = "trail",
                       .tag = VU_FX_TAG('T', 'R', 'A', 'I'),
                       .settingsSize = sizeof(Trail),
                       .hasWind = 0,
                       .attaches = 1,
                       .prepare = prepare,
                       .go = go,
                       .lingers = lingers,
                       .begin = nullptr};
