// brenthaven/address/parser.h - the frame of the address parsers: a text, a position in it, one step back.
#pragma once
#include "brenthaven/address/token.h"
#include "brenthaven/text/sstring.h"

class SParser {
public:
  SParser() = default;
  explicit SParser(SString const &text) : _text(text) {}
  SParser(SParser const &) = default;
  SParser &operator=(SParser const &) = default;
  virtual ~SParser() = default;

  virtual void Reset();            // back to the start of the text, an error forgotten
  virtual SToken NextToken() = 0;  // behind an error token every read gives an error, until Reset or Set
  void Set(SString const &text);   // a new text, from its start
  void UndoNext();                 // unreads the last token; one step only

protected:
  enum States : int { kNormal = 0, kInQuote = 0x100, kInComment = 0x200, kInLiteral = 0x300, kFailed = 0x400 };

  // The token that is being read.
  struct Scan {
    SString text;
    int type = 0;  // 0 until a state finds the token complete

    void End(int tokenType) { type = tokenType; }
    void Fail() {
      text.Undef();
      type = SToken::kError;
    }
  };

  bool _AtEnd() const { return _position >= _text.Length(); }
  unsigned char _Byte() const { return static_cast<unsigned char>(_text.View()[static_cast<size_t>(_position)]); }
  void _Skip(int length);              // passes over bytes between tokens
  void _Take(Scan &scan, int length);  // moves so many bytes, or all that are left, into the token
  template <typename Predicate>
  void _TakeWhile(Scan &scan, Predicate fits);  // moves bytes into the token as long as they fit
  template <typename Step>
  SToken _Read(Step step);  // one token, by steps that each take bytes in or end it
  Scan _Begin();
  SToken _Finish(Scan &scan);  // ends the token at the current position, or at the end of the text without a type

  SString _text;
  int _position = 0;  // of the next character to read
  int _previous = 0;  // of the last token's first character
  int _start = 0;     // where the token being read begins
  int _state = kNormal;
};

template <typename Predicate>
void SParser::_TakeWhile(Scan &scan, Predicate fits) {
  std::string_view const text = _text.View();
  size_t end = static_cast<size_t>(_position);
  while (end < text.size() && fits(static_cast<unsigned char>(text[end]))) ++end;
  _Take(scan, static_cast<int>(end) - _position);
}

template <typename Step>
SToken SParser::_Read(Step step) {
  Scan scan = _Begin();
  while (scan.type == 0 && !_AtEnd()) step(scan);
  return _Finish(scan);
}
