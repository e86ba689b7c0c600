// brenthaven/accounts/repair.h - account files that can't be read, or don't agree, made anew from what can be.
#pragma once
#include "brenthaven/text/sstring.h"

struct SAccountRepair {
  bool done = false;      // the new files are in place
  bool salvaged = false;  // the attribute file was broken, or lacks part of a change: what its pages hold was taken
  long accounts = 0;
  long records = 0;  // attributes of accounts that were kept
  long dropped = 0;  // records that no account or attribute explains, or whose bytes can't be read
};

// Writes both files anew, from the attribute file alone, since the index follows from it, and puts them in place of the
// old ones, which stay beside them with ".damaged" behind their names. All accounts are locked meanwhile. A file whose
// order is broken is read page by page; a record that stands there twice is taken from the page that was found first.
SAccountRepair RepairAccountFiles();

// The same for the index file alone, which loses nothing: not done, with nothing changed, when the attribute file has
// any damage or a record that is none.
SAccountRepair RepairAccountIndex();
