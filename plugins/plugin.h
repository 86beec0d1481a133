/*
 * What a plug-in author needs: the records of the kernel, the platform layer, and what applications and plug-ins agree on.
 *
 * A plug-in is a shared object with functions of these names, in C (in C++ between `extern "C"`). Any of them may be left out. The
 * library finds them by name and calls them, in the thread of the application, one after the other, except that an effect which
 * triggers another may come back to itself:
 *
 *   fxInit         once, at set-up, when the instances are there: choose fx->tagbase (four letters, VU_FX_TAG), read the
 *                  settings (colour, duration, fade, parameter ...), make what all instances share. Without it neither
 *                  instances nor fx->linkFx are prepared.
 *   fxInitInst     at set-up, once for each of the fx->numInst instances, in order, after its words were set to 0
 *   fxUpdate       each frame, after the application has moved the entities and written root->simSeconds, the time, and
 *                  root->frameDelta, that of the frame, both in seconds. A frame without time changes nothing.
 *   fxTrigger      begin somewhere, and end alone after fx->duration
 *   fxObtain       begin somewhere, and go on until fxStopInst
 *   fxTriggerInst  begin with a given instance (again), as fxTrigger does
 *   fxStopInst     let an instance end
 *   fxGetData, fxSetData, fxGetInstData, fxSetInstData   exchange values, below
 *   fxFreeInst     for each instance, and
 *   fxFree         once, before the plug-in is closed (effectUnload): release what fxInitInst and fxInit have made
 *
 * What to know besides: C11, or C++11 without exceptions that leave an entry point. Events and numbers that words point to are there
 * during the call only. What was made with pfNew... goes with pfDelete, not with pfFree. Static variables are shared by all effects that
 * name the same file; what belongs to one effect is found by fx, what belongs to one instance by its words, in which a pointer is
 * copied (memcpy): they have 32 bits, and instances are aligned to 4 bytes. fx->linkFx is null until fxInit and all fxInitInst
 * are through, its plug-in may lack anything, and links may go round in a circle: do not trigger again while you are triggered.
 * fxFree is called whatever fxInit has managed to make; fxFreeInst only where there is an fxInit. Effects are loaded, unloaded and
 * taken off the list by the application, never from an entry point.
 *
 * Settings, in fx: colour tints what is shown, and its alpha makes it transparent. duration is in seconds, and fade the part of
 * it, at its end, in which what is shown disappears. num is the number of instances wanted, numInst that there are (perhaps 0). Numbers
 * and texts are a person's: expect any. entityNode names an entity of the root node's scenes at which one instance is to go on as long
 * as there is one of that name. maskDraw is for the plug-in's node (pfNodeTravMask with PFTRAV_DRAW). The application may change
 * settings at any time. position and direction are where to begin, and where to, when a call tells no event. linkFx is an effect
 * to start as well, by the functions of the library (effectTrigger ...), when this one does what it is said to link to.
 *
 * Everything is in the scene's coordinates: metres, x east, y north, z up. Words are as wide as pointers.
 */
#ifndef TOLVIN_PLUGIN_H
#define TOLVIN_PLUGIN_H

#include <tolvin/kernel/tolvin.h>
#include <tolvin/performer/pf.h>

/* Before the definition of each entry point. */
#ifdef __cplusplus
#define TOLVIN_PLUGIN extern "C" __attribute__((visibility("default")))
#else
#define TOLVIN_PLUGIN __attribute__((visibility("default")))
#endif

/* Four letters as a tagbase. */
#define VU_FX_TAG(a, b, c, d)                                                                                          \
    ((uint32_t)(uint8_t)(a) << 24 | (uint32_t)(uint8_t)(b) << 16 | (uint32_t)(uint8_t)(c) << 8 | (uint8_t)(d))

#ifdef __cplusplus
extern "C" {
#endif

/* Where, and how. The word of fxTrigger and fxObtain, and the second one of fxTriggerInst, is a pointer to one, or 0. */
typedef struct vuFxEvent
{
    double position[3];
    float velocity[3];  /* of what it happens to, metres per second */
    float direction[3]; /* of any length; 0 for none */
    float scale;        /* 1 is what the settings say */
} vuFxEvent;

/*
 * fxTrigger and fxObtain return a pointer to the instance, 0 when none is free.
 * fxTriggerInst takes a pointer to the instance.
 * fxStopInst returns 1; 0 when the instance was not going on.
 *
 * Of what follows, tolvin run asks for VU_FX_NODE once, after set-up, for VU_FX_ACTIVE and VU_FX_PARTICLES in each frame, and sets
 * VU_FX_INST_POSITION of instances at entities that move.
 */

/* First word of fxGetData. Returns the value, or 1 when it was written to where the second word points; else 0. */
enum
{
    VU_FX_NODE = 1,  /* pfNode * with everything that the effect shows, from fxInit to fxFree, the plug-in's: the
                        application hangs it into its scene, and takes it out before fxFree */
    VU_FX_ACTIVE,    /* number of instances that go on, or are about to end */
    VU_FX_PARTICLES, /* number of particles that are shown */
    VU_FX_WIND /* three metres per second, written to the float * that is the second word; fxSetData: read from there */
};

/* First word of fxGetInstData and fxSetInstData; the second one is a pointer to the instance. */
enum
{
    VU_FX_INST_STATE = 1, /* get: VU_FX_FREE ... */
    VU_FX_INST_AGE, /* get: seconds since it began, written to the double to which the third word points; returns 1 */
    VU_FX_INST_POSITION /* both: third word double *, three metres; set: go on there, as something that moves; returns 1 */
};

enum
{
    VU_FX_FREE,  /* and can be triggered or obtained */
    VU_FX_ON,    /* going on */
    VU_FX_ENDING /* stopped, or over, but not all of it gone yet */
};

/* The entry points, for the compiler to compare with; a plug-in defines those that it has. */
void fxInit(vuRootNode *root, vuEffect *fx);
void fxInitInst(vuRootNode *root, vuEffect *fx, vuEffectInst *inst);
void fxUpdate(vuRootNode *root, vuEffect *fx);
uintptr_t fxTrigger(vuRootNode *root, vuEffect *fx, uintptr_t event);
uintptr_t fxObtain(vuRootNode *root, vuEffect *fx, uintptr_t event);
void fxTriggerInst(vuRootNode *root, vuEffect *fx, uintptr_t inst, uintptr_t event);
uintptr_t fxStopInst(vuRootNode *root, vuEffect *fx, vuEffectInst *inst);
uintptr_t fxGetData(vuRootNode *root, vuEffect *fx, uintptr_t what, uintptr_t where);
uintptr_t fxSetData(vuRootNode *root, vuEffect *fx, uintptr_t what, uintptr_t where);
uintptr_t fxGetInstData(vuRootNode *root, vuEffect *fx, uintptr_t what, uintptr_t inst, uintptr_t where);
uintptr_t fxSetInstData(vuRootNode *root, vuEffect *fx, uintptr_t what, uintptr_t inst, uintptr_t where);
void fxFreeInst(vuRootNode *root, vuEffect *fx, vuEffectInst *inst);
void fxFree(vuRootNode *root, vuEffect *fx);

#ifdef __cplusplus
}
#endif

#endif
