/*
 * What the effect plug-ins here have in common: all entry points of plugin.h, the effects and instances that a plug-in serves, and
 * when they begin, move and end. A plug-in adds an fxKind: what its settings are, and how its sources bear particles.
 *
 * A source is an instance as the plug-in sees it. It has more to remember than fits into the words of a vuEffectInst, which stay 0.
 * Nothing is allocated after fxInit. Without room for it there, one warning is printed, and the effect shows nothing.
 */
#ifndef TOLVIN_PLUGINS_FXSOURCE_H
#define TOLVIN_PLUGINS_FXSOURCE_H

#include "particles.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct FxSource
{
    int number;         /* which of the instances */
    int state;          /* VU_FX_* */
    int wasFree;        /* when it began: nothing is left of what it showed before */
    double age;         /* seconds since it began, at the end of the last frame */
    double ends;        /* age when it ends; infinite when it goes on until it is stopped */
    double gone;        /* age when nothing is left of it; once it is ending */
    double position[3]; /* at the end of the frame */
    double before[3];   /* at the beginning of the frame */
    float velocity[3];
    float direction[3]; /* of length 1; upwards when none was told */
    float scale;
    double marks[2]; /* the plug-in's; 0 at the beginning */
} FxSource;

typedef struct FxState
{
    vuEffect *fx;
    struct FxState *next;     /* in a ring */
    const vuEffectInst *inst; /* as many as sources */
    int count;
    int firstFree; /* no source before that one is */
    FxSource *sources;
    Particles *particles;
    void *settings; /* the plug-in's */
    float wind[3];
    uint32_t random;
    uint32_t mask; /* of drawing, as the node has it */
    int attached;  /* number of the source at entityNode; -1 */
    int linking;   /* while linkFx is started, which may lead back here */
} FxState;

/* What a plug-in needs of the pool of particles. */
typedef struct FxPlan
{
    int layers;
    ParticleLook looks[PARTICLES_MOST_LAYERS];
    double sizes[PARTICLES_MOST_LAYERS]; /* particles of one instance */
    float wind[3];
} FxPlan;

typedef struct FxKind
{
    const char *name;
    uint32_t tag;
    size_t settingsSize;
    int hasWind;  /* whether there is a VU_FX_WIND */
    int attaches; /* whether entityNode means anything */

    /* Fill in settings (0 so far) and plan, by the effect's settings. */
    void (*prepare)(const vuEffect *fx, void *settings, FxPlan *plan);

    /* A frame of a source that goes on, from one age until another; all of the frame is until it has the age end. */
    void (*go)(vuRootNode *root, FxState *state, FxSource *source, double until, double end);

    /* For how long something is left of a source that has ended, seconds. */
    double (*lingers)(const FxState *state, const FxSource *source);

    /* One that begins, perhaps before all of what it showed before is gone. May be null. */
    void (*begin)(vuRootNode *root, FxState *state, FxSource *source);
} FxKind;

/* The plug-in's. */
extern const FxKind fxKind;

/* What to call the effect in a message. */
const char *fxName(const vuEffect *fx);

/* The number if it is one, within the bounds; else the other one. */
double fxBounded(double number, double min, double max, double other);

/* Settings that may be changed at any time, as they can be used: seconds of fx->duration. */
double fxDuration(const vuEffect *fx);

/*
 * Start fx->linkFx, if there is one, where the source is, unless that is how this effect was started. It is told no
 * direction: that of a shot is none for the smoke.
 */
void fxStartLink(vuRootNode *root, FxState *state, const FxSource *source);

/* Random numbers, which depend on the effect's name and how many there were: from 0 to 1, a point in the unit ball, a direction. */
float fxRandom(FxState *state);
void fxRandomInBall(FxState *state, float point[3]);
void fxRandomDirection(FxState *state, float direction[3]);

/* Half axes of a square of that half size, turned at random. */
void fxRandomAxes(FxState *state, float size, ParticleBirth *birth);

#ifdef __cplusplus
}
#endif

#endif
