#include "tests/crash/calls.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <stdarg.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <utility>

SCallError const kErrors[kCallErrors] = {
    {ENOSPC, "ENOSPC"}, {EIO, "EIO"},       {EMFILE, "EMFILE"}, {ENOMEM, "ENOMEM"},
    {EDQUOT, "EDQUOT"}, {EACCES, "EACCES"}, {EINTR, "EINTR"},   {SCallPlan::kShortWrite, "short write"},
};

namespace {

enum ErrorBit : unsigned {
  kSpace = 1 << 0,
  kIo = 1 << 1,
  kFiles = 1 << 2,
  kMemory = 1 << 3,
  kQuota = 1 << 4,
  kAccess = 1 << 5,
  kInterrupt = 1 << 6,
  kShort = 1 << 7,
};

constexpr unsigned kOpenErrors = kIo | kFiles | kMemory | kAccess | kInterrupt;
constexpr unsigned kNameErrors = kSpace | kIo | kQuota | kAccess | kMemory;  // of what makes or changes an entry
constexpr unsigned kWriteErrors = kSpace | kIo | kQuota | kInterrupt;

SCallBoard *g_board = nullptr;
SCallPlan g_plan;
bool g_watching = false;
std::string g_below;                                   // with a "/" at the end; empty: nothing is recorded
std::map<std::pair<dev_t, ino_t>, uint32_t> *g_files;  // numbers of the files below it that were met
int g_onwards = 0;                                     // the error that goes on, once its first call has come
int64_t g_slept = 0;                                   // nanoseconds that the clock is ahead: nobody has to wait
constexpr int64_t kSecond = 1000000000;

// The C library's own function behind one of ours.
template <typename Function>
Function Real(char const *name, Function) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}
#define REAL(name) static auto const real = Real(#name, &name)

// Counts a call. False when it shall fail; errno is set then. A short write goes on with `isShort` set.
bool Enter(char const *name, bool changes, unsigned errors, bool *isShort = nullptr, char const *path = "") {
  if (!g_watching) return true;
  long const number = ++g_board->calls;
  if (number <= static_cast<long>(SCallBoard::kMaxTrace)) {
    SCallBoard::Traced &traced = g_board->trace[number - 1];
    traced.name = name;
    traced.changes = changes;
    traced.errors = errors;
    size_t const length = strlen(path), most = sizeof traced.path - 1;
    strcpy(traced.path, path + (length > most ? length - most : 0));
  }
  int error = 0;
  if (g_plan.act != SCallPlan::Act::kNothing && number == g_plan.at) {
    g_board->acted = true;
    if (g_plan.act == SCallPlan::Act::kKill) {
      (void)kill(getpid(), SIGKILL);
      for (;;) (void)pause();
    }
    error = g_plan.error;
    if (g_plan.onwards) g_onwards = error;
  } else if (g_onwards != 0) {
    for (size_t i = 0; i < kCallErrors; ++i)
      if (kErrors[i].error == g_onwards && (errors & 1U << i) != 0) error = g_onwards;
  }
  if (error == SCallPlan::kShortWrite) {
    if (isShort != nullptr) *isShort = true;
    return true;
  }
  if (error == 0) return true;
  errno = error;
  return false;
}

using calls::Aside;

bool IsRecording() { return g_watching && !g_below.empty(); }

void Append(void const *data, size_t length) {
  if (g_board->recorded + length > SCallBoard::kMaxRecord) abort();
  memcpy(g_board->record + g_board->recorded, data, length);
  g_board->recorded += length;
}
void AppendText(std::string const &text) {
  uint64_t const length = text.size();
  Append(&length, sizeof length);
  Append(text.data(), text.size());
}
void Record(SFileOperation const &operation) {
  Append(&operation.kind, sizeof operation.kind);
  Append(&operation.file, sizeof operation.file);
  Append(&operation.offset, sizeof operation.offset);
  AppendText(operation.path);
  AppendText(operation.target);
  AppendText(operation.bytes);
}

// The packaged B-tree engine takes an interrupted read or a short write for a failure. It only reads files on a local
// disk and only writes to memory, where neither ever happens.
bool IsFromTreeEngine(void const *caller) {
  Dl_info info;
  return dladdr(caller, &info) != 0 && info.dli_fname != nullptr && strstr(info.dli_fname, "libdb") != nullptr;
}

// A path below the recorded directory, relative to it. False for any other.
bool Below(char const *path, std::string &relative) {
  std::string full = path;
  if (full.empty()) return false;
  if (full[0] != '/') {
    char directory[PATH_MAX];
    if (getcwd(directory, sizeof directory) == nullptr) return false;
    full = std::string(directory).append("/").append(full);
  }
  for (size_t at; (at = full.find("//")) != std::string::npos;) full.erase(at, 1);
  if (full.compare(0, g_below.size(), g_below) != 0) return false;
  relative = full.substr(g_below.size());
  while (!relative.empty() && relative.back() == '/') relative.pop_back();
  return true;
}

uint32_t &NumberOf(struct stat const &info) { return (*g_files)[{info.st_dev, info.st_ino}]; }

// The number of an open file; 0 for one that is not below the directory.
uint32_t NumberOf(int fd) {
  struct stat info;
  if (fstat(fd, &info) != 0) return 0;
  auto const found = g_files->find({info.st_dev, info.st_ino});
  return found == g_files->end() ? 0 : found->second;
}

// An open file's path while it has one: for directories, which are never renamed.
std::string PathOf(int fd) {
  char path[PATH_MAX];
  ssize_t const length = readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), path, sizeof path - 1);
  return length > 0 ? std::string(path, static_cast<size_t>(length)) : std::string();
}

// A file that is named and has no number yet gets one.
uint32_t Meet(struct stat const &info, std::string const &relative) {
  uint32_t &number = NumberOf(info);
  if (number == 0) {
    number = ++g_board->nextFile;
    Record({SFileOperation::Kind::kMeet, number, 0, relative, "", ""});
  }
  return number;
}

bool IsThere(char const *path) {
  Aside const aside;
  struct stat info;
  return lstat(path, &info) == 0;
}

void RecordOpen(int fd, char const *path, int flags, bool wasThere) {
  Aside const aside;
  std::string relative;
  struct stat info;
  if (!Below(path, relative) || fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) return;
  bool const isUnnamed = (flags & O_TMPFILE) == O_TMPFILE;
  if (isUnnamed || !wasThere) {
    uint32_t const number = NumberOf(info) = ++g_board->nextFile;
    Record({isUnnamed ? SFileOperation::Kind::kUnnamed : SFileOperation::Kind::kCreate, number, 0,
            isUnnamed ? std::string() : relative, "", ""});
    return;
  }
  uint32_t const number = Meet(info, relative);
  if ((flags & O_TRUNC) != 0) Record({SFileOperation::Kind::kSize, number, 0, "", "", ""});
}

void RecordBytes(int fd, void const *data, size_t length, off_t offset) {
  Aside const aside;
  if (uint32_t const number = NumberOf(fd); number != 0)
    Record({SFileOperation::Kind::kWrite, number, static_cast<uint64_t>(offset), "", "",
            std::string(static_cast<char const *>(data), length)});
}

// What the kernel has put into a file by itself.
void RecordRange(int fd, off_t offset, size_t length) {
  Aside const aside;
  uint32_t const number = NumberOf(fd);
  if (number == 0) return;
  int const reader = open(("/proc/self/fd/" + std::to_string(fd)).c_str(), O_RDONLY | O_CLOEXEC);
  std::string bytes(length, '\0');
  if (reader < 0 || pread(reader, bytes.data(), length, offset) != static_cast<ssize_t>(length)) abort();
  (void)close(reader);
  Record({SFileOperation::Kind::kWrite, number, static_cast<uint64_t>(offset), "", "", bytes});
}

void RecordPaths(SFileOperation::Kind kind, char const *path, char const *target = "") {
  Aside const aside;
  std::string from, to;
  if (Below(path, from) && (*target == '\0' || Below(target, to))) Record({kind, 0, 0, from, to, ""});
}

void RecordLink(char const *from, char const *to) {
  Aside const aside;
  std::string relative;
  struct stat info;
  if (!Below(to, relative) || stat(from, &info) != 0) return;
  std::string source;
  uint32_t const number = Below(from, source) ? Meet(info, source) : NumberOf(info);
  Record({SFileOperation::Kind::kLink, number, 0, relative, "", ""});
}

void RecordFlush(int fd, bool all) {
  Aside const aside;
  struct stat info;
  std::string relative;
  if (fstat(fd, &info) != 0) return;
  if (all) {
    std::string const path = PathOf(fd);
    if (Below((path + "/").c_str(), relative)) Record({SFileOperation::Kind::kFlushAll, 0, 0, "", "", ""});
  } else if (S_ISDIR(info.st_mode)) {
    if (Below((PathOf(fd) + "/").c_str(), relative))
      Record({SFileOperation::Kind::kFlushDirectory, 0, 0, relative, "", ""});
  } else if (uint32_t const number = NumberOf(fd); number != 0) {
    Record({SFileOperation::Kind::kFlushFile, number, 0, "", "", ""});
  }
}

off_t OffsetOf(int fd) {
  Aside const aside;
  return lseek(fd, 0, SEEK_CUR);
}

// The record, taken apart again.
class Reader {
public:
  explicit Reader(SCallBoard const &board) : _next(board.record), _end(board.record + board.recorded) {}
  bool AtEnd() const { return _next == _end; }
  template <typename Value>
  void Take(Value &value) {
    memcpy(&value, _next, sizeof value);
    _next += sizeof value;
  }
  void TakeText(std::string &text) {
    uint64_t length = 0;
    Take(length);
    text.assign(reinterpret_cast<char const *>(_next), length);
    _next += length;
  }

private:
  unsigned char const *_next;
  unsigned char const *_end;
};

}  // namespace

SCallBoard &SCallBoard::Make() {
  void *const memory =
      mmap(nullptr, sizeof(SCallBoard), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (memory == MAP_FAILED) abort();
  return *static_cast<SCallBoard *>(memory);  // zero pages are an empty board
}

void SCallBoard::Clear() {
  calls = 0;
  notes = 0;
  recorded = 0;
  nextFile = 0;
  acted = false;
  text[0] = '\0';
}

void SCallBoard::Restart(std::uint64_t reported) {
  calls = 0;
  acted = false;
  notes = reported;
}

long SCallBoard::TracedCalls() const { return std::min(calls, static_cast<long>(kMaxTrace)); }

void SCallBoard::Say(std::string const &line) {
  size_t const used = strlen(text);
  std::string const whole = (line + "\n").substr(0, kMaxText - 1 - used);
  memcpy(text + used, whole.c_str(), whole.size() + 1);
}

namespace calls {

Aside::Aside() : _watching(std::exchange(g_watching, false)), _error(errno) {}
Aside::~Aside() {
  g_watching = _watching;
  errno = _error;
}

void Watch(SCallBoard &board, SCallPlan const &plan, std::string const &recordBelow) {
  g_board = &board;
  g_plan = plan;
  g_onwards = 0;
  g_slept = 0;
  g_below = recordBelow.empty() ? "" : recordBelow + "/";
  delete g_files;
  g_files = new std::map<std::pair<dev_t, ino_t>, uint32_t>;
  g_watching = true;
}

void Stop() { g_watching = false; }

void Note(unsigned number) {
  g_board->notes |= std::uint64_t{1} << number;
  if (IsRecording()) Record({SFileOperation::Kind::kNote, 0, number, "", "", ""});
}

std::vector<SFileOperation> Recorded(SCallBoard const &board) {
  std::vector<SFileOperation> operations;
  for (Reader reader(board); !reader.AtEnd();) {
    SFileOperation &operation = operations.emplace_back();
    reader.Take(operation.kind);
    reader.Take(operation.file);
    reader.Take(operation.offset);
    reader.TakeText(operation.path);
    reader.TakeText(operation.target);
    reader.TakeText(operation.bytes);
  }
  return operations;
}

}  // namespace calls

// The functions themselves. Both forms of those that exist for 32 and 64 bits are needed: the code under test was
// compiled with the one, the packaged libraries with the other.

extern "C" {

#define OPEN_LIKE(name)                                                                                          \
  int name(char const *path, int flags, ...) {                                                                   \
    mode_t mode = 0;                                                                                             \
    if ((flags & (O_CREAT | O_TMPFILE)) != 0) {                                                                  \
      va_list rest;                                                                                              \
      va_start(rest, flags);                                                                                     \
      mode = va_arg(rest, mode_t);                                                                               \
      va_end(rest);                                                                                              \
    }                                                                                                            \
    REAL(name);                                                                                                  \
    bool const makes = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;                               \
    bool const changes = makes || (flags & O_TRUNC) != 0;                                                        \
    if (!Enter(makes ? "create" : "open", changes, kOpenErrors | (makes ? kSpace | kQuota : 0U), nullptr, path)) \
      return -1;                                                                                                 \
    bool const wasThere = !IsRecording() || !makes || IsThere(path);                                             \
    int const fd = real(path, flags, mode);                                                                      \
    if (fd >= 0 && IsRecording()) RecordOpen(fd, path, flags, wasThere);                                         \
    return fd;                                                                                                   \
  }
OPEN_LIKE(open)
OPEN_LIKE(open64)

int close(int fd) {
  REAL(close);
  bool const allowed = Enter("close", false, kIo);
  int const error = errno;
  int const result = real(fd);
  if (allowed) return result;
  errno = error;
  return -1;
}

ssize_t read(int fd, void *buffer, size_t length) {
  REAL(read);
  bool const isRepeated = !g_watching || !IsFromTreeEngine(__builtin_return_address(0));
  return Enter("read", false, kIo | (isRepeated ? kInterrupt : 0U)) ? real(fd, buffer, length) : -1;
}

#define PREAD_LIKE(name)                                                                    \
  ssize_t name(int fd, void *buffer, size_t length, off_t offset) {                         \
    REAL(name);                                                                             \
    return Enter("pread", false, kIo | kInterrupt) ? real(fd, buffer, length, offset) : -1; \
  }
PREAD_LIKE(pread)
PREAD_LIKE(pread64)

ssize_t write(int fd, void const *data, size_t length) {
  REAL(write);
  bool isShort = false;
  bool const isRepeated = !g_watching || !IsFromTreeEngine(__builtin_return_address(0));
  unsigned const errors = isRepeated ? kWriteErrors | (length > 1 ? kShort : 0U) : kWriteErrors & ~kInterrupt;
  if (!Enter("write", true, errors, &isShort)) return -1;
  off_t const offset = IsRecording() ? OffsetOf(fd) : 0;
  ssize_t const wrote = real(fd, data, length - (isShort ? 1 : 0));
  if (wrote > 0 && IsRecording()) RecordBytes(fd, data, static_cast<size_t>(wrote), offset);
  return wrote;
}

#define PWRITE_LIKE(name)                                                                       \
  ssize_t name(int fd, void const *data, size_t length, off_t offset) {                         \
    REAL(name);                                                                                 \
    bool isShort = false;                                                                       \
    if (!Enter("pwrite", true, kWriteErrors | (length > 1 ? kShort : 0U), &isShort)) return -1; \
    ssize_t const wrote = real(fd, data, length - (isShort ? 1 : 0), offset);                   \
    if (wrote > 0 && IsRecording()) RecordBytes(fd, data, static_cast<size_t>(wrote), offset);  \
    return wrote;                                                                               \
  }
PWRITE_LIKE(pwrite)
PWRITE_LIKE(pwrite64)

ssize_t writev(int fd, struct iovec const *parts, int count) {
  REAL(writev);
  if (!Enter("writev", true, kWriteErrors)) return -1;
  off_t const offset = IsRecording() ? OffsetOf(fd) : 0;
  ssize_t const wrote = real(fd, parts, count);
  if (wrote > 0 && IsRecording()) RecordRange(fd, offset, static_cast<size_t>(wrote));
  return wrote;
}

#define STAT_LIKE(name)                                                                         \
  int name(char const *path, struct stat *info) {                                               \
    REAL(name);                                                                                 \
    return Enter(#name, false, kIo | kMemory | kAccess, nullptr, path) ? real(path, info) : -1; \
  }
STAT_LIKE(stat)
STAT_LIKE(lstat)
#define STAT64_LIKE(name)                                                                       \
  int name(char const *path, struct stat64 *info) {                                             \
    REAL(name);                                                                                 \
    return Enter(#name, false, kIo | kMemory | kAccess, nullptr, path) ? real(path, info) : -1; \
  }
STAT64_LIKE(stat64)
STAT64_LIKE(lstat64)

int fstat(int fd, struct stat *info) {
  REAL(fstat);
  return Enter("fstat", false, kIo | kMemory) ? real(fd, info) : -1;
}
int fstat64(int fd, struct stat64 *info) {
  REAL(fstat64);
  return Enter("fstat", false, kIo | kMemory) ? real(fd, info) : -1;
}

int access(char const *path, int mode) {
  REAL(access);
  return Enter("access", false, kIo | kMemory, nullptr, path) ? real(path, mode) : -1;
}

int rename(char const *from, char const *to) {
  REAL(rename);
  if (!Enter("rename", true, kNameErrors, nullptr, from)) return -1;
  int const result = real(from, to);
  if (result == 0 && IsRecording()) RecordPaths(SFileOperation::Kind::kRename, from, to);
  return result;
}

int link(char const *from, char const *to) {
  REAL(link);
  if (!Enter("link", true, kNameErrors, nullptr, to)) return -1;
  int const result = real(from, to);
  if (result == 0 && IsRecording()) RecordLink(from, to);
  return result;
}

int linkat(int fromDirectory, char const *from, int toDirectory, char const *to, int flags) {
  REAL(linkat);
  if (!Enter("link", true, kNameErrors, nullptr, to)) return -1;
  int const result = real(fromDirectory, from, toDirectory, to, flags);
  if (result == 0 && IsRecording()) RecordLink(from, to);
  return result;
}

int unlink(char const *path) {
  REAL(unlink);
  if (!Enter("unlink", true, kIo | kAccess | kMemory, nullptr, path)) return -1;
  int const result = real(path);
  if (result == 0 && IsRecording()) RecordPaths(SFileOperation::Kind::kUnlink, path);
  return result;
}

int mkdir(char const *path, mode_t mode) {
  REAL(mkdir);
  if (!Enter("mkdir", true, kNameErrors, nullptr, path)) return -1;
  int const result = real(path, mode);
  if (result == 0 && IsRecording()) RecordPaths(SFileOperation::Kind::kMkdir, path);
  return result;
}

int rmdir(char const *path) {
  REAL(rmdir);
  if (!Enter("rmdir", true, kIo | kAccess | kMemory, nullptr, path)) return -1;
  int const result = real(path);
  if (result == 0 && IsRecording()) RecordPaths(SFileOperation::Kind::kRmdir, path);
  return result;
}

#define FTRUNCATE_LIKE(name)                                                                      \
  int name(int fd, off_t length) {                                                                \
    REAL(name);                                                                                   \
    if (!Enter("ftruncate", true, kSpace | kIo | kInterrupt)) return -1;                          \
    int const result = real(fd, length);                                                          \
    if (result == 0 && IsRecording()) {                                                           \
      Aside const aside;                                                                          \
      if (uint32_t const number = NumberOf(fd); number != 0)                                      \
        Record({SFileOperation::Kind::kSize, number, static_cast<uint64_t>(length), "", "", ""}); \
    }                                                                                             \
    return result;                                                                                \
  }
FTRUNCATE_LIKE(ftruncate)
FTRUNCATE_LIKE(ftruncate64)

int fallocate(int fd, int mode, off_t offset, off_t length) {
  REAL(fallocate);
  return Enter("fallocate", true, kSpace | kIo | kInterrupt) ? real(fd, mode, offset, length) : -1;
}

#define FLUSH_LIKE(name, all)                                   \
  int name(int fd) {                                            \
    REAL(name);                                                 \
    if (!Enter(#name, false, kIo | kSpace | kQuota)) return -1; \
    int const result = real(fd);                                \
    if (result == 0 && IsRecording()) RecordFlush(fd, all);     \
    return result;                                              \
  }
FLUSH_LIKE(fsync, false)
FLUSH_LIKE(fdatasync, false)
FLUSH_LIKE(syncfs, true)

ssize_t copy_file_range(int from, off64_t *fromOffset, int to, off64_t *toOffset, size_t length, unsigned flags) {
  REAL(copy_file_range);
  if (!Enter("copy_file_range", true, kSpace | kIo | kQuota | kMemory)) return -1;
  off_t const offset = IsRecording() ? OffsetOf(to) : 0;
  ssize_t const copied = real(from, fromOffset, to, toOffset, length, flags);
  if (copied > 0 && IsRecording()) RecordRange(to, offset, static_cast<size_t>(copied));
  return copied;
}

int ioctl(int fd, unsigned long request, ...) {
  va_list rest;
  va_start(rest, request);
  void *const argument = va_arg(rest, void *);
  va_end(rest);
  REAL(ioctl);
  return Enter("ioctl", true, kIo | kSpace) ? real(fd, request, argument) : -1;
}

#define FCNTL_LIKE(name)                                                                                              \
  int name(int fd, int command, ...) {                                                                                \
    va_list rest;                                                                                                     \
    va_start(rest, command);                                                                                          \
    void *const argument = va_arg(rest, void *);                                                                      \
    va_end(rest);                                                                                                     \
    REAL(name);                                                                                                       \
    bool const waits = command == F_OFD_SETLKW || command == F_SETLKW;                                                \
    return Enter(waits ? "lock" : "fcntl", false, waits ? kIo | kInterrupt : kIo) ? real(fd, command, argument) : -1; \
  }
FCNTL_LIKE(fcntl)
FCNTL_LIKE(fcntl64)

int fchmod(int fd, mode_t mode) {
  REAL(fchmod);
  return Enter("fchmod", true, kIo | kAccess) ? real(fd, mode) : -1;
}
int fchown(int fd, uid_t owner, gid_t group) {
  REAL(fchown);
  return Enter("fchown", true, kIo | kAccess) ? real(fd, owner, group) : -1;
}
int futimens(int fd, struct timespec const times[2]) noexcept {
  REAL(futimens);
  return Enter("utimens", true, kIo | kAccess) ? real(fd, times) : -1;
}
int chmod(char const *path, mode_t mode) {
  REAL(chmod);
  return Enter("chmod", true, kIo | kAccess, nullptr, path) ? real(path, mode) : -1;
}

int statvfs(char const *path, struct statvfs *info) {
  REAL(statvfs);
  return Enter("statvfs", false, kIo | kMemory, nullptr, path) ? real(path, info) : -1;
}

DIR *opendir(char const *path) {
  REAL(opendir);
  return Enter("opendir", false, kIo | kFiles | kMemory | kAccess, nullptr, path) ? real(path) : nullptr;
}
struct dirent *readdir(DIR *directory) {
  REAL(readdir);
  return Enter("readdir", false, kIo) ? real(directory) : nullptr;
}
int closedir(DIR *directory) {
  REAL(closedir);
  bool const allowed = Enter("closedir", false, 0);
  int const result = real(directory);
  return allowed ? result : -1;
}

#define MMAP_LIKE(name)                                                                                       \
  void *name(void *address, size_t length, int protection, int flags, int fd, off_t offset) {                 \
    REAL(name);                                                                                               \
    return Enter("mmap", false, kMemory) ? real(address, length, protection, flags, fd, offset) : MAP_FAILED; \
  }
MMAP_LIKE(mmap)
MMAP_LIKE(mmap64)

int memfd_create(char const *name, unsigned flags) noexcept {
  REAL(memfd_create);
  return Enter("memfd_create", false, kFiles | kMemory) ? real(name, flags) : -1;
}

int socket(int domain, int type, int protocol) {
  REAL(socket);
  return Enter("socket", false, kFiles | kMemory | kAccess) ? real(domain, type, protocol) : -1;
}
ssize_t sendto(int fd, void const *data, size_t length, int flags, struct sockaddr const *address, socklen_t size) {
  REAL(sendto);
  return Enter("sendto", true, kMemory | kInterrupt | kAccess) ? real(fd, data, length, flags, address, size) : -1;
}
ssize_t recvfrom(int fd, void *buffer, size_t length, int flags, struct sockaddr *address, socklen_t *size) {
  REAL(recvfrom);
  return Enter("recvfrom", false, kMemory | kInterrupt) ? real(fd, buffer, length, flags, address, size) : -1;
}
int bind(int fd, struct sockaddr const *address, socklen_t size) {
  REAL(bind);
  return Enter("bind", false, kAccess | kMemory) ? real(fd, address, size) : -1;
}
int connect(int fd, struct sockaddr const *address, socklen_t size) {
  REAL(connect);
  return Enter("connect", false, kAccess | kInterrupt) ? real(fd, address, size) : -1;
}
int poll(struct pollfd *descriptors, nfds_t count, int timeout) {
  REAL(poll);
  return Enter("poll", false, kInterrupt | kMemory) ? real(descriptors, count, timeout) : -1;
}

int nanosleep(struct timespec const *length, struct timespec *left) {
  REAL(nanosleep);
  if (!g_watching) return real(length, left);
  (void)Enter("sleep", false, 0);
  g_slept += length->tv_sec * kSecond + length->tv_nsec;
  return 0;
}
int clock_gettime(clockid_t clock, struct timespec *now) {
  REAL(clock_gettime);
  (void)Enter("clock", false, 0);
  int const result = real(clock, now);
  if (result != 0 || g_slept == 0) return result;
  int64_t const nanoseconds = now->tv_nsec + g_slept % kSecond;
  now->tv_sec += g_slept / kSecond + nanoseconds / kSecond;
  now->tv_nsec = nanoseconds % kSecond;
  return result;
}
time_t time(time_t *now) {
  REAL(time);
  (void)Enter("clock", false, 0);
  time_t const moment = real(nullptr) + g_slept / kSecond;
  if (now != nullptr) *now = moment;
  return moment;
}

}  // extern "C"
