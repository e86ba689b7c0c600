// brenthaven/store/journal.h - what a write section has decided, written down before it goes into several B-tree files.
//
// The file holds the pages of one section, in this order, numbers in the byte order of the host:
//
//   offset  size  meaning
//   0       8     "BHJRNL1\n"
//   8       8     sequence number, one up with each section
//   16      4     1: pending, the trees may lack some of the pages; 0: done
//   20      4     page size of the first tree
//   24      4     page size of the second tree
//   28      4     number of pages
//   32      8     bytes of the first tree before the section
//   40      8     bytes of the second tree before the section
//   48      8     bytes behind this header
//   56      4     CRC-32C of those bytes
//   60      4     CRC-32C of the 60 bytes before
//
// and for each page its tree (0 or 1) and number, 4 bytes each; a CRC-32C for every 512 bytes of the page as the tree
// had it; and the page as it is to be. A page that was behind the end of the tree has zeros for these checksums.
//
// A section is decided once header and pages are on disk; one flush covers both, since the checksums tell a journal
// that is only partly there, and such a journal counts for nothing. Then the pages go into the trees, the trees are
// flushed, and the journal is marked as done, without a flush: to do it all once more does no harm. What the checksums
// of the old pages are for: a page that is neither as it was, nor as it is to be, nor a mixture of both by sectors, was
// written by somebody who does not know of the journal, and is not overwritten.
#pragma once
#include <array>
#include <cstdint>

#include "brenthaven/platform/descriptor.h"
#include "brenthaven/text/sstring.h"

class SBTree;

class SJournal {
public:
  static constexpr int kTrees = 2;

  SJournal() = default;
  SJournal(SJournal const &) = delete;
  SJournal &operator=(SJournal const &) = delete;

  void Init(SString const &file) { _name = file; }  // as StorePath takes it
  // Whether a section may be decided whose pages are not all in the trees. Under a lock that holds writers off, such a
  // section's writer is dead. A journal that is not there or says nothing that can be relied on has nothing pending;
  // one that can't be read may.
  bool IsPending();
  // Whether a tree that had pages before the last section that was written down has no bytes now, or no file. The
  // engine would take it for a new one.
  bool IsTreeGone(std::array<SString, kTrees> const &paths);
  // Writes the staged pages of the trees down, durably: 1, or 0 with errno and the section not decided.
  unsigned Write(std::array<SBTree const *, kTrees> const &trees);
  // The trees have the pages. Best effort: what is not marked is done again.
  void Finish();
  // The trees are about to change past the journal: what it says is over, also after a power cut. 1 on success.
  unsigned Retire();
  // Brings the pages of a pending journal into the trees, of which the caller has the paths and holds exclusive locks,
  // and marks it as done. A file that is missing is made. 1 on success and when nothing was pending; 0 with errno,
  // EUCLEAN for a tree that somebody else has written to, and then the trees stay as they are.
  unsigned Replay(std::array<SString, kTrees> const &paths);

private:
  struct Header;

  SDescriptor _Open(int flags) const;

  SString _name;
  SDescriptor _written;  // from Write to Finish
};
