/*
 * Operating-system services (libzonosse): memory that the caller can account for, thread identity, and the two halves
 * of a path. C11 and C++.
 */
#ifndef ZONMDFILE_PLATFORM_OSS_H
#define ZONMDFILE_PLATFORM_OSS_H

#include <stddef.h>
#include <stdint.h>

#include "zonmdfile/platform/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Allocates a zero-filled buffer and stores its address in *pointer.
 *
 *   pointer  receives the buffer; set to null when the call fails
 *   zero     reserved, pass 0
 *   size     in bytes; 0 gives a valid buffer of no usable bytes
 *   flags    reserved, pass 1
 *   file     label of the allocation, copied on first use; null counts as ""
 *   line     line of the caller, kept for diagnostics
 *
 * Returns 0, or non-zero when there is no memory (or the fault set by ossMemFailAt is due). The buffer belongs to the
 * caller, who releases it with _ossMemFree. Safe to call from any thread.
 */
ZON_EXPORT int _ossMemAlloc(void **pointer, uint64_t zero, uint64_t size, uint32_t flags, const char *file,
                            uint32_t line);

/*
 * Releases the buffer in *pointer and sets *pointer to null. A null pointer, or a pointer to null, is left alone.
 * Returns 0. Safe to call from any thread, also one that did not allocate the buffer.
 */
ZON_EXPORT int _ossMemFree(void **pointer, uint64_t zero1, uint64_t zero2, const char *file, uint32_t line);

/*
 * Says of a buffer that nothing but its first `touched` bytes is or will ever be written: when it is released, only
 * those are cleared for the next caller, which saves a system call for a buffer of a megabyte. The last word counts; a
 * buffer of which nothing was said may have been written everywhere. Null is allowed.
 */
ZON_EXPORT void ossMemNoteTouched(void *pointer, uint64_t touched);

/*
 * Changes the size of a buffer of _ossMemAlloc, keeping the first min(old, new) bytes; bytes gained are NOT cleared.
 * *pointer may be null, which allocates. Returns 0, or non-zero with the buffer as it was. Counts as an allocation for
 * ossMemFailAt. Growing a large buffer moves pages, not bytes.
 */
ZON_EXPORT int ossMemResize(void **pointer, uint64_t size, const char *file, uint32_t line);

/*
 * Hands a buffer on: it is counted from now on under the label (file, line) with the given size, which must not exceed
 * its present one. For a result that becomes the caller's without being copied. Returns 0, or non-zero, with the buffer
 * as it was, when the fault set by ossMemFailAt is due: handing on counts as an allocation there.
 */
ZON_EXPORT int ossMemRelabel(void *pointer, uint64_t size, const char *file, uint32_t line);

/* The bytes a buffer was asked for (after resizing or handing on, the newest size). */
ZON_EXPORT uint64_t ossMemSize(const void *pointer);

/*
 * Buffers allocated under this label and not yet released; with null, under all labels. Exact when no call is under
 * way. Labels are told apart by their first 63 bytes, and the first 256 different ones; all others are counted as one,
 * whose figure is the answer for each of them.
 */
ZON_EXPORT uint64_t ossMemOutstanding(const char *file);

/* The same in bytes asked for. */
ZON_EXPORT uint64_t ossMemOutstandingBytes(const char *file);

/*
 * For tests: the n-th allocation from now on, counted over all threads, fails, and with `sticky` non-zero every later
 * one too. 0 takes the fault back.
 */
ZON_EXPORT void ossMemFailAt(uint64_t n, int sticky);

/* Allocations asked for since the process started. Tests use it to learn how many faults to inject. */
ZON_EXPORT uint64_t ossMemAllocationCount(void);

/* The kernel's number of the calling thread. */
ZON_EXPORT uint64_t ossThreadID(void);

/*
 * Copies the last component of `path` ("/var/md/zoncontact" gives "zoncontact") into `name`, cut at size - 1 bytes and
 * always NUL-terminated when size is not 0. Returns the length before cutting.
 */
ZON_EXPORT size_t ossBaseName(const char *path, char *name, size_t size);

/* The same for what stands before the last component; "." when there is no '/', "/" for a name in the root. */
ZON_EXPORT size_t ossDirectoryName(const char *path, char *directory, size_t size);

#ifdef __cplusplus
}
#endif
#endif
