// brenthaven/platform/pickle.h - small state files of integers, strings and lists, replaced as a whole.
//
//   int     4 bytes, two's complement, low byte first
//   string  its length as an int, then its bytes
//   list    its count as an int, then that many strings
//
// There is no header and no type tag: reader and writer agree on the order.
#pragma once
#include "brenthaven/platform/files.h"
#include "brenthaven/text/sstring.h"
#include "brenthaven/text/sstringlist.h"

// One state file. The cycle is Read, Get..., Clear, Put..., Write; the lock on path + ".lock" is held from Read to
// Write or to the end of the object, so that one process at a time is in the cycle, and a reader without a lock sees
// the old file or the new one.
class SPickleFile {
public:
  explicit SPickleFile(SString const &path) : _path(path) {}
  SPickleFile(SPickleFile const &) = delete;
  SPickleFile &operator=(SPickleFile const &) = delete;
  ~SPickleFile() { _Unlock(); }

  unsigned Lock();  // waits; 1 when held, at once when it was held already
  // Locks and takes the file in, from its start; a missing file reads as empty. 1 on success. When the file was read
  // already under the lock that is held, it does nothing and gives 1: changes not written yet stay.
  unsigned Read();

  // Broken text can't lead astray: lengths and counts are cut to what is left, a negative one is 0, and at the end
  // there are zeros and empty values, where the position stays.
  int GetInt();
  SString GetString();
  SStringList GetList();  // undefined when the count is 0
  // Whether what was taken out so far stood in the file as it says, and was all of it: a reader that knows the order
  // tells by it a file that was cut short or is another's.
  bool WasExact() const { return !_cut && _Left() == 0; }

  void Clear();
  void PutInt(int value);
  void PutString(SString const &text);
  void PutList(SStringList list);

  // Writes path + ".new", flushes it and renames it over the file, then gives the lock up. 0 with the lock still held
  // when a step fails; a ".new" of our own is removed then. One left over from a crash is a failure each time until
  // somebody removes it.
  unsigned Write();
  // Removes the file and then its lock file: 1 when both went, or when there was no file.
  unsigned Remove();

private:
  void _Unlock();
  int _Left() const { return _data.Length() - _position; }

  SString _path;
  SString _data;
  void *_lock = HandleOf(-1);  // handle of the lock file, -1 when not held
  int _position = 0;
  bool _cut = false;       // a value was shorter than its length, or lay past the end
  bool _was_read = false;  // under the lock that is held
};
