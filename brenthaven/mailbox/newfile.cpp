#include "brenthaven/mailbox/newfile.h"

#include <errno.h>
#include <fcntl.h>

#include "brenthaven/platform/sys.h"

namespace {
constexpr mode_t kFileMode = 0660;
}

SNewFile::SNewFile(SString const &path) : _path(path) {
  SString const directory(path.View().substr(0, path.View().rfind('/') + 1));
  _file = SDescriptor(sys::Open(directory, O_RDWR | O_TMPFILE, kFileMode));
  if (!_file.IsOpen() && (errno == EOPNOTSUPP || errno == EISDIR || errno == EINVAL)) {
    _file = SDescriptor(sys::Open(_TemporaryName(), O_RDWR | O_CREAT | O_EXCL, kFileMode));
    _hasTemporaryName = _file.IsOpen();
  }
  if (_file.IsOpen() && sys::Fchmod(_file.Get(), kFileMode) != 0) _file = SDescriptor();
}

SNewFile::~SNewFile() {
  int const error = errno;
  if (_hasTemporaryName) (void)sys::Unlink(_TemporaryName());  // what stays is no message's name and harms nobody
  errno = error;
}

bool SNewFile::Publish() { return _Name(_path); }

bool SNewFile::PublishOver() {
  if (_Name(_path)) return true;
  if (errno != EEXIST) return false;
  if (!_hasTemporaryName && !_Name(_TemporaryName())) return false;
  _hasTemporaryName = true;
  if (sys::Rename(_TemporaryName(), _path) != 0) return false;
  _hasTemporaryName = false;
  return true;
}

bool SNewFile::_Name(SString const &path) {
  return (_hasTemporaryName ? sys::Link(_TemporaryName(), path) : sys::LinkFd(_file.Get(), path)) == 0;
}

SString SNewFile::_TemporaryName() const {
  size_t const slash = _path.View().rfind('/') + 1;
  return SString(_path.View().substr(0, slash)) + "__new__" + SString(_path.View().substr(slash));
}
