// brenthaven/text/sstringset.h - texts met so far, compared byte for byte.
#pragma once
#include "brenthaven/text/sstring.h"
#include "brenthaven/text/sstringlist.h"
#include "brenthaven/text/stable.h"

// A set that costs the same for the ten-thousandth recipient as for the first. Undefined and empty are one text.
class SStringSet {
public:
  SStringSet() = default;
  explicit SStringSet(SStringList const &texts) { AddAll(texts); }

  bool Contains(SString const &text) const { return _table.Lookup(text) != nullptr; }
  // True when the text is new here.
  bool Add(SString const &text) {
    if (Contains(text)) return false;
    _table.Add(text, new STableItem);  // owned by the table
    return true;
  }
  void AddAll(SStringList const &texts) {
    for (SString const &text : texts) (void)Add(text);
  }

private:
  STable _table{0, 1};
};
