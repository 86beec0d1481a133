/* The whole public interface of libtolvin. */
#ifndef TOLVIN_KERNEL_TOLVIN_H
#define TOLVIN_KERNEL_TOLVIN_H

#include "kerneldis.h"
#include "kerneldisdr.h"
#include "kerneldisprint.h"
#include "kerneldisstate.h"
#include "kerneldistext.h"
#include "kernelentity.h"
#include "kernelfx.h"
#include "kernelgeneric.h"
#include "kernelimage.h"
#include "kernelmaterial.h"
#include "kernelnoise.h"
#include "kerneltexture.h"
#include "kernelutil.h"
#include "kernelvulist.h"
#include "kernelvunode.h"
#include "kernelvutime.h"
#include "kernelxform.h"

#endif
