/* Objects: named parts of a model. Misuse is reported on standard error (module vuDB/vudbObject) and changes nothing. */
#ifndef TOLVIN_VUDB_VUDBOBJECT_H
#define TOLVIN_VUDB_VUDBOBJECT_H

#include "vudbGroup.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef vudbGroup vudbObject;

/* The type of objects, VUDB_DCS by another name. */
#define VUDB_OBJECT VUDB_DCS

/* As vudbGroupInit, VUDB_OBJECT. */
TOLVIN_API void vudbObjectInit(vudbObject *node, const char *name);

/* As vudbGroupFree. */
TOLVIN_API void vudbObjectFree(vudbObject *node);

#ifdef __cplusplus
}
#endif

#endif
