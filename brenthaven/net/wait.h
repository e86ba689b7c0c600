// brenthaven/net/wait.h - waiting for one descriptor.
#pragma once
#include <sys/time.h>

// Waits until a descriptor can be read or written: 1 then (also at the end of the stream or with an error to fetch), 0
// when the time is spent, -1 with errno on failure. Signals do not lengthen the wait. Any descriptor number will do,
// unlike in an fd_set.
int WaitForHandle(int fd, bool to_write, timeval timeout);
