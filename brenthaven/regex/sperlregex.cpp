#include "brenthaven/regex/sperlregex.h"

#include <cstdio>
#include <string>
#include <string_view>

#include "brenthaven/platform/logtext.h"

namespace {

constexpr int kMaxGroups = 10;

enum TranslationError {
  kNone,
  kSingleBackslash,  // never raised: kEndedEarly is what a backslash at the end gives
  kTooManyGroups,
  kUnmatchedOpening,
  kUnterminatedRange,
  kUnmatchedClosing,
  kUnmatchedBracket,
  kClassInRange,
  kEndedEarly,
};

constexpr char const *kErrorTexts[] = {
    "",
    "Regular expression can't end with a single backslash.",
    "Too many parenthesized elements in regular expression (maximum 10).",
    "Unmatched opening parenthesis in regular expression.",
    "Unterminated range [...] in regular expression.",
    "Unmatched closing parenthesis in regular expression.",
    "Unmatched closing bracket in regular expression.",
    "Special characters not allowed in a range (\\D, \\S, or \\W)",
    "Regular expression terminated prematurely.",
};

// What a backslash and a letter stand for, outside a bracket and in one; null in a bracket is kClassInRange.
struct Escape {
  char letter;
  char const *outside;
  char const *inside;
};

#define WHITE_SPACE " \f\n\r\t\v"
constexpr Escape kEscapes[] = {
    {'d', "[0-9]", "0-9"},
    {'D', "[^0-9]", nullptr},
    {'s', "[" WHITE_SPACE "]", WHITE_SPACE},
    {'S', "[^" WHITE_SPACE "]", nullptr},
    {'w', "[A-Za-z_0-9]", "A-Za-z_0-9"},
    {'W', "[^A-Za-z_0-9]", nullptr},
    {'N', "[^\n]", nullptr},
    {'f', "\f", "\f"},
    {'n', "\n", "\n"},
    {'r', "\r", "\r"},
    {'t', "\t", "\t"},
    {'v', "\v", "\v"},
};
#undef WHITE_SPACE

Escape const *EscapeFor(char letter) {
  for (Escape const &escape : kEscapes)
    if (escape.letter == letter) return &escape;
  return nullptr;
}

// Perl to POSIX, byte by byte.
class Translation {
public:
  explicit Translation(std::string_view perl) : _perl(perl) {
    while (_error == kNone && _at < _perl.size()) _Translate();
    if (_error == kNone && _openings > _closings) _error = kUnmatchedOpening;
  }

  // Empty after an error, which it reports.
  SString Result() const {
    if (_error == kNone) return SString(_posix);
    fprintf(stderr,
            "Regular expression error -- compile aborted.  Reason:\n\t%s\n\tThe erroneous expression is '%s'.\n",
            kErrorTexts[_error], LogText(_perl).c_str());
    return "";
  }

private:
  void _Translate() {
    char const c = _perl[_at];
    if (c == '\\') return _TranslateEscape(false);
    if (c == '[') return _TranslateBracket();
    if (c == '(' && ++_openings > kMaxGroups) _error = kTooManyGroups;
    if (c == ')' && ++_closings > _openings) _error = kUnmatchedClosing;
    if (c == ']') _error = kUnmatchedBracket;
    _Copy(1);
  }

  void _TranslateEscape(bool inBracket) {
    if (_at + 1 == _perl.size()) {
      _error = kEndedEarly;
      return;
    }
    Escape const *escape = EscapeFor(_perl[_at + 1]);
    if (escape == nullptr) return _Copy(2);
    char const *form = inBracket ? escape->inside : escape->outside;
    if (form == nullptr) {
      _error = kClassInRange;
      return;
    }
    _posix += form;
    _at += 2;
  }

  void _TranslateBracket() {
    constexpr size_t kWordForm = 7;
    std::string_view const ahead = _perl.substr(_at, kWordForm);
    if (ahead == "[[:<:]]" || ahead == "[[:>:]]") return _Copy(kWordForm);
    _Copy(1);
    if (_IsNext('^')) _Copy(1);
    if (_IsNext(']')) _Copy(1);
    while (_error == kNone) {
      if (_at == _perl.size()) {
        _error = kUnterminatedRange;
      } else if (_perl[_at] == '\\') {
        _TranslateEscape(true);
      } else {
        bool const isEnd = _perl[_at] == ']';
        _Copy(1);
        if (isEnd) return;
      }
    }
  }

  bool _IsNext(char c) const { return _at < _perl.size() && _perl[_at] == c; }
  void _Copy(size_t count) {
    _posix += _perl.substr(_at, count);
    _at += count;
  }

  std::string_view _perl;
  std::string _posix;
  size_t _at = 0;
  int _openings = 0;
  int _closings = 0;
  TranslationError _error = kNone;
};

}  // namespace

SPerlRegex::SPerlRegex(SString const &expression, char const *flags)
    : _perl(expression), _posix(Translation(expression.View()).Result()) {
  SRegex::Set(_posix, flags);
}

void SPerlRegex::Set(SString const &expression, char const *flags) {
  _perl = expression;
  _posix = Translation(expression.View()).Result();
  if (_posix.Length() > 0) SRegex::Set(_posix, flags);
}

void SPerlRegex::Debug() const {
  fprintf(stderr, "Perl Regex:    '%s'\nRegular Regex: '%s'\n", static_cast<char const *>(_perl),
          static_cast<char const *>(_posix));
}
