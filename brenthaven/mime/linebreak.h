// brenthaven/mime/linebreak.h - walks a text line by line.
#pragma once
#include "brenthaven/text/sstring.h"

// Lines end at LF, or at CR directly followed by LF; any other CR is an ordinary byte, and the last line needs no end.
// Shares the bytes of the given text. Lines and remainder are values of their own and may outlive the breaker.
class SLineBreaker {
public:
  SLineBreaker(SString const &text, unsigned int autoChop);
  void SetAutoChop(unsigned int autoChop) { _autoChop = autoChop; }  // non-zero: lines come without their line ends

  unsigned int ReadLine(SString &line);  // 1; at the end of the text 0, and the line is undefined
  SString GetRemainder() const;          // from the next offset to the end

  int GetCurrentOffset() const { return _current; }  // where the line last read begins
  int GetNextOffset() const { return _next; }        // where the next line begins
  int GetOffset() const { return _next; }

private:
  SString _text;
  int _next = 0;
  int _current = 0;
  unsigned int _autoChop;
};
