/* Everything of libpf, the platform layer. */
#ifndef TOLVIN_PERFORMER_PF_H
#define TOLVIN_PERFORMER_PF_H

#include "pfchannel.h"
#include "pfgeoset.h"
#include "pfgstate.h"
#include "pfisect.h"
#include "pfmaterial.h"
#include "pfmath.h"
#include "pfmemory.h"
#include "pfnode.h"
#include "pfswitch.h"
#include "pftexture.h"
#include "pftransform.h"

#endif
