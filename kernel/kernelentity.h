/*
 * Scenes, entities and the shared-memory variables of entities.
 *
 * An entity is one simulated object (vehicle, aircraft, ship). Entities are named nodes of type VU_NODE_ENTITY from the
 * shared arena, kept in the entity list of a scene; scenes are records of the application that hang in the root node's
 * scene list. Each entity can own a block of variables, in the arena or in a System V shared-memory segment that a
 * separate receiving program attaches to by key.
 */
#ifndef TOLVIN_KERNEL_KERNELENTITY_H
#define TOLVIN_KERNEL_KERNELENTITY_H

#include "../performer/pf.h"
#include "kernelapi.h"
#include "kerneldis.h"
#include "kerneldisstate.h"
#include "kernelvunode.h"
#include "kernelxform.h"

#ifdef __cplusplus
extern "C" {
#endif

struct vuRootNode;

/* Bits of vuEntity.receive. */
enum
{
    VU_RECEIVE_UDP = 1,
    VU_RECEIVE_DIS = 2
};

enum
{
    VU_ENTITY_FOLLOW_TERRAIN = 4, /* bit of vuEntity.entityFlags */
    VU_STATUS_MOVING = 2,         /* vuEntity.status: dead reckoning moves the entity */
    VU_SHM_FIRST_KEY = 2000       /* keys from here on select a shared-memory segment */
};

/*
 * Scene: a record of the application, which allocates, fills and frees it and may put data of its own into the reserved
 * ranges and behind the record. The kernel uses only the named fields.
 */
typedef struct vuScene
{
    vunode node;
    uint8_t reserved010[48];
    pfNode *sceneNode; /* geometry that terrain collision intersects */
    uint8_t reserved044[336];
    vulist entities; /* the scene's entities, in insertion order */
    uint8_t reserved19C[57];
    uint8_t disApplication; /* DIS application number of new entity identities */
    uint8_t disSite;        /* DIS site number of new entity identities */
    uint8_t reserved1D7[3];
    uint16_t disNextEntity; /* next DIS entity number to try */
    uint8_t reserved1DC[4];
    uint32_t collideWord; /* intersection mask of the collision segments */
} vuScene;

VU_LAYOUT(vuScene, node, 0x000, 16);
VU_LAYOUT(vuScene, sceneNode, 0x040, 4);
VU_LAYOUT(vuScene, entities, 0x194, 8);
VU_LAYOUT(vuScene, disApplication, 0x1D5, 1);
VU_LAYOUT(vuScene, disSite, 0x1D6, 1);
VU_LAYOUT(vuScene, disNextEntity, 0x1DA, 2);
VU_LAYOUT(vuScene, collideWord, 0x1E0, 4);

/* Layout of an entity's variables record: owned by the application, of which the kernel reads the size. */
typedef struct vuVariablesLayout
{
    uint8_t reserved00[24];
    uint32_t size; /* bytes of the variables record; 0 means none */
} vuVariablesLayout;

VU_LAYOUT(vuVariablesLayout, size, 24, 4);

/* Definition of an entity: owned and filled by the application. */
typedef struct vuDefinition
{
    uint8_t reserved00[24];
    char *fileName; /* model file name, or null */
    uint8_t reserved1C[28];
    vuVariablesLayout *layout; /* layout of the variables record, or null */
} vuDefinition;

VU_LAYOUT(vuDefinition, fileName, 24, 4);
VU_LAYOUT(vuDefinition, layout, 56, 4);

/* One sample or step of the smoothing buffer. */
typedef struct vuSmoothRecord
{
    uint32_t word[6];
} vuSmoothRecord;

/* Smoothing buffer: made and initialised by the kernel, filled and read by the application. */
typedef struct vuSmooth
{
    uint16_t length;     /* 16 */
    uint16_t counter[3]; /* 0 */
    vuSmoothRecord samples[32];
    vuSmoothRecord steps[31];
} vuSmooth;

VU_LAYOUT_ANY(vuSmooth, length, 0, 2);
VU_LAYOUT_ANY(vuSmooth, counter, 2, 6);
VU_LAYOUT_ANY(vuSmooth, samples, 8, 768);
VU_LAYOUT_ANY(vuSmooth, steps, 776, 744);
VU_SIZE_ANY(vuSmooth, 1520);

/* Collision probe: a segment that starts at pos (entity coordinates) and points along dir (world axes). */
typedef struct vuProbe
{
    float pos[3];
    float dir[3];
    float length;
} vuProbe;

VU_LAYOUT_ANY(vuProbe, pos, 0, 12);
VU_LAYOUT_ANY(vuProbe, dir, 12, 12);
VU_LAYOUT_ANY(vuProbe, length, 24, 4);
VU_SIZE_ANY(vuProbe, 28);

/* Fields marked "untouched" keep through entityInit what the allocation left in them. */
typedef struct vuEntity
{
    vunode node;              /* type VU_NODE_ENTITY */
    uint32_t id;              /* kernel sequence number, from 0, unique for the life of the process */
    uint16_t motionKind;      /* VU_MOTION_*, default 0 */
    uint16_t entityFlags;     /* VU_ENTITY_FOLLOW_TERRAIN and others, default 128 */
    uint32_t word18;          /* the entity's own intersection mask, default all bits */
    uint16_t status;          /* VU_STATUS_MOVING or the application's; untouched; set by disChangeStatus */
    uint16_t prevStatus;      /* status before the last change; untouched */
    double position[3];       /* current world position, metres; untouched; written by dead reckoning */
    float orientation[3];     /* current psi, theta, phi, radians; untouched; written by dead reckoning */
    vuDefinition *definition; /* the application's, default null */
    vulist lists[3];          /* empty; not used by the kernel */
    uint32_t receive;         /* VU_RECEIVE_*, default 0 */
    void *vars;               /* variables record, in the arena or an attached segment; default null */
    float groundDistance;     /* distance to the ground found by terrain collision, default 0 */
    float groundHeight;       /* height of the ground under the entity; untouched */
    pfNode *nodes[4];         /* default null; the second is the transformation node */
    uint8_t reserved080[48];  /* untouched */
    uint32_t vecB0[12];       /* 0; not read by the kernel */
    float vecE0[3];           /* 1.0 each; not read by the kernel */
    uint8_t reserved0EC[128]; /* untouched */
    uint32_t word16C[3];      /* 0; not read by the kernel */
    uint8_t reserved178[4];   /* untouched */
    int32_t shmCreated;       /* 1 when this process created the segment; default 0 */
    int32_t shmId;            /* segment identifier, -1 when none is attached */
    int32_t shmKey;           /* segment key, default 0 */
    uint32_t word188[5];      /* 0; not read by the kernel */
    int32_t word19C;          /* -1; not read by the kernel */
    int32_t moveLock;         /* control gate of the motion model, default 0 */
    int32_t turnDirection;    /* last or refused turn direction, default 0 */
    int32_t moveBlock;        /* speed block after a collision, default 0 */
    struct xform xform;       /* motion model, by initXForm */
    vuEntityState *drState;   /* report that dead reckoning extrapolates, default null; the application's */
    vuEntityId disId;         /* DIS identity; untouched */
    uint8_t reserved27E[26];  /* untouched */
    double pduTime;           /* seconds past the hour of the report's stamp; untouched */
    double recvTime;          /* local time of reception, seconds; default 0 */
    double timeOffset;        /* recvTime modulo 3600 minus pduTime; default 0 */
    vuDisMatrix drMatrix;     /* orientation matrix of the report, body to world; untouched, as all that follow */
    vuDisMatrix omegaSkew;    /* cross-product matrix of the angular velocity; its diagonal is never used */
    vuDisMatrix omegaOuter;   /* outer product of the angular velocity with itself */
    vuDisMatrix drInverse;    /* inverse of drMatrix, for the body-coordinate algorithms */
    vuDisMatrix drR1;         /* integrated rotation, for the body-coordinate position */
    uint8_t reserved364[36];  /* untouched */
    double omega;             /* magnitude of the angular velocity, rad/s; untouched */
    int32_t randomValue;      /* from rand(), for the application */
    int32_t word394;          /* 0; not read by the kernel */
    uint8_t reserved398[48];  /* untouched */
    vuSmooth *smooth;         /* smoothing buffer in the arena, or null when there was no room; freed by the owner */
    int32_t collideCount[2];  /* 0; the second is the collision count read by terrain collision */
    vuProbe probes[5];        /* each pos 0, dir (0, 0, -1), length 5 */
    float groundPoints[3][3]; /* ground points found by terrain collision; untouched */
    uint8_t reserved484[24];  /* untouched */
} vuEntity;

VU_LAYOUT(vuEntity, node, 0x000, 16);
VU_LAYOUT(vuEntity, id, 0x010, 4);
VU_LAYOUT(vuEntity, motionKind, 0x014, 2);
VU_LAYOUT(vuEntity, entityFlags, 0x016, 2);
VU_LAYOUT(vuEntity, word18, 0x018, 4);
VU_LAYOUT(vuEntity, status, 0x01C, 2);
VU_LAYOUT(vuEntity, prevStatus, 0x01E, 2);
VU_LAYOUT(vuEntity, position, 0x020, 24);
VU_LAYOUT(vuEntity, orientation, 0x038, 12);
VU_LAYOUT(vuEntity, definition, 0x044, 4);
VU_LAYOUT(vuEntity, lists, 0x048, 24);
VU_LAYOUT(vuEntity, receive, 0x060, 4);
VU_LAYOUT(vuEntity, vars, 0x064, 4);
VU_LAYOUT(vuEntity, groundDistance, 0x068, 4);
VU_LAYOUT(vuEntity, groundHeight, 0x06C, 4);
VU_LAYOUT(vuEntity, nodes, 0x070, 16);
VU_LAYOUT(vuEntity, reserved080, 0x080, 48);
VU_LAYOUT(vuEntity, vecB0, 0x0B0, 48);
VU_LAYOUT(vuEntity, vecE0, 0x0E0, 12);
VU_LAYOUT(vuEntity, reserved0EC, 0x0EC, 128);
VU_LAYOUT(vuEntity, word16C, 0x16C, 12);
VU_LAYOUT(vuEntity, reserved178, 0x178, 4);
VU_LAYOUT(vuEntity, shmCreated, 0x17C, 4);
VU_LAYOUT(vuEntity, shmId, 0x180, 4);
VU_LAYOUT(vuEntity, shmKey, 0x184, 4);
VU_LAYOUT(vuEntity, word188, 0x188, 20);
VU_LAYOUT(vuEntity, word19C, 0x19C, 4);
VU_LAYOUT(vuEntity, moveLock, 0x1A0, 4);
VU_LAYOUT(vuEntity, turnDirection, 0x1A4, 4);
VU_LAYOUT(vuEntity, moveBlock, 0x1A8, 4);
VU_LAYOUT(vuEntity, xform, 0x1AC, 200);
VU_LAYOUT(vuEntity, xform.es, 0x1C0, 144);
VU_LAYOUT(vuEntity, drState, 0x274, 4);
VU_LAYOUT(vuEntity, disId, 0x278, 6);
VU_LAYOUT(vuEntity, reserved27E, 0x27E, 26);
VU_LAYOUT(vuEntity, pduTime, 0x298, 8);
VU_LAYOUT(vuEntity, recvTime, 0x2A0, 8);
VU_LAYOUT(vuEntity, timeOffset, 0x2A8, 8);
VU_LAYOUT(vuEntity, drMatrix, 0x2B0, 36);
VU_LAYOUT(vuEntity, omegaSkew, 0x2D4, 36);
VU_LAYOUT(vuEntity, omegaOuter, 0x2F8, 36);
VU_LAYOUT(vuEntity, drInverse, 0x31C, 36);
VU_LAYOUT(vuEntity, drR1, 0x340, 36);
VU_LAYOUT(vuEntity, reserved364, 0x364, 36);
VU_LAYOUT(vuEntity, omega, 0x388, 8);
VU_LAYOUT(vuEntity, randomValue, 0x390, 4);
VU_LAYOUT(vuEntity, word394, 0x394, 4);
VU_LAYOUT(vuEntity, reserved398, 0x398, 48);
VU_LAYOUT(vuEntity, smooth, 0x3C8, 4);
VU_LAYOUT(vuEntity, collideCount, 0x3CC, 8);
VU_LAYOUT(vuEntity, probes, 0x3D4, 140);
VU_LAYOUT(vuEntity, groundPoints, 0x460, 36);
VU_LAYOUT(vuEntity, reserved484, 0x484, 24);
VU_SIZE(vuEntity, 1180);

/*
 * Allocate an entity from the shared arena and entityInit it without a name. The scene is only checked; the entity is
 * not added to it. Null with a message when scene is null or the arena is exhausted. Owned by the caller: release with
 * entityReleaseSharedMem, entityRemove, then pfFree of smooth, node.name and the entity.
 */
TOLVIN_API vuEntity *entityCreate(vuScene *scene);

/*
 * Give an entity's fields their start values (see the record); entity counts as raw memory, nothing in it is released.
 * name may be null. Takes the smoothing buffer from the shared arena; smooth is null when there is no room.
 */
TOLVIN_API void entityInit(vuEntity *entity, const char *name);

/* Append the entity to, or unlink it from, the scene's entity list. A null argument prints "No scene or entity". */
TOLVIN_API void entityAppend(vuScene *scene, vuEntity *entity);
TOLVIN_API void entityRemove(vuScene *scene, vuEntity *entity);

/*
 * First entity in list order with that name (exact, case-sensitive). Null, with a warning, when there is none. Neither
 * argument may be null.
 */
TOLVIN_API vuEntity *entityFindNamed(vuScene *scene, const char *name);

/*
 * First entity in list order whose definition has that model file name (exact, case-sensitive); null when there is none,
 * without a message. Neither argument may be null.
 */
TOLVIN_API vuEntity *entityFindFilename(vuScene *scene, const char *fileName);

/*
 * Report network reception (one "Notice" for DIS, one for UDP, and VU_RECEPTION_NEEDED in the root's receiveFlags) and
 * give the entity its variables record of the size that its definition names: from the shared arena for keys below
 * VU_SHM_FIRST_KEY (vars null when there is no room, without a message), else by entityAttachToSharedMemory. Without
 * definition, layout or size there is no record. A former record is not released: call entityReleaseSharedMem before.
 * Neither argument may be null.
 */
TOLVIN_API void entityAllocVars(struct vuRootNode *root, vuEntity *entity);

/*
 * Find or create (mode 0666) the System V segment of the entity's key and attach it to vars. shmCreated tells whether
 * this process created it: that process removes it. Two programs that look for the segment in the same instant can both
 * count as its creator; each then removes it, and who is attached keeps it until the detach. A private key (0,
 * IPC_PRIVATE) always creates a segment. A former record from the arena is not released: call entityReleaseSharedMem
 * before.
 *
 * Returns 1 on success and when the entity has no variables. Returns 0 when shmId names a segment already (nothing
 * changes); with an "Error" when the segment can be neither found nor created, for example because an existing one is
 * too small (shmId is then -1); and with an "Error" when it cannot be attached, or when the entity has no variables and
 * vars holds what shmat returns on failure, all bits set (vars is then null, and shmId keeps the segment: release it
 * before the next try). entity must not be null.
 */
TOLVIN_API int entityAttachToSharedMemory(vuEntity *entity);

/*
 * Release the variables record: pfFree for the arena, detach for a segment, which is also removed when this process
 * created it. Afterwards vars is null and shmId -1; shmCreated keeps its value. Safe on an entity without variables and
 * after a failed attach, where it removes the segment if this process created it. entity must not be null.
 */
TOLVIN_API void entityReleaseSharedMem(vuEntity *entity);

/* Length 16, everything else 0. buffer must not be null. */
TOLVIN_API void smoothInit(vuSmooth *buffer);

#ifdef __cplusplus
}
#endif

#endif
