// Unloading the library, which has asked to be called at forks. The rule: this program is not linked with it, so that
// dlclose really takes it away.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

TEST(Unloading, TakesTheForkHandlersAway) {
  void* library = ::dlopen(ZON_REGISTRY_LIBRARY, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(library, nullptr) << ::dlerror();
  ASSERT_EQ(::dlclose(library), 0);
  ASSERT_EQ(::dlopen(ZON_REGISTRY_LIBRARY, RTLD_NOW | RTLD_NOLOAD), nullptr) << "this test shows nothing";
  const pid_t child = fork();
  if (child == 0) _exit(0);
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

}  // namespace
