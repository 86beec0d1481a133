/*
 * Motion models: entities that are driven here, with the mouse, and the ground under them.
 *
 * A motion model writes a report of its own, xform.es, as if it had come from the network; dead reckoning moves the entity
 * along from it. Heading psi 0 points along +y and grows counter-clockwise about +z.
 *
 * To begin with, the application sets motionKind, entityFlags, position, orientation and the probes of an entity, and calls
 * resetXForm and then stopXForm, which puts place and attitude into the report; and checkCollisions, or sets groundHeight and
 * groundPoints itself, before doXForm reads them. Each frame, in this order:
 *
 *   the application   writes simSeconds and frameDelta (finite, not negative) of the root node, and time.sim, which is simSeconds
 *   doXForm           steers the driven entity (or doXFormI_COLLIDE, when its movement is restricted)
 *   updateEntityPositions
 *   the application   places the transformation nodes
 *   checkCollisions   finds the ground, for the next frame's doXForm
 *
 * Of the three probes that count, 0 and 1 are a pair across the vehicle and 2 is on its long axis, where the application places
 * them. With 0 at the right front, 1 at the left front and 2 at the rear, theta grows as the nose goes up and phi as the right side
 * goes down, as in DIS.
 */
#ifndef TOLVIN_KERNEL_KERNELXFORM_H
#define TOLVIN_KERNEL_KERNELXFORM_H

#include "../performer/pfutil/pfutil.h"
#include "kernelapi.h"
#include "kerneldisstate.h"

#ifdef __cplusplus
extern "C" {
#endif

struct vuEntity;
struct vuRootNode;

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
    int32_t word10;      /* 0; the application's */
    vuEntityState es;    /* the motion model's own state */
    uint32_t blockA4[9]; /* 0; the application's */
} xform;

VU_LAYOUT(xform, kind, 0x00, 4);
VU_LAYOUT(xform, speed, 0x04, 4);
VU_LAYOUT(xform, accel, 0x08, 4);
VU_LAYOUT(xform, topSpeed, 0x0C, 4);
VU_LAYOUT(xform, word10, 0x10, 4);
VU_LAYOUT(xform, es, 0x14, 144);
VU_LAYOUT(xform, blockA4, 0xA4, 36);
VU_SIZE(xform, 200);

/* Values of xform.kind. */
enum
{
    VU_XFORM_NONE = 0,
    VU_XFORM_DRIVE = 2,
    VU_XFORM_FLY = 3
};

/* Values of vuEntity.turnDirection, and of vuEntity.moveBlock. */
enum
{
    VU_TURN_CLOCKWISE = 1, /* the heading decreases */
    VU_TURN_COUNTERCLOCKWISE = 2,
    VU_BLOCK_FORWARD = 1, /* accelerating is forbidden */
    VU_BLOCK_REVERSE = 2  /* decelerating is */
};

/* Channel: a record of the application, of which the kernel uses only the named fields. */
typedef struct vuChannel
{
    uint8_t reserved000[28];
    pfChannel *channel; /* where the mouse has to be */
    uint8_t reserved020[8];
    int32_t width; /* of its window, pixels; above 0 */
    int32_t height;
    uint8_t reserved030[60];
    pfuMouse mouse; /* filled by doXForm */
    uint8_t reserved08C[272];
    int32_t mouseInput; /* not 0: the channel takes mouse input */
} vuChannel;

VU_LAYOUT(vuChannel, channel, 0x1C, 4);
VU_LAYOUT(vuChannel, width, 0x28, 4);
VU_LAYOUT(vuChannel, height, 0x2C, 4);
VU_LAYOUT(vuChannel, mouse, 0x6C, 32);
VU_LAYOUT(vuChannel, mouseInput, 0x19C, 4);

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

/*
 * Make the motion model the source of an entity's state: speed 0, kind, accel and topSpeed of its motionKind (DRIVE 20000 / 3
 * and 100 / 3.6, FLY 20000 and 250 units per second; others only kind 0), drState = &xform.es, status VU_STATUS_MOVING. A null
 * entity is reported ("Warning").
 */
TOLVIN_API void resetXForm(struct vuEntity *entity);

/*
 * Stop an entity where it is: speed and velocity 0, location and orientation of xform.es those of the entity, and the matrices
 * of dead reckoning made anew. A null entity is reported ("Warning").
 */
TOLVIN_API void stopXForm(struct vuEntity *entity);

/*
 * One frame of driving with the mouse, of an entity of motion kind DRIVE or FLY.
 *
 * An entity that follows the terrain first takes its height from groundHeight, and in DRIVE its pitch and roll from
 * groundPoints: pitch from point 2 to the middle of points 0 and 1, kept below 50 degrees, roll from point 0 to point 1, below
 * 45; steeper ones change nothing. Then, when the channel takes input, the mouse is in it, and a button is held:
 *
 *   left     accelerates, and turns by 1.125 degrees a frame times the pointer's distance from the middle of the window (1 at
 *            its sides, to the right clockwise), whatever the frame takes
 *   right    decelerates, down to reverse, and turns
 *   middle   turns, and notes the direction in turnDirection
 *   several  stop the entity (stopXForm)
 *
 * moveLock forbids changes of speed, and turning with the middle button. The report is then stamped as received at simSeconds,
 * and, unless stopped, given its new velocity, and its place after frameDelta seconds; z of both stays. The heading is kept
 * within -pi to pi.
 *
 * No entity, no channel, and an entity of another kind are reported ("Warning") and change nothing. root must not be null. An
 * entity without a driver keeps its velocity.
 */
TOLVIN_API void doXForm(struct vuRootNode *root, struct vuEntity *entity, vuChannel *channel);

/*
 * As doXForm, for an entity whose movement the application restricts: moveBlock (VU_BLOCK_*) forbids one way of changing
 * the speed, turnDirection (VU_TURN_*, only read) one way of turning, moveLock nothing. Only the middle button turns. With the
 * pointer in the very middle, the direction refused or not is that of the call before, of whatever entity. An entity of
 * another kind is reported as "Info". Not for several threads at once.
 */
TOLVIN_API void doXFormI_COLLIDE(struct vuRootNode *root, struct vuEntity *entity, vuChannel *channel);

/*
 * Find the ground under all entities of motion kind DRIVE or FLY that follow the terrain or whose collision count
 * (collideCount[1]) is above 0, and that have a transformation node (nodes[1], a pfDCS), in all scenes of the root node.
 *
 * A segment of 150000 straight down from the origin of that node, against sceneNode of the scene with its collideWord as mask,
 * gives groundDistance (from that origin) and groundHeight; without a hit they stay. position and location of xform.es get
 * groundHeight as z where that is less than groundDistance. In DRIVE, the first three probes give groundPoints: where they
 * hit, or their own starts in world coordinates; one that hits gives the entity groundHeight as z where that is greater than
 * groundDistance. An entity does not meet itself: its node is hidden (its PFTRAV_ISECT mask 0) meanwhile, and has the mask
 * word18 afterwards.
 *
 * Four intersections for each DRIVE entity, one for others. A scene without sceneNode has no ground, which pfNodeIsectSegs reports
 * for each of them, and a node that is no pfDCS counts as one at the origin. root must not be null.
 */
TOLVIN_API void checkCollisions(struct vuRootNode *root);

#ifdef __cplusplus
}
#endif

#endif
