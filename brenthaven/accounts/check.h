// brenthaven/accounts/check.h - whether the two account files agree.
#pragma once
#include <functional>

#include "brenthaven/text/sstring.h"

struct SAccountCheck {
  long attributes = 0;  // records read from the attribute file, the types of the objects included
  long entries = 0;     // records read from the index file
  long faults = 0;
  bool readFailed = false;  // a file could not be read to its end: faults may be its consequence, or missing
};

// Reads both account files from end to end under the read lock, in linear time, and tells `report` of each thing that
// is out of step: an indexed value without its index entry, an entry whose object does not hold the value, a record
// that no table row explains, an attribute without an object. The template accounts must have no entries but their
// types. Not inside a write section of this process, for whose end it would wait.
SAccountCheck CheckAccountFiles(std::function<void(SString const &fault)> const &report);
