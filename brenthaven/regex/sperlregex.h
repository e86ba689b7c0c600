// brenthaven/regex/sperlregex.h - an expression in the system's subset of Perl syntax.
#pragma once
#include "brenthaven/regex/sregex.h"

// Perl's classes \d \D \s \S \w \W, \N (no newline) and control bytes \f \n \r \t \v stand for their POSIX forms; in a
// bracket only \d \s \w and the control bytes do. At most ten groups. An expression that breaks these rules is told on
// the error stream, and OK() is false.
class SPerlRegex : public SRegex {
public:
  SPerlRegex() = default;
  explicit SPerlRegex(SString const &expression, char const *flags = "");
  ~SPerlRegex() override = default;
  // An expression that does not translate leaves the one before in force.
  void Set(SString const &expression, char const *flags = "") override;
  void Debug() const override;

private:
  SString _perl;
  SString _posix;
};
