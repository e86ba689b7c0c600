// brenthaven/store/salvage.h - the records of a B-tree file whose order may be broken.
#pragma once
#include <functional>

#include "brenthaven/text/sstring.h"

struct SSalvage {
  bool isRead = false;   // the file could be read
  bool isKnown = false;  // it has some page of a B-tree in the byte order of this host
  bool isWhole = false;  // and no page, and no long key or value, was found damaged
};

// Gives every record of the file to take, page by page and so in no order, and some maybe twice, once as it was before.
// Pages that were given back are passed over as long as their list is sound. For files in the byte order of the host.
SSalvage SalvageRecords(SString const &path, std::function<void(SString const &key, SString const &value)> const &take);
