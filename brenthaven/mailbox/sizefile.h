// brenthaven/mailbox/sizefile.h - how many bytes a mail folder holds, without listing it.
#pragma once
#include "brenthaven/text/sstring.h"

// One open size record of one mail folder, and the lock that orders all who change it. The record is a cache: whoever
// finds it unreadable counts the folder's files again and sets it.
//
// The file "__size__" is ASCII without a line end, at most 31 bytes:
//
//   "%lld"       bytes in the folder, 4 * 10^18 at most; no notice sent
//   "%lld %d"    the same, and flags: 1 near notice sent, 2 over notice sent, 3 both
//
// Only files whose names begin with a digit count. Writers hold a lock on byte 0 of "__size_lock__" from Lock to
// Unlock.
class SSizeFile {
public:
  // Longest wait for another writer of the same folder, in seconds; a writer holds the lock for one stored copy.
  static constexpr double kPatience = 30.0;

  // folder ends in "/". Nothing is opened yet.
  explicit SSizeFile(SString const &folder, double patience = kPatience);
  ~SSizeFile();
  SSizeFile(SSizeFile const &) = delete;
  SSizeFile &operator=(SSizeFile const &) = delete;

  // Takes the lock and opens the size file, making both when absent. 1 on success; 0 when the lock was not granted in
  // time or a file could not be opened, with nothing held and errno set.
  unsigned int Lock();
  void Unlock();

  // Bytes in the folder by the record: 0 when not locked, -1 when the record holds no number. Read once, then kept.
  long long GetSize();
  // Writes the record with the flags as they stand. Nothing happens when not locked. A write that fails leaves the
  // record empty where it can, so that the next reader counts again.
  void SetSize(long long bytes);

  bool NearNoticeSent() const { return _nearSent; }
  bool OverNoticeSent() const { return _overSent; }
  // The flag reaches the file with the next SetSize.
  void SetNearNoticeSent() { _nearSent = true; }
  void SetOverNoticeSent() { _overSent = true; }
  SString const &Folder() const { return _folder; }

private:
  static constexpr long long kNoRecord = -1;  // the file holds no number
  static constexpr long long kUnknown = -2;   // not read since Lock

  bool _WaitForLock();
  long long _Read();

  SString _folder;
  void *_lock;  // open handle of "__size_lock__": locked as long as it is open
  double _patience;
  bool _nearSent = false;
  bool _overSent = false;
  long long _size = kUnknown;
  int _textLength = 0;  // bytes of the record as it was read or written last
  int _sizeFd = -1;     // "__size__"; open exactly while locked
};
