// KeptOnPurpose: while it lives, the leak sanitizer overlooks what the calling thread allocates.
//
// The rule: only around calls whose buffers the test counts as outstanding.
#pragma once

#if defined(__SANITIZE_ADDRESS__)
#define ZON_HAS_LEAK_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ZON_HAS_LEAK_SANITIZER 1
#endif
#endif

#ifdef ZON_HAS_LEAK_SANITIZER
#include <sanitizer/lsan_interface.h>
#endif

namespace zontest {

class KeptOnPurpose {
 public:
#ifdef ZON_HAS_LEAK_SANITIZER
  KeptOnPurpose() { __lsan_disable(); }
  ~KeptOnPurpose() { __lsan_enable(); }
#else
  KeptOnPurpose() {}
  ~KeptOnPurpose() {}
#endif
  KeptOnPurpose(const KeptOnPurpose&) = delete;
  KeptOnPurpose& operator=(const KeptOnPurpose&) = delete;
};

}  // namespace zontest
