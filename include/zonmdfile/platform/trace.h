/*
 * Trace facility (in libzonosse): records entries, exits and chosen variables of functions into a ring file that
 * outlives the process. Off unless switched on from outside (zontrace) or by the environment. C11 and C++.
 */
#ifndef ZONMDFILE_PLATFORM_TRACE_H
#define ZONMDFILE_PLATFORM_TRACE_H

#include <stdint.h>

#include "zonmdfile/platform/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Non-zero while somebody wants a trace of this process. Costs one load from memory. */
ZON_EXPORT int gtraceIsAttached(void);

/* Non-zero while events are being recorded. Ask only after gtraceIsAttached. */
ZON_EXPORT int gtraceIsEnabled(void);

/* Records that a function was entered: point is its trace point identifier, mask a class of events (1000000: calls). */
ZON_EXPORT void _gtraceEntry(uint64_t thread, uint32_t point, uint32_t reserved, uint32_t mask);

/* Records `size` bytes at `data` as the variable of probe number `probe` (10, 20, 30, ...) of a function. */
ZON_EXPORT void _gtraceVar(uint64_t thread, uint32_t point, uint32_t probe, uint32_t level, uint32_t count,
                           uint32_t reserved, uint64_t size, const void *data);

/* Records that a function returns; rc points to its 32-bit return value, or is null for a function without one. */
ZON_EXPORT void _gtraceExit(uint64_t thread, uint32_t point, const void *rc, uint32_t reserved);

#ifdef __cplusplus
}
#endif
#endif
