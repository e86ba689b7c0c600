// brenthaven/address/address822.h - a header address as RFC 822 writes it: Jo Doe <jo@example.org> (home).
#pragma once
#include "brenthaven/address/address821.h"

class S822Address : public S821Address {
public:
  S822Address() = default;
  S822Address(S822Address const &) = default;
  S822Address(S821Address const &address) : S821Address(address) {}
  S822Address &operator=(S822Address const &) = default;
  S822Address &operator=(S821Address const &address);  // clears comment, phrase and end flag
  ~S822Address() override = default;

  void Set(SString const &text) override;  // parses RFC 821 text; clears comment, phrase and end flag

  // With a phrase: "phrase <address>". Without one: the address without its brackets, unless it has a route. A comment
  // follows behind a space. "<>" for the null address whatever else is set; empty for a bad one and at a list's end.
  SString Address() const override;

  SString Comment() const { return _comment; }  // with its parentheses
  SString Phrase() const { return _phrase; }    // the words in front of "<", quoted ones with their quotes
  SString &Comment() { return _comment; }
  SString &Phrase() { return _phrase; }

private:
  friend class S822Parser;

  unsigned int _end = 0;  // S822Parser::GetNextAddress found no further address in its list
  SString _comment;
  SString _phrase;
};
