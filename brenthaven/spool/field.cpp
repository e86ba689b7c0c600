#include "brenthaven/spool/field.h"

#include <cerrno>

#include "brenthaven/platform/barrier.h"
#include "brenthaven/platform/files.h"
#include "brenthaven/spool/keys.h"
#include "brenthaven/text/base.h"

namespace {

// A look that leaves errno alone: an error report names the call that failed, not a file that was rightly missing.
bool IsThere(SString const &path) {
  int const error = errno;
  bool const there = FileExists(path) != 0;
  errno = error;
  return there;
}

void RemoveQuietly(SString const &path) {
  int const error = errno;
  (void)RemoveFile(path);  // the failure to report is the one before this
  errno = error;
}

int FlushFile(SString const &path) {
  SSyncBarrier barrier;
  barrier.AddFile(path);
  return barrier.Commit();
}

}  // namespace

SField::SField(unsigned int caseSensitive, unsigned int headerStyle)
    : SNamedStringList(caseSensitive, headerStyle), _messageDir(GetEnv("Brenthaven") + "/messages/"), _loaded(0) {}

SField::~SField() = default;

SField &SField::operator=(SField const &from) {
  _path = from._path;
  _loaded = from._loaded;
  SNamedStringList::operator=(from);
  return *this;
}

int SField::Read(SString const &path) {
  _path = path;
  return SField::Read();
}

int SField::Read() {
  ClearError();
  if (_path.Length() == 0) return 0;
  SString const text = MapOwnFileRead(_path);
  if (text.Length() == 0) return 0;  // missing, unreadable or empty: what the table holds stands
  text >> *this;
  _loaded = 1;
  return 1;
}

int SField::Write(SString const &path) {
  _path = path;
  return SField::Write();
}

int SField::Write() { return _WriteFile(SFlush::kReplaced); }

void SField::UnlockFile() {}

SString SField::Text() const {
  SString text;
  text << *this;
  return text;
}

SString SField::TemporaryName() const { return _path + kTempSuffix; }

int SField::WriteTemporary() {
  if (_path.Length() == 0) {
    _error = kNoPathError;
    return 0;
  }
  if (MapFileWrite(TemporaryName(), Text())) return 1;
  RemoveQuietly(TemporaryName());  // also one that a crash has left, which this write stumbled over
  return 0;
}

int SField::PutInPlace() {
  if (Rename(TemporaryName(), _path)) {
    _loaded = 1;
    return 1;
  }
  RemoveQuietly(TemporaryName());
  return 0;
}

int SField::_WriteFile(SFlush flush) {
  bool const mustFlush = flush == SFlush::kReplaced && _path.Length() > 0 && IsThere(_path);
  if (!WriteTemporary()) return 0;
  if (mustFlush && !FlushFile(TemporaryName())) {
    RemoveQuietly(TemporaryName());
    return 0;
  }
  return PutInPlace();
}
