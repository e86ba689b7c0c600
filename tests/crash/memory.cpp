#include "tests/crash/memory.h"

#include <cerrno>
#include <cstddef>

namespace {

bool g_watching = false;
long g_count = 0;
long g_at = 0;
bool g_onwards = false;

[[maybe_unused]] bool Allow() {
  if (!g_watching) return true;
  ++g_count;
  if (g_at == 0 || g_count < g_at || (g_count > g_at && !g_onwards)) return true;
  errno = ENOMEM;
  return false;
}

}  // namespace

namespace memory {

void Watch(long at, bool onwards) {
  g_count = 0;
  g_at = at;
  g_onwards = onwards;
  g_watching = true;
}

long Count() { return g_count; }

bool IsSupported() {
#ifdef BRENTHAVEN_SANITIZED
  return false;
#else
  return true;
#endif
}

}  // namespace memory

#ifndef BRENTHAVEN_SANITIZED
extern "C" {

void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *area, size_t size);

void *malloc(size_t size) { return Allow() ? __libc_malloc(size) : nullptr; }
void *calloc(size_t count, size_t size) { return Allow() ? __libc_calloc(count, size) : nullptr; }
void *realloc(void *area, size_t size) { return Allow() ? __libc_realloc(area, size) : nullptr; }

}  // extern "C"
#endif
