// Tells the leak sanitizer what stays allocated on purpose.
//
// The rule: nothing is listed here that a test does not also count, buffer by buffer.
extern "C" __attribute__((visibility("default"))) const char* __lsan_default_suppressions();

const char* __lsan_default_suppressions() { return "leak:TwoKeyStore<MDUtilityHistory>::update\n"; }
