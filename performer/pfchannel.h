/*
 * Channels: views of a scene in a part of a window. They keep what they are given, for a renderer to use. A channel is a block
 * of pfNewChan's arena with the reference count of pfmemory.h, and holds a reference to its scene. No function takes a lock. A
 * null channel, or an object that is none, is reported on standard error and changes nothing; nothing is written then, and 0
 * returned. Pointers to write to may be null, those to read from not.
 */
#ifndef TOLVIN_PERFORMER_PFCHANNEL_H
#define TOLVIN_PERFORMER_PFCHANNEL_H

#include "pfnode.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct pfChannel pfChannel;

/* A new channel: no scene, 640 x 480 pixels, the whole of it, 45 degrees wide, from 1 to 10000, seen from the origin to +y. */
PF_API pfChannel *pfNewChan(void *arena);

/* The size of the window, pixels. */
PF_API void pfChanWindowSize(pfChannel *channel, int width, int height);
PF_API void pfGetChanWindowSize(const pfChannel *channel, int *width, int *height);

/* The part of the window, as fractions of its width from the left and of its height from below. */
PF_API void pfChanViewport(pfChannel *channel, float left, float right, float bottom, float top);
PF_API void pfGetChanViewport(const pfChannel *channel, float *left, float *right, float *bottom, float *top);

/* Whether a pixel of the window, counted from its lower left, is in the channel: 1 or 0. */
PF_API int pfChanContainsPixel(const pfChannel *channel, int x, int y);

/* Opening angles, degrees; a vertical one of 0 follows from the window's sides. */
PF_API void pfChanFOV(pfChannel *channel, float horizontal, float vertical);
PF_API void pfGetChanFOV(const pfChannel *channel, float *horizontal, float *vertical);

PF_API void pfChanNearFar(pfChannel *channel, float nearest, float farthest);
PF_API void pfGetChanNearFar(const pfChannel *channel, float *nearest, float *farthest);

/* The eye: place, and heading, pitch and roll in degrees (pfMakeEulerMat). */
PF_API void pfChanView(pfChannel *channel, const pfVec3 xyz, const pfVec3 hpr);
PF_API void pfGetChanView(const pfChannel *channel, pfVec3 xyz, pfVec3 hpr);

/* What is seen; null for nothing. */
PF_API void pfChanScene(pfChannel *channel, pfScene *scene);
PF_API pfScene *pfGetChanScene(const pfChannel *channel);

#ifdef __cplusplus
}
#endif

#endif
