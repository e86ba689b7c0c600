// brenthaven/exploder/digest.h - postings collected for the readers who get them together.
//
// A posting waits as List-Exploder/digest/UID/NAME below the root, NAME being that of its message: the fields that a
// digest keeps, an empty line, and the body, which is the form of a part of multipart/digest (RFC 2046 section 5.1.5).
// A digest is due when one of them was collected before the last moment that the list's schedule names. It becomes a
// message of its own to this module, "List-Digest: VOLUME NUMBER", and is sent like a posting; then its parts go. A
// crash in between may have the same postings in two digests, and loses none.
#pragma once
#include <ctime>

#include "brenthaven/lists/slist.h"
#include "brenthaven/platform/barrier.h"
#include "brenthaven/spool/control.h"
#include "brenthaven/spool/header.h"
#include "brenthaven/spool/module.h"
#include "brenthaven/text/sstring.h"
#include "brenthaven/text/sstringlist.h"

// The last moment up to now at which a schedule wants a digest: local time, hours 0 to 23, day 0 for Sunday to 6, or 7
// for every day. -1 for hours that no day has.
time_t LastDigestTime(time_t now, int hours, int day);

// The collected postings of one list.
class SDigestBox {
public:
  explicit SDigestBox(SString const &listUID);

  // UIDs of the lists that have some, and maybe of lists that are gone.
  static SStringList ListUIDs();

  // Takes in a posting; once more under the same name replaces it. 1 with the file and its directories in the barrier.
  unsigned Add(SString const &name, SHeader const &header, SString const &bodyPath, SSyncBarrier &barrier) const;
  SStringList Paths() const;  // of all that wait, in order of their names, which begin with a date
  bool HasOneBefore(time_t moment) const;
  void Remove(SStringList const &paths) const;  // these, and the directory when it is empty then

private:
  SString _directory;
};

// Puts the list's waiting postings into a digest message when one is due. 1 when it was made and they are gone from the
// box, or none was due; 0 with the reason in the log, and all as it was.
unsigned SendDueDigest(SModule &module, SList const &list, time_t now);
