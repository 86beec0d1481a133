/*
 * Messages: every module reports errors, warnings and progress through these two functions, one line each on standard
 * error. Nothing is filtered or stamped. Level words in use are "Error", "Warning", "Notice", "Info", "Debug". Colour is
 * ANSI sequences inside the message; the prefix never has any. Lines of several threads do not mix, nor do those of
 * several processes as long as they are shorter than 2048 bytes.
 */
#ifndef TOLVIN_KERNEL_KERNELUTIL_H
#define TOLVIN_KERNEL_KERNELUTIL_H

#include "kernelapi.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Print "<file>:<line> <level>: ", then the formatted message, then one newline.
 *
 * level   level word; printed as "(null)" when null.
 * file    module name, without file extension; printed as "(null)" when null.
 * line    line number of the message within its module.
 * format  printf format of the arguments that follow; null prints the prefix and the newline only. One that ends in a
 *         newline gives an empty line behind the message.
 */
TOLVIN_API void vu_warn(const char *level, const char *file, int line, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

/* As vu_warn, but without the prefix when level is null. */
TOLVIN_API void vuMessage(const char *level, const char *file, int line, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

#ifdef __cplusplus
}
#endif

#endif
