#include "brenthaven/platform/mapped.h"

#include <algorithm>

#include "brenthaven/platform/barrier.h"
#include "brenthaven/platform/descriptor.h"
#include "brenthaven/platform/nativepath.h"
#include "brenthaven/platform/sys.h"
#include "brenthaven/text/base.h"

namespace {

constexpr off_t kTextLimit = off_t{1} << 30;  // a text is shorter than this
constexpr size_t kFirstWindow = 1 << 20;
constexpr size_t kLargestWindow = 64 << 20;
constexpr long kDefaultCacheLimit = 1 << 20;
constexpr mode_t kFileMode = 0660;

}  // namespace

SMappedFile::SMappedFile(SString const &path) {
  SDescriptor const file(sys::Open(SNativePath(path), sys::kReadOwn));
  struct stat info;
  if (!file.IsOpen() || sys::Fstat(file.Get(), &info) != 0) return;
  if (!S_ISREG(info.st_mode) || info.st_size >= kTextLimit) return;
  if (info.st_size > 0) {
    _size = static_cast<size_t>(info.st_size);
    _view = sys::MapRead(file.Get(), _size);
    if (_view == nullptr) return;
    SetBuffer(static_cast<char const *>(_view), static_cast<int>(_size));
  }
  _ok = 1;
}

SMappedFile::~SMappedFile() { Close(); }

void SMappedFile::Close() {
  _ok = 0;
  if (_view == nullptr) return;
  SetBuffer("", 0);
  sys::Unmap(_view, _size);
  _view = nullptr;
  _size = 0;
}

SString SMappedFile::GetString() const {
  if (_view == nullptr) return SString();
  return SString(static_cast<char const *>(_view), static_cast<int>(_size));
}

SMappedFileWrite::SMappedFileWrite() : _window_size(kFirstWindow) {
  _cache_limit = GetEnv("MaxMappedFileWriteKbytes").AsLong();
  if (_cache_limit == 0) _cache_limit = kDefaultCacheLimit;
  _cache_limit = std::min<long>(_cache_limit, SString::kMaxLength);
}

unsigned SMappedFileWrite::Create(char const *path) {
  Close(0);
  _path = path;
  _cached = 0;
  _position = 0;
  _window_end = 0;
  SDescriptor file(sys::Open(SNativePath(_path), O_RDWR | O_CREAT | O_EXCL, kFileMode));
  _ok = file.IsOpen() && sys::Fchmod(file.Get(), kFileMode) == 0;
  if (_ok) _fd = file.Release();
  return _ok;
}

void SMappedFileWrite::CreateCached(char const *path) {
  _path = path;
  _cached = 1;
}

void SMappedFileWrite::Write(SString const &text) { Write(text, static_cast<unsigned long>(text.Length())); }

void SMappedFileWrite::Write(char const *data, unsigned long length) {
  if (_cached) {
    if (static_cast<long>(static_cast<unsigned long>(_cache.Length()) + length) < _cache_limit) {
      _cache.Append({data, length});
      return;
    }
    FlushCache();
  }
  while (_ok && length > 0) {
    size_t const room = static_cast<size_t>(_window_end - _position);
    if (room == 0) {
      if (!_OpenWindow(length)) return _Fail();
      continue;
    }
    size_t const part = std::min<size_t>(room, length);
    if (sys::PwriteAll(_fd, data, part, _position) != 0) return _Fail();
    _position += static_cast<off_t>(part);
    data += part;
    length -= part;
  }
}

void SMappedFileWrite::FlushCache() {
  if (!_cached) return;
  SString const text = _cache;
  _cache.Undef();
  SString const path = _path;
  if (Create(path)) Write(text);
}

void SMappedFileWrite::Close(unsigned sync) {
  if (_fd < 0) return;
  if (_window_end != _position && sys::Ftruncate(_fd, _position) != 0) _Fail();
  if (sync && _ok && !SyncFile(_fd)) _Fail();
  struct stat info;
  if (sys::Fstat(_fd, &info) != 0 || info.st_size != _position) _Fail();
  if (sys::Close(_fd) != 0) _Fail();
  _fd = -1;
}

// Extends the file by a window from the position, doubled for as long as a large text asks for more.
bool SMappedFileWrite::_OpenWindow(size_t remaining) {
  while (_window_size < remaining && _window_size < kLargestWindow) _window_size *= 2;
  off_t const end = _position + static_cast<off_t>(_window_size);
  if (sys::Ftruncate(_fd, end) != 0) return false;
  _window_end = end;
  return true;
}
