#include "brenthaven/address/parser822.h"

#include <algorithm>
#include <string_view>

#include "brenthaven/address/kinds.h"

using namespace address;

namespace {

constexpr int kWords = SToken::kAtom | SToken::kQuoted | SToken::kDot;
constexpr int kSeparators = SToken::kComma | SToken::kSemicolon | SToken::kLineEnd | SToken::kEnd;  // end an address

}  // namespace

struct S822Parser::Reading {
  explicit Reading(S822Address &target) : address(target) {}

  S822Address &address;
  SStringList words;       // tokens of which it is not known yet what they are part of
  bool commented = false;  // a comment stood among them
  int start = -1;
  int end = -1;

  void Accept(SToken const &token) { end = token.End(); }
  void Push(SToken const &token) {
    words.Push(token);
    Accept(token);
  }
  SStringList TakeWords() {
    SStringList taken = words;
    words.Undef();
    return taken;
  }
};

SToken S822Parser::NextToken() {
  return _Read([this](Scan &scan) {
    switch (_state) {
      case kInQuote:
        return _Byte() == '\r' ? _LineEnd(scan) : _InQuote(scan);
      case kInComment:
        return _InComment(scan);
      case kInLiteral:
        return _InLiteral(scan);
      default:
        return _InNormal(scan);
    }
  });
}

void S822Parser::_InNormal(Scan &scan) {
  if (_Byte() == '\r') return _LineEnd(scan);
  int const kind = _InWords(scan, kKinds822);
  if (kind == kInWord) return;
  _Take(scan, 1);
  switch (kind) {
    case kQuote:
      _state = kInQuote;
      break;
    case kBracket:
      _state = kInLiteral;
      break;
    case kParenthesis:
      _state = kInComment;
      _depth = 1;
      break;
    case kMisplaced:
      return scan.End(SToken::kError);
    default:
      return scan.End(kind);
  }
}

void S822Parser::_InComment(Scan &scan) {
  _TakeWhile(scan, [](unsigned char c) { return c != '(' && c != ')' && c != '\\' && c != '\r'; });
  if (_AtEnd()) return;
  switch (_Byte()) {
    case '\\':
      return _Take(scan, 2);
    case '\r':
      return _LineEnd(scan);
    case '(':
      ++_depth;
      return _Take(scan, 1);
    default:
      break;
  }
  _Take(scan, 1);
  if (--_depth == 0) scan.End(SToken::kComment);
}

void S822Parser::_InLiteral(Scan &scan) {
  _TakeWhile(scan, [](unsigned char c) { return c != '[' && c != ']' && c != '\\' && c != '\r'; });
  if (_AtEnd()) return;
  switch (_Byte()) {
    case '\\':
      return _Take(scan, 2);
    case '\r':
      return _LineEnd(scan);
    case ']':
      _Take(scan, 1);
      return scan.End(SToken::kLiteral);
    default:
      return scan.Fail();
  }
}

// At a CR. A folded line counts as one blank; a line end that folds nothing is a token between others and an error
// elsewhere, but means nothing at the very end of the text.
void S822Parser::_LineEnd(Scan &scan) {
  std::string_view const text = _text.View();
  size_t const behind = static_cast<size_t>(_position) + 2;
  if (_text[_position + 1] != '\n') return scan.Fail();
  size_t const next = std::min(text.find_first_not_of(" \t", behind), text.size());
  bool const folded = next > behind;
  if (_state != kNormal && !folded) return scan.Fail();
  if (_state != kNormal) {
    scan.text += ' ';
    _position = static_cast<int>(next);
  } else if (scan.text.Length() > 0) {
    scan.End(SToken::kAtom);  // and the CR is met again
  } else if (folded || behind == text.size()) {
    _Skip(static_cast<int>(next) - _position);
  } else {
    _Take(scan, 2);
    scan.End(SToken::kLineEnd);
  }
}

unsigned int S822Parser::GetNextAddress(S822Address &address, int &start, int &end) {
  address = S822Address();
  Reading reading(address);
  unsigned int const produced = _ReadAddress(reading);
  start = reading.start;
  end = reading.end;
  return produced;
}

S822Address S822Parser::NextAddress() {
  S822Address address;
  int start = 0;
  int end = 0;
  if (GetNextAddress(address, start, end)) _FixLocalPart(address.LocalPart());
  return address;
}

SStringList S822Parser::Addresses() {
  SStringList addresses;
  addresses.Define();
  Reset();
  for (S822Address address = NextAddress(); address._end == 0 && !address.IsBad(); address = NextAddress())
    addresses.Push(address.S821Address::Address());
  return addresses;
}

// Goes round once for each group name in front of the address.
unsigned int S822Parser::_ReadAddress(Reading &reading) {
  S822Address &address = reading.address;
  for (;;) {
    SToken token = _FirstToken(reading);
    if (token.Is(SToken::kEnd | SToken::kLineEnd)) {
      address._end = 1;
      return 0;
    }
    if (token.Is(SToken::kAt)) return _ReadRouted(reading);
    if (token.Is(SToken::kLeftAngle)) return _ReadBracketed(reading);
    if (!token.Is(kWords)) return _Refuse(reading);

    token = _ReadWords(reading, token);
    if (token.Is(SToken::kColon) && _group == 0 && !reading.commented) {
      _group = 1;
      reading.words.Undef();
      continue;
    }
    if (token.Is(SToken::kLeftAngle)) {
      address._phrase = _JoinTokens(reading.TakeWords(), ' ');
      address._comment.Undef();
      return _ReadBracketed(reading);
    }
    if (!token.Is(SToken::kAt | kSeparators)) return _Refuse(reading);
    address._local = _JoinTokens(reading.TakeWords(), '.');
    if (token.Is(SToken::kAt)) return _ReadDomain(reading);
    if (!token.Is(SToken::kEnd)) UndoNext();
    return 1;
  }
}

// The first token of the address itself.
SToken S822Parser::_FirstToken(Reading &reading) {
  SToken token = NextToken();
  for (; token.Is(SToken::kComment | SToken::kComma | SToken::kSemicolon); token = NextToken())
    if (token.Is(SToken::kSemicolon)) _group = 0;
  reading.start = token.Start();
  reading.Accept(token);
  return token;
}

// Gathers the words of a phrase, a group name or a local part, and returns the token that tells which it is. A comment
// among them becomes one of them; the last, with no word behind it, is the address's comment.
SToken S822Parser::_ReadWords(Reading &reading, SToken token) {
  SString &comment = reading.address._comment;
  for (; token.Is(kWords | SToken::kComment); token = NextToken()) {
    if (token.Is(SToken::kComment)) {
      comment = token;
      reading.commented = true;
      reading.Accept(token);
      continue;
    }
    if (comment.Length() > 0) reading.words.Push(comment);
    comment.Undef();
    reading.Push(token);
  }
  return token;
}

// Behind "<".
unsigned int S822Parser::_ReadBracketed(Reading &reading) {
  SToken token = NextToken();
  while (token.Is(SToken::kLeftAngle)) token = NextToken();
  reading.Accept(token);
  if (token.Is(SToken::kRightAngle)) return _Close(reading);
  if (token.Is(SToken::kAt)) return _ReadRouted(reading);
  return _ReadLocalPart(reading, token);
}

// At the "@" of a route, which was just read.
unsigned int S822Parser::_ReadRouted(Reading &reading) {
  UndoNext();
  reading.address._route = _ExtractRoute();
  if (!reading.address._route.Defined()) return _Refuse(reading);
  return _ReadLocalPart(reading, NextToken());
}

unsigned int S822Parser::_ReadLocalPart(Reading &reading, SToken token) {
  for (; token.Is(kWords | SToken::kLiteral | SToken::kComment); token = NextToken()) {
    if (!token.Is(SToken::kComment)) reading.words.Push(token);
    reading.Accept(token);
  }
  reading.address._local = _JoinTokens(reading.TakeWords(), '.');
  if (token.Is(SToken::kAt)) return _ReadDomain(reading);
  if (!token.Is(SToken::kRightAngle | SToken::kComma | SToken::kEnd)) return _Refuse(reading);
  if (!token.Is(SToken::kEnd)) UndoNext();
  return _Close(reading);
}

unsigned int S822Parser::_ReadDomain(Reading &reading) {
  S822Address &address = reading.address;
  SString comment;  // one that no more of the domain follows
  SToken token = NextToken();
  for (; !token.Is(SToken::kRightAngle | kSeparators); token = NextToken()) {
    if (token.Is(SToken::kError)) return _Refuse(reading);
    comment = token.Is(SToken::kComment) ? SString(token) : SString();
    if (!token.Is(SToken::kComment)) reading.words.Push(token);
    reading.Accept(token);
  }
  if (!token.Is(SToken::kEnd)) UndoNext();
  if (comment.Length() > 0) address._comment = comment;
  address._domain = _JoinTokens(reading.TakeWords(), ' ');
  if (address._domain[-1] == '.') address._domain.Chop();
  if (!::IsValidDomain(address._domain)) address._bad = 1;
  return _Close(reading);
}

// Behind the address: further ">" and a comment are still of it.
unsigned int S822Parser::_Close(Reading &reading) {
  SToken token = NextToken();
  for (; token.Is(SToken::kRightAngle | SToken::kComment); token = NextToken()) {
    if (token.Is(SToken::kComment)) reading.address._comment = token;
    reading.Accept(token);
  }
  if (!token.Is(SToken::kEnd | SToken::kError)) UndoNext();
  return 1;
}

unsigned int S822Parser::_Refuse(Reading &reading) {
  reading.address._bad = 1;
  return 0;
}
