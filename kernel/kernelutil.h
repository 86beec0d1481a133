/*
 * Messages, and small helpers around files.
 *
 * Messages: every module reports errors, warnings and progress through these two functions, one line each on standard
 * error. Nothing is filtered or stamped. Level words in use are "Error", "Warning", "Notice", "Info", "Debug". Colour
 * is ANSI sequences inside the message; the prefix never has any. Lines of several threads do not mix, nor do those of
 * several processes as long as they are shorter than 2048 bytes.
 */
#ifndef TOLVIN_KERNEL_KERNELUTIL_H
#define TOLVIN_KERNEL_KERNELUTIL_H

#include "kernelapi.h"

#include <stdio.h>

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

/* 1 when path names a regular file of more than 0 bytes (links followed), else 0; also for null. */
TOLVIN_API int fileExist(const char *path);

/*
 * Find a data file: path itself, its last component (POSIX basename) in the current directory, then in every directory
 * of the environment variable env (may be null), a list separated by colons, in which an empty entry is the root
 * directory. The first that passes fileExist counts. A directory or candidate of more than 511 characters is skipped.
 *
 * Returns a copy of the path that was found, to be released with free(); null when there is none, for a null path or
 * one without a last component, and when there is no memory. Nothing is reported, and the environment is not written
 * to.
 */
TOLVIN_API char *findFilePathName(const char *env, const char *path);

/*
 * Copy src without its end to dst when it ends in suffix (exact bytes). dst has room for strlen(src) + 1 bytes; it is
 * not touched, and the result is null, when src does not end so. Returns dst otherwise.
 */
TOLVIN_API char *stripsuffix(char *dst, const char *src, const char *suffix);

/* Skip carriage returns, line feeds, tabs and blanks, so that the next character read is another one or the end. */
TOLVIN_API void eatwhite(FILE *stream);

/* Write the next of | / - \ and a backspace to standard error: called over and over, by one thread, a bar that turns. */
TOLVIN_API void busyIndicator(void);

#ifdef __cplusplus
}
#endif

#endif
