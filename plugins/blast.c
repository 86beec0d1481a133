/*
 * Blast: a flash, a ball of fire, and debris that flies off, falls, and comes to rest at the height where it began. It is over
 * after fx->duration. When it begins it starts fx->linkFx at the same place. One that was obtained bursts again whenever
 * it is over, and starts fx->linkFx each time. entityNode means nothing to it.
 *
 * PARAMETER, with the defaults:
 *   flash 6      m, half of its width; it is there for 0.15 s
 *   radius 4     m that the ball of fire reaches in the end
 *   fire 24      flames
 *   debris 32    pieces
 *   speed 15     m/s of the fastest piece; the slowest one has half of it
 *   piece 0.15   m, half of the width of a piece
 *   wind 0 0 0   m/s east, north, up, in which flames drift
 */
#include "fxsource.h"
#include "parameters.h"

#include <math.h>

enum
{
    FIRE,
    DEBRIS,
    FLASH, /* drawn last, over the others */
    LAYERS,
    FLASHES = 3 /* seen from all sides */
};

typedef struct Blast
{
    float flash, radius, fire, debris, speed, piece;
} Blast;

/* marks of a source. */
enum
{
    BURST, /* age when it burst last */
    OVER   /* age when nothing is left of that */
};

static void prepare(const vuEffect *fx, void *settings, FxPlan *plan)
{
    Blast *const blast = settings;
    *blast = (Blast){6, 4, 24, 32, 15, 0.15F};
    const float most = 1000;
    const ParameterWord words[] = {
        {"flash", &blast->flash, 1, 0, most}, {"radius", &blast->radius, 1, 0, most},
        {"fire", &blast->fire, 1, 0, most},   {"debris", &blast->debris, 1, 0, most},
        {"speed", &blast->speed, 1, 0, most}, {"piece", &blast->piece, 1, 0, most},
        {"wind", plan->wind, 3, -1000, 1000},
    };
    parametersRead("blast", fx, words, sizeof words / sizeof *words);
    plan->layers = LAYERS;
    plan->looks[FIRE] = (ParticleLook){{1, 0.9F, 0.5F, 0.9F}, {0.35F, 0.05F, 0, 0.4F}, .drifts = 1, .fades = 1};
    plan->looks[DEBRIS] =
        (ParticleLook){{1, 0.6F, 0.2F, 1}, {0.1F, 0.1F, 0.1F, 1}, .gravity = PARTICLES_GRAVITY, .fades = 1};
    plan->looks[FLASH] = (ParticleLook){{1, 1, 0.95F, 1}, {1, 0.9F, 0.6F, 0}, .growth = 2}; /* too short to fade */
    plan->sizes[FIRE] = floorf(blast->fire);
    plan->sizes[DEBRIS] = floorf(blast->debris);
    plan->sizes[FLASH] = FLASHES;
}

/* Seconds of a burst; in none at all, nothing could fly apart. */
static double burstDuration(const FxState *state)
{
    return fmax(fxDuration(state->fx), 0.05);
}

static ParticleBirth birthAt(const FxSource *source, float age, float life)
{
    ParticleBirth birth = {.age = age, .life = life, .moves = INFINITY, .shade = 1, .owner = source->number};
    for (int axis = 0; axis < 3; ++axis)
    {
        birth.position[axis] = source->position[axis];
    }
    return birth;
}

static void addFlash(FxState *state, const FxSource *source, float age, float duration)
{
    const Blast *const blast = state->settings;
    for (int i = 0; i < FLASHES; ++i)
    {
        ParticleBirth birth = birthAt(source, age, fminf(0.15F, duration));
        fxRandomAxes(state, blast->flash * source->scale, &birth);
        particlesBear(state->particles, FLASH, &birth);
    }
}

static void addFlame(FxState *state, const FxSource *source, float age, float duration)
{
    const Blast *const blast = state->settings;
    const float radius = blast->radius * source->scale, share = 0.3F, corner = 1.41422F;
    ParticleBirth birth = birthAt(source, age, duration * (0.5F + 0.5F * fxRandom(state)));
    fxRandomInBall(state, birth.velocity);
    for (int axis = 0; axis < 3; ++axis)
    {
        birth.velocity[axis] *= radius * (1 - share * corner) / duration;
    }
    birth.shade = 0.8F + 0.2F * fxRandom(state);
    fxRandomAxes(state, radius * share, &birth);
    particlesBear(state->particles, FIRE, &birth);
}

static void addPiece(FxState *state, const FxSource *source, float age, float duration)
{
    const Blast *const blast = state->settings;
    ParticleBirth birth = birthAt(source, age, duration);
    float *const v = birth.velocity;
    fxRandomDirection(state, v);
    const float *const away = source->direction;
    const float turned = v[0] * away[0] + v[1] * away[1] + v[2] * away[2] < 0 ? -1 : 1;
    const float speed = turned * blast->speed * source->scale * (0.5F + 0.5F * fxRandom(state));
    for (int axis = 0; axis < 3; ++axis)
    {
        v[axis] = v[axis] * speed + (axis < 2 ? source->velocity[axis] : 0);
    }
    v[2] = fabsf(v[2]) + fmaxf(source->velocity[2], 0); /* the ground throws it back */
    birth.moves = 2 * v[2] / PARTICLES_GRAVITY;
    fxRandomAxes(state, blast->piece * source->scale, &birth);
    particlesBear(state->particles, DEBRIS, &birth);
}

/* It bursts at an age of the source, and is seen at another one. */
static void burst(vuRootNode *root, FxState *state, FxSource *source, double when, double seen)
{
    const Blast *const blast = state->settings;
    const double duration = burstDuration(state);
    const float age = (float)fmax(seen - when, 0);
    if (when > 0 || !source->wasFree)
    {
        particlesRemoveOwner(state->particles, source->number);
    }
    if (duration > age)
    {
        addFlash(state, source, age, (float)duration);
        for (int i = 0; i < (int)blast->fire; ++i)
        {
            addFlame(state, source, age, (float)duration);
        }
        for (int i = 0; i < (int)blast->debris; ++i)
        {
            addPiece(state, source, age, (float)duration);
        }
    }
    source->marks[BURST] = when;
    source->marks[OVER] = when + duration;
    fxStartLink(root, state, source);
}

static void begin(vuRootNode *root, FxState *state, FxSource *source)
{
    burst(root, state, source, 0, 0);
}

/* In a long frame only the last burst counts. It is not later than the last particles of the one before go. */
static void go(vuRootNode *root, FxState *state, FxSource *source, double until, double end)
{
    const double duration = burstDuration(state);
    const double bursts = floor((until - source->marks[BURST] + particlesSlack(duration)) / duration);
    if (isinf(source->ends) && bursts >= 1)
    {
        burst(root, state, source, source->marks[BURST] + bursts * duration, end);
    }
}

static double lingers(const FxState *state, const FxSource *source)
{
    (void)state;
    return fmax(source->marks[OVER] - source->ends, 0);
}

const FxKind fxKind = {.name = "blast",
                       .tag = VU_FX_TAG('B', 'L', 'A', 'S'),
                       .settingsSize = sizeof(Blast),
                       .hasWind = 1,
                       .attaches = 0,
                       .prepare = prepare,
                       .go = go,
                       .lingers = lingers,
                       .begin = begin};
