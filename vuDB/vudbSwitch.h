/* Switches: groups of type VUDB_SWITCH. Misuse is reported on standard error (module vuDB/vudbSwitch) and changes nothing. */
#ifndef TOLVIN_VUDB_VUDBSWITCH_H
#define TOLVIN_VUDB_VUDBSWITCH_H

#include "vudbGroup.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef vudbGroup vudbSwitch;

/* As vudbGroupInit, VUDB_SWITCH. */
TOLVIN_API void vudbSwitchInit(vudbSwitch *node, const char *name);

/* As vudbGroupFree. */
TOLVIN_API void vudbSwitchFree(vudbSwitch *node);

#ifdef __cplusplus
}
#endif

#endif
