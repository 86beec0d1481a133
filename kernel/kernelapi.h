/*
 * What every public kernel header needs: the export mark, fixed-width types, and the layout checks.
 *
 * Conventions of the whole interface
 * - Records are plain C, functions have C linkage. No function throws.
 * - Angles are radians unless a comment says degrees. World coordinates are metres, right-handed.
 * - Failures are reported as 0, a null pointer or -1, nearly always with one line on standard error (kernelutil.h).
 * - Kernel records live in the shared arena of the platform layer (performer/pfmemory.h), so that all processes of an
 *   application see them. No function takes a lock: change a record from one process and thread at a time.
 */
#ifndef TOLVIN_KERNEL_KERNELAPI_H
#define TOLVIN_KERNEL_KERNELAPI_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

/* Everything else in libtolvin.so is hidden; kernel/exports.txt lists what carries this mark. */
#define TOLVIN_API __attribute__((visibility("default")))

/*
 * Layout checks. Separately built plug-ins and programs read the records by position on the 32-bit target, where
 * `double` is aligned to 4 bytes, so offsets are fixed there. On a 64-bit target pointers widen and only the order holds;
 * VU_LAYOUT_ANY is for records without pointers, which are the same everywhere.
 */
#define VU_LAYOUT_ANY(type, field, offset, size)                                                                       \
    static_assert(offsetof(type, field) == (offset) && sizeof(((type *)0)->field) == (size), #type "." #field)
#define VU_LAYOUT(type, field, offset, size)                                                                           \
    static_assert(sizeof(void *) != 4 || (offsetof(type, field) == (offset) && sizeof(((type *)0)->field) == (size)),  \
                  #type "." #field)
#define VU_SIZE_ANY(type, size) static_assert(sizeof(type) == (size), #type)
#define VU_SIZE(type, size) static_assert(sizeof(void *) != 4 || sizeof(type) == (size), #type)

#endif
