#include "fxsource.h"

#include <math.h>
#include <string.h>

enum
{
    NOT_READY = -1 /* state of a source before fxInitInst and after fxFreeInst */
};

/* All effects of this plug-in in a ring, at the one asked for last: mostly the next one is asked for next. */
static FxState *ring;

static FxState *stateOf(const vuEffect *fx)
{
    if (ring == NULL || ring->fx == fx)
    {
        return ring;
    }
    for (FxState *state = ring->next; state != ring; state = state->next)
    {
        if (state->fx == fx)
        {
            ring = state;
            return state;
        }
    }
    return NULL;
}

static void addToRing(FxState *state)
{
    if (ring == NULL)
    {
        ring = state;
    }
    state->next = ring->next != NULL ? ring->next : state;
    ring->next = state;
    ring = state;
}

static void removeFromRing(FxState *state)
{
    FxState *before = state;
    while (before->next != state)
    {
        before = before->next;
    }
    before->next = state->next;
    ring = before != state ? before : NULL;
}

/* Null for what is no instance of the effect. */
static FxSource *anySourceOf(const FxState *state, uintptr_t inst)
{
    const uintptr_t size = sizeof(vuEffectInst), offset = state != NULL ? inst - (uintptr_t)state->inst : 0;
    const int isOne = state != NULL && offset / size < (uintptr_t)state->count && offset % size == 0;
    return isOne ? &state->sources[offset / size] : NULL;
}

static FxSource *sourceOf(const FxState *state, uintptr_t inst)
{
    FxSource *const source = anySourceOf(state, inst);
    return source != NULL && source->state != NOT_READY ? source : NULL;
}

static uintptr_t instanceOf(const FxState *state, const FxSource *source)
{
    return source != NULL ? (uintptr_t)&state->inst[source->number] : 0;
}

const char *fxName(const vuEffect *fx)
{
    return fx->node.name != NULL ? fx->node.name : "";
}

/* Numbers. */

double fxBounded(double number, double min, double max, double other)
{
    return isnan(number) ? other : fmin(fmax(number, min), max);
}

double fxDuration(const vuEffect *fx)
{
    const double longest = 1e9, usual = 1;
    return fxBounded(fx->duration, 0, longest, usual);
}

/* FNV-1a, 32 bits (Fowler, Noll, Vo). */
static uint32_t hashOf(const char *text)
{
    uint32_t hash = 2166136261U;
    for (; *text != '\0'; ++text)
    {
        hash = (hash ^ (uint8_t)*text) * 16777619U;
    }
    return hash;
}

/* Xorshift: Marsaglia, "Xorshift RNGs", 2003. */
float fxRandom(FxState *state)
{
    state->random ^= state->random << 13;
    state->random ^= state->random >> 17;
    state->random ^= state->random << 5;
    return (float)(state->random >> 8) * 0x1p-24F;
}

static float dot(const float a[3], const float b[3])
{
    return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}

void fxRandomInBall(FxState *state, float point[3])
{
    do
    {
        for (int axis = 0; axis < 3; ++axis)
        {
            point[axis] = 2 * fxRandom(state) - 1;
        }
    } while (dot(point, point) > 1);
}

void fxRandomDirection(FxState *state, float direction[3])
{
    const float tooShort = 1e-4F;
    float square;
    do
    {
        fxRandomInBall(state, direction);
        square = dot(direction, direction);
    } while (square < tooShort);
    for (int axis = 0; axis < 3; ++axis)
    {
        direction[axis] /= sqrtf(square);
    }
}

void fxRandomAxes(FxState *state, float size, ParticleBirth *birth)
{
    float a[3], b[3], square;
    fxRandomDirection(state, a);
    do
    {
        fxRandomDirection(state, b);
        const float share = dot(a, b);
        for (int axis = 0; axis < 3; ++axis)
        {
            b[axis] -= share * a[axis];
        }
        square = dot(b, b);
    } while (square < 1e-4F);
    for (int axis = 0; axis < 3; ++axis)
    {
        birth->along[axis] = a[axis] * size;
        birth->across[axis] = b[axis] / sqrtf(square) * size;
    }
}

/* Begin and end of sources. */

static int isPlace(const double position[3])
{
    const double far = 1e9; /* metres; floats are of use up to there */
    return fabs(position[0]) <= far && fabs(position[1]) <= far && fabs(position[2]) <= far;
}

static vuFxEvent eventOf(const vuEffect *fx, uintptr_t word)
{
    if (word != 0)
    {
        return *(const vuFxEvent *)word;
    }
    vuFxEvent event = {.scale = 1};
    for (int axis = 0; axis < 3; ++axis)
    {
        event.position[axis] = fx->position[axis];
        event.direction[axis] = fx->direction[axis];
    }
    return event;
}

static void setDirection(FxSource *source, const float direction[3])
{
    const double square =
        (double)direction[0] * direction[0] + (double)direction[1] * direction[1] + (double)direction[2] * direction[2];
    const int given = square > 0 && isfinite(square);
    for (int axis = 0; axis < 3; ++axis)
    {
        source->direction[axis] = given ? (float)(direction[axis] / sqrt(square)) : axis == 2;
    }
}

static FxSource *begin(vuRootNode *root, FxState *state, FxSource *source, const vuFxEvent *event, double ends)
{
    const double fastest = 1e4, smallest = 0.01, largest = 100;
    if (source == NULL || !isPlace(event->position))
    {
        return NULL;
    }
    const int wasFree = source->state == VU_FX_FREE;
    *source = (FxSource){.number = source->number, .state = VU_FX_ON, .wasFree = wasFree, .ends = ends};
    for (int axis = 0; axis < 3; ++axis)
    {
        source->position[axis] = source->before[axis] = event->position[axis];
        source->velocity[axis] = (float)fxBounded(event->velocity[axis], -fastest, fastest, 0);
    }
    setDirection(source, event->direction);
    source->scale = event->scale > 0 ? (float)fmin(fmax(event->scale, smallest), largest) : 1;
    if (fxKind.begin != NULL)
    {
        fxKind.begin(root, state, source);
    }
    return source;
}

static FxSource *freeSource(FxState *state)
{
    while (state->firstFree < state->count && state->sources[state->firstFree].state != VU_FX_FREE)
    {
        ++state->firstFree;
    }
    return state->firstFree < state->count ? &state->sources[state->firstFree] : NULL;
}

static void setFree(FxState *state, FxSource *source)
{
    source->state = VU_FX_FREE;
    state->firstFree = source->number < state->firstFree ? source->number : state->firstFree;
    state->attached = source->number != state->attached ? state->attached : -1;
}

static void end(const FxState *state, FxSource *source)
{
    source->ends = fmin(source->ends, source->age);
    source->gone = source->ends + fxKind.lingers(state, source);
    source->state = VU_FX_ENDING;
}

void fxStartLink(vuRootNode *root, FxState *state, const FxSource *source)
{
    if (state->fx->linkFx == NULL || state->linking)
    {
        return;
    }
    vuFxEvent event = {.scale = source->scale};
    memcpy(event.position, source->position, sizeof event.position);
    memcpy(event.velocity, source->velocity, sizeof event.velocity);
    state->linking = 1;
    effectTrigger(root, state->fx->linkFx, (uintptr_t)&event);
    state->linking = 0;
}

/* The entity. It is looked for each time: anybody may remove it. */

static const vuEntity *entityOf(const vuRootNode *root, const vuEffect *fx)
{
    const vunode *entity = NULL;
    if (fxKind.attaches && fx->entityNode != NULL && fx->entityNode[0] != '\0')
    {
        for (const vunode *node = root->scenes.first; node != NULL && entity == NULL; node = node->next)
        {
            entity = vunodeListFindNamed(&((const vuScene *)node)->entities, fx->entityNode);
        }
    }
    return (const vuEntity *)entity;
}

static int moveTo(FxSource *source, const double position[3])
{
    if (source->state != VU_FX_ON || !isPlace(position))
    {
        return 0;
    }
    memcpy(source->position, position, sizeof source->position);
    memset(source->velocity, 0, sizeof source->velocity);
    return 1;
}

static void followEntity(vuRootNode *root, FxState *state)
{
    const vuEntity *entity = entityOf(root, state->fx);
    FxSource *const attached = state->attached >= 0 ? &state->sources[state->attached] : NULL;
    const int isOn = attached != NULL && attached->state == VU_FX_ON;
    if (entity != NULL && isOn)
    {
        moveTo(attached, entity->position);
    }
    else if (entity != NULL)
    {
        /* One that ends since the entity was gone is its own again, when there is no other. */
        FxSource *const other = freeSource(state);
        vuFxEvent event = eventOf(state->fx, 0);
        memcpy(event.position, entity->position, sizeof event.position);
        const FxSource *const begun = begin(root, state, other != NULL ? other : attached, &event, INFINITY);
        state->attached = begun != NULL ? begun->number : state->attached;
    }
    else if (isOn)
    {
        end(state, attached);
    }
}

/* Set-up. */

static void release(FxState *state)
{
    if (state != NULL)
    {
        removeFromRing(state);
        particlesDelete(state->particles);
        pfFree(state);
    }
}

static FxState *allocateState(vuEffect *fx)
{
    const size_t head = (sizeof(FxState) + 15) / 16 * 16, settings = (fxKind.settingsSize + 15) / 16 * 16;
    const size_t count = fx->inst != NULL && fx->numInst > 0 ? (size_t)fx->numInst : 0;
    /* So many instances fit into memory, but sources are larger. */
    const int possible = count < PTRDIFF_MAX / (2 * sizeof(FxSource));
    char *room = possible ? pfMalloc(head + settings + count * sizeof(FxSource), pfGetSharedArena()) : NULL;
    if (room == NULL)
    {
        return NULL;
    }
    memset(room, 0, head + settings);
    FxState *state = (FxState *)room;
    state->fx = fx;
    state->inst = fx->inst;
    state->count = (int)count;
    state->settings = room + head;
    state->sources = (FxSource *)(room + head + settings);
    for (int i = 0; i < state->count; ++i)
    {
        state->sources[i] = (FxSource){.number = i, .state = NOT_READY};
    }
    state->attached = -1;
    state->mask = ~0U;
    state->random = hashOf(fxName(fx)) | 1; /* 0 would stay 0 */
    return state;
}

static Particles *newParticles(const vuEffect *fx, const FxPlan *plan, int count)
{
    int sizes[PARTICLES_MOST_LAYERS];
    for (int i = 0; i < plan->layers; ++i)
    {
        const double wanted = ceil(plan->sizes[i]) * count;
        sizes[i] = (int)fmin(wanted, PARTICLES_MOST);
        if (wanted > PARTICLES_MOST)
        {
            vu_warn("Warning", fxKind.name, __LINE__, "FX \"%s\": of %.0f particles %d are shown", fxName(fx), wanted,
                    PARTICLES_MOST);
        }
    }
    return particlesNew(plan->layers, plan->looks, sizes);
}

static void drawMask(FxState *state)
{
    if (state->mask != state->fx->maskDraw)
    {
        state->mask = state->fx->maskDraw;
        pfNodeTravMask(particlesNode(state->particles), PFTRAV_DRAW, state->mask, PFTRAV_SELF, PF_SET);
    }
}

/* Entry points. */

TOLVIN_PLUGIN void fxInit(vuRootNode *root, vuEffect *fx)
{
    (void)root;
    fx->tagbase = fxKind.tag;
    release(stateOf(fx)); /* of a set-up before */
    FxState *state = allocateState(fx);
    if (state != NULL)
    {
        FxPlan plan = {.layers = 0};
        fxKind.prepare(fx, state->settings, &plan);
        memcpy(state->wind, plan.wind, sizeof state->wind);
        state->particles = newParticles(fx, &plan, state->count);
    }
    if (state == NULL || state->particles == NULL)
    {
        pfFree(state);
        vu_warn("Warning", fxKind.name, __LINE__, "FX \"%s\": no room; it shows nothing", fxName(fx));
        return;
    }
    pfNodeName(particlesNode(state->particles), fx->node.name);
    drawMask(state);
    addToRing(state);
}

TOLVIN_PLUGIN void fxFree(vuRootNode *root, vuEffect *fx)
{
    (void)root;
    release(stateOf(fx));
}

TOLVIN_PLUGIN void fxInitInst(vuRootNode *root, vuEffect *fx, vuEffectInst *inst)
{
    (void)root;
    FxState *const state = stateOf(fx);
    FxSource *const source = anySourceOf(state, (uintptr_t)inst);
    if (source != NULL)
    {
        setFree(state, source);
    }
}

TOLVIN_PLUGIN void fxFreeInst(vuRootNode *root, vuEffect *fx, vuEffectInst *inst)
{
    (void)root;
    FxSource *const source = anySourceOf(stateOf(fx), (uintptr_t)inst);
    if (source != NULL)
    {
        source->state = NOT_READY;
    }
}

static uintptr_t beginAny(vuRootNode *root, vuEffect *fx, uintptr_t word, double ends)
{
    FxState *const state = stateOf(fx);
    if (state == NULL)
    {
        return 0;
    }
    const vuFxEvent event = eventOf(fx, word);
    return instanceOf(state, begin(root, state, freeSource(state), &event, ends));
}

TOLVIN_PLUGIN uintptr_t fxTrigger(vuRootNode *root, vuEffect *fx, uintptr_t word)
{
    return beginAny(root, fx, word, fxDuration(fx));
}

TOLVIN_PLUGIN uintptr_t fxObtain(vuRootNode *root, vuEffect *fx, uintptr_t word)
{
    return beginAny(root, fx, word, INFINITY);
}

TOLVIN_PLUGIN void fxTriggerInst(vuRootNode *root, vuEffect *fx, uintptr_t inst, uintptr_t word)
{
    FxState *const state = stateOf(fx);
    FxSource *const source = sourceOf(state, inst);
    const vuFxEvent event = eventOf(fx, word);
    if (begin(root, state, source, &event, fxDuration(fx)) != NULL && state->attached == source->number)
    {
        state->attached = -1; /* the caller's from now on */
    }
}

TOLVIN_PLUGIN uintptr_t fxStopInst(vuRootNode *root, vuEffect *fx, vuEffectInst *inst)
{
    (void)root;
    FxState *const state = stateOf(fx);
    FxSource *const source = sourceOf(state, (uintptr_t)inst);
    if (source == NULL || source->state != VU_FX_ON)
    {
        return 0;
    }
    end(state, source);
    return 1;
}

static void advance(vuRootNode *root, FxState *state, FxSource *source, double seconds)
{
    const double now = source->age + seconds;
    if (source->state == VU_FX_ON)
    {
        fxKind.go(root, state, source, fmin(now, source->ends), now);
    }
    source->age = now;
    if (source->state == VU_FX_ON && now >= source->ends)
    {
        end(state, source);
    }
    if (source->state == VU_FX_ENDING && now >= source->gone)
    {
        setFree(state, source);
    }
    memcpy(source->before, source->position, sizeof source->before);
}

static ParticleTint tintOf(const vuEffect *fx)
{
    const double longest = 1e9;
    ParticleTint tint = {.fade = (float)fxBounded(fx->fade, 0, longest, 0)};
    for (int i = 0; i < 4; ++i)
    {
        tint.colour[i] = (float)fxBounded(fx->colour[i], 0, 1, 1);
    }
    return tint;
}

TOLVIN_PLUGIN void fxUpdate(vuRootNode *root, vuEffect *fx)
{
    const double longest = 1e6; /* seconds; all particles are gone by then */
    FxState *const state = stateOf(fx);
    if (state == NULL || !(root->frameDelta > 0))
    {
        return;
    }
    const double seconds = fmin(root->frameDelta, longest);
    drawMask(state);
    followEntity(root, state);
    particlesAge(state->particles, (float)seconds, state->wind);
    for (int i = 0; i < state->count; ++i)
    {
        if (state->sources[i].state > VU_FX_FREE)
        {
            advance(root, state, &state->sources[i], seconds);
        }
    }
    const ParticleTint tint = tintOf(fx);
    particlesShow(state->particles, &tint);
}

static uintptr_t countActive(const FxState *state)
{
    uintptr_t count = 0;
    for (int i = 0; i < state->count; ++i)
    {
        count += state->sources[i].state > VU_FX_FREE;
    }
    return count;
}

static uintptr_t copyTo(uintptr_t where, const void *from, size_t bytes)
{
    if (where != 0)
    {
        memcpy((void *)where, from, bytes);
    }
    return where != 0;
}

TOLVIN_PLUGIN uintptr_t fxGetData(vuRootNode *root, vuEffect *fx, uintptr_t what, uintptr_t where)
{
    (void)root;
    const FxState *const state = stateOf(fx);
    if (state == NULL)
    {
        return 0;
    }
    switch (what)
    {
    case VU_FX_NODE:
        return (uintptr_t)particlesNode(state->particles);
    case VU_FX_ACTIVE:
        return countActive(state);
    case VU_FX_PARTICLES:
        return (uintptr_t)particlesShown(state->particles);
    case VU_FX_WIND:
        return fxKind.hasWind ? copyTo(where, state->wind, sizeof state->wind) : 0;
    default:
        return 0;
    }
}

TOLVIN_PLUGIN uintptr_t fxSetData(vuRootNode *root, vuEffect *fx, uintptr_t what, uintptr_t where)
{
    const double fastest = 1000; /* m/s */
    (void)root;
    FxState *const state = stateOf(fx);
    if (state == NULL || what != VU_FX_WIND || !fxKind.hasWind || where == 0)
    {
        return 0;
    }
    for (int axis = 0; axis < 3; ++axis)
    {
        state->wind[axis] = (float)fxBounded(((const float *)where)[axis], -fastest, fastest, 0);
    }
    return 1;
}

TOLVIN_PLUGIN uintptr_t fxGetInstData(vuRootNode *root, vuEffect *fx, uintptr_t what, uintptr_t inst, uintptr_t where)
{
    (void)root;
    const FxSource *const source = sourceOf(stateOf(fx), inst);
    if (source == NULL || source->state == VU_FX_FREE)
    {
        return 0; /* which is VU_FX_FREE as well */
    }
    switch (what)
    {
    case VU_FX_INST_STATE:
        return (uintptr_t)source->state;
    case VU_FX_INST_AGE:
        return copyTo(where, &source->age, sizeof source->age);
    case VU_FX_INST_POSITION:
        return copyTo(where, source->position, sizeof source->position);
    default:
        return 0;
    }
}

TOLVIN_PLUGIN uintptr_t fxSetInstData(vuRootNode *root, vuEffect *fx, uintptr_t what, uintptr_t inst, uintptr_t where)
{
    (void)root;
    FxSource *const source = sourceOf(stateOf(fx), inst);
    const int possible = source != NULL && what == VU_FX_INST_POSITION && where != 0;
    return possible ? (uintptr_t)moveTo(source, (const double *)where) : 0;
}
