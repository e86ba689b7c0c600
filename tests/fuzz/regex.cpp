// Any text as an expression, held against any other text: the match is the leftmost and longest one by a slow reading
// of what the expression says, and a substitution puts in place what it should.
//
// The input is the flags, the expression and the replacement, a line each, and the text.
#include <algorithm>
#include <array>
#include <bit>
#include <bitset>
#include <memory>
#include <optional>
#include <vector>

#include "brenthaven/regex/sperlregex.h"
#include "tests/fuzz/fuzz.h"

namespace {

constexpr size_t kLongestExpression = 48;  // that is read slowly
constexpr size_t kLongestText = 60;
using Places = std::uint64_t;  // a set of places in the text, one bit for each

struct Node {
  enum Kind { kSet, kBegin, kEnd, kAlternatives, kSequence, kRepeat } kind;
  std::bitset<256> set;
  int least = 0;
  int most = 0;  // -1 for no bound
  std::vector<Node> parts;
};

// What an expression says, for the common part of the syntax. Gives up, without a word on right or wrong, at what is
// rare, and at what is refused.
class SlowReader {
public:
  SlowReader(std::string_view text, bool ignoreCase) : _text(text), _ignoreCase(ignoreCase) {}

  std::optional<Node> Read() {
    if (_text.empty() || _text.size() > kLongestExpression) return {};
    Node const node = _Alternatives();
    if (_failed || _at < _text.size() || _groups > 9 || _Size(node) > kLargest) return {};
    return node;
  }

private:
  static constexpr size_t kLargest = 2000;  // bytes and brackets with the bounds multiplied out: far below the limit

  static size_t _Size(Node const &node) {
    size_t size = 1;
    for (Node const &part : node.parts) size += _Size(part);
    return size * static_cast<size_t>(node.kind == Node::kRepeat ? std::max({node.least, node.most, 1}) : 1);
  }
  bool _IsNext(std::string_view bytes) const { return _at < _text.size() && bytes.find(_text[_at]) != bytes.npos; }
  Node _Fail() {
    _failed = true;
    _at = _text.size();
    return {Node::kSequence, {}, 0, 0, {}};
  }

  Node _Alternatives() {
    Node node{Node::kAlternatives, {}, 0, 0, {_Sequence()}};
    while (_IsNext("|")) {
      ++_at;
      node.parts.push_back(_Sequence());
    }
    return node;
  }

  Node _Sequence() {
    Node node{Node::kSequence, {}, 0, 0, {}};
    while (!_failed && _at < _text.size() && !_IsNext("|)")) node.parts.push_back(_Repeated());
    return node;
  }

  Node _Repeated() {
    if (_IsNext("*+?{")) return _Fail();
    Node const part = _Part();
    bool const isPlace = part.kind == Node::kBegin || part.kind == Node::kEnd;
    if (!_IsNext("*+?{")) return part;
    if (isPlace) return _Fail();
    Node repeat{Node::kRepeat, {}, 0, -1, {part}};
    char const c = _text[_at++];
    if (c == '+') repeat.least = 1;
    if (c == '?') repeat.most = 1;
    if (c == '{' && !_Bound(repeat)) return _Fail();
    return _IsNext("*+?{") ? _Fail() : repeat;
  }

  bool _Bound(Node &repeat) {
    if (!_Number(repeat.least)) return false;
    repeat.most = repeat.least;
    if (_IsNext(",")) {
      ++_at;
      repeat.most = -1;
      if (!_IsNext("}") && !_Number(repeat.most)) return false;
    }
    if (!_IsNext("}")) return false;
    ++_at;
    return repeat.least <= 255 && repeat.most <= 255 && (repeat.most < 0 || repeat.least <= repeat.most);
  }
  bool _Number(int &number) {
    size_t const start = _at;
    for (number = 0; _IsNext("0123456789") && _at < start + 4; ++_at) number = number * 10 + (_text[_at] - '0');
    return _at > start && !_IsNext("0123456789");
  }

  Node _Part() {
    char const c = _text[_at++];
    switch (c) {
      case '(': {
        ++_groups;
        Node node = _Alternatives();
        if (!_IsNext(")")) return _Fail();
        ++_at;
        return node;
      }
      case '[':
        return _Bracket();
      case ']':
        return _Fail();
      case '.':
        return {Node::kSet, ~std::bitset<256>(), 0, 0, {}};
      case '^':
        return {Node::kBegin, {}, 0, 0, {}};
      case '$':
        return {Node::kEnd, {}, 0, 0, {}};
      case '\\':
        return _Escape();
      default:
        return _Set(std::string_view(&c, 1));
    }
  }

  Node _Set(std::string_view bytes, bool isNegated = false) const {
    std::bitset<256> set;
    for (unsigned char const c : bytes) {
      set.set(c);
      if (_ignoreCase && c >= 'a' && c <= 'z') set.set(c - 32);
      if (_ignoreCase && c >= 'A' && c <= 'Z') set.set(c + 32);
    }
    return {Node::kSet, isNegated ? ~set : set, 0, 0, {}};
  }

  Node _Escape() {
    constexpr std::string_view kDigits = "0123456789";
    constexpr std::string_view kSpace = " \f\n\r\t\v";
    constexpr std::string_view kWord = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz_0123456789";
    if (_at >= _text.size()) return _Fail();
    char const c = _text[_at++];
    switch (c) {
      case 'd':
      case 'D':
        return _Set(kDigits, c == 'D');
      case 's':
      case 'S':
        return _Set(kSpace, c == 'S');
      case 'w':
      case 'W':
        return _Set(kWord, c == 'W');
      case 'N':
        return _Set("\n", true);
      case 'f':
        return _Set("\f");
      case 'n':
        return _Set("\n");
      case 'r':
        return _Set("\r");
      case 't':
        return _Set("\t");
      case 'v':
        return _Set("\v");
      default:
        return _Set(std::string_view(&c, 1));
    }
  }

  // Without escapes and classes.
  Node _Bracket() {
    bool const isNegated = _IsNext("^");
    if (isNegated) ++_at;
    std::string bytes;
    for (bool isFirst = true; isFirst || !_IsNext("]"); isFirst = false) {
      if (_at >= _text.size() || _IsNext("[\\")) return _Fail();
      unsigned char const low = static_cast<unsigned char>(_text[_at++]);
      unsigned char high = low;
      bool const isRange = _at + 1 < _text.size() && _text[_at] == '-' && _text[_at + 1] != ']';
      if (isRange) {
        if (std::string_view("[\\").find(_text[++_at]) != std::string_view::npos) return _Fail();
        high = static_cast<unsigned char>(_text[_at++]);
      }
      if (low > high) return _Fail();
      for (int c = low; c <= high; ++c) bytes += static_cast<char>(c);
    }
    ++_at;
    return _Set(bytes, isNegated);
  }

  std::string_view _text;
  bool _ignoreCase;
  size_t _at = 0;
  int _groups = 0;
  bool _failed = false;
};

// All places where the node may end when it begins at one of the given ones.
Places Ends(Node const &node, std::string_view text, Places from) {
  Places ends = 0;
  switch (node.kind) {
    case Node::kSet:
      for (size_t at = 0; at < text.size(); ++at)
        if ((from >> at & 1) != 0 && node.set[static_cast<unsigned char>(text[at])]) ends |= Places{1} << (at + 1);
      return ends;
    case Node::kBegin:
      return from & 1;
    case Node::kEnd:
      return from & Places{1} << text.size();
    case Node::kAlternatives:
      for (Node const &part : node.parts) ends |= Ends(part, text, from);
      return ends;
    case Node::kSequence:
      for (Node const &part : node.parts) from = Ends(part, text, from);
      return from;
    case Node::kRepeat:
      break;
  }
  for (int i = 0; i < node.least; ++i) from = Ends(node.parts[0], text, from);
  for (int i = node.least; node.most < 0 || i < node.most; ++i) {
    Places const more = from | Ends(node.parts[0], text, from);
    if (more == from) break;
    from = more;
  }
  return from;
}

match_info SlowMatch(Node const &node, std::string_view text, size_t start) {
  for (size_t at = start; at <= text.size(); ++at)
    if (Places const ends = Ends(node, text, Places{1} << at); ends != 0)
      return {static_cast<int>(at), static_cast<int>(std::bit_width(ends)) - 1};
  return {-1, -1};
}

std::string SlowSubst(Node const &node, std::string_view text, std::string_view replacement, bool isGlobal) {
  std::string result;
  int behind = 0;
  for (bool goesOn = true; goesOn;) {
    match_info const match = SlowMatch(node, text, static_cast<size_t>(behind));
    if (match.start < 0) break;
    result += text.substr(static_cast<size_t>(behind), static_cast<size_t>(match.start - behind));
    result += replacement;
    goesOn = isGlobal && match.end > behind && static_cast<size_t>(match.end) < text.size();
    behind = match.end;
  }
  return result + std::string(text.substr(static_cast<size_t>(behind)));
}

void ExpectSlots(SRegex const &regex, SString const &text, SStringList const &list) {
  match_info const whole = regex.MatchInfo(0);
  fuzz::Expect(whole.start >= 0 && whole.start <= whole.end && whole.end <= text.Length(), "a match outside the text");
  for (int group = 0; group < list.Length(); ++group) {
    match_info const at = regex.MatchInfo(group);
    bool const tookPart = at.start >= 0 && at.start <= at.end && whole.start <= at.start && at.end <= whole.end;
    fuzz::Expect(tookPart || (at.start == -1 && at.end == -1), "a group outside the match");
    SString const want =
        tookPart ? SString(text.View().substr(static_cast<size_t>(at.start), static_cast<size_t>(at.end - at.start)))
                 : SString();
    fuzz::Expect(list.Get(group) == want, "a group's text is another");
  }
  for (int const group : {-1, list.Length(), 10, 1000})
    fuzz::Expect(regex.MatchInfo(group).start == -1 && regex.MatchInfo(group).end == -1, "a group that is none");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const *data, size_t size) {
  fuzz::MuteErrorStream();
  std::string_view rest = fuzz::View(data, size);
  std::string const flags(fuzz::TakeLine(rest));
  std::string_view const expression = fuzz::TakeLine(rest);
  std::string_view const replacement = fuzz::TakeLine(rest);
  SString const text(rest);
  bool const ignoreCase = std::string_view(flags.c_str()).find('i') != std::string_view::npos;
  bool const isGlobal = std::string_view(flags.c_str()).find('g') != std::string_view::npos;

  SPerlRegex const regex(fuzz::Text(expression), flags.c_str());
  std::optional<Node> const node = SlowReader(expression, ignoreCase).Read();
  fuzz::Expect(!node || regex.OK(), "a sound expression does not compile", expression);
  SStringList const match = regex.Match(text);
  if (match.Length() > 0) ExpectSlots(regex, text, match);
  match_info const found = regex.MatchInfo(0);
  fuzz::Expect((regex.HasMatch(text) != 0) == (match.Length() > 0), "there is a match and there is none", expression);
  SString changed = text;
  (void)regex.Subst(changed, fuzz::Text(replacement), flags.c_str());
  fuzz::Expect(match.Length() > 0 || changed == text, "a substitution without a match", expression);

  if (!node || rest.size() > kLongestText) return 0;
  match_info const want = SlowMatch(*node, rest, 0);
  fuzz::Expect(found.start == want.start && found.end == want.end, "not the leftmost and longest match",
               fuzz::View(data, size));
  if (rest.size() > 2) {
    bool const isFound = regex.HasMatch(text, 2) != 0;
    fuzz::Expect(isFound == (SlowMatch(*node, rest, 2).start >= 0), "another match from the middle on", expression);
  }
  if (replacement.find_first_of("$\\") == replacement.npos)
    fuzz::Expect(changed.View() == SlowSubst(*node, rest, replacement, isGlobal), "a substitution gave another text",
                 fuzz::View(data, size));
  return 0;
}
