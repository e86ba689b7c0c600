// brenthaven/store/sbtree.h - one ordered file of byte-string keys and values, shared by many processes.
#pragma once
#include <sys/types.h>

#include <cstdint>

#include "brenthaven/platform/forks.h"
#include "brenthaven/store/page.h"
#include "brenthaven/text/sstring.h"

struct SBTreeEngine;  // the handle of the B-tree engine

// Where a file of the stores stands: a path as it is, a plain name in config/ below Brenthaven.
SString StorePath(SString const &file);

// A B-tree file in the 1.85 format (magic 0x053162, version 3, pages of 16384 bytes when new). Keys compare as unsigned
// bytes, a shorter one first on a common prefix, and stand once each. A plain name means config/NAME below Brenthaven.
//
// The file is opened by the first operation that needs it: read-only outside a write section, else read and write, made
// when missing (mode 0660). The file is also opened by this object itself, and the locks are open-file locks on that
// descriptor, byte 0: shared while a header is read and between LockRead and UnlockRead, exclusive from LockWrite until
// the pages are out. Only LockRead makes a reader see other processes' writes; between UnlockRead and the next LockRead
// it reads what it has.
//
// What a writer changes stays in memory until the write section ends, or Flush is called: a process that dies before
// leaves the file as it was. Then the changed pages go out one after another, and one that dies in between leaves a
// file in pieces, unless somebody wrote down the staged pages first (journal.h).
//
// Absence and failure are different: GetStatus says which one the last Get met, and ReadFailed stays 1 after any read
// that failed, until it is cleared. Pages are checked as they come from the file; a damaged one reads as a failure, and
// nothing more is written through a handle that met one. One thread; a child process after fork starts with the object
// closed and holding no lock.
class SBTree {
public:
  SBTree();
  SBTree(SString file, int);
  // mode 1: the file is opened with openFlags (O_RDONLY, O_RDWR, O_CREAT, O_TRUNC, O_EXCL, kLockFlag) whatever is
  // locked; any mode but 0: the name is used as it stands.
  SBTree(SString file, int mode, int openFlags);
  SBTree(SBTree const &) = delete;
  SBTree &operator=(SBTree const &) = delete;
  ~SBTree();

  static constexpr int kLockFlag = 0x20000000;  // hold the lock on byte 0 as long as the file is open

  // For files with passwords: one that others than owner and group can read or write is not opened, with EPERM.
  void SetSecret(bool isSecret) { _isSecret = isSecret; }

  // Sets the name and clears the status. An open file stays open under its old name until it is closed.
  void Init(SString const &file, int);
  void Init(SString const &file, int mode, int openFlags);

  unsigned Open();  // 1 when open; 0 with errno otherwise
  void Close();     // writes all pages out; the write depth stays

  // Undefined when there is no such key; a key with an empty value gives a defined, empty string.
  SString Get(SString const &key);
  // Both 0 outside a write section; Delete also for a key that is not there, and Set for a key of more than a third of
  // a page less 32 bytes (5429 with pages of 16384), which the engine could not find again. Values may be of any
  // length.
  unsigned Set(SString const &key, SString const &value);
  unsigned Delete(SString const &key);

  // Each stores the key found in key and gives its value; undefined at the end, with key as it was.
  SString SeqFirst(SString &key);    // smallest key at or behind key
  SString SeqNext(SString &key);     // the next one in order
  SString SeqFirstJJ(SString &key);  // first of the file
  SString SeqLastJJ(SString &key);   // last of the file
  SString SeqPrevJJ(SString &key);   // the one before

  void *GetFd();                             // the engine's descriptor, -1 when closed
  int GetStatus() const { return _status; }  // of the last Get: 0 found, 1 not found, -1 could not be read
  void _InitStatus() { _status = 0; }
  int GetMoveStatus() const { return _moveStatus; }  // of the last Seq call: 0 found, 1 at the end, -1 as above
  unsigned SetPBSflags(int flags);                   // explicit open flags; 0 while open

  void LockRead();  // waits; nothing inside a write section or when the file can't be opened
  void UnlockRead();
  void LockWrite();  // waits; nests
  void UnlockWrite();

  // Opens the file anew when it has changed since it was opened. For a file whose writers are held off by the lock of
  // another one; LockRead does the same under its own lock.
  void Refresh();
  // Writes what was changed into the file and keeps the write lock: Stage, then Apply. 1 on success, also when there is
  // nothing to write.
  unsigned Flush();
  // 1 when Staged holds all pages that were changed, and the file has room for them.
  unsigned Stage();
  SPageShadow const &Staged() const { return _staged; }
  // Moves the staged pages to the file, durably. After a failure some are there and some are not.
  unsigned Apply();
  // In a write section: readers see at their next LockRead that something happened to the file, as after a change. 1 on
  // success.
  unsigned Touch() { return _handle != nullptr && _writable && _MoveTimes(); }
  // Forgets all changes that are not in the file, and closes it. Its write section goes on, without the lock.
  void Discard() { _Drop(); }
  unsigned long Opens() const { return _opens; }  // how often the file was opened so far
  bool IsOpen() const { return _handle != nullptr; }
  bool HasChanged() const { return _changed; }    // there are changes that the file may not have
  int Descriptor() const { return _descriptor; }  // of the open file, -1 when closed
  SString const &Name() const { return _file; }
  // Where the file stands: the name, or config/NAME below Brenthaven.
  SString Path() const;

  // Sticky until cleared. Read: an open, lock or read failed for another reason than absence. Write: a write or the
  // writing of the pages at the end of a write section failed, so that changes reported as done may be missing.
  unsigned ReadFailed() const { return _readFailed; }
  void ClearReadFailed() { _readFailed = 0; }
  unsigned WriteFailed() const { return _writeFailed; }
  void ClearWriteFailed() { _writeFailed = 0; }

private:
  // What tells one state of the open file from another: a writer moves its times when its pages go out, and a file that
  // was replaced or moved away has another link count or change time.
  struct Stamp {
    nlink_t links = 0;
    off_t size = 0;
    std::int64_t modified = 0;  // nanoseconds
    std::int64_t changed = 0;
    bool operator==(Stamp const &) const = default;
  };

  int _OpenFlags() const;
  int _OpenLocked(char const *path, int flags);
  bool _TakeStamp(Stamp &stamp) const;
  bool _IsCurrent() const;
  bool _Reserve();
  bool _WriteStaged();
  bool _MoveTimes();
  void _Release();
  void _Drop();
  void _DropInherited();
  template <class Call>
  int _Run(Call call);
  template <class Call>
  unsigned _Change(Call call);
  SString _Seq(SString &key, unsigned move);

  SBTreeEngine *_handle = nullptr;
  int _depth = 0;
  int _mode = 0;
  int _openFlags = 0;
  SString _file;
  int _status = 0;
  int _moveStatus = 0;   // the same for the last Seq call
  int _descriptor = -1;  // ours, for the locks; open when the handle is
  SPageShadow _staged;   // attached while the file is open for writing
  unsigned long _opens = 0;
  unsigned long _forks = ForkCount();  // of the process that opened the file
  size_t _longestKey = 0;              // of the open file
  SString _place;                      // the key that the last Seq call found
  Stamp _stamp;                        // of the file when it was opened
  bool _isSecret = false;
  bool _writable = false;
  bool _holdsLock = false;  // from the open to the close
  bool _changed = false;    // there may be pages that the file does not have
  bool _damaged = false;    // this handle met a page that is none
  unsigned _readFailed = 0;
  unsigned _writeFailed = 0;
};
