/*
 * Motion-model record of an entity and its set-up.
 */
#ifndef TOLVIN_KERNEL_KERNELXFORM_H
#define TOLVIN_KERNEL_KERNELXFORM_H

#include "kernelapi.h"
#include "kerneldisstate.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Motion kinds of an entity (vuEntity.motionKind). */
enum
{
    VU_MOTION_NONE = 0,
    VU_MOTION_DRIVE = 1,
    VU_MOTION_FLY = 2
};

typedef struct xform
{
    int32_t kind;        /* model in force: 0 none, 2 drive, 3 fly (not VU_MOTION_*); for the application */
    float speed;         /* along the heading, world units per second; negative is reverse */
    float accel;         /* speed change per second while a button is held, default 20000 / 3 */
    float topSpeed;      /* limit of the speed in both directions, default 100 / 3.6 */
    int32_t word10;      /* 0; not read by the library */
    vuEntityState es;    /* the motion model's own state */
    uint32_t blockA4[9]; /* 0; not read by the library */
} xform;

VU_LAYOUT(xform, kind, 0x00, 4);
VU_LAYOUT(xform, speed, 0x04, 4);
VU_LAYOUT(xform, accel, 0x08, 4);
VU_LAYOUT(xform, topSpeed, 0x0C, 4);
VU_LAYOUT(xform, word10, 0x10, 4);
VU_LAYOUT(xform, es, 0x14, 144);
VU_LAYOUT(xform, blockA4, 0xA4, 36);
VU_SIZE(xform, 200);

/* Dead-reckoning parameters: algorithm 4 (RVW), everything else 0. dr must not be null. */
TOLVIN_API void setupDR(vuDeadReckoning *dr);

/*
 * Default entity-state record, every byte written: protocol version 5, exercise 1, Entity State, stamped now (relative),
 * entity (1, 1, 1), type 1.2.78.1.0.0.0, at rest at the origin, setupDR, marking "xform" padded with blanks. es must not
 * be null.
 */
TOLVIN_API void setupES(vuEntityState *es);

/* Motion model at rest with the DRIVE acceleration and top speed, no model in force, es by setupES. model must not be null. */
TOLVIN_API void initXForm(xform *model);

#ifdef __cplusplus
}
#endif

#endif
