// brenthaven/net/dottedquad.h - "10.0.0.1" in a text.
#pragma once
#include <string_view>

#include "brenthaven/text/sstring.h"

// The first place where four groups of one to three digits stand with dots between them, whatever is around it and
// whatever the numbers; empty when there is none.
std::string_view FindDottedQuad(std::string_view text);
// Whether the text is such a quad and nothing else.
inline bool IsDottedQuad(std::string_view text) { return !text.empty() && FindDottedQuad(text).size() == text.size(); }

// The text with its first quad turned around: "1.2.3.4" becomes "4.3.2.1". Without a quad it stays as it is.
SString WithQuadReversed(SString const &text);
