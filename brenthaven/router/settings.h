// brenthaven/router/settings.h - reading sections of settings. Private to the router.
#pragma once
#include <algorithm>
#include <limits>
#include <memory>

#include "brenthaven/store/sdbfile.h"
#include "brenthaven/text/named.h"
#include "brenthaven/text/sstring.h"
#include "brenthaven/text/sstringlist.h"

// All values of the section on which a cursor stands. Each read of a setting looks for changes by other processes, and
// most of the many settings that there are stand in no section: it pays to read only those that do.
inline SNamedStringList ReadSection(Sdbfile const &db) {
  SNamedStringList section(1, 0);
  for (SString const &name : db.Values()) section[name] = db.Get(name);
  return section;
}

// The first value of a key as a number, its fraction dropped and held within the range of int; 0 when it is absent or
// no number.
inline int ReadCount(SNamedStringList const &section, char const *key) {
  long const number = section.Get(key).Get(0).AsLong();
  return static_cast<int>(std::clamp<long>(number, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()));
}

// The expression of a pattern in which "." is a dot and "*" any text. Other bytes keep what they mean to expressions.
inline SString WildcardExpression(SString const &pattern) {
  SString expression;
  for (char const c : pattern.View()) {
    if (c == '.') expression += '\\';
    if (c == '*') expression += '.';
    expression += c;
  }
  return expression;
}

// What a setting of many lines compiles to. A process that reads its settings for each message compiles them once, as
// long as they stay as they are.
template <class Compiled>
std::shared_ptr<Compiled const> CompiledFrom(SStringList const &lines) {
  static SStringList last;
  static std::shared_ptr<Compiled const> compiled;
  if (compiled == nullptr || !(last == lines)) {
    compiled = std::make_shared<Compiled const>(lines);
    last = lines;
  }
  return compiled;
}
