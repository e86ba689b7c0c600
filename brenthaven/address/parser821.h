// brenthaven/address/parser821.h - the grammar of RFC 821 addresses, the one place where text becomes an S821Address.
//
// A character state machine makes tokens and a token-driven parser makes the address. Neither recurses, and both take
// time linear in the text. Control characters are the bytes below 0x20 once the top bit is cleared, so 0x80 to 0x9f
// are among them.
#pragma once
#include <array>

#include "brenthaven/address/address821.h"
#include "brenthaven/address/parser.h"
#include "brenthaven/text/sstringlist.h"

class S821Parser : public SParser {
public:
  S821Parser() = default;
  // A lenient parser lets the pieces of a local part stand in any order ("a..b", ".a", "a%"), since addresses come from
  // the world; only a quoted string must still come first. Domains are judged alike in both modes.
  S821Parser(SString const &text, unsigned int lenient);

  SToken NextToken() override;

  // The first address from the current position: words in front of "<" are skipped, doubled angle brackets count as
  // one, and text without "<" is an address without brackets. A bad address keeps the parts that were read. The
  // position is left behind the address, where Extensions goes on.
  S821Address ExtractAddress();

  // Whether the whole text is a domain: labels that pass IsValidElement, the last of several not all digits, or one
  // literal. Blanks around it do not matter; a trailing dot does.
  int IsValidDomain();

  // Letters, digits and "-_#~?"; the first character is neither "-" nor "_".
  static unsigned int IsValidElement(SString const &text);

  // What is left of the text, as words between spaces (the parameters behind an SMTP address). Undefined if it holds a
  // control character.
  SStringList Extensions();

protected:
  // The type of a finished token, for those that kept its text alone.
  int _TokenType(SString const &text);

  // Glues the texts of tokens together, with the separator between words ('.'), or where a phrase wants blanks (' ').
  // An undefined list gives an undefined string.
  SString _JoinTokens(SStringList tokens, char separator);

  // Reads "@a,@b:" from its first "@" through its ":". Undefined when that is not what stands there. A dot directly
  // before "," or ":" is dropped.
  SStringList _ExtractRoute();

  // Brings a local part to its one canonical form: quoted only where it must be, and escaped only where the quotes need
  // it. A text with an unescaped quote in its middle is left alone.
  static void _FixLocalPart(SString &local);

  // A step outside quotes, by the kinds of bytes (kinds.h): takes what belongs to a word, or ends the word. The kind of
  // a byte that neither is of a word nor ends one, and stands alone; 0 when the step is done.
  int _InWords(Scan &scan, std::array<int, 256> const &kinds);
  void _InQuote(Scan &scan);

private:
  void _InNormal(Scan &scan);
  void _InLiteral(Scan &scan);

  S821Address _ParseAddress();
  bool _ReadAddress(S821Address &address);
  SToken _OpenAddress();
  bool _ReadLocalPart(SToken &token, SString &local);
  SToken _ReadHost(SString &host);
  void _SkipRightAngles();

  unsigned int _lenient = 0;
};

// Whether the text is a host name or a domain literal as an address may bear it behind its "@".
int IsValidDomain(SString const &text);

// Whether the text is "[", four decimal numbers up to 255 with dots between them, "]". A missing number passes, so
// "[...]" is a literal.
int IsValidLiteral(SString const &text);
