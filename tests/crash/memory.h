// tests/crash/memory.h - memory that gives out. A program that links memory.cpp has an allocator of its own in front of
// the C library's, which counts, and refuses when it is told to.
#pragma once

namespace memory {

// From here on allocation number `at`, from 1, is refused, and with `onwards` all behind it; 0 refuses none.
void Watch(long at, bool onwards);
// Allocations since Watch.
long Count();
// Whether this build can do it: a sanitizer has an allocator of its own.
bool IsSupported();

}  // namespace memory
