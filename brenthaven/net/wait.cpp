#include "brenthaven/net/wait.h"

#include <poll.h>
#include <time.h>

#include <algorithm>
#include <cerrno>

namespace {

constexpr long long kNanosecondsPerSecond = 1'000'000'000;

long long MonotonicNow() {
  struct timespec now;
  (void)clock_gettime(CLOCK_MONOTONIC, &now);  // this clock is always there
  return now.tv_sec * kNanosecondsPerSecond + now.tv_nsec;
}

}  // namespace

int WaitForHandle(int fd, bool to_write, timeval timeout) {
  struct pollfd entry = {fd, static_cast<short>(to_write ? POLLOUT : POLLIN), 0};
  long long const deadline = MonotonicNow() + timeout.tv_sec * kNanosecondsPerSecond + timeout.tv_usec * 1000LL;
  for (;;) {
    long long const left = std::max(deadline - MonotonicNow(), 0LL);
    struct timespec const wait = {static_cast<time_t>(left / kNanosecondsPerSecond),
                                  static_cast<long>(left % kNanosecondsPerSecond)};
    int const ready = ppoll(&entry, 1, &wait, nullptr);
    if (ready < 0 && errno == EINTR) continue;
    if (ready > 0 && (entry.revents & POLLNVAL) != 0) {
      errno = EBADF;
      return -1;
    }
    return ready;
  }
}
