// brenthaven/address/token.h - one token of an address text.
#pragma once
#include "brenthaven/text/sstring.h"

// The token's text is the string itself. Folded lines count as one blank and blanks in an RFC 821 literal are
// dropped, so the text may be shorter than what it stands for.
class SToken : public SString {
public:
  // Single bits, so that a set of types is an "or" of them.
  enum Types : int {
    kError = 0x1,         // text empty, or the offending character (S822Parser)
    kEnd = 0x2,           // end of the text
    kAtom = 0x4,          // a word
    kQuoted = 0x8,        // with its quotes
    kComment = 0x10,      // with its parentheses; S822Parser alone makes these
    kLiteral = 0x20,      // domain literal with its brackets
    kOther = 0x40,        // any other single character: "(", ")", "]" or a control character
    kLeftAngle = 0x80,    // "<"
    kRightAngle = 0x100,  // ">"
    kAt = 0x200,          // "@"
    kDot = 0x400,         // "."
    kComma = 0x800,       // ","
    kSemicolon = 0x1000,  // ";"
    kColon = 0x2000,      // ":"
    kLineEnd = 0x4000,    // CR LF with no blank behind it; S822Parser alone
    kPercent = 0x8000,    // "%"; S821Parser alone
  };

  SToken() = default;  // an end token at -1
  SToken(SString const &text, int type, int start)
      : SString(text), _type(type), _start(start), _end(start + Length() - 1) {}
  SToken(SToken const &) = default;
  SToken &operator=(SToken const &) = default;
  virtual ~SToken() = default;

  virtual int Type() const { return _type; }
  virtual int Start() const { return _start; }  // position of the first character
  virtual int End() const { return _end; }      // Start() + Length() - 1
  bool Is(int types) const { return (_type & types) != 0; }

private:
  int _type = kEnd;
  int _start = -1;
  int _end = -1;
};
