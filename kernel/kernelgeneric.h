/*
 * Root node and options: the one record that ties a run of the kernel together.
 *
 * The application owns exactly one root node, initialises it before any other kernel call, fills its lists and passes it
 * to everything that works on all of something. Effect plug-ins get the same pointer. The library never frees it, and the
 * application may place data of its own behind it. It has 900 bytes, with fixed offsets, on the 32-bit target.
 */
#ifndef TOLVIN_KERNEL_KERNELGENERIC_H
#define TOLVIN_KERNEL_KERNELGENERIC_H

#include "kernelapi.h"
#include "kernelvulist.h"
#include "kernelvunode.h"
#include "kernelvutime.h"

#ifdef __cplusplus
extern "C" {
#endif

struct vuEntity;

enum
{
    VU_RECEPTION_NEEDED = 1 /* value in vuRootNode.receiveFlags */
};

/* Configuration for the application; no kernel operation reads it. */
typedef struct vuOptions
{
    int32_t option[10];  /* 1, 1, 0, 3, 0, 0, 0, 0, 0, 1 */
    float factor;        /* 1.0 */
    float frameRate;     /* frames per second, 25.0 */
    float frameTime;     /* seconds, period of frameRate, 0.04 */
    int32_t option10;    /* 2 */
    int32_t reserved[5]; /* untouched */
    int32_t option11[2]; /* 0, 0 */
} vuOptions;

VU_LAYOUT_ANY(vuOptions, option, 0x00, 40);
VU_LAYOUT_ANY(vuOptions, factor, 0x28, 4);
VU_LAYOUT_ANY(vuOptions, frameRate, 0x2C, 4);
VU_LAYOUT_ANY(vuOptions, frameTime, 0x30, 4);
VU_LAYOUT_ANY(vuOptions, option10, 0x34, 4);
VU_LAYOUT_ANY(vuOptions, reserved, 0x38, 20);
VU_LAYOUT_ANY(vuOptions, option11, 0x4C, 8);
VU_SIZE_ANY(vuOptions, 84);

/* Words named by their offset carry nothing the library reads. Reserved ranges are left untouched by initRootNode. */
typedef struct vuRootNode
{
    uint16_t version[4];   /* 1, 2, 2, 4261 */
    uint32_t receiveFlags; /* VU_RECEPTION_NEEDED when some entity receives DIS or UDP (entityAllocVars); 0 */
    vulist lists0;         /* empty; not used by the library */
    vulist scenes;         /* the scenes (kernelentity.h) */
    vulist lists1[6];      /* empty; not used by the library */
    vulist textureLists;   /* the texture lists */
    vulist materialLists;  /* the material lists */
    vulist effects;        /* the effects */
    vulist lists2;         /* empty; not used by the library */
    uint32_t word6C;       /* 0 */
    uint8_t reserved070[4];
    double simSeconds; /* simulation time, seconds; the application writes it every frame; untouched */
    uint8_t reserved07C[8];
    double frameDelta; /* duration of the current frame, seconds; written like simSeconds; untouched */
    uint8_t reserved08C[4];
    vutime time;                /* the clocks, by vutimeInit */
    vulist lists3;              /* empty; not used by the library */
    vuOptions options;          /* by initOptions */
    uint32_t word168;           /* 0 */
    uint32_t word16C;           /* 0 */
    struct vuEntity *ownEntity; /* the locally driven entity, which dead reckoning moves without DIS; null */
    uint32_t word174;           /* 0 */
    uint32_t word178[2];        /* 0, 0 */
    uint32_t word180;           /* 2 */
    uint8_t reserved184[4];
    float factors[4];    /* 1.0 each */
    uint32_t word198[2]; /* 0, 0 */
    char suffix[16];     /* default model file suffix, ".pfb" */
    char text1B0[260];   /* a default name for the application, "fid" */
    uint32_t word2B4[3]; /* 0 */
    uint8_t reserved2C0[8];
    uint32_t block2C8[9]; /* 0 */
    uint8_t reserved2EC[12];
    uint32_t word2F8;    /* 0 */
    vulist lists4[4];    /* empty; not used by the library */
    uint32_t word31C[3]; /* 0 */
    vuList glists[3];    /* empty; not used by the library */
    uint32_t word370[5]; /* 0 */
} vuRootNode;

VU_LAYOUT(vuRootNode, version, 0x000, 8);
VU_LAYOUT(vuRootNode, receiveFlags, 0x008, 4);
VU_LAYOUT(vuRootNode, lists0, 0x00C, 8);
VU_LAYOUT(vuRootNode, scenes, 0x014, 8);
VU_LAYOUT(vuRootNode, lists1, 0x01C, 48);
VU_LAYOUT(vuRootNode, textureLists, 0x04C, 8);
VU_LAYOUT(vuRootNode, materialLists, 0x054, 8);
VU_LAYOUT(vuRootNode, effects, 0x05C, 8);
VU_LAYOUT(vuRootNode, lists2, 0x064, 8);
VU_LAYOUT(vuRootNode, word6C, 0x06C, 4);
VU_LAYOUT(vuRootNode, reserved070, 0x070, 4);
VU_LAYOUT(vuRootNode, simSeconds, 0x074, 8);
VU_LAYOUT(vuRootNode, reserved07C, 0x07C, 8);
VU_LAYOUT(vuRootNode, frameDelta, 0x084, 8);
VU_LAYOUT(vuRootNode, reserved08C, 0x08C, 4);
VU_LAYOUT(vuRootNode, time, 0x090, 124);
VU_LAYOUT(vuRootNode, time.sim.sec, 0x0A0, 4);
VU_LAYOUT(vuRootNode, time.sim.usec, 0x0A4, 4);
VU_LAYOUT(vuRootNode, lists3, 0x10C, 8);
VU_LAYOUT(vuRootNode, options, 0x114, 84);
VU_LAYOUT(vuRootNode, word168, 0x168, 4);
VU_LAYOUT(vuRootNode, word16C, 0x16C, 4);
VU_LAYOUT(vuRootNode, ownEntity, 0x170, 4);
VU_LAYOUT(vuRootNode, word174, 0x174, 4);
VU_LAYOUT(vuRootNode, word178, 0x178, 8);
VU_LAYOUT(vuRootNode, word180, 0x180, 4);
VU_LAYOUT(vuRootNode, reserved184, 0x184, 4);
VU_LAYOUT(vuRootNode, factors, 0x188, 16);
VU_LAYOUT(vuRootNode, word198, 0x198, 8);
VU_LAYOUT(vuRootNode, suffix, 0x1A0, 16);
VU_LAYOUT(vuRootNode, text1B0, 0x1B0, 260);
VU_LAYOUT(vuRootNode, word2B4, 0x2B4, 12);
VU_LAYOUT(vuRootNode, reserved2C0, 0x2C0, 8);
VU_LAYOUT(vuRootNode, block2C8, 0x2C8, 36);
VU_LAYOUT(vuRootNode, reserved2EC, 0x2EC, 12);
VU_LAYOUT(vuRootNode, word2F8, 0x2F8, 4);
VU_LAYOUT(vuRootNode, lists4, 0x2FC, 32);
VU_LAYOUT(vuRootNode, word31C, 0x31C, 12);
VU_LAYOUT(vuRootNode, glists, 0x328, 72);
VU_LAYOUT(vuRootNode, word370, 0x370, 20);
VU_SIZE(vuRootNode, 900);

/* Write the defaults named in the record; the reserved words keep their contents. options must not be null. */
TOLVIN_API void initOptions(vuOptions *options);

/*
 * Give the root node its start values, once, before any other kernel call. root must not be null and counts as raw memory,
 * of which these stay untouched: the reserved ranges, simSeconds, frameDelta, time.animSeconds, and what lies behind the
 * terminating NUL of suffix and text1B0. Reads the system clock (vutimeInit, which reports a clock that cannot be read)
 * and prints one "Debug" line, "NO_FORK_X".
 */
TOLVIN_API void initRootNode(vuRootNode *root);

#ifdef __cplusplus
}
#endif

#endif
