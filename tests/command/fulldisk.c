// Loaded in front of the C library: a write to a regular file below messages/ finds the disk full.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/types.h>
#include <unistd.h>

ssize_t write(int fd, void const *data, size_t length) {
  char link[64], path[4096];
  snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  ssize_t const got = readlink(link, path, sizeof path - 1);
  if (got > 0) {
    path[got] = '\0';
    if (strstr(path, "/messages/") != NULL) {
      errno = ENOSPC;
      return -1;
    }
  }
  ssize_t (*next)(int, void const *, size_t);
  *(void **)&next = dlsym(RTLD_NEXT, "write");
  return next(fd, data, length);
}
