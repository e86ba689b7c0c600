// brenthaven/platform/environment.h - settings that the processes started from here inherit.
#pragma once
#include "brenthaven/text/sstring.h"

// Sets a variable of this process and its children; an undefined value is the empty one. GetEnv in text/base.h reads
// it. For programs at their start: the environment belongs to the whole process.
void PutEnv(SString const &name, SString const &value);
