// tests/support/texts.h - strings of the system as the standard library and the tests know them.
#pragma once
#include <string>
#include <string_view>
#include <vector>

#include "brenthaven/text/sstringlist.h"

using Texts = std::vector<std::string>;

inline SString Bytes(std::string_view text) { return SString(text); }
inline std::string Text(SString const &text) { return std::string(text.View()); }
inline Texts List(SStringList const &list) {
  Texts texts;
  for (SString const &item : list) texts.push_back(Text(item));
  return texts;
}
inline SStringList ListOf(Texts const &texts) {
  SStringList list;
  for (std::string const &text : texts) list.Push(Bytes(text));
  return list;
}
