// brenthaven/platform/mapped.h - whole files: read through a mapping, written through a window.
#pragma once
#include <sys/types.h>

#include <cstddef>

#include "brenthaven/text/sstring.h"

// A whole file as a fixed string, without a copy: a private read-only mapping, with a NUL behind the last byte. No
// string that shares its bytes may outlive it. The file must not be cut while it is mapped: the mail files' names keep
// writers away. Refused are symbolic links, which nobody makes of a mail file but who wants another file read in its
// place, and files of 1 GiB and more, as all texts are.
class SMappedFile : public SFixedString {
public:
  explicit SMappedFile(SString const &path);
  SMappedFile(SMappedFile const &) = delete;
  SMappedFile &operator=(SMappedFile const &) = delete;
  ~SMappedFile();

  unsigned IsOK() const { return _ok; }  // an empty file is ok, with no view
  SString GetString() const;             // a copy of the contents; undefined without a view
  void Close();                          // takes the view away: not ok and empty from then on

private:
  size_t _size = 0;
  void const *_view = nullptr;
  unsigned _ok = 0;
};

// Writes a new file from its start to its end. In cached mode the text is held in memory and the file is made only
// when the text reaches a limit or FlushCache asks for it, so that a small file costs one plain write.
//
// Nothing is reported but in IsOK: it starts at 1, any failure makes it 0, and writing after that does nothing. The
// partial file of a failure is for the caller to remove. The bytes go by pwrite and not through a shared mapping, where
// a full disk would kill the process; the window only tells how far the file is extended ahead of the writing.
class SMappedFileWrite {
public:
  // The limit of the cache is the environment's MaxMappedFileWriteKbytes. It is compared with a count of bytes in
  // spite of its name, so that "1024" holds a kilobyte. 0 or unset is 1 MiB.
  SMappedFileWrite();
  SMappedFileWrite(SMappedFileWrite const &) = delete;
  SMappedFileWrite &operator=(SMappedFileWrite const &) = delete;
  ~SMappedFileWrite() { Close(0); }

  unsigned Create(char const *path);    // an existing file is an error and is left alone; 1 when made
  void CreateCached(char const *path);  // no file yet
  void Write(SString const &text);
  void Write(char const *data, unsigned long length);
  void FlushCache();  // when cached: makes the file and writes the cache out
  // Cuts the file back to what was written, flushes it to the disk when sync is not 0, and closes it. A text that is
  // still cached stays cached, with nothing on disk: use FlushCache or GetCache first.
  void Close(unsigned sync);

  unsigned IsOpen() const { return _fd >= 0 || _cached; }  // there is text here that no file shows yet in full
  unsigned IsCached() const { return _cached; }
  unsigned IsOK() const { return _ok; }
  SString GetCache() const { return _cache; }
  void ReplaceCache(SString const &text) { _cache = text; }

private:
  bool _OpenWindow(size_t remaining);
  void _Fail() { _ok = 0; }

  int _fd = -1;
  off_t _position = 0;    // where the next byte goes
  off_t _window_end = 0;  // the file's length while it is open
  size_t _window_size;
  long _cache_limit;  // bytes
  SString _cache;
  SString _path;
  unsigned _cached = 0;
  unsigned _ok = 1;
};
