#include "brenthaven/platform/sharedlibrary.h"

#include <dlfcn.h>

SSharedLibrary::SSharedLibrary(char const *name) : _handle(dlopen(name, RTLD_NOW | RTLD_LOCAL)) {}

void *SSharedLibrary::_Find(char const *name) const { return _handle != nullptr ? dlsym(_handle, name) : nullptr; }
