// brenthaven/platform/descriptor.h - an open file that closes with its scope.
#pragma once
#include <cerrno>
#include <utility>

#include "brenthaven/platform/sys.h"

// Owns a descriptor, -1 for none, and closes it at the end of the scope; errno stays, so that the failure that ended
// the scope can still be told. Closing also gives up the locks of the open file.
class SDescriptor {
public:
  explicit SDescriptor(int fd = -1) : _fd(fd) {}
  SDescriptor(SDescriptor &&other) noexcept : _fd(other.Release()) {}
  SDescriptor &operator=(SDescriptor &&other) noexcept {
    std::swap(_fd, other._fd);
    return *this;
  }
  ~SDescriptor() {
    if (_fd < 0) return;
    int const error = errno;
    (void)sys::Close(_fd);  // who needs the result of a close releases the descriptor and closes it
    errno = error;
  }
  int Get() const { return _fd; }
  bool IsOpen() const { return _fd >= 0; }
  int Release() { return std::exchange(_fd, -1); }

private:
  int _fd;
};
