// brenthaven/address/parser822.h - the address lists of header fields: phrases, comments, groups and folded lines.
#pragma once
#include "brenthaven/address/address822.h"
#include "brenthaven/address/parser821.h"

class S822Parser : public S821Parser {
public:
  S822Parser() = default;
  explicit S822Parser(SString const &text) : S821Parser(text, 1) {}

  // As S821Parser's, with comments as tokens, folded lines as blanks, "%" as part of words, and literals unchecked. A
  // bare CR, LF or other control character is an error.
  SToken NextToken() override;

  // Reads the next address of the list. 1 when one was read: it may still be bad by its domain. 0 at the end of the
  // list or of its line (the address then prints nothing), and where the text is no address list (the address is bad).
  // start and end are the positions of the address's first and last character, phrase and comments included. Group
  // names and the comments in front of an address are passed over. The local part is as written; NextAddress gives its
  // canonical form.
  unsigned int GetNextAddress(S822Address &address, int &start, int &end);
  S822Address NextAddress();

  // All addresses from the start of the text, each in brackets without phrase and comment. A bad address ends the list;
  // what came before it is returned. Always defined.
  SStringList Addresses();
  SStringList Get() { return Addresses(); }

private:
  void _InNormal(Scan &scan);
  void _InComment(Scan &scan);
  void _InLiteral(Scan &scan);
  void _LineEnd(Scan &scan);

  struct Reading;  // what is known of the address that is being read
  unsigned int _ReadAddress(Reading &reading);
  SToken _FirstToken(Reading &reading);
  SToken _ReadWords(Reading &reading, SToken token);
  unsigned int _ReadBracketed(Reading &reading);
  unsigned int _ReadRouted(Reading &reading);
  unsigned int _ReadLocalPart(Reading &reading, SToken token);
  unsigned int _ReadDomain(Reading &reading);
  unsigned int _Close(Reading &reading);
  unsigned int _Refuse(Reading &reading);

  // 1 inside a group, between its ":" and its ";". Reset leaves it alone: after an unclosed group the same parser
  // takes no further group name.
  int _group = 0;
  int _depth = 0;  // of nested comments, while one is read
};

// Makes the best of an address text that no parser accepts: takes it out of its brackets, quotes a local part that
// holds "@" or blanks, mends the dots of the domain, puts a bare dotted quad into brackets. The result is an address in
// angle brackets; "<>" when there is nothing to save.
SString FixBogusAddress(SString text);
