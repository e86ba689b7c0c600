// brenthaven/address/address821.h - an envelope address as RFC 821 writes it: <@relay.example:user@example.org>.
//
// The class holds the parts and knows how to print them; S821Parser turns text into parts. What Get prints stands in
// angle brackets, so a printed text of fewer than 3 characters means the null address or a broken one.
#pragma once
#include "brenthaven/address/identifiers.h"
#include "brenthaven/text/sstring.h"
#include "brenthaven/text/sstringlist.h"

class S821Address : public SIdentifier {
public:
  S821Address() = default;  // the null address, "<>"
  S821Address(S821Address const &) = default;
  S821Address(SString const &text);  // parsed leniently, as Set does
  S821Address &operator=(S821Address const &) = default;
  ~S821Address() override = default;

  SString Get() const override;            // Address(), in the form of the object's own class
  void Set(SString const &text) override;  // parses the text leniently and takes over the result, bad or not
  virtual SString Address() const;         // "<@a,@b:local@domain>"; "<>" for null; empty for a bad address

  SString LocalPart() const { return _local; }  // in canonical form: quoted only where it must be
  SString Domain() const { return _domain; }    // a host name, or a literal with its brackets; empty when absent
  SStringList Route() const { return _route; }  // hosts of a source route without "@", first hop first
  SString &LocalPart() { return _local; }
  SString &Domain() { return _domain; }
  SStringList &Route() { return _route; }

  // Exactly one of the three holds for any address. A local part alone is valid; a route needs a domain to lead to.
  unsigned int IsBad() const;
  unsigned int IsNull() const;
  unsigned int IsValid() const;

private:
  friend class S821Parser;
  friend class S822Parser;
  static S821Address _Parse(SString const &text);

  unsigned int _bad = 0;  // set by a parser that could not make sense of its text
  SStringList _route;     // empty and undefined alike mean that there is no route
  SString _local;
  SString _domain;
};
