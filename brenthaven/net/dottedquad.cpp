#include "brenthaven/net/dottedquad.h"

#include "brenthaven/text/sstringlist.h"

namespace {

constexpr size_t kMostDigits = 3;
constexpr int kGroups = 4;

// Length of the quad at the start of a text, 0 without one. It takes as many digits as it can: the groups in front must
// end in a dot, so that fewer would not match there.
size_t QuadLength(std::string_view text) {
  size_t position = 0;
  for (int group = 1; group <= kGroups; ++group) {
    size_t digits = 0;
    while (digits < kMostDigits && position < text.size() && text[position] >= '0' && text[position] <= '9') {
      ++digits;
      ++position;
    }
    if (digits == 0) return 0;
    if (group == kGroups) break;
    if (position == text.size() || text[position] != '.') return 0;
    ++position;
  }
  return position;
}

}  // namespace

std::string_view FindDottedQuad(std::string_view text) {
  for (size_t start = 0; start < text.size(); ++start)
    if (size_t const length = QuadLength(text.substr(start)); length > 0) return text.substr(start, length);
  return {};
}

SString WithQuadReversed(SString const &text) {
  std::string_view const quad = FindDottedQuad(text.View());
  if (quad.empty()) return text;
  SStringList groups = SString(quad).SplitExact(".");
  groups.Reverse();
  size_t const start = static_cast<size_t>(quad.data() - text.View().data());
  return SString(text.View().substr(0, start)) + groups.Join(".") + SString(text.View().substr(start + quad.size()));
}
