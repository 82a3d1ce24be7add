// The calling thread's identity. Nothing is cached: a number kept from before a fork would be the parent's.
#include <unistd.h>

#include <sys/syscall.h>

#include "zonmdfile/platform/oss.h"

extern "C" uint64_t ossThreadID(void) { return static_cast<std::uint64_t>(::syscall(SYS_gettid)); }
