// The members of SString that take regular expressions.
#include <cstring>

#include "brenthaven/regex/cache.h"
#include "brenthaven/regex/sregex.h"
#include "brenthaven/text/sstring.h"
#include "brenthaven/text/sstringlist.h"

namespace {

constexpr std::string_view kEnterJapanese = "\x1b$B";  // ISO-2022-JP: double-byte text begins, and ends
constexpr std::string_view kLeaveJapanese = "\x1b(B";
constexpr std::string_view kBlanks = " \t\r\n";

struct Span {
  int start;  // -1: none
  int length;
};

// Splits by what find(from) gives: the next separator at or after a position.
template <typename Find>
SStringList SplitBy(SString const &text, int limit, Find find) {
  SStringList pieces;
  if (text.Defined()) pieces.Define();
  int const length = text.Length();
  int count = 1;
  int pos = 0;
  while ((limit == 0 || count != limit) && pos < length) {
    Span separator = find(pos);
    if (separator.start < 0) break;
    if (separator.start <= pos && separator.length > 0) {  // an empty piece, which does not count
      pieces.Push(SString(""));
      pos += separator.length;
      continue;
    }
    if (separator.start <= pos) {  // nothing between two bytes: the piece is at least one byte long
      separator = find(pos + 1);
      if (separator.start < 0) {  // "^" alone and its like: the byte at pos is lost, to no piece
        ++pos;
        continue;
      }
    }
    pieces.Push(text.Segment(pos, separator.start - pos));
    ++count;
    pos = separator.start + separator.length;
  }
  if (pos < length) pieces.Push(text.Segment(pos, length - pos));
  return pieces;
}

// A replacement whose double-byte text is safe to expand: each "$" in it is taken for the byte that it is.
SString WithJapaneseKept(SString const &replacement) {
  if (replacement.View().find(kEnterJapanese) == std::string_view::npos) return replacement;
  SStringList pieces = replacement.SplitExact(SString(kEnterJapanese));
  for (int i = 0; i < pieces.Length(); ++i) {
    SStringList parts = pieces.Get(i).SplitExact(SString(kLeaveJapanese), 2);
    if (parts.Length() < 2) continue;
    parts[0] = parts.Get(0).SplitExact("$").Join("\\$");
    pieces[i] = parts.Join(SString(kLeaveJapanese));
  }
  return pieces.Join("\x1b\\$B");
}

// Puts the replacement in front, or with "g" into every gap. No expression is asked, and none expanded.
SStringList SubstituteGaps(SString &text, SString const &replacement, char const *flags) {
  SString changed = replacement;
  if (flags != nullptr && strchr(flags, 'g') != nullptr) {
    for (char const c : text.View()) (changed += c) += replacement;
  } else {
    changed += text;
  }
  text = changed;
  return SStringList(SString(""));
}

}  // namespace

SStringList SString::M(SRegex const &regex) const { return regex.Match(*this, 0); }
SStringList SString::M(SString const &expression, char const *flags) const { return M(CachedRegex(expression, flags)); }
SStringList SString::M(char const *expression, char const *flags) const { return M(SString(expression), flags); }

unsigned SString::HasMatch(SRegex const &regex) const { return regex.HasMatch(*this, 0); }
unsigned SString::HasMatch(SString const &expression, char const *flags) const {
  return HasMatch(CachedRegex(expression, flags));
}
unsigned SString::HasMatch(char const *expression, char const *flags) const {
  return HasMatch(SString(expression), flags);
}

SStringList SString::S(SRegex const &regex, SString const &replacement, char const *flags) {
  return regex.Subst(*this, WithJapaneseKept(replacement), flags);
}

SStringList SString::S(SString const &expression, SString const &replacement, char const *flags) {
  if (expression.Length() == 0) return SubstituteGaps(*this, replacement, flags);
  return S(CachedRegex(expression, flags), replacement, flags);
}

SStringList SString::S(char const *expression, SString const &replacement, char const *flags) {
  return S(SString(expression), replacement, flags);
}

SStringList SString::Split(SRegex const &regex, int limit) const {
  if (!regex.OK()) return {};
  return SplitBy(*this, limit, [&](int from) {
    if (regex.HasMatch(*this, from) == 0) return Span{-1, 0};
    return Span{regex.MatchPos(), regex.MatchLen()};
  });
}

SStringList SString::Split(SString const &expression, int limit) const {
  if (expression.Length() == 0) return _SplitCharacters(limit);
  return Split(CachedRegex(expression, ""), limit);
}

SStringList SString::Split(char const *expression, int limit) const { return Split(SString(expression), limit); }

SStringList SString::Split(char c, int limit) const {
  std::string_view const text = View();
  if (c != ' ') return SplitBy(*this, limit, [&](int from) { return Span{Index(c, from), 1}; });
  SStringList words = SplitBy(*this, limit, [&](int from) {
    size_t const start = text.find_first_of(kBlanks, static_cast<size_t>(from));
    if (start == std::string_view::npos) return Span{-1, 0};
    size_t const end = std::min(text.find_first_not_of(kBlanks, start), text.size());
    return Span{static_cast<int>(start), static_cast<int>(end - start)};
  });
  if (words.Length() > 1 && words.begin()->Length() == 0) words.Shift();
  return words;
}

SStringList SString::_SplitCharacters(int limit) const {
  SStringList pieces;
  if (Defined()) pieces.Define();
  bool const isCut = limit > 0 && limit < Length();
  int const singles = isCut ? limit - 1 : Length();
  for (int i = 0; i < singles; ++i) pieces.Push(Segment(i, 1));
  if (isCut) pieces.Push(Segment(singles, Length() - singles));
  return pieces;
}
