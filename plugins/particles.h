/*
 * A pool of particles, shown as one GeoSet of quads: for plug-ins that show many small things which come, move and go.
 *
 * A particle is a quad with a place, and two half axes that are the same all its life but for their length. What moves it is
 * known when it is born, its velocity, its layer's gravity and the wind, so that its place follows from its age, and does
 * not depend on how long frames are. Nor does its life, but for a hundred-thousandth of a second and a millionth of it.
 *
 * Particles of one look are a layer. Everything is allocated when the pool is made. All numbers have to be finite where
 * nothing else is said: who fills them in has to see to it.
 */
#ifndef TOLVIN_PLUGINS_PARTICLES_H
#define TOLVIN_PLUGINS_PARTICLES_H

#include "plugin.h"

#ifdef __cplusplus
extern "C" {
#endif

enum
{
    PARTICLES_MOST_LAYERS = 3,
    PARTICLES_MOST = 65536 /* of a layer; 9 MB */
};

#define PARTICLES_GRAVITY 9.80665F /* standard gravity, m/s^2 */

/* What all particles of a layer have in common. */
typedef struct ParticleLook
{
    float young[4]; /* red, green, blue, alpha at birth */
    float old[4];   /* and at the end of life: in between it changes evenly */
    float growth;   /* by which part of their first size they grow each second */
    float gravity;  /* m/s^2 downwards */
    int drifts;     /* 1: the wind carries them along */
    int fades;      /* 1: they disappear in the tint's fade, too */
} ParticleLook;

/* A particle when it is born. */
typedef struct ParticleBirth
{
    double position[3];
    float velocity[3];
    float along[3], across[3]; /* half axes, metres */
    float age;                 /* seconds since birth: those of this frame that are over */
    float life;                /* seconds from birth; above 0 */
    float moves;               /* seconds from birth after which it stays; may be infinite */
    float shade;               /* its colour is the layer's times this */
    int owner;                 /* number for particlesRemoveOwner */
} ParticleBirth;

/* What is applied to all of them when they are shown. */
typedef struct ParticleTint
{
    float colour[4];
    float fade; /* the last seconds of their lives, in which they disappear; 0 for none */
} ParticleTint;

typedef struct Particles Particles;

/*
 * A pool with so many layers; sizes are the numbers of particles that they hold, looks are copied. Null, with
 * nothing left behind, when there is no room in the arena.
 */
Particles *particlesNew(int layers, const ParticleLook *looks, const int *sizes);

/* Release everything; whoever has the node in its scene loses it. Null is ignored. */
void particlesDelete(Particles *particles);

/* The node to hang into a scene; the pool's. */
pfNode *particlesNode(const Particles *particles);

/* How many were shown last. */
int particlesShown(const Particles *particles);

/* Let so much time pass, with the wind in m/s: those whose life is over go. Those born afterwards have their age by then. */
void particlesAge(Particles *particles, float seconds, const float wind[3]);

/* How many a layer can hold. */
int particlesCapacity(const Particles *particles, int layer);

/* How much earlier than its life says a particle may go, so that none is late where times are rounded. */
double particlesSlack(double life);

/* In a full layer it takes the place of the oldest one. */
void particlesBear(Particles *particles, int layer, const ParticleBirth *birth);

/* All particles of an owner go. */
void particlesRemoveOwner(Particles *particles, int owner);

/* Write coordinates, colours and box to the GeoSet. */
void particlesShow(Particles *particles, const ParticleTint *tint);

#ifdef __cplusplus
}
#endif

#endif
