/*
 * Messages: every module reports errors, warnings and progress through these two functions, one line each on standard
 * error. Nothing is filtered, buffered or stamped. Level words in use are "Error", "Warning", "Notice", "Info", "Debug".
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
 * format  printf format of the arguments that follow; null prints the prefix and the newline only.
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
