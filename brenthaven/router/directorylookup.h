// brenthaven/router/directorylookup.h - whose an address is, by a directory.
#pragma once
#include "brenthaven/text/sstring.h"

// The first "uid" of the first entry at or below `base` whose "mail" is the address: what stands between angle brackets
// in the text, or all of it. The directory is asked anonymously; the second host, if not empty, only when the first one
// can't be reached. Undefined when there is no such entry, when the directory fails, and when the first host, port or
// base is empty. Whether the answer is a UID of ours is the caller's question.
SString LookupDirectoryUid(SString const &address, SString const &primaryHost, SString const &secondaryHost,
                           SString const &port, SString const &base);
