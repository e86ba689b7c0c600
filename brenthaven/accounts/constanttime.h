// brenthaven/accounts/constanttime.h - comparing secrets.
#pragma once
#include <cstddef>
#include <string_view>

// Whether two texts are the same, in a time that depends on their lengths alone: how much of a hash agrees is not told.
inline bool SameBytes(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  int different = 0;
  for (std::size_t i = 0; i < a.size(); ++i) different |= a[i] ^ b[i];
  return different == 0;
}
