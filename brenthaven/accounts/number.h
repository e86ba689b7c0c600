// brenthaven/accounts/number.h - numbers in attributes and settings. Used by this folder.
#pragma once
#include <limits>

#include "brenthaven/text/sstring.h"

// The number that the text begins with, cut to an integer; 0 when it is not above 0. What no int can hold is the
// largest one, and "nan" is no number.
inline int PositiveNumber(SString const &text) {
  double const number = text.AsDouble();
  if (!(number > 0)) return 0;
  constexpr int kLargest = std::numeric_limits<int>::max();
  return number < kLargest ? static_cast<int>(number) : kLargest;
}
