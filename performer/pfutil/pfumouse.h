/*
 * The mouse, of libpfutil. Whoever has the window, or a script in its place, says what the mouse does; others ask. One mouse
 * for the process, which any thread may set and read.
 */
#ifndef TOLVIN_PERFORMER_PFUTIL_PFUMOUSE_H
#define TOLVIN_PERFORMER_PFUTIL_PFUMOUSE_H

#include "../pfchannel.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Buttons held, bits of pfuMouse.flags. */
enum
{
    PFUMOUSE_RIGHT = 1,
    PFUMOUSE_MIDDLE = 2,
    PFUMOUSE_LEFT = 4
};

typedef struct pfuMouse
{
    unsigned int flags;
    int reserved;
    int x;        /* pointer, pixels from the left of the window */
    int y;        /* and from below */
    int inWindow; /* whether the pointer is in the window: not 0 */
    int reserved14[3];
} pfuMouse;

/* Set what pfuGetMouse reads. mouse must not be null. */
PF_API void pfuSetMouse(const pfuMouse *mouse);

/* Read the mouse: no button, at (0, 0), not in the window, as long as nobody has set it. mouse must not be null. */
PF_API void pfuGetMouse(pfuMouse *mouse);

/* Whether the pointer is in the window, and there in the part of a channel: 1 or 0. mouse must not be null. */
PF_API int pfuMouseInChan(pfuMouse *mouse, pfChannel *channel);

#ifdef __cplusplus
}
#endif

#endif
