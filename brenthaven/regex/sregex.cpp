#include "brenthaven/regex/sregex.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "brenthaven/regex/program.h"

namespace {

constexpr match_info kNoGroup{-1, -1};

bool HasFlag(char const *flags, char flag) { return flags != nullptr && strchr(flags, flag) != nullptr; }

// The byte that a backslash and a letter stand for in a replacement; other bytes stand for themselves.
char ControlByte(char letter) {
  switch (letter) {
    case '0':
      return '\0';
    case 'f':
      return '\f';
    case 'n':
      return '\n';
    case 'r':
      return '\r';
    case 't':
      return '\t';
    case 'v':
      return '\v';
    default:
      return letter;
  }
}

}  // namespace

SRegex::SRegex() { std::fill_n(_slots, kSlots, kNoGroup); }
SRegex::SRegex(SString const &expression, char const *flags) : SRegex() { _Init(expression, flags); }
SRegex::~SRegex() = default;

void SRegex::Set(SString const &expression, char const *flags) {
  _Free();
  _Init(expression, flags);
}

void SRegex::_Init(SString const &expression, char const *flags) {
  _program = std::make_unique<SRegexProgram const>(expression.View(), HasFlag(flags, 'i'));
  _status = _program->Status();
}

void SRegex::_Free() {
  _program.reset();
  _status = kNeverCompiled;
  std::fill_n(_slots, kSlots, kNoGroup);
}

void SRegex::Debug() const {
  if (_status == kNeverCompiled)
    fputs("SRegex was never compiled\n", stderr);
  else if (OK())
    fputs("SRegex is OK\n", stderr);
  else
    fprintf(stderr, "SRegex didn't compile because of the following reason:%s\n", RegexErrorText(_status));
}

bool SRegex::_Run(std::string_view text, int start) const {
  static_assert(kSlots == SRegexProgram::kMaxSlots);
  return OK() && start >= 0 && _program->Run(text, static_cast<size_t>(start), _slots);
}

unsigned SRegex::HasMatch(SString const &text, int start) const { return _Run(text.View(), start); }

SStringList SRegex::Match(SString const &text, int start) const {
  return _Run(text.View(), start) ? _MatchList(text) : SStringList();
}

// The whole match and each group of the last run, which was one over text.
SStringList SRegex::_MatchList(SString const &text) const {
  SStringList list;
  for (int group = 0; group <= _program->Groups(); ++group) {
    match_info const at = MatchInfo(group);
    list.Push(text.Segment(at.start, at.end - at.start));
  }
  return list;
}

match_info SRegex::MatchInfo(int group) const {
  if (!OK() || group < 0 || group > _program->Groups() || group >= kSlots) return kNoGroup;
  return _slots[group];
}

SStringList SRegex::Subst(SString &target, SString const &replacement, char const *flags) const {
  if (!_Run(target.View(), 0)) return {};
  bool const isGlobal = HasFlag(flags, 'g');
  SString const source = target;
  std::string_view const text = source.View();
  SString output("");
  match_info last[kSlots];
  int pos = 0;
  bool isEmptyHere = false;
  do {
    std::copy_n(_slots, kSlots, last);
    output.Append(text.substr(static_cast<size_t>(pos), static_cast<size_t>(last[0].start - pos)));
    _Expand(text, replacement.View(), output);
    isEmptyHere = last[0].end == pos;  // it would be found again for ever
    pos = last[0].end;
  } while (isGlobal && !isEmptyHere && pos < source.Length() && _Run(text, pos));
  target = output.Append(text.substr(static_cast<size_t>(pos)));
  std::copy_n(last, kSlots, _slots);  // the search behind the last match has wiped them
  return _MatchList(source);
}

std::string_view SRegex::_Group(std::string_view text, int group) const {
  match_info const at = MatchInfo(group);
  if (at.start < 0) return {};
  return text.substr(static_cast<size_t>(at.start), static_cast<size_t>(at.end - at.start));
}

// Appends the replacement to output, with the groups of the last run, which was one over target, in their places.
void SRegex::_Expand(std::string_view target, std::string_view replacement, SString &output) const {
  if (replacement.find_first_of("$\\") == std::string_view::npos) {
    output.Append(replacement);
    return;
  }
  SString expanded;
  for (size_t at = 0; at < replacement.size(); ++at) {
    char const c = replacement[at];
    if (c != '$' && c != '\\') {
      expanded += c;
      continue;
    }
    if (++at == replacement.size()) {
      fputs("Invalid replacement string in regular expression\n", stderr);
      return;
    }
    char const next = replacement[at];
    if (next >= '1' && next <= '9') {
      expanded.Append(_Group(target, next - '0'));
    } else if (c == '\\') {
      expanded += ControlByte(next);
    } else if (next == '&') {
      expanded.Append(_Group(target, 0));
    } else {
      fputs("Unescaped '$' in regular expression replacement string\n", stderr);
      expanded += '$';
    }
  }
  output += expanded;
}
