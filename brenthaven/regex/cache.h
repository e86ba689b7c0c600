// brenthaven/regex/cache.h - compiled expressions kept for the members that take an expression as text.
#pragma once
#include "brenthaven/regex/sperlregex.h"

// The compiled form of a Perl expression. Expressions that compile are kept, the least recently used one making room,
// so that the same text is not compiled twice; one that does not is compiled, and told, at each call. The reference
// holds until the next call, and so do the offsets of its last match.
SRegex const &CachedRegex(SString const &expression, char const *flags);
