#include "brenthaven/platform/sys.h"

#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <memory>

namespace sys {
namespace {

constexpr size_t kCopyBlock = 256 * 1024;         // one read and write of the plain copy
constexpr size_t kCopyRangeLimit = 1024UL << 20;  // most that one copy_file_range is asked for

Hook g_hook = nullptr;
void *g_context = nullptr;

// True when the hook lets the call go on; otherwise errno is what the hook said.
bool Allowed(char const *name, char const *path = "") {
  if (g_hook == nullptr) return true;
  int const error = g_hook(CallInfo{name, path}, g_context);
  if (error == 0) return true;
  errno = error;
  return false;
}

// Makes the call again for as long as a signal ends it before anything was done.
template <typename Call>
auto Retry(Call call) {
  decltype(call()) result;
  do {
    result = call();
  } while (result == -1 && errno == EINTR);
  return result;
}

// Bytes of address space that a mapping of length bytes takes: at least one more byte, to the end of its page.
size_t MappedLength(size_t length) {
  size_t const page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  return (length / page + 1) * page;
}

int CopyByBlocks(int from, int to) {
  auto buffer = std::make_unique<char[]>(kCopyBlock);
  for (;;) {
    ssize_t const got = Read(from, buffer.get(), kCopyBlock);
    if (got <= 0) return static_cast<int>(got);
    if (WriteAll(to, buffer.get(), static_cast<size_t>(got)) != 0) return -1;
  }
}

// Errors of copy_file_range that say "not between these two files" and not that the copy itself failed.
bool IsRangeRefused(int error) {
  return error == EXDEV || error == EINVAL || error == ENOSYS || error == EOPNOTSUPP || error == EPERM;
}

}  // namespace

void SetHook(Hook hook, void *context) {
  g_hook = hook;
  g_context = context;
}

int Open(char const *path, int flags, mode_t mode) {
  if (!Allowed("open", path)) return -1;
  return Retry([&] { return open(path, flags | O_CLOEXEC, mode); });
}

int Close(int fd) {
  bool const allowed = Allowed("close");
  int const hook_error = errno;
  int const result = close(fd);
  if (!allowed) {
    errno = hook_error;
    return -1;
  }
  return result;
}

ssize_t Read(int fd, void *buffer, size_t length) {
  if (!Allowed("read")) return -1;
  return Retry([&] { return read(fd, buffer, length); });
}

ssize_t Pread(int fd, void *buffer, size_t length, off_t offset) {
  if (!Allowed("pread")) return -1;
  return Retry([&] { return pread(fd, buffer, length, offset); });
}

int WriteAll(int fd, void const *data, size_t length) {
  char const *next = static_cast<char const *>(data);
  while (length > 0) {
    if (!Allowed("write")) return -1;
    ssize_t const wrote = Retry([&] { return write(fd, next, length); });
    if (wrote < 0) return -1;
    next += wrote;
    length -= static_cast<size_t>(wrote);
  }
  return 0;
}

int PwriteAll(int fd, void const *data, size_t length, off_t offset) {
  char const *next = static_cast<char const *>(data);
  while (length > 0) {
    if (!Allowed("pwrite")) return -1;
    ssize_t const wrote = Retry([&] { return pwrite(fd, next, length, offset); });
    if (wrote < 0) return -1;
    next += wrote;
    offset += wrote;
    length -= static_cast<size_t>(wrote);
  }
  return 0;
}

int Fstat(int fd, struct stat *info) { return Allowed("fstat") ? fstat(fd, info) : -1; }
int Stat(char const *path, struct stat *info) { return Allowed("stat", path) ? stat(path, info) : -1; }
int Lstat(char const *path, struct stat *info) { return Allowed("lstat", path) ? lstat(path, info) : -1; }
int Access(char const *path, int mode) { return Allowed("access", path) ? access(path, mode) : -1; }
int Rename(char const *from, char const *to) { return Allowed("rename", from) ? rename(from, to) : -1; }
int Unlink(char const *path) { return Allowed("unlink", path) ? unlink(path) : -1; }
int Rmdir(char const *path) { return Allowed("rmdir", path) ? rmdir(path) : -1; }
int Mkdir(char const *path, mode_t mode) { return Allowed("mkdir", path) ? mkdir(path, mode) : -1; }
int Link(char const *from, char const *to) { return Allowed("link", from) ? link(from, to) : -1; }

int LinkFd(int fd, char const *to) {
  if (!Allowed("linkfd", to)) return -1;
  // Through /proc, since a link by AT_EMPTY_PATH is for privileged processes alone.
  char name[32];
  (void)snprintf(name, sizeof name, "/proc/self/fd/%d", fd);
  return linkat(AT_FDCWD, name, AT_FDCWD, to, AT_SYMLINK_FOLLOW);
}

int Ftruncate(int fd, off_t length) {
  if (!Allowed("ftruncate")) return -1;
  return Retry([&] { return ftruncate(fd, length); });
}

int Allocate(int fd, off_t offset, off_t length) {
  if (!Allowed("fallocate")) return -1;
  return Retry([&] { return fallocate(fd, FALLOC_FL_KEEP_SIZE, offset, length); });
}

int Fsync(int fd) {
  if (!Allowed("fsync")) return -1;
  return Retry([&] { return fsync(fd); });
}

int Fdatasync(int fd) {
  if (!Allowed("fdatasync")) return -1;
  return Retry([&] { return fdatasync(fd); });
}

int Syncfs(int fd) {
  if (!Allowed("syncfs")) return -1;
  return Retry([&] { return syncfs(fd); });
}

int Fchmod(int fd, mode_t mode) { return Allowed("fchmod") ? fchmod(fd, mode) : -1; }
int Chmod(char const *path, mode_t mode) { return Allowed("chmod", path) ? chmod(path, mode) : -1; }
int Chdir(char const *path) { return Allowed("chdir", path) ? chdir(path) : -1; }
int Statvfs(char const *path, struct statvfs *info) { return Allowed("statvfs", path) ? statvfs(path, info) : -1; }

int CloneFile(int from, int to) { return Allowed("clone") ? ioctl(to, FICLONE, from) : -1; }

ssize_t CopyRange(int from, int to, size_t length) {
  if (!Allowed("copy_range")) return -1;
  return Retry([&] { return copy_file_range(from, nullptr, to, nullptr, length, 0); });
}

int Lock(int fd, short type, off_t offset, off_t length, bool wait) {
  if (!Allowed("lock")) return -1;
  struct flock range = {};  // l_pid has to be 0 for an open-file lock
  range.l_type = type;
  range.l_whence = SEEK_SET;
  range.l_start = offset;
  range.l_len = length;
  return Retry([&] { return fcntl(fd, wait ? F_OFD_SETLKW : F_OFD_SETLK, &range); });
}

DIR *OpenDir(char const *path) { return Allowed("opendir", path) ? opendir(path) : nullptr; }

struct dirent *ReadDir(DIR *dir) {
  if (!Allowed("readdir")) return nullptr;
  errno = 0;
  return readdir(dir);
}

int CloseDir(DIR *dir) {
  bool const allowed = Allowed("closedir");
  int const hook_error = errno;
  int const result = closedir(dir);
  if (!allowed) {
    errno = hook_error;
    return -1;
  }
  return result;
}

void const *MapRead(int fd, size_t length) {
  if (!Allowed("mmap")) return nullptr;
  // The zero pages lie below; the file replaces the first of them and leaves at least one zero byte behind its end.
  void *area = mmap(nullptr, MappedLength(length), PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (area == MAP_FAILED) return nullptr;
  if (mmap(area, length, PROT_READ, MAP_PRIVATE | MAP_FIXED, fd, 0) != MAP_FAILED) return area;
  int const error = errno;
  (void)munmap(area, MappedLength(length));
  errno = error;
  return nullptr;
}

void Unmap(void const *area, size_t length) { (void)munmap(const_cast<void *>(area), MappedLength(length)); }

int CopyContents(int from, int to) {
  // A clone takes the whole file, so it serves only where nothing was read or written yet.
  if (lseek(from, 0, SEEK_CUR) == 0 && lseek(to, 0, SEEK_CUR) == 0 && CloneFile(from, to) == 0) {
    off_t const end = lseek(to, 0, SEEK_END);
    return end >= 0 && lseek(from, end, SEEK_SET) >= 0 ? 0 : -1;
  }
  for (bool copied = false;; copied = true) {
    ssize_t const got = CopyRange(from, to, kCopyRangeLimit);
    if (got < 0) return IsRangeRefused(errno) ? CopyByBlocks(from, to) : -1;
    // Some file systems without sizes say 0 at once for a file that can be read.
    if (got == 0) return copied ? 0 : CopyByBlocks(from, to);
  }
}

}  // namespace sys
