// brenthaven/router/settings.h - reading numbers from settings. Private to the router.
#pragma once
#include <algorithm>
#include <limits>

#include "brenthaven/store/sdbfile.h"

// The first value of a key as a number, its fraction dropped and held within the range of int; 0 when it is absent or
// no number.
inline int ReadCount(Sdbfile const &config, char const *key) {
  long const number = config.Get(key).Get(0).AsLong();
  return static_cast<int>(std::clamp<long>(number, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()));
}
