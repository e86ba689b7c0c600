#include "brenthaven/platform/pickle.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>

#include "brenthaven/platform/barrier.h"
#include "brenthaven/platform/files.h"
#include "brenthaven/platform/nativepath.h"
#include "brenthaven/platform/sys.h"
#include "brenthaven/text/base.h"

namespace {

constexpr int kIntBytes = 4;
void *const kNoHandle = HandleOf(-1);

}  // namespace

unsigned SPickleFile::Lock() {
  if (_lock == kNoHandle) _lock = LockFile(_path + ".lock", kLockWait, 0, 1);
  return _lock != kNoHandle;
}

unsigned SPickleFile::Read() {
  if (!Lock()) return 0;
  if (_was_read) return 1;
  Clear();
  struct stat info;
  if (sys::Stat(SNativePath(_path), &info) == 0) {
    _data = MapFileRead(_path);
    if (!_data.Defined()) return 0;
  } else if (errno != ENOENT) {
    return 0;
  }
  _was_read = true;
  return 1;
}

int SPickleFile::GetInt() {
  if (_Left() < kIntBytes) {
    _cut = true;
    return 0;
  }
  uint32_t value = 0;
  for (int i = kIntBytes - 1; i >= 0; --i) value = value << 8 | static_cast<unsigned char>(_data.View()[_position + i]);
  _position += kIntBytes;
  return static_cast<int>(value);
}

SString SPickleFile::GetString() {
  int const told = GetInt();
  int const length = std::clamp(told, 0, _Left());
  _cut = _cut || length != told;
  SString text = SString(_data.View().substr(_position, length));
  _position += length;
  return text;
}

SStringList SPickleFile::GetList() {
  int const told = GetInt();
  int const count = std::clamp(told, 0, _Left() / kIntBytes);  // each string has its length at least
  _cut = _cut || count != told;
  SStringList list;
  for (int i = 0; i < count; ++i) (void)list.Push(GetString());
  return list;
}

void SPickleFile::Clear() {
  _data = SString("");
  _position = 0;
  _cut = false;
}

void SPickleFile::PutInt(int value) {
  uint32_t const bits = static_cast<uint32_t>(value);
  char const bytes[kIntBytes] = {static_cast<char>(bits), static_cast<char>(bits >> 8), static_cast<char>(bits >> 16),
                                 static_cast<char>(bits >> 24)};
  _data.Append({bytes, kIntBytes});
}

void SPickleFile::PutString(SString const &text) {
  PutInt(text.Length());
  _data += text;
}

void SPickleFile::PutList(SStringList list) {
  PutInt(list.Length());
  while (list.Length() > 0) PutString(list.Shift());
}

unsigned SPickleFile::Write() {
  SString const new_path = _path + ".new";
  if (!MapFileWrite(new_path, _data)) return 0;
  SSyncBarrier barrier;
  barrier.AddFile(SNativePath(new_path));
  if (!barrier.Commit() || !Rename(new_path, _path)) {
    (void)RemoveFile(new_path);  // when it stays, the next Write says so
    return 0;
  }
  _Unlock();
  return 1;
}

unsigned SPickleFile::Remove() {
  if (!FileExists(_path)) return 1;
  unsigned const removed = RemoveFile(_path) != 0;
  return RemoveFile(_path + ".lock") && removed;
}

void SPickleFile::_Unlock() {
  if (_lock == kNoHandle) return;
  (void)CloseFile(_lock);  // the lock ends with the handle whatever close says
  _lock = kNoHandle;
  _was_read = false;
}
