#include "brenthaven/address/parser821.h"

#include <algorithm>
#include <array>
#include <initializer_list>
#include <iterator>
#include <string_view>

#include "brenthaven/address/kinds.h"

using namespace address;

namespace {

constexpr bool IsDigit(unsigned char c) { return c >= '0' && c <= '9'; }
constexpr bool IsAlphanumeric(unsigned char c) {
  return IsDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

// Bytes of a host name's label. A set bit tells where one may stand.
enum Place : unsigned char { kFirst = 1, kLater = 2 };
constexpr std::array<unsigned char, 256> kInElement = [] {
  std::array<unsigned char, 256> places{};
  for (int c = 0; c < 256; ++c)
    if (IsAlphanumeric(static_cast<unsigned char>(c))) places[c] = kFirst | kLater;
  for (unsigned char c : std::string_view("#~?")) places[c] = kFirst | kLater;
  for (unsigned char c : std::string_view("-_")) places[c] = kLater;
  return places;
}();

// Bytes that a local part may hold between quotes alone.
constexpr std::array<bool, 256> kNeedsQuotes = [] {
  std::array<bool, 256> needs{};
  for (int c = 0; c < 256; ++c) needs[c] = IsControl(static_cast<unsigned char>(c));
  for (unsigned char c : std::string_view("] <>()@%,;:\\\"[")) needs[c] = true;
  return needs;
}();

// The order of tokens in a local part. Each token leads to a phase, and may follow the phases whose bits are set.
struct LocalRule {
  int token;
  unsigned int after;
  int phase;
};
constexpr unsigned int After(std::initializer_list<int> phases) {
  unsigned int bits = 0;
  for (int phase : phases) bits |= 1U << phase;
  return bits;
}
constexpr LocalRule kLocalRules[] = {
    {SToken::kQuoted, After({0}), 1}, {SToken::kAtom, After({0, 3, 4}), 2},       {SToken::kLiteral, After({4}), 5},
    {SToken::kDot, After({2}), 3},    {SToken::kPercent, After({1, 2, 4, 5}), 4},
};
constexpr unsigned int kComplete = After({1, 2, 5});  // phases in which a local part may end

LocalRule const *FindLocalRule(SToken const &token) {
  auto const *rule = std::find_if(std::begin(kLocalRules), std::end(kLocalRules),
                                  [&](LocalRule const &r) { return token.Is(r.token); });
  return rule != std::end(kLocalRules) ? rule : nullptr;
}

bool IsLabel(SToken const &token) { return token.Is(SToken::kAtom) && S821Parser::IsValidElement(token); }
bool IsElement(SToken const &token) { return token.Is(SToken::kLiteral) || IsLabel(token); }
bool AllDigits(std::string_view text) { return std::all_of(text.begin(), text.end(), IsDigit); }

bool NextIsDot(SStringList const &tokens, SStringList::Iterator token) {
  return ++token != tokens.end() && *token == ".";
}

// A quote that no backslash escapes, with text on both sides of it.
bool HasInnerQuote(std::string_view text) {
  for (size_t i = 1; i + 1 < text.size(); ++i)
    if (text[i] == '"' && text[i - 1] != '\\') return true;
  return false;
}

SString WithoutEscapes(std::string_view text) {
  SString plain("");
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 1 < text.size()) ++i;
    plain += text[i];
  }
  return plain;
}

SString Quoted(std::string_view text) {
  SString quoted("\"");
  for (char c : text) {
    if (c == '"' || c == '\\' || c == '\r' || c == '\n') quoted += '\\';
    quoted += c;
  }
  return quoted += '"';
}

}  // namespace

S821Parser::S821Parser(SString const &text, unsigned int lenient) : SParser(text), _lenient(lenient) {}

SToken S821Parser::NextToken() {
  return _Read([this](Scan &scan) {
    switch (_state) {
      case kInQuote:
        return _InQuote(scan);
      case kInLiteral:
        return _InLiteral(scan);
      default:
        return _InNormal(scan);
    }
  });
}

int S821Parser::_InWords(Scan &scan, Kinds const &kinds) {
  int const kind = kinds[_Byte()];
  bool const hasWord = scan.text.Length() > 0;
  if (kind == kInWord) {
    _TakeWhile(scan, [&kinds](unsigned char c) { return kinds[c] == kInWord; });
  } else if (kind == kBlank && !hasWord) {
    _Skip(1);
  } else if (hasWord) {
    if (kind == kBlank) ++_position;
    scan.End(SToken::kAtom);
  } else {
    return kind;
  }
  return kInWord;
}

void S821Parser::_InNormal(Scan &scan) {
  if (kKinds821[_Byte()] == kEscape) return _Take(scan, 2);
  int const kind = _InWords(scan, kKinds821);
  if (kind == kInWord) return;
  _Take(scan, 1);
  if (kind == kQuote)
    _state = kInQuote;
  else if (kind == kBracket)
    _state = kInLiteral;
  else
    scan.End(kind);
}

void S821Parser::_InQuote(Scan &scan) {
  switch (_Byte()) {
    case '\\':
      return _Take(scan, 2);
    case '"':
      _Take(scan, 1);
      return scan.End(SToken::kQuoted);
    case '\r':
    case '\n':
      return scan.Fail();
    default:
      _TakeWhile(scan, [](unsigned char c) { return c != '"' && c != '\\' && c != '\r' && c != '\n'; });
  }
}

void S821Parser::_InLiteral(Scan &scan) {
  unsigned char const c = _Byte();
  if (c == ' ') {
    ++_position;
  } else if (IsDigit(c) || c == '.') {
    _Take(scan, 1);
  } else if (c == ']') {
    _Take(scan, 1);
    if (IsValidLiteral(scan.text))
      scan.End(SToken::kLiteral);
    else
      scan.Fail();
  } else {
    scan.Fail();
  }
}

S821Address S821Parser::ExtractAddress() {
  S821Address address = _ParseAddress();
  _FixLocalPart(address._local);
  return address;
}

S821Address S821Parser::_ParseAddress() {
  S821Address address;
  address._bad = _ReadAddress(address) ? 0 : 1;
  return address;
}

// False for a bad address, whose parts are filled in as far as they were read.
bool S821Parser::_ReadAddress(S821Address &address) {
  SToken token = _OpenAddress();
  if (token.Is(SToken::kError)) return false;
  if (token.Is(SToken::kRightAngle)) {
    _SkipRightAngles();
    return true;
  }
  if (token.Is(SToken::kAt)) {
    UndoNext();
    address._route = _ExtractRoute();
    if (!address._route.Defined()) return false;
    token = NextToken();
  }
  if (!_ReadLocalPart(token, address._local)) return false;
  if (!token.Is(SToken::kAt)) return true;
  if (!_ReadHost(address._domain).Is(SToken::kRightAngle | SToken::kEnd) || address._domain.Length() == 0) return false;
  _SkipRightAngles();
  return ::IsValidDomain(address._domain) != 0;
}

// The first token behind "<", or of the whole text when there is no "<" in it.
SToken S821Parser::_OpenAddress() {
  SToken token = NextToken();
  while (!token.Is(SToken::kLeftAngle | SToken::kEnd | SToken::kError)) token = NextToken();
  if (token.Is(SToken::kEnd)) {
    Reset();
    token = NextToken();
  }
  while (token.Is(SToken::kLeftAngle)) token = NextToken();
  return token;
}

// Begins with the token at hand and ends with the first one behind the local part, "@", ">" or the end.
bool S821Parser::_ReadLocalPart(SToken &token, SString &local) {
  int phase = 0;
  while (!token.Is(SToken::kAt | SToken::kRightAngle | SToken::kEnd)) {
    LocalRule const *rule = FindLocalRule(token);
    if (rule == nullptr) return false;
    bool const inTurn = (rule->after >> phase & 1) != 0;
    if (!inTurn && (!_lenient || rule->token == SToken::kQuoted)) return false;
    local += token;
    phase = rule->phase;
    token = NextToken();
  }
  return _lenient || (kComplete >> phase & 1) != 0;
}

// Gathers elements with dots between them, less a dot at the end, and returns the token that does not go on with them.
SToken S821Parser::_ReadHost(SString &host) {
  bool wantsElement = true;
  SToken token = NextToken();
  for (; token.Is(SToken::kComment) || (wantsElement ? IsElement(token) : token.Is(SToken::kDot));
       token = NextToken()) {
    if (token.Is(SToken::kComment)) continue;
    host += token;
    wantsElement = !wantsElement;
  }
  if (host[-1] == '.') host.Chop();
  return token;
}

void S821Parser::_SkipRightAngles() {
  SToken token = NextToken();
  while (token.Is(SToken::kRightAngle)) token = NextToken();
  if (!token.Is(SToken::kEnd | SToken::kError)) UndoNext();
}

int S821Parser::IsValidDomain() {
  Reset();
  SToken token = NextToken();
  if (token.Is(SToken::kLiteral)) return NextToken().Is(SToken::kEnd);
  int labels = 1;
  for (;; ++labels) {
    if (!IsLabel(token)) return 0;
    SToken const behind = NextToken();
    if (behind.Is(SToken::kEnd)) break;
    if (!behind.Is(SToken::kDot)) return 0;
    token = NextToken();
  }
  return labels == 1 || !AllDigits(token.View());
}

unsigned int S821Parser::IsValidElement(SString const &text) {
  int place = kFirst;
  for (unsigned char c : text.View()) {
    if ((kInElement[c] & place) == 0) return 0;
    place = kLater;
  }
  return place == kLater;
}

SStringList S821Parser::Extensions() {
  SStringList words;
  words.Define();
  std::string_view rest = _text.View().substr(static_cast<size_t>(_position));
  if (std::any_of(rest.begin(), rest.end(), [](unsigned char c) { return IsControl(c); })) return SStringList();
  while (!rest.empty()) {
    std::string_view const word = rest.substr(0, rest.find(' '));
    if (!word.empty()) words.Push(SString(word));
    rest.remove_prefix(std::min(word.size() + 1, rest.size()));
  }
  return words;
}

int S821Parser::_TokenType(SString const &text) {
  if (text.Length() == 0) return SToken::kEnd;
  bool const longer = text.Length() > 1;
  switch (text[0]) {
    case '"':
      return longer ? SToken::kQuoted : SToken::kOther;
    case '(':
      return longer ? SToken::kComment : SToken::kOther;
    case '[':
      return longer ? SToken::kLiteral : SToken::kOther;
    case '\\':
      return longer ? SToken::kAtom : SToken::kOther;
  }
  if (text == "\r\n") return SToken::kLineEnd;
  int const kind = kKinds821[static_cast<unsigned char>(text[0])];
  return kind > 0 ? kind : SToken::kAtom;
}

SString S821Parser::_JoinTokens(SStringList tokens, char separator) {
  constexpr int kWords = SToken::kAtom | SToken::kQuoted;
  int const wanted = separator == ' ' ? kWords | SToken::kLeftAngle | SToken::kComment : kWords;
  if (!tokens.Defined()) return SString();
  SString joined("");
  int previous = 0;
  for (auto token = tokens.begin(); token != tokens.end(); ++token) {
    int const type = _TokenType(*token);
    if ((previous & kWords) != 0 && (type & wanted) != 0) {
      // A comment in front of a dot stays with its word: "Jo(hn). Doe".
      bool const glued = previous == SToken::kAtom && type == SToken::kComment && NextIsDot(tokens, token);
      if (!glued) joined += separator;
    }
    // In a text that begins with "%" nothing comes between a quoted string and the atom behind it.
    if (previous == SToken::kQuoted && type == SToken::kAtom && joined[0] == '%') joined.Chop();
    joined += *token;
    previous = type;
  }
  return joined;
}

SStringList S821Parser::_ExtractRoute() {
  SStringList hosts;
  for (;;) {
    if (!NextToken().Is(SToken::kAt)) {
      UndoNext();
      return SStringList();
    }
    SString host;
    SToken const behind = _ReadHost(host);
    if (host.Length() == 0) return SStringList();
    hosts.Push(host);
    if (behind.Is(SToken::kColon)) return hosts;
    if (!behind.Is(SToken::kComma)) return SStringList();
  }
}

void S821Parser::_FixLocalPart(SString &local) {
  std::string_view text = local.View();
  if (text.find_first_of("\\\"") == std::string_view::npos || HasInnerQuote(text)) return;
  if (text.size() >= 2 && text.front() == '"' && text.back() == '"') text = text.substr(1, text.size() - 2);
  SString const plain = WithoutEscapes(text);
  text = plain.View();
  bool const needsQuotes =
      text.empty() || std::any_of(text.begin(), text.end(), [](unsigned char c) { return kNeedsQuotes[c]; });
  local = needsQuotes ? Quoted(text) : plain;
}

int IsValidDomain(SString const &text) { return S821Parser(text, 1).IsValidDomain(); }

int IsValidLiteral(SString const &text) {
  std::string_view inner = text.View();
  if (inner.size() < 2 || inner.front() != '[' || inner.back() != ']') return 0;
  inner = inner.substr(1, inner.size() - 2);
  int dots = 0;
  int number = 0;
  for (unsigned char c : inner) {
    if (c == '.') {
      ++dots;
      number = 0;
    } else if (!IsDigit(c) || (number = number * 10 + (c - '0')) > 255) {
      return 0;
    }
  }
  return dots == 3;
}
