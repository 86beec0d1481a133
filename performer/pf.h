/* Everything of libpf, the platform layer. */
#ifndef TOLVIN_PERFORMER_PF_H
#define TOLVIN_PERFORMER_PF_H

#include "pfgeoset.h"
#include "pfmaterial.h"
#include "pfmath.h"
#include "pfmemory.h"
#include "pfnode.h"
#include "pftexture.h"

#endif
