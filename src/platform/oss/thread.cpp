// The calling thread's identity. The rule: nothing is cached, for a number from before a fork would be the parent's.
#include <sys/syscall.h>
#include <unistd.h>

#include "zonmdfile/platform/oss.h"

extern "C" uint64_t ossThreadID(void) { return static_cast<uint64_t>(::syscall(SYS_gettid)); }
