#include "brenthaven/exploder/bounces.h"

#include <algorithm>

#include "brenthaven/spool/keys.h"
#include "brenthaven/text/sstring.h"

bool IsAutomaticReply(SHeader const &header) {
  return LowerCase(header.Get("Auto-Submitted:").Get(0)).HasPrefix("auto-replied") &&
         !LowerCase(header.Get(kHeaderContentType).Get(0)).HasPrefix("multipart/report");
}

bool IsDelayNotice(SHeader const &header, std::string_view body) {
  if (!LowerCase(header.Get(kHeaderContentType).Get(0)).HasPrefix("multipart/report")) return false;
  constexpr std::string_view kAction = "\naction:";
  SString const lower = LowerCase(SString(body));
  bool hasAction = false;
  for (int at = lower.Index("\naction:"); at >= 0; at = lower.Index("\naction:", at + 1)) {
    std::string_view value = lower.View().substr(static_cast<size_t>(at) + kAction.size());
    value.remove_prefix(std::min(value.find_first_not_of(" \t"), value.size()));
    if (value.starts_with("failed")) return false;
    hasAction = true;
  }
  return hasAction;
}
