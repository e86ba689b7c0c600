#include "brenthaven/mailbox/sizefile.h"

#include <errno.h>
#include <stdlib.h>
#include <time.h>

#include <algorithm>
#include <cstdio>

#include "brenthaven/platform/files.h"
#include "brenthaven/platform/sys.h"

namespace {

constexpr int kTextSize = 32;                              // of a record, its NUL included
constexpr long long kLargest = 4'000'000'000'000'000'000;  // of a record; leaves room to add to it
constexpr int kNearFlag = 1;
constexpr int kOverFlag = 2;
constexpr double kFirstPause = 0.001;  // seconds between two tries for the lock, doubled up to kLongestPause
constexpr double kLongestPause = 0.05;

double Seconds() {
  struct timespec now;
  (void)clock_gettime(CLOCK_MONOTONIC, &now);  // cannot fail: the clock is always there
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

void Pause(double seconds) {
  struct timespec const length = {0, static_cast<long>(seconds * 1e9)};
  (void)nanosleep(&length, nullptr);  // a signal that cuts it short costs one more try
}

int OpenOrMake(SString const &path) {
  int fd = sys::Open(path, O_RDWR | O_NOFOLLOW);
  if (fd >= 0 || errno != ENOENT) return fd;
  fd = sys::Open(path, O_RDWR | O_CREAT | O_NOFOLLOW, 0660);
  if (fd >= 0) (void)sys::Fchmod(fd, 0660);  // refused to who is not the owner: another process made it just now
  return fd;
}

}  // namespace

SSizeFile::SSizeFile(SString const &folder, double patience)
    : _folder(folder), _lock(HandleOf(-1)), _patience(patience) {}

SSizeFile::~SSizeFile() { Unlock(); }

unsigned int SSizeFile::Lock() {
  if (_sizeFd >= 0) return 1;
  if (!_WaitForLock()) return 0;
  _sizeFd = OpenOrMake(_folder + "__size__");
  if (_sizeFd >= 0) return 1;
  int const error = errno;
  Unlock();
  errno = error;
  return 0;
}

// Asks again and again, since a waiting lock has no time limit of its own.
bool SSizeFile::_WaitForLock() {
  double const deadline = Seconds() + _patience;
  for (double pause = kFirstPause;; pause = std::min(2 * pause, kLongestPause)) {
    _lock = LockFile(_folder + "__size_lock__", 0, 0, 1);
    if (DescriptorOf(_lock) >= 0) return true;
    if ((errno != EAGAIN && errno != EACCES) || Seconds() >= deadline) return false;
    Pause(pause);
  }
}

void SSizeFile::Unlock() {
  // What was to be written has been: a close of these two loses nothing, and the lock ends with its descriptor.
  if (_sizeFd >= 0) (void)sys::Close(_sizeFd);
  if (DescriptorOf(_lock) >= 0) (void)CloseFile(_lock);
  _sizeFd = -1;
  _lock = HandleOf(-1);
  _size = kUnknown;
}

long long SSizeFile::GetSize() {
  if (_sizeFd < 0) return 0;
  if (_size == kUnknown) _size = _Read();
  return _size;
}

long long SSizeFile::_Read() {
  char text[kTextSize];
  ssize_t const length = sys::Pread(_sizeFd, text, sizeof text - 1, 0);
  _textLength = static_cast<int>(length);
  if (length <= 0) return kNoRecord;
  text[length] = '\0';
  char *end = nullptr;
  errno = 0;
  long long const size = strtoll(text, &end, 10);
  if (end == text || errno == ERANGE) return kNoRecord;
  if (*end == ' ') {
    long const flags = strtol(end, nullptr, 10);
    _nearSent = (flags & kNearFlag) != 0;
    _overSent = (flags & kOverFlag) != 0;
  }
  return std::min(size, kLargest);
}

void SSizeFile::SetSize(long long bytes) {
  if (_sizeFd < 0) return;
  int const flags = (_nearSent ? kNearFlag : 0) | (_overSent ? kOverFlag : 0);
  char text[kTextSize];
  int const length =
      flags == 0 ? snprintf(text, sizeof text, "%lld", bytes) : snprintf(text, sizeof text, "%lld %d", bytes, flags);
  bool const isShorter = _size == kUnknown || length < _textLength;
  // Half a record would be a wrong number. An empty one is counted again.
  if (sys::PwriteAll(_sizeFd, text, static_cast<size_t>(length), 0) != 0 ||
      (isShorter && sys::Ftruncate(_sizeFd, length) != 0))
    (void)sys::Ftruncate(_sizeFd, 0);
  _textLength = length;
  _size = bytes;
}
