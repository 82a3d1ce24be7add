// runOnSmallStack: runs a function on a thread with a stack of 256 KB.
//
// The rule: what a test proves about depth, it proves on this stack.
#pragma once

#include <pthread.h>

#include <functional>
#include <stdexcept>

namespace zontest {

inline void runOnSmallStack(std::function<void()> body) {
  constexpr std::size_t STACK_BYTES = 256 * 1024;
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstacksize(&attributes, STACK_BYTES);
  pthread_t thread;
  const auto run = [](void* argument) -> void* {
    (*static_cast<std::function<void()>*>(argument))();
    return nullptr;
  };
  const int failure = pthread_create(&thread, &attributes, run, &body);
  pthread_attr_destroy(&attributes);
  if (failure != 0) throw std::runtime_error("no thread");
  pthread_join(thread, nullptr);
}

}  // namespace zontest
