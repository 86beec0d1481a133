/*
 * Reader of SGI image files: a header of 512 bytes, then the planes of the channels, as they are or run-length encoded, all
 * big-endian (P. Haeberli, The SGI Image File Format, version 1.00).
 */
#ifndef TOLVIN_KERNEL_KERNELIMAGE_H
#define TOLVIN_KERNEL_KERNELIMAGE_H

#include "kernelapi.h"
#include "kerneltexture.h"

#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Read the image file that begins at the stream's position 0, where it must stand, into the texture: width, height,
 * components (channels) and image, a buffer of the shared arena with width * height * components bytes, rows from the
 * bottom, pixels from the left, the channels of each side by side. A former image is released. Returns 0 always: a non-null
 * image is success.
 *
 * Channels of two bytes are read by their high byte; whatever else the header says, a channel has one. More than four
 * channels, and sizes of 0, are refused.
 *
 * Any bytes are safe to read. A file that ends early loads what it has, the rest of the texels is 0; the same goes for rows
 * that lie outside the file or where it cannot be read, and a run that is longer than its row ends with it. What makes the reader give up is reported
 * on standard error by module kerneltexture: a short header ("Bad magic!"), no memory, an image that the arena refuses or
 * whose size does not fit, what is refused above. A wrong magic number is not reported.
 *
 * When the header cannot be used, or for want of heap memory, `image` stays as it was; when the arena refuses the image it is
 * null. Width, height and components are set as soon as the magic number is right, so they need not be those of an image
 * that stayed: release it and set `image` to null before, to tell success from failure. Components has 16 bits, a header's
 * 32768 channels and more are negative there.
 *
 * texture, stream  not null; the stream must be seekable and opened for reading. It is left open, at any position.
 */
TOLVIN_API int imageLoadSGI(vuTexture *texture, FILE *stream);

#ifdef __cplusplus
}
#endif

#endif
