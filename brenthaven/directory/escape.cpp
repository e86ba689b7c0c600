#include "brenthaven/directory/escape.h"

#include <string>
#include <string_view>

namespace {

// Length in bytes of the UTF-8 sequence at the front of a text that is not empty; 0 when there is none. Overlong forms,
// surrogates and what lies above U+10FFFF are none.
std::size_t SequenceLength(std::string_view text) {
  auto const byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  unsigned char const lead = byte(0);
  if (lead < 0x80) return 1;
  std::size_t const length = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
  if (lead < 0xc2 || lead > 0xf4 || text.size() < length) return 0;
  for (std::size_t i = 1; i < length; ++i)
    if ((byte(i) & 0xc0) != 0x80) return 0;
  switch (lead) {
    case 0xe0:
      return byte(1) >= 0xa0 ? length : 0;
    case 0xed:
      return byte(1) < 0xa0 ? length : 0;
    case 0xf0:
      return byte(1) >= 0x90 ? length : 0;
    case 0xf4:
      return byte(1) < 0x90 ? length : 0;
    default:
      return length;
  }
}

void AppendHexadecimal(std::string &text, char byte) {
  constexpr char kDigits[] = "0123456789abcdef";
  text += {'\\', kDigits[static_cast<unsigned char>(byte) >> 4], kDigits[byte & 0x0f]};
}

}  // namespace

bool IsDirectoryText(SString const &text) {
  for (std::string_view rest = text.View(); !rest.empty();) {
    std::size_t const length = SequenceLength(rest);
    if (length == 0 || rest[0] == '\0') return false;
    rest.remove_prefix(length);
  }
  return true;
}

SString EscapeFilter(SString const &value) {
  std::string escaped;
  for (char const c : value.View()) {
    if (std::string_view("*()\\\0", 5).find(c) != std::string_view::npos)
      AppendHexadecimal(escaped, c);
    else
      escaped += c;
  }
  return SString(std::string_view(escaped));
}

SString EscapeDN(SString const &value) {
  std::string_view const text = value.View();
  std::string escaped;
  for (std::size_t i = 0; i < text.size(); ++i) {
    char const c = text[i];
    bool const first = i == 0, last = i + 1 == text.size();
    if (c == '\0') {
      AppendHexadecimal(escaped, c);
      continue;
    }
    if (std::string_view("\"+,;<>\\=").find(c) != std::string_view::npos || (c == ' ' && (first || last)) ||
        (c == '#' && first))
      escaped += '\\';
    escaped += c;
  }
  return SString(std::string_view(escaped));
}
