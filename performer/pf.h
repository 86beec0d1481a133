/* Everything of libpf, the platform layer. */
#ifndef TOLVIN_PERFORMER_PF_H
#define TOLVIN_PERFORMER_PF_H

#include "pfmaterial.h"
#include "pfmemory.h"
#include "pftexture.h"

/* Scene-graph nodes, opaque to those who only pass them on. */
typedef struct pfNode pfNode;

#endif
