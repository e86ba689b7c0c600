// brenthaven/accounts/hexadecimal.h - bytes as lower-case hexadecimal text, two characters a byte.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "brenthaven/text/sstring.h"

inline SString ToHexadecimal(std::uint8_t const *bytes, std::size_t count) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  text.reserve(2 * count);
  for (std::size_t i = 0; i < count; ++i) {
    text += kDigits[bytes[i] >> 4];
    text += kDigits[bytes[i] & 0x0f];
  }
  return SString(std::string_view(text));
}

// Value of one digit, in either case; -1 for any other character.
constexpr int HexadecimalDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// The bytes of a text; none when it has an odd length or another character.
inline std::vector<std::uint8_t> FromHexadecimal(SString const &text) {
  std::vector<std::uint8_t> bytes;
  if (text.Length() % 2 != 0) return bytes;
  for (int i = 0; i < text.Length(); i += 2) {
    int const high = HexadecimalDigit(text[i]);
    int const low = HexadecimalDigit(text[i + 1]);
    if (high < 0 || low < 0) return {};
    bytes.push_back(static_cast<std::uint8_t>(high << 4 | low));
  }
  return bytes;
}
