// brenthaven/accounts/safeuid.h - which names may stand as one component of a path.
#pragma once
#include "brenthaven/text/sstring.h"

// The longest name in bytes. File systems take 255, and ".lock", "-Unknown" or a temporary suffix still has to fit
// behind.
inline constexpr int kMaxUIDLength = 200;

// 1 when the text is safe as the name of one directory or file below a directory of ours: not empty, not "." or "..",
// no "/", "\", NUL or other control byte, and at most kMaxUIDLength bytes. Whoever makes a path out of the UID of an
// account or a list asks this where the path is made: a UID may have been written by someone else's program.
unsigned IsSafeUID(SString const &uid);
