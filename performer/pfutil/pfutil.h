/* Everything of libpfutil, what goes with the platform layer. */
#ifndef TOLVIN_PERFORMER_PFUTIL_PFUTIL_H
#define TOLVIN_PERFORMER_PFUTIL_PFUTIL_H

#include "pfumouse.h"

#endif
