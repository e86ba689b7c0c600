#include "brenthaven/accounts/safeuid.h"

#include <algorithm>
#include <string_view>

namespace {

bool IsSafeByte(unsigned char byte) { return byte >= 0x20 && byte != 0x7f && byte != '/' && byte != '\\'; }

}  // namespace

unsigned IsSafeUID(SString const &uid) {
  std::string_view const name = uid.View();
  if (name.empty() || uid.Length() > kMaxUIDLength || name == "." || name == "..") return 0;
  return std::all_of(name.begin(), name.end(), IsSafeByte);
}
