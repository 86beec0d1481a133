#include "particles.h"

#include <assert.h>
#include <math.h>
#include <string.h>
#include <xmmintrin.h>

/* Four numbers side by side: what every processor of both targets has. */
enum
{
    LANES = 4
};
typedef float Lanes __attribute__((vector_size(4 * LANES), may_alias));
typedef int32_t LaneBits __attribute__((vector_size(4 * LANES), may_alias));

static inline Lanes spread(float value)
{
    return (Lanes){value, value, value, value};
}

/* In C, nothing else becomes one instruction. */
static inline Lanes lesser(Lanes a, Lanes b)
{
    return _mm_min_ps(a, b);
}

static inline Lanes greater(Lanes a, Lanes b)
{
    return _mm_max_ps(a, b);
}

/*
 * Particles as columns, LANES of them in one block after the other: that is one stream of memory to read, and not many. PLACE is
 * where they would be at birth without the wind that has blown since the drift was last 0. Births and lives are
 * apart: they are gone through by themselves to find out who is dead.
 */
enum
{
    PLACE_X,
    PLACE_Y,
    PLACE_Z,
    VELOCITY_X,
    VELOCITY_Y,
    VELOCITY_Z,
    ALONG_X,
    ALONG_Y,
    ALONG_Z,
    ACROSS_X,
    ACROSS_Y,
    ACROSS_Z,
    MOVES,
    SHADE,
    COLUMNS
};

enum
{
    EPOCH = 64 /* seconds */
};

typedef struct Layer
{
    ParticleLook look;
    int capacity; /* a multiple of LANES */
    int count;
    float *blocks;
    float *births; /* on the pool's clock */
    float *lives;
    int *owners;
} Layer;

struct Particles
{
    pfDCS *node; /* at the origin: floats far from that of the scene would be too coarse for slow particles */
    pfGeoSet *gset;
    double origin[3];
    double clock;    /* seconds, less than EPOCH: ages are differences of floats, and small ones are exact */
    double drift[3]; /* way of the wind, metres */
    float wind[3];
    int layers;
    int shown;
    float *coordinates; /* 4 corners each */
    float *colours;
    Layer layer[PARTICLES_MOST_LAYERS];
};

/* Memory. */

/* The number of a particle in a column. */
static inline float *cell(const Layer *layer, int column, int i)
{
    return layer->blocks + (i / LANES * COLUMNS + column) * LANES + i % LANES;
}

static size_t wholeLines(size_t bytes)
{
    const size_t line = 64;
    return (bytes + line - 1) / line * line;
}

static void *take(char **room, size_t bytes)
{
    void *taken = *room;
    *room += wholeLines(bytes);
    return taken;
}

static size_t blockBytes(const Layer *layer)
{
    return (size_t)layer->capacity * COLUMNS * sizeof(float);
}

static size_t listBytes(const Layer *layer)
{
    return (size_t)layer->capacity * sizeof(float);
}

/* All in one. What is written in whole Lanes goes beyond the last particle by less than LANES. */
static Particles *allocate(int layers, const int *sizes)
{
    Particles made = {.layers = layers};
    size_t all = LANES, bytes = wholeLines(1) + wholeLines(sizeof made);
    for (int i = 0; i < layers; ++i)
    {
        Layer *const layer = &made.layer[i];
        assert(sizes[i] >= 0 && sizes[i] <= PARTICLES_MOST);
        layer->capacity = (sizes[i] + LANES - 1) / LANES * LANES;
        all += (size_t)layer->capacity;
        bytes += wholeLines(blockBytes(layer)) + 3 * wholeLines(listBytes(layer));
    }
    const size_t coordinates = all * 12 * sizeof(float), colours = all * 4 * sizeof(float);
    char *room = pfMalloc(bytes + wholeLines(coordinates) + wholeLines(colours), pfGetSharedArena());
    if (room == NULL)
    {
        return NULL;
    }
    Particles *particles = take(&room, sizeof made);
    room += wholeLines((uintptr_t)room) - (uintptr_t)room;
    made.coordinates = take(&room, coordinates);
    made.colours = take(&room, colours);
    for (int i = 0; i < layers; ++i)
    {
        made.layer[i].blocks = take(&room, blockBytes(&made.layer[i]));
        made.layer[i].births = take(&room, listBytes(&made.layer[i]));
        made.layer[i].lives = take(&room, listBytes(&made.layer[i]));
        made.layer[i].owners = take(&room, listBytes(&made.layer[i]));
    }
    *particles = made;
    return particles;
}

/* The graph: a node with one geode with the GeoSet. */

static pfGeoState *newState(void)
{
    pfGeoState *state = pfNewGState(pfGetSharedArena());
    if (state != NULL)
    {
        pfGStateMode(state, PFSTATE_TRANSPARENCY, 1);
        pfGStateMode(state, PFSTATE_ENLIGHTING, 0); /* its colours are what is seen */
    }
    return state;
}

static int makeGraph(Particles *particles)
{
    pfDCS *node = pfNewDCS(pfGetSharedArena());
    pfGeode *geode = pfNewGeode(pfGetSharedArena());
    pfGeoSet *gset = pfNewGSet(pfGetSharedArena());
    pfGeoState *state = newState();
    if (node == NULL || geode == NULL || gset == NULL || state == NULL || !pfAddGSet(geode, gset) ||
        !pfAddChild((pfGroup *)node, (pfNode *)geode))
    {
        void *const made[] = {node, geode, gset, state}; /* what is held goes with what holds it */
        for (size_t i = 0; i < sizeof made / sizeof *made; ++i)
        {
            if (made[i] != NULL && pfGetRef(made[i]) == 0)
            {
                pfDelete(made[i]);
            }
        }
        return 0;
    }
    pfGSetPrimType(gset, PFGS_QUADS);
    pfGSetAttr(gset, PFGS_COORD3, PFGS_PER_VERTEX, particles->coordinates, NULL);
    pfGSetAttr(gset, PFGS_COLOR4, PFGS_PER_PRIM, particles->colours, NULL);
    pfGSetGState(gset, state);
    pfNodeTravMask((pfNode *)node, PFTRAV_ISECT, 0, PFTRAV_SELF, PF_SET);
    pfRef(node);
    pfRef(gset);
    particles->node = node;
    particles->gset = gset;
    return 1;
}

Particles *particlesNew(int layers, const ParticleLook *looks, const int *sizes)
{
    assert(layers <= PARTICLES_MOST_LAYERS);
    Particles *particles = allocate(layers, sizes);
    if (particles == NULL || !makeGraph(particles))
    {
        pfFree(particles);
        return NULL;
    }
    for (int i = 0; i < layers; ++i)
    {
        particles->layer[i].look = looks[i];
    }
    return particles;
}

void particlesDelete(Particles *particles)
{
    if (particles == NULL)
    {
        return;
    }
    pfNode *node = (pfNode *)particles->node;
    while (pfGetNumParents(node) > 0)
    {
        pfRemoveChild(pfGetParent(node, 0), node);
    }
    /* Somebody else may hold it all the same. */
    pfGSetNumPrims(particles->gset, 0);
    pfGSetAttr(particles->gset, PFGS_COORD3, PFGS_OFF, NULL, NULL);
    pfGSetAttr(particles->gset, PFGS_COLOR4, PFGS_OFF, NULL, NULL);
    pfUnref(particles->gset);
    pfUnref(node);
    pfDelete(node);
    pfFree(particles);
}

pfNode *particlesNode(const Particles *particles)
{
    return (pfNode *)particles->node;
}

int particlesShown(const Particles *particles)
{
    return particles->shown;
}

/* Life and death. */

static void copyParticle(Layer *layer, int to, int from)
{
    for (int column = 0; column < COLUMNS; ++column)
    {
        *cell(layer, column, to) = *cell(layer, column, from);
    }
    layer->births[to] = layer->births[from];
    layer->lives[to] = layer->lives[from];
    layer->owners[to] = layer->owners[from];
}

double particlesSlack(double life)
{
    return 1e-5 + 1e-6 * life;
}

static void removeDead(Layer *layer, float now)
{
    const float part = 1 - 1e-6F, slack = 1e-5F; /* as particlesSlack has it */
    for (int i = 0; i < layer->count;)
    {
        if (now - layer->births[i] < layer->lives[i] * part - slack)
        {
            ++i;
        }
        else
        {
            copyParticle(layer, i, --layer->count);
        }
    }
}

/* Whole epochs: where floats have become too coarse for a part of a second, they lose nothing more. */
static void setClockBack(Particles *particles)
{
    const double epochs = floor(particles->clock / EPOCH) * EPOCH;
    if (epochs == 0)
    {
        return;
    }
    particles->clock -= epochs;
    for (int l = 0; l < particles->layers; ++l)
    {
        Layer *const layer = &particles->layer[l];
        for (int i = 0; i < layer->count; ++i)
        {
            layer->births[i] -= (float)epochs;
        }
    }
}

/* A wind that blows for hours would take places so far that floats are too coarse: now and then they are moved for good. */
static void settleDrift(Particles *particles)
{
    const double far = 4096;
    if (fabs(particles->drift[0]) + fabs(particles->drift[1]) + fabs(particles->drift[2]) < far)
    {
        return;
    }
    for (int l = 0; l < particles->layers; ++l)
    {
        Layer *layer = &particles->layer[l];
        for (int axis = 0; layer->look.drifts && axis < 3; ++axis)
        {
            for (int i = 0; i < layer->count; ++i)
            {
                float *const place = cell(layer, PLACE_X + axis, i);
                *place = (float)(*place + particles->drift[axis]);
            }
        }
    }
    memset(particles->drift, 0, sizeof particles->drift);
}

void particlesAge(Particles *particles, float seconds, const float wind[3])
{
    for (int axis = 0; axis < 3; ++axis)
    {
        particles->wind[axis] = wind[axis];
        particles->drift[axis] += (double)wind[axis] * seconds;
    }
    particles->clock += seconds;
    for (int i = 0; i < particles->layers; ++i)
    {
        removeDead(&particles->layer[i], (float)particles->clock);
    }
    setClockBack(particles);
    settleDrift(particles);
}

static int countAll(const Particles *particles)
{
    int count = 0;
    for (int i = 0; i < particles->layers; ++i)
    {
        count += particles->layer[i].count;
    }
    return count;
}

/* The node takes floats: what they leave is for the particles. */
static void moveOrigin(Particles *particles, const double position[3])
{
    for (int axis = 0; axis < 3; ++axis)
    {
        particles->origin[axis] = (float)floor(position[axis]);
        particles->drift[axis] = 0;
    }
    pfDCSTrans(particles->node, (float)particles->origin[0], (float)particles->origin[1], (float)particles->origin[2]);
}

static int oldestOf(const Layer *layer)
{
    Lanes least = *(const Lanes *)layer->births;
    for (int i = LANES; i < layer->count; i += LANES)
    {
        least = lesser(least, *(const Lanes *)&layer->births[i]);
    }
    const float first = fminf(fminf(least[0], least[1]), fminf(least[2], least[3]));
    int oldest = 0;
    while (layer->births[oldest] != first)
    {
        ++oldest;
    }
    return oldest;
}

/* A full layer is full of whole Lanes. */
static int placeFor(Layer *layer)
{
    return layer->count < layer->capacity ? layer->count++ : oldestOf(layer);
}

int particlesCapacity(const Particles *particles, int layer)
{
    return particles->layer[layer].capacity;
}

void particlesBear(Particles *particles, int number, const ParticleBirth *birth)
{
    Layer *const layer = &particles->layer[number];
    if (layer->capacity == 0 || !(birth->age < birth->life))
    {
        return;
    }
    if (countAll(particles) == 0)
    {
        moveOrigin(particles, birth->position);
    }
    const int i = placeFor(layer);
    for (int axis = 0; axis < 3; ++axis)
    {
        /* It has drifted only since its birth. */
        const double before = particles->drift[axis] - (double)particles->wind[axis] * birth->age;
        const double place = birth->position[axis] - particles->origin[axis] - (layer->look.drifts ? before : 0);
        *cell(layer, PLACE_X + axis, i) = (float)place;
        *cell(layer, VELOCITY_X + axis, i) = birth->velocity[axis];
        *cell(layer, ALONG_X + axis, i) = birth->along[axis];
        *cell(layer, ACROSS_X + axis, i) = birth->across[axis];
    }
    layer->births[i] = (float)(particles->clock - birth->age);
    layer->lives[i] = birth->life;
    *cell(layer, MOVES, i) = birth->moves;
    *cell(layer, SHADE, i) = birth->shade;
    layer->owners[i] = birth->owner;
}

void particlesRemoveOwner(Particles *particles, int owner)
{
    for (int l = 0; l < particles->layers; ++l)
    {
        Layer *layer = &particles->layer[l];
        for (int i = 0; i < layer->count;)
        {
            if (layer->owners[i] == owner)
            {
                copyParticle(layer, i, --layer->count);
            }
            else
            {
                ++i;
            }
        }
    }
}

/* What is seen. */

static inline Lanes magnitude(Lanes a)
{
    return (Lanes)((LaneBits)a & 0x7FFFFFFF);
}

/*
 * Store a, b, c, d of the first particle, then of the others, so many floats apart. Past the cache: nobody reads it before
 * all effects are through, and reading in what is overwritten would take a third of the time.
 */
static inline void storeTurned(float *out, int apart, Lanes a, Lanes b, Lanes c, Lanes d)
{
    const Lanes ab = __builtin_shufflevector(a, b, 0, 4, 1, 5), cd = __builtin_shufflevector(c, d, 0, 4, 1, 5);
    const Lanes ab2 = __builtin_shufflevector(a, b, 2, 6, 3, 7), cd2 = __builtin_shufflevector(c, d, 2, 6, 3, 7);
    _mm_stream_ps(out, __builtin_shufflevector(ab, cd, 0, 1, 4, 5));
    _mm_stream_ps(out + apart, __builtin_shufflevector(ab, cd, 2, 3, 6, 7));
    _mm_stream_ps(out + 2 * apart, __builtin_shufflevector(ab2, cd2, 0, 1, 4, 5));
    _mm_stream_ps(out + 3 * apart, __builtin_shufflevector(ab2, cd2, 2, 3, 6, 7));
}

/* i is a multiple of LANES. */
static inline Lanes load(const Layer *layer, int column, int i)
{
    return *(const Lanes *)cell(layer, column, i);
}

typedef struct Reach
{
    Lanes min[3], max[3];
} Reach;

static inline void writeCorners(const Layer *layer, int i, Lanes age, const Lanes drift[3], float *out, Reach *reach)
{
    const Lanes time = lesser(age, load(layer, MOVES, i));
    const Lanes size = 1.0F + spread(layer->look.growth) * age;
    const Lanes fall[3] = {spread(0), spread(0), spread(0.5F * layer->look.gravity) * time};
    Lanes corner[4][3];
    for (int axis = 0; axis < 3; ++axis)
    {
        const Lanes way = (load(layer, VELOCITY_X + axis, i) - fall[axis]) * time;
        const Lanes centre = load(layer, PLACE_X + axis, i) + (drift[axis] + way);
        const Lanes along = load(layer, ALONG_X + axis, i) * size, across = load(layer, ACROSS_X + axis, i) * size;
        const Lanes sum = along + across, difference = along - across;
        corner[0][axis] = centre - sum;
        corner[1][axis] = centre + difference;
        corner[2][axis] = centre + sum;
        corner[3][axis] = centre - difference;
        const Lanes extent = greater(magnitude(sum), magnitude(difference));
        reach->min[axis] = lesser(reach->min[axis], centre - extent);
        reach->max[axis] = greater(reach->max[axis], centre + extent);
    }
    storeTurned(out, 12, corner[0][0], corner[0][1], corner[0][2], corner[1][0]);
    storeTurned(out + 4, 12, corner[1][1], corner[1][2], corner[2][0], corner[2][1]);
    storeTurned(out + 8, 12, corner[2][2], corner[3][0], corner[3][1], corner[3][2]);
}

typedef struct Ramp
{
    Lanes young[4], change[4]; /* tinted */
    Lanes perFade;
} Ramp;

static Ramp rampOf(const ParticleLook *look, const ParticleTint *tint)
{
    /* As short as a frame is for nobody: then it is only the last moment. */
    const float shortest = 1e-6F;
    Ramp ramp = {.perFade = spread(1 / fmaxf(look->fades ? tint->fade : 0, shortest))};
    for (int i = 0; i < 4; ++i)
    {
        ramp.young[i] = spread(look->young[i] * tint->colour[i]);
        ramp.change[i] = spread((look->old[i] - look->young[i]) * tint->colour[i]);
    }
    return ramp;
}

static inline void writeColours(const Layer *layer, int i, Lanes age, const Ramp *ramp, float *out)
{
    const Lanes life = *(const Lanes *)&layer->lives[i], shade = load(layer, SHADE, i);
    const Lanes part = age / life;
    const Lanes left = lesser((life - age) * ramp->perFade, spread(1));
    storeTurned(out, 4, (ramp->young[0] + ramp->change[0] * part) * shade,
                (ramp->young[1] + ramp->change[1] * part) * shade, (ramp->young[2] + ramp->change[2] * part) * shade,
                (ramp->young[3] + ramp->change[3] * part) * left);
}

static void writeLayer(Particles *particles, Layer *layer, const ParticleTint *tint, Reach *reach)
{
    if (layer->count == 0)
    {
        return;
    }
    /* The last one stands for those that are missing to whole Lanes, where it changes no box. */
    for (int i = layer->count; i % LANES != 0; ++i)
    {
        copyParticle(layer, i, layer->count - 1);
    }
    const Ramp ramp = rampOf(&layer->look, tint);
    Lanes drift[3];
    for (int axis = 0; axis < 3; ++axis)
    {
        drift[axis] = spread(layer->look.drifts ? (float)particles->drift[axis] : 0);
    }
    float *const coordinates = particles->coordinates + 12 * particles->shown;
    float *const colours = particles->colours + 4 * particles->shown;
    const Lanes now = spread((float)particles->clock);
    Reach own = *reach;
    for (int i = 0; i < layer->count; i += LANES)
    {
        const Lanes age = now - *(const Lanes *)&layer->births[i];
        writeCorners(layer, i, age, drift, coordinates + 12 * i, &own);
        writeColours(layer, i, age, &ramp, colours + 4 * i);
    }
    *reach = own;
    particles->shown += layer->count;
}

static pfBox boxOf(const Reach *reach)
{
    pfBox box = {{INFINITY, INFINITY, INFINITY}, {-INFINITY, -INFINITY, -INFINITY}};
    for (int axis = 0; axis < 3; ++axis)
    {
        for (int lane = 0; lane < LANES; ++lane)
        {
            box.min[axis] = fminf(box.min[axis], reach->min[axis][lane]);
            box.max[axis] = fmaxf(box.max[axis], reach->max[axis][lane]);
        }
    }
    return box;
}

void particlesShow(Particles *particles, const ParticleTint *tint)
{
    if (particles->shown == 0 && countAll(particles) == 0)
    {
        return;
    }
    Reach reach;
    for (int axis = 0; axis < 3; ++axis)
    {
        reach.min[axis] = spread(INFINITY);
        reach.max[axis] = spread(-INFINITY);
    }
    particles->shown = 0;
    for (int i = 0; i < particles->layers; ++i)
    {
        writeLayer(particles, &particles->layer[i], tint, &reach);
    }
    _mm_sfence(); /* for other processes that draw it */
    /* Boxes of nodes are forgotten with the number, and computed only if somebody asks for them. */
    pfGSetNumPrims(particles->gset, particles->shown);
    pfBox box = {{0, 0, 0}, {0, 0, 0}};
    if (particles->shown > 0)
    {
        box = boxOf(&reach);
    }
    pfGSetBBox(particles->gset, &box, PFBOUND_STATIC);
}
