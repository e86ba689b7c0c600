// brenthaven/regex/sregex.h - one compiled POSIX extended regular expression.
//
// Texts and expressions are counted bytes: NUL is a byte like any other, "." matches it, and the locale plays no part.
// "[[:<:]]" and "[[:>:]]" are the beginning and end of a word (ASCII letters, digits and "_"). A backslash outside a
// bracket makes the byte behind it literal, inside one it is a byte of the bracket. Matches are leftmost and longest.
// There are no back references, and a match takes time linear in the text for any one expression. An expression that is
// too large once its bounds are multiplied out does not compile; a match that takes billions of steps is given up, with
// a line on the error stream.
#pragma once
#include <memory>

#include "brenthaven/text/sstring.h"
#include "brenthaven/text/sstringlist.h"

class SRegexProgram;

// Byte offsets of a group in the text; both -1 when the group does not exist or took no part in the match.
struct match_info {
  int start;
  int end;
};

// A match changes the offsets that MatchInfo, MatchPos and MatchLen report, even on a const object: one object is not
// shared between threads, nor used by two searches at once.
class SRegex {
public:
  SRegex();  // never compiled
  // flags is a set of letters: "i" ignores case; others are left to Subst or ignored.
  explicit SRegex(SString const &expression, char const *flags = "");
  SRegex(SRegex const &) = delete;
  SRegex &operator=(SRegex const &) = delete;
  virtual ~SRegex();
  virtual void Set(SString const &expression, char const *flags = "");
  virtual void Debug() const;  // the state, and why it did not compile, on the error stream

  int OK() const { return _status == 0; }
  // Non-zero when there is a match at or after start. "^" matches only at the true beginning of the text.
  unsigned HasMatch(SString const &text, int start = 0) const;
  // The whole match, then each group; empty when there is none.
  SStringList Match(SString const &text, int start = 0) const;
  match_info MatchInfo(int group) const;
  int MatchPos() const { return MatchInfo(0).start; }
  int MatchLen() const { return MatchInfo(0).end - MatchInfo(0).start; }
  // Replaces the first match, or with "g" in flags all of them, and returns the match list of the last one; an empty
  // match ends the replacing. In the replacement "$1" to "$9" and "\1" to "\9" are groups, "$&" is the whole match,
  // "\0" is NUL, "\f" "\n" "\r" "\t" "\v" are control bytes, and a backslash before any other byte is that byte. A "$"
  // before anything else is told on the error stream and stands for itself, the byte behind it being dropped; a "$" or
  // "\" at the very end is told too, and then nothing is put in place of the match.
  SStringList Subst(SString &target, SString const &replacement, char const *flags = "") const;

protected:
  void _Init(SString const &expression, char const *flags);
  void _Free();

private:
  static constexpr int kNeverCompiled = -1;
  static constexpr int kSlots = 10;  // the whole match and nine groups; any further group reads -1

  bool _Run(std::string_view text, int start) const;
  SStringList _MatchList(SString const &text) const;
  std::string_view _Group(std::string_view text, int group) const;
  void _Expand(std::string_view target, std::string_view replacement, SString &output) const;

  std::unique_ptr<SRegexProgram const> _program;
  mutable match_info _slots[kSlots];
  int _status = kNeverCompiled;
};
