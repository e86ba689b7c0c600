// brenthaven/address/kinds.h - what each byte means to the address tokenizers outside quotes, comments and literals.
#pragma once
#include <array>
#include <string_view>

#include "brenthaven/address/token.h"

namespace address {

// A byte that is a token by itself has the type of that token as its kind. All others are below.
enum Kind : int {
  kInWord = 0,  // belongs to an atom
  kBlank = -1,
  kQuote = -2,        // opens a quoted string
  kBracket = -3,      // opens a domain literal
  kEscape = -4,       // backslash that takes the next byte into the word
  kParenthesis = -5,  // opens a comment
  kMisplaced = -6,    // error token of its own
};

using Kinds = std::array<int, 256>;

// Below 0x20 once the top bit is cleared, or 0x7f.
constexpr bool IsControl(unsigned char c) { return (c & 0x7f) < 0x20 || c == 0x7f; }

constexpr Kinds CommonKinds(int control) {
  Kinds kinds{};
  for (int c = 0; c < 256; ++c)
    if (IsControl(static_cast<unsigned char>(c))) kinds[c] = control;
  kinds['<'] = SToken::kLeftAngle, kinds['>'] = SToken::kRightAngle;
  kinds['@'] = SToken::kAt, kinds['.'] = SToken::kDot, kinds[','] = SToken::kComma;
  kinds[';'] = SToken::kSemicolon, kinds[':'] = SToken::kColon;
  kinds[' '] = kBlank, kinds['"'] = kQuote, kinds['['] = kBracket;
  return kinds;
}

// RFC 821: parentheses and control characters are tokens, and a backslash may stand in any word.
constexpr Kinds kKinds821 = [] {
  Kinds kinds = CommonKinds(SToken::kOther);
  for (unsigned char c : std::string_view("()]")) kinds[c] = SToken::kOther;
  kinds['%'] = SToken::kPercent, kinds['\\'] = kEscape;
  return kinds;
}();

// RFC 822: comments and folded lines, and backslashes only in quotes, comments and literals.
constexpr Kinds kKinds822 = [] {
  Kinds kinds = CommonKinds(kMisplaced);
  for (unsigned char c : std::string_view(")\\]")) kinds[c] = kMisplaced;
  kinds['\t'] = kBlank, kinds['('] = kParenthesis;
  return kinds;
}();

}  // namespace address
