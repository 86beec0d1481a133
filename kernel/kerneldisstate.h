/*
 * Entity-state record: the Entity State PDU of IEEE 1278.1 without articulation parameters, laid out as on the wire but
 * with every field in host byte order. 144 bytes on every target. Records only; no functions.
 */
#ifndef TOLVIN_KERNEL_KERNELDISSTATE_H
#define TOLVIN_KERNEL_KERNELDISSTATE_H

#include "kernelapi.h"

/* Dead-reckoning algorithms (vuDeadReckoning.algorithm); every other number is treated as static. */
enum
{
    VU_DR_STATIC = 1,
    VU_DR_FPW = 2,
    VU_DR_RPW = 3,
    VU_DR_RVW = 4,
    VU_DR_FVW = 5,
    VU_DR_FPB = 6,
    VU_DR_RPB = 7,
    VU_DR_RVB = 8,
    VU_DR_FVB = 9
};

/* Who: simulation site, application at that site, entity of that application. */
typedef struct vuEntityId
{
    uint16_t site;
    uint16_t application;
    uint16_t entity;
} vuEntityId;

VU_LAYOUT_ANY(vuEntityId, site, 0, 2);
VU_LAYOUT_ANY(vuEntityId, application, 2, 2);
VU_LAYOUT_ANY(vuEntityId, entity, 4, 2);
VU_SIZE_ANY(vuEntityId, 6);

/* What: SISO enumeration of the entity's type. */
typedef struct vuEntityType
{
    uint8_t kind;
    uint8_t domain;
    uint16_t country;
    uint8_t category;
    uint8_t subcategory;
    uint8_t specific;
    uint8_t extra;
} vuEntityType;

VU_LAYOUT_ANY(vuEntityType, kind, 0, 1);
VU_LAYOUT_ANY(vuEntityType, domain, 1, 1);
VU_LAYOUT_ANY(vuEntityType, country, 2, 2);
VU_LAYOUT_ANY(vuEntityType, category, 4, 1);
VU_LAYOUT_ANY(vuEntityType, subcategory, 5, 1);
VU_LAYOUT_ANY(vuEntityType, specific, 6, 1);
VU_LAYOUT_ANY(vuEntityType, extra, 7, 1);
VU_SIZE_ANY(vuEntityType, 8);

typedef struct vuDeadReckoning
{
    uint8_t algorithm;      /* VU_DR_*; dead reckoning may change that of a stored report (kerneldisdr.h) */
    uint8_t parameters[15]; /* other parameters, zero */
    float linearAcc[3];     /* m/s^2, world coordinates; dead reckoning does not use it for algorithms 6 to 9 */
    float angularVel[3];    /* rad/s, body coordinates */
} vuDeadReckoning;

VU_LAYOUT_ANY(vuDeadReckoning, algorithm, 0, 1);
VU_LAYOUT_ANY(vuDeadReckoning, parameters, 1, 15);
VU_LAYOUT_ANY(vuDeadReckoning, linearAcc, 16, 12);
VU_LAYOUT_ANY(vuDeadReckoning, angularVel, 28, 12);
VU_SIZE_ANY(vuDeadReckoning, 40);

typedef struct vuMarking
{
    uint8_t characterSet; /* 1 ASCII */
    char text[11];        /* not NUL-terminated when all 11 are used */
} vuMarking;

VU_LAYOUT_ANY(vuMarking, characterSet, 0, 1);
VU_LAYOUT_ANY(vuMarking, text, 1, 11);
VU_SIZE_ANY(vuMarking, 12);

typedef struct vuEntityState
{
    uint8_t protocolVersion; /* 5 is IEEE 1278.1-1995, 6 is 1278.1A-1998, 7 is 1278.1-2012 */
    uint8_t exerciseId;
    uint8_t pduType;        /* 1 Entity State */
    uint8_t protocolFamily; /* 1 entity information/interaction */
    uint32_t timestamp;     /* DIS time stamp of the report (kerneldis.h) */
    uint16_t length;        /* 144 for this record */
    uint16_t padding;
    vuEntityId entityId;
    uint8_t forceId;
    uint8_t numArticulParam;
    vuEntityType entityType;
    vuEntityType altEntityType;
    float velocity[3];    /* m/s, world coordinates (body coordinates for algorithms 6 to 9) */
    double location[3];   /* world position at the time of the report, metres */
    float orientation[3]; /* psi, theta, phi in radians */
    uint32_t appearance;
    vuDeadReckoning deadReckoning;
    vuMarking marking;
    uint32_t capabilities;
} vuEntityState;

VU_LAYOUT_ANY(vuEntityState, protocolVersion, 0, 1);
VU_LAYOUT_ANY(vuEntityState, exerciseId, 1, 1);
VU_LAYOUT_ANY(vuEntityState, pduType, 2, 1);
VU_LAYOUT_ANY(vuEntityState, protocolFamily, 3, 1);
VU_LAYOUT_ANY(vuEntityState, timestamp, 4, 4);
VU_LAYOUT_ANY(vuEntityState, length, 8, 2);
VU_LAYOUT_ANY(vuEntityState, padding, 10, 2);
VU_LAYOUT_ANY(vuEntityState, entityId, 12, 6);
VU_LAYOUT_ANY(vuEntityState, forceId, 18, 1);
VU_LAYOUT_ANY(vuEntityState, numArticulParam, 19, 1);
VU_LAYOUT_ANY(vuEntityState, entityType, 20, 8);
VU_LAYOUT_ANY(vuEntityState, altEntityType, 28, 8);
VU_LAYOUT_ANY(vuEntityState, velocity, 36, 12);
VU_LAYOUT_ANY(vuEntityState, location, 48, 24);
VU_LAYOUT_ANY(vuEntityState, orientation, 72, 12);
VU_LAYOUT_ANY(vuEntityState, appearance, 84, 4);
VU_LAYOUT_ANY(vuEntityState, deadReckoning, 88, 40);
VU_LAYOUT_ANY(vuEntityState, marking, 128, 12);
VU_LAYOUT_ANY(vuEntityState, capabilities, 140, 4);
VU_SIZE_ANY(vuEntityState, 144);

#endif
