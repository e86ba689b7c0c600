// brenthaven/platform/environment.h - settings that the processes started from here inherit.
#pragma once
#include "brenthaven/text/sstring.h"

// Sets a variable of this process and its children; an undefined value is the empty one. GetEnv in text/base.h reads
// it. Refused are an empty name, one with "=", and a NUL byte in either text. For programs at their start: the
// environment belongs to the whole process.
void PutEnv(SString const &name, SString const &value);

// For every program at its start: what it makes from now on is for its user and group alone, whichever library makes
// it, and no core file, which would hold mail and passwords, is written when it dies. Its children inherit both.
void GuardProcess();
