// brenthaven/platform/forks.h - whether this process is still the one that opened something.
#pragma once
#include <pthread.h>

// Number of forks between the start of the program and this process, at no system call's cost: what was opened under
// another number belongs to the parent, with its locks, its file offsets and its unwritten pages. Forks before the
// first call are not counted.
inline unsigned long ForkCount() {
  static unsigned long forks = 0;
  [[maybe_unused]] static int const watch = pthread_atfork(nullptr, nullptr, [] { ++forks; });
  return forks;
}
