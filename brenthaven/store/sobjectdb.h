// brenthaven/store/sobjectdb.h - named objects with numbered attributes, found by name or by the value of an attribute.
#pragma once
#include "brenthaven/store/journal.h"
#include "brenthaven/store/sbtree.h"
#include "brenthaven/text/sstring.h"
#include "brenthaven/text/sstringlist.h"

// A row of an attribute table. The number of an attribute is its place, from 0; attribute 0 is the object's type. The
// table ends with a null name and has fewer than 256 rows.
struct _Attribute {
  char const *name;
  unsigned flags;  // SAttributeFlag bits; any of them means that the attribute is indexed
};

enum SAttributeFlag : unsigned {
  kAttributeLowerCase = 0x01,   // the index holds the value in lower case
  kAttributeIndexed = 0x02,     // indexed with no other treatment
  kAttributeAddress = 0x04,     // one pair of enclosing angle brackets is dropped for the index
  kAttributeSecondWord = 0x08,  // with kAttributeAddress: of "SMTP <a@b>" only the second word is indexed
  kAttributeUnique = 0x10,      // no two objects may hold the same canonical value
  kAttributeDomain = 0x20,      // found by any of its domain suffixes
};

// Objects in two B-tree files, NAMEa and NAMEi, and their journal, NAMEj:
//
//   attribute tree   key    object name, NUL, attribute number (1 byte)
//                    value  NUL, then the items joined by one NUL each; no bytes for an empty list
//   index tree       key    attribute number (1 byte), canonical value, NUL, object name
//                    value  no bytes
//
// An item can't hold a NUL, and trailing empty items do not survive a round trip. The type of an object is the one-byte
// item of attribute 0. The canonical value of a domain attribute is reversed with "." behind it ("gro.elpmaxe." for
// "example.org"), so that a prefix search finds all domains below one.
//
// Reads lock for themselves (shared, on the attribute tree, which orders them against every writer) and see what other
// processes wrote. Writes belong between LockWrite and UnlockWrite, and reach the files together at its end: after a
// crash or a power cut both trees have all of a section or nothing of it. The next one to open them finishes what the
// journal says is decided. A section in which a tree can't be written is dropped as a whole. Attribute numbers outside
// the table give empty results and failures.
class SObjectDB {
public:
  SObjectDB();
  SObjectDB(SString name, int, _Attribute const *table);

  // Points the object at other files; a file that is open stays in use until it is closed, at the latest at the end of
  // the write section.
  void Init(SString const &name, int, _Attribute const *table);
  void ReOpen();
  // The reads in between see one state, under one lock in place of one for each. Nests; no write section begins inside.
  void LockRead();
  void UnlockRead();
  void LockWrite();    // attribute tree first, then index tree
  void UnlockWrite();  // index tree first, attribute tree last: readers wait on the latter
  // In the outermost write section: what was changed so far goes to the files now, all of it or, with 0, nothing, and
  // the section goes on. In an inner one 1, with nothing done.
  unsigned Commit();
  // Without the journal a section's end costs one flush less, and a crash during it may leave both trees in pieces.
  void SetJournaled(bool journaled) { _journaled = journaled; }
  // Objects with passwords: files that others than owner and group can read or write count as unreadable.
  void SetSecret(bool isSecret) {
    _attributes.SetSecret(isSecret);
    _index.SetSecret(isSecret);
  }

  unsigned Create(SString const &name, int type);
  unsigned Delete(SString const &name);
  int GetType(SString const &name);  // 0 when there is no such object

  SStringList GetAttrib(int attribute, SString const &name);
  SString GetStringAttrib(int attribute, SString const &name);  // first value alone, empty when absent
  // Bit 0 of flags: leave the index alone. 0 when a file can't be opened, a unique value belongs to another object, or
  // a write failed.
  unsigned SetAttrib(int attribute, SString const &name, SStringList const &values, int flags);
  unsigned DeleteAttrib(int attribute, SString const &name);
  SStringList ListAttribs(SString const &name);  // numbers as one-byte strings, without 0

  SStringList ListByAttrib(int attribute, SString const &value);
  // All pairs whose value starts with prefix; values with a byte of 0x7F or above right behind it are not found.
  void ListByAttrib(int attribute, SString const &prefix, SStringList *values, SStringList *names);
  // All pairs from low up to, but not including, high; both as they stand in the index.
  void ListByAttribRange(int attribute, SString const &low, SString const &high, SStringList *values,
                         SStringList *names);
  // The first limit pairs of such a range, and low moved behind the last of them: a long range is walked slice by
  // slice, with a lock for each. Empty lists are the end.
  void ListSlice(int attribute, SString &low, SString const &high, int limit, SStringList *values, SStringList *names);
  int CountByAttrib(int attribute, SString const &value);
  SStringList ListByType(int type);
  int CountByType(int type);
  // Distinct values in the index, in order; each cut at 10000 bytes.
  SStringList ListValues(int attribute);
  int CountValues(int attribute);

  // Copies both files under the write lock to name + suffix (".backup" for an empty suffix) by way of a temporary name.
  // The copy that stood there before is kept as well, with ".previous" behind its name. Always 1; what went wrong is
  // told on the error stream.
  unsigned Backup(SString const &attributeSuffix, SString const &indexSuffix);

  // 1 when some read since the last clear failed for another reason than absence: what looked absent may be there.
  unsigned ReadFailed() const { return _attributes.ReadFailed() | _index.ReadFailed() | _pairFailed; }
  void ClearReadFailed();
  // 1 when pages could not be written, at the latest when a write section ended.
  unsigned WriteFailed() const { return _attributes.WriteFailed() | _index.WriteFailed() | _commitFailed; }
  void ClearWriteFailed();

  // For whoever reads the files as they stand: a value's form in the index, from the SAttributeFlag bits of its
  // attribute (an empty one has no entry), and the items of an attribute record.
  static SString CanonicalValue(unsigned flags, SString const &value);
  static SStringList SplitValues(SString value);

private:
  class ReadSection;

  void _DropInherited();
  std::array<SString, SJournal::kTrees> _Paths() const;
  void _MarkUnsound(char const *what);
  bool _IsTreeGone();
  bool _Replay();
  unsigned _Commit();
  void _RefreshIndex();
  bool _Knows(int attribute) const;
  unsigned _FlagsOf(int attribute) const;
  template <class Take>
  void _WalkValues(int attribute, Take take);
  SString _CanonicalizeValue(int attribute, SString const &value) const;
  SString _IndexPrefix(int attribute, SString const &value) const;
  SString _JoinValues(SStringList const &values) const;
  unsigned _UpdateIndex(int attribute, SString const &name, SStringList const &values);
  unsigned _MayHold(int attribute, SString const &name, SStringList const &values);
  void _DeleteIndexEntry(int attribute, SString const &name, SString const &value);
  unsigned _AddIndexEntry(int attribute, SString const &name, SString const &value);

  SBTree _attributes;
  SBTree _index;
  SJournal _journal;
  bool _journaled = true;
  int _writers = 0;                    // write sections within one another
  bool _isRefused = false;             // the write section may not write
  unsigned long _forks = ForkCount();  // of the process whose sections these are
  bool _isUnsound = false;             // the trees could not be brought to one state, or one is gone
  unsigned _pairFailed = 0;            // the same was met since the flag was cleared
  unsigned _commitFailed = 0;
  _Attribute const *_table = nullptr;
  int _count = 0;                // rows of the table
  int _readers = 0;              // read sections within one another
  bool _indexIsCurrent = false;  // as of the lock that the outermost one holds
};
