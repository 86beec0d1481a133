/* Scenes: groups of type VUDB_SCENE. Misuse is reported on standard error (module vuDB/vudbScene) and changes nothing. */
#ifndef TOLVIN_VUDB_VUDBSCENE_H
#define TOLVIN_VUDB_VUDBSCENE_H

#include "vudbGroup.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef vudbGroup vudbScene;

/* As vudbGroupInit, VUDB_SCENE. */
TOLVIN_API void vudbSceneInit(vudbScene *node, const char *name);

/* As vudbGroupFree. The record, which vudbGroupDeleteHierarchy releases, stays. */
TOLVIN_API void vudbSceneFree(vudbScene *node);

#ifdef __cplusplus
}
#endif

#endif
