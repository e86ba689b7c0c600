#include "brenthaven/regex/automaton.h"

#include <algorithm>
#include <iterator>

namespace {

constexpr int kMaxRepeats = 255;  // of a bound, as POSIX says
constexpr int kUnbounded = -1;
constexpr size_t kMaxDepth = 256;  // of nested groups
constexpr std::string_view kWordBegin = "[[:<:]]";
constexpr std::string_view kWordEnd = "[[:>:]]";

bool IsDigit(char c) { return c >= '0' && c <= '9'; }
bool IsUpper(int c) { return c >= 'A' && c <= 'Z'; }
bool IsLower(int c) { return c >= 'a' && c <= 'z'; }
bool IsAlpha(int c) { return IsUpper(c) || IsLower(c); }
bool IsAlnum(int c) { return IsAlpha(c) || (c >= '0' && c <= '9'); }
bool IsGraph(int c) { return c > ' ' && c < 0x7f; }

struct ByteClass {
  std::string_view name;
  bool (*holds)(int byte);
};

constexpr ByteClass kClasses[] = {
    {"alnum", IsAlnum},
    {"alpha", IsAlpha},
    {"blank", [](int c) { return c == ' ' || c == '\t'; }},
    {"cntrl", [](int c) { return c < ' ' || c == 0x7f; }},
    {"digit", [](int c) { return c >= '0' && c <= '9'; }},
    {"graph", IsGraph},
    {"lower", IsLower},
    {"print", [](int c) { return c >= ' ' && c < 0x7f; }},
    {"punct", [](int c) { return IsGraph(c) && !IsAlnum(c); }},
    {"space", [](int c) { return c == ' ' || (c >= '\t' && c <= '\r'); }},
    {"upper", IsUpper},
    {"xdigit", [](int c) { return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f'); }},
};

int OtherCase(int c) { return IsUpper(c) ? c + ('a' - 'A') : IsLower(c) ? c - ('a' - 'A') : c; }

// The expression as a program, from which the states are made. Targets are relative to the step itself, so that what a
// bound repeats is copied as it is.
struct SStep {
  enum Kind : unsigned char {
    kTake,   // a byte of sets[value]
    kSplit,  // goes on at first, and else at second
    kJump,   // goes on at first
    kMark,   // notes the place in the slots that are bits of value
    kTest,   // goes on where the conditions that are bits of value hold
    kMatch,  // the end
  };
  Kind kind;
  int value = 0;
  int first = 1;
  int second = 0;
};

using Code = std::vector<SStep>;

void Append(Code &code, Code const &more) { code.insert(code.end(), more.begin(), more.end()); }
int Size(Code const &code) { return static_cast<int>(code.size()); }

Code Loop(Code const &part) {
  Code code{{SStep::kSplit, 0, 1, Size(part) + 2}};
  Append(code, part);
  code.push_back({SStep::kJump, 0, -Size(code)});
  return code;
}

// The part least times, then up to most times, or as often as it goes, each further one only if there is one before it.
Code Repeated(Code const &part, int least, int most) {
  Code code;
  for (int copy = 0; copy < least; ++copy) Append(code, part);
  if (most == kUnbounded && least == 0) return Loop(part);
  if (most == kUnbounded) {
    code.push_back({SStep::kSplit, 0, -Size(part), 1});
    return code;
  }
  for (int left = most - least; left > 0; --left) {
    code.push_back({SStep::kSplit, 0, 1, left * (Size(part) + 1)});
    Append(code, part);
  }
  return code;
}

// One pass over the expression, with a stack of open groups.
class Reader {
public:
  Reader(std::string_view text, bool ignoreCase, SAutomaton &out) : _text(text), _ignoreCase(ignoreCase), _out(out) {}

  void Read() {
    if (_text.empty()) return _Fail(kEmpty);
    _groups.emplace_back();
    while (_out.error == kRegexOk && _at < _text.size()) {
      _ReadOne();
      if (_size > SAutomaton::kMaxSteps) _Fail(kTooLarge);
    }
    if (_out.error == kRegexOk && _groups.size() > 1) _Fail(kOpenGroup);
    if (_out.error != kRegexOk) return;
    _out.isPlainBytes = _onlyBytes && _groups.back().branches.empty();
    if (!_groups.back().branches.empty()) {
      _out.isAnchored = false;
      _out.prefix.clear();
    }
  }

  Code Program() const {
    Code code = _groups.back().Finished();
    code.push_back({SStep::kMatch});
    return code;
  }

private:
  struct Group {
    int number = 0;
    std::vector<Code> branches;  // those before the current one
    Code branch;
    size_t partStart = 0;  // of the last part of the branch, which a repetition may take
    bool canRepeat = false;

    void Add(Code const &part) {
      partStart = branch.size();
      Append(branch, part);
      canRepeat = true;
    }
    // Each branch before the last one is tried, else the next, and jumps to the end.
    Code Finished() const {
      if (branches.empty()) return branch;
      int left = Size(branch);
      for (Code const &earlier : branches) left += Size(earlier) + 2;
      Code code;
      for (Code const &earlier : branches) {
        code.push_back({SStep::kSplit, 0, 1, Size(earlier) + 2});
        Append(code, earlier);
        left -= Size(earlier) + 2;
        code.push_back({SStep::kJump, 0, left + 1});
      }
      Append(code, branch);
      return code;
    }
  };

  void _Fail(int error) { _out.error = error; }
  bool _IsNext(std::string_view word) const { return _text.substr(_at).starts_with(word); }

  void _ReadOne() {
    char const c = _text[_at];
    switch (c) {
      case '(':
        return _OpenGroup();
      case ')':
        return _CloseGroup();
      case '|':
        return _EndBranch();
      case '*':
        return _Repeat(0, kUnbounded, 1);
      case '+':
        return _Repeat(1, kUnbounded, 1);
      case '?':
        return _Repeat(0, 1, 1);
      case '^':
        return _Begin();
      case '$':
        return _End();
      case '.':
        return _Set(SByteSet().set(), 1);
      case '[':
        return _Bracket();
      case '\\':
        return _Escaped();
      case '{':
        return _Brace();
      default:
        return _Byte(c, 1);
    }
  }

  void _OpenGroup() {
    if (_groups.size() > kMaxDepth) return _Fail(kTooLarge);
    _EndPrefix();
    _groups.emplace_back().number = ++_out.groups;
    ++_at;
  }

  void _CloseGroup() {
    if (_groups.size() == 1) return _Fail(kOpenGroup);
    Group const &group = _groups.back();
    bool const isMarked = group.number < SAutomaton::kMarkedGroups;
    int const mark = isMarked ? 1 << 2 * group.number : 0;
    Code code{{SStep::kMark, mark}};
    Append(code, group.Finished());
    code.push_back({SStep::kMark, mark << 1});
    _groups.pop_back();
    _Add(code, 1);
  }

  void _EndBranch() {
    Group &group = _groups.back();
    _EndPrefix();
    group.branches.push_back(std::move(group.branch));
    group.branch.clear();
    group.canRepeat = false;
    _size += 2;
    ++_at;
  }

  void _Repeat(int least, int most, size_t length) {
    Group &group = _groups.back();
    if (!group.canRepeat) return _Fail(kBadRepetition);
    if (_isPrefixOpen && !_out.prefix.empty()) _out.prefix.pop_back();
    _EndPrefix();
    Code const part(group.branch.begin() + static_cast<long>(group.partStart), group.branch.end());
    size_t const copies = static_cast<size_t>(std::max({least, most, 1}));
    if ((_size += copies * (part.size() + 1)) > SAutomaton::kMaxSteps) return _Fail(kTooLarge);
    group.branch.resize(group.partStart);
    Append(group.branch, Repeated(part, least, most));
    group.canRepeat = false;
    _at += length;
  }

  void _Brace() {
    size_t end = _at + 1;
    if (end >= _text.size() || !IsDigit(_text[end])) return _Byte('{', 1);
    int const least = _Number(end);
    int most = least;
    if (end < _text.size() && _text[end] == ',') {
      ++end;
      most = end < _text.size() && IsDigit(_text[end]) ? _Number(end) : kUnbounded;
    }
    if (end >= _text.size()) return _Fail(kOpenBrace);
    if (_text[end] != '}' || least > kMaxRepeats || most > kMaxRepeats) return _Fail(kBadBound);
    if (most != kUnbounded && least > most) return _Fail(kBadBound);
    _Repeat(least, most, end + 1 - _at);
  }

  // The number at end, which moves behind it. It stops growing once it is past the limit.
  int _Number(size_t &end) const {
    int number = 0;
    for (; end < _text.size() && IsDigit(_text[end]); ++end)
      if (number <= kMaxRepeats) number = number * 10 + (_text[end] - '0');
    return number;
  }

  void _Begin() {
    if (_at == 0)
      _out.isAnchored = true;
    else
      _EndPrefix();
    _Test(SEdge::kAtBegin, 1);
  }

  void _End() {
    if (_at + 1 == _text.size() && _isPrefixOpen)
      _out.isAtEnd = true;
    else
      _EndPrefix();
    _Test(SEdge::kAtEnd, 1);
  }

  void _Test(SEdge::Condition condition, size_t length) {
    _groups.back().Add({{SStep::kTest, static_cast<int>(condition)}});
    _groups.back().canRepeat = false;
    ++_size;
    _at += length;
  }

  void _Escaped() {
    if (_at + 1 >= _text.size()) return _Fail(kBadEscape);
    _Byte(_text[_at + 1], 2);
  }

  void _Byte(char c, size_t length) {
    int const byte = static_cast<unsigned char>(c);
    bool const hasOtherCase = _ignoreCase && OtherCase(byte) != byte;
    SByteSet set;
    set.set(static_cast<size_t>(byte));
    if (hasOtherCase) set.set(static_cast<size_t>(OtherCase(byte)));
    if (hasOtherCase)
      _EndPrefix();
    else if (_isPrefixOpen)
      _out.prefix += c;
    _Add({{SStep::kTake, _SetNumber(set)}}, length);
  }

  int _SetNumber(SByteSet const &set) {
    auto const known = std::find(_out.sets.begin(), _out.sets.end(), set);
    int const number = static_cast<int>(known - _out.sets.begin());
    if (known == _out.sets.end()) _out.sets.push_back(set);
    return number;
  }

  void _Set(SByteSet const &set, size_t length) {
    _EndPrefix();
    _Add({{SStep::kTake, _SetNumber(set)}}, length);
  }

  void _Add(Code const &part, size_t length) {
    ++_size;
    _groups.back().Add(part);
    _at += length;
  }

  // Called for anything but a plain byte: what comes behind is not known to follow the prefix directly.
  void _EndPrefix() { _isPrefixOpen = _onlyBytes = false; }

  // Brackets. A "]" or "-" that comes first, and a "-" that comes last, is a byte of the bracket, and so is a
  // backslash.

  void _Bracket() {
    if (_IsNext(kWordBegin) || _IsNext(kWordEnd)) {
      _EndPrefix();
      return _Test(_IsNext(kWordBegin) ? SEdge::kAtWordBegin : SEdge::kAtWordEnd, kWordBegin.size());
    }
    size_t at = _at + 1;
    bool const isNegated = at < _text.size() && _text[at] == '^';
    if (isNegated) ++at;
    SByteSet set;
    size_t const first = at;
    while (at < _text.size() && (_text[at] != ']' || at == first) && _out.error == kRegexOk) _BracketItem(at, set);
    if (_out.error != kRegexOk) return;
    if (at >= _text.size()) return _Fail(kOpenBracket);
    if (_ignoreCase)
      for (int c = 'A'; c <= 'Z'; ++c)
        if (set[static_cast<size_t>(c)] || set[static_cast<size_t>(OtherCase(c))])
          set.set(static_cast<size_t>(c)).set(static_cast<size_t>(OtherCase(c)));
    _Set(isNegated ? ~set : set, at + 1 - _at);
  }

  void _BracketItem(size_t &at, SByteSet &set) {
    if (_text.substr(at).starts_with("[:")) return _BracketClass(at, set);
    int const low = _BracketByte(at);
    int high = low;
    if (at + 1 < _text.size() && _text[at] == '-' && _text[at + 1] != ']') high = _BracketByte(++at);
    if (_out.error != kRegexOk) return;
    if (low > high) return _Fail(kBadRange);
    for (int c = low; c <= high; ++c) set.set(static_cast<size_t>(c));
  }

  void _BracketClass(size_t &at, SByteSet &set) {
    size_t const end = _text.find(":]", at + 2);
    if (end == std::string_view::npos) return _Fail(kOpenBracket);
    std::string_view const name = _text.substr(at + 2, end - at - 2);
    auto const known = std::find_if(std::begin(kClasses), std::end(kClasses),
                                    [name](ByteClass const &row) { return row.name == name; });
    if (known == std::end(kClasses)) return _Fail(kBadClass);
    for (int c = 0; c < 256; ++c)
      if (known->holds(c)) set.set(static_cast<size_t>(c));
    at = end + 2;
  }

  // One end of a range: a byte, or one in the dress of a collating element or an equivalence class.
  int _BracketByte(size_t &at) {
    std::string_view const rest = _text.substr(at);
    if (!rest.starts_with("[.") && !rest.starts_with("[=")) return static_cast<unsigned char>(_text[at++]);
    if (rest.size() < 5 || rest[3] != rest[1] || rest[4] != ']') {
      _Fail(kBadCollation);
      return 0;
    }
    at += 5;
    return static_cast<unsigned char>(rest[2]);
  }

  std::string_view _text;
  bool _ignoreCase;
  SAutomaton &_out;
  size_t _at = 0;
  size_t _size = 0;  // steps, roughly and never too few; what bounds multiply is counted before it is made
  std::vector<Group> _groups;
  bool _isPrefixOpen = true;
  bool _onlyBytes = true;
};

// Makes the states of a program: one for each kTake, with an edge to each that is reached from it without taking a
// byte.
class Flattener {
public:
  Flattener(Code const &code, SAutomaton &out) : _code(code), _out(out), _state(code.size()), _reached(code.size()) {}

  void Run() {
    _out.states.push_back({0, 0, 0});
    for (size_t at = 0; at < _code.size(); ++at) {
      if (_code[at].kind != SStep::kTake) continue;
      _state[at] = static_cast<int>(_out.states.size());
      _out.states.push_back({_code[at].value, 0, 0});
    }
    _AddEdges(_out.states[0], 0);
    for (size_t at = 0; at < _code.size() && _out.error == kRegexOk; ++at)
      if (_code[at].kind == SStep::kTake) _AddEdges(_out.states[static_cast<size_t>(_state[at])], at + 1);
    for (int i = 0; i < _out.states[0].endEdge; ++i) {
      int const target = _out.edges[static_cast<size_t>(i)].target;
      if (target == SEdge::kMatch)
        _out.canBeEmpty = true;
      else
        _out.firstBytes |= _out.sets[static_cast<size_t>(_out.states[static_cast<size_t>(target)].set)];
    }
  }

private:
  struct Place {
    size_t at;
    unsigned conditions;
    unsigned marks;
  };

  void _AddEdges(SState &state, size_t from) {
    state.firstEdge = static_cast<int>(_out.edges.size());
    std::vector<Place> work{{from, 0, 0}};
    while (!work.empty() && _out.error == kRegexOk) {
      Place place = work.back();
      work.pop_back();
      if (_IsReached(place)) continue;
      SStep const &step = _code[place.at];
      switch (step.kind) {
        case SStep::kTake:
          _AddEdge(_state[place.at], place);
          continue;
        case SStep::kMatch:
          _AddEdge(SEdge::kMatch, place);
          continue;
        case SStep::kSplit:
          work.push_back({place.at + static_cast<size_t>(step.second), place.conditions, place.marks});
          break;
        case SStep::kMark:
          place.marks |= static_cast<unsigned>(step.value);
          break;
        case SStep::kTest:
          place.conditions |= static_cast<unsigned>(step.value);
          break;
        case SStep::kJump:
          break;
      }
      place.at += static_cast<size_t>(step.first);
      work.push_back(place);
    }
    for (size_t at : _touched) _reached[at].clear();
    _touched.clear();
    state.endEdge = static_cast<int>(_out.edges.size());
  }

  // Whether a more eager way came here that asks for no condition that this one does not ask for.
  bool _IsReached(Place const &place) {
    if (++_passed > 10 * SAutomaton::kMaxEdges) _out.error = kTooLarge;
    std::vector<unsigned> &ways = _reached[place.at];
    for (unsigned const conditions : ways)
      if ((conditions & ~place.conditions) == 0) return true;
    if (ways.empty()) _touched.push_back(place.at);
    ways.push_back(place.conditions);
    return false;
  }

  void _AddEdge(int target, Place const &place) {
    _out.edges.push_back({target, place.conditions, place.marks});
    if (_out.edges.size() > SAutomaton::kMaxEdges) _out.error = kTooLarge;
  }

  Code const &_code;
  SAutomaton &_out;
  std::vector<int> _state;                      // of each kTake
  std::vector<std::vector<unsigned>> _reached;  // for each step, the conditions of the ways that came there
  std::vector<size_t> _touched;                 // steps with such ways
  size_t _passed = 0;
};

}  // namespace

char const *RegexErrorText(int error) {
  switch (error) {
    case kRegexOk:
      return "no error";
    case kBadCollation:
      return "invalid collating element";
    case kBadClass:
      return "invalid character class";
    case kBadEscape:
      return "trailing backslash (\\)";
    case kOpenBracket:
      return "brackets ([ ]) not balanced";
    case kOpenGroup:
      return "parentheses not balanced";
    case kOpenBrace:
      return "braces not balanced";
    case kBadBound:
      return "invalid repetition count(s)";
    case kBadRange:
      return "invalid character range";
    case kTooLarge:
      return "regular expression too large";
    case kBadRepetition:
      return "repetition-operator operand invalid";
    case kEmpty:
      return "empty regular expression";
    default:
      return "unknown error";
  }
}

SAutomaton::SAutomaton(std::string_view expression, bool ignoreCase) {
  Reader reader(expression, ignoreCase, *this);
  reader.Read();
  if (error == kRegexOk && !isPlainBytes) Flattener(reader.Program(), *this).Run();
}
