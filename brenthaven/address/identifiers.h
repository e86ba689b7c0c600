// brenthaven/address/identifiers.h - the kinds of name under which an account, a group or a POP user is looked up.
//
// The classes differ in type alone, so that a lookup can be overloaded on the kind of name. None of them looks at its
// text: no case is folded and nothing is checked here, since only the store knows how a kind of name compares.
#pragma once
#include "brenthaven/text/sstring.h"

class SIdentifier {
public:
  SIdentifier() = default;
  SIdentifier(SIdentifier const &) = default;
  SIdentifier &operator=(SIdentifier const &) = default;
  virtual SString Get() const = 0;
  virtual void Set(SString const &text) = 0;
  virtual ~SIdentifier() = default;
};

// An identifier that is just the text it was given.
class SPlainIdentifier : public SIdentifier {
public:
  SPlainIdentifier() = default;
  SPlainIdentifier(SString const &text) : _text(text) {}
  SString Get() const override { return _text; }
  void Set(SString const &text) override { _text = text; }

private:
  SString _text;
};

class SAccountName : public SPlainIdentifier {
public:
  using SPlainIdentifier::SPlainIdentifier;
};

class SGroupName : public SPlainIdentifier {
public:
  using SPlainIdentifier::SPlainIdentifier;
};

class SPopName : public SPlainIdentifier {
public:
  using SPlainIdentifier::SPlainIdentifier;
};
