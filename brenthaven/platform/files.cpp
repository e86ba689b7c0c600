#include "brenthaven/platform/files.h"

#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iostream>
#include <string>
#include <string_view>
#include <vector>

#include "brenthaven/platform/descriptor.h"
#include "brenthaven/platform/logtext.h"
#include "brenthaven/platform/nativepath.h"
#include "brenthaven/platform/sys.h"
#include "brenthaven/text/base.h"

namespace {

constexpr mode_t kFileMode = 0660;
constexpr mode_t kDirectoryMode = 0770;
void *const kNoHandle = HandleOf(-1);

bool GetInfo(SString const &path, struct stat *info) { return sys::Stat(SNativePath(path), info) == 0; }

// Without the one separator that may end the name of a directory; the root keeps its own.
SString WithoutEndSlash(SString const &path) {
  int const length = path.Length();
  if (length < 2 || (path[-1] != '/' && path[-1] != '\\')) return path;
  return path.Segment(0, length - 1);
}

// O_NONBLOCK: the test of a FIFO must not wait for its other side.
int CanOpen(SString const &path, int flags) {
  int const fd = sys::Open(SNativePath(path), flags | O_NONBLOCK);
  if (fd < 0) return 0;
  struct stat info;
  int const result = sys::Fstat(fd, &info) == 0 && !S_ISDIR(info.st_mode);
  (void)sys::Close(fd);  // nothing was written
  return result;
}

bool IsSameFile(struct stat const &a, struct stat const &b) { return a.st_dev == b.st_dev && a.st_ino == b.st_ino; }

// A name beside the target that no other process and no other call of this one uses.
std::string TemporaryNameFor(std::string const &target) {
  static unsigned count = 0;
  return target + "." + std::to_string(getpid()) + "-" + std::to_string(++count) + ".copy";
}

std::string DirectoryOf(std::string const &path) {
  size_t const slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return path.substr(0, slash == 0 ? 1 : slash);
}

// Copies an open file to a new one and puts that in the place of target in one step.
bool ReplaceByCopy(int from, mode_t mode, std::string const &target) {
  // The unnamed file leaves nothing behind in a crash; file systems without it get a temporary name at once.
  std::string const temporary = TemporaryNameFor(target);
  SDescriptor copy(sys::Open(DirectoryOf(target).c_str(), O_TMPFILE | O_WRONLY, mode));
  bool const unnamed = copy.IsOpen();
  if (!unnamed) copy = SDescriptor(sys::Open(temporary.c_str(), O_CREAT | O_EXCL | O_WRONLY, mode));
  if (!copy.IsOpen()) return false;

  bool const copied = sys::CopyContents(from, copy.Get()) == 0 && sys::Fchmod(copy.Get(), mode) == 0;
  if (unnamed) {
    if (!copied) return false;
    if (sys::LinkFd(copy.Get(), target.c_str()) == 0) return true;
    if (errno != EEXIST || sys::LinkFd(copy.Get(), temporary.c_str()) != 0) return false;
  }
  if (copied && sys::Rename(temporary.c_str(), target.c_str()) == 0) return true;
  int const error = errno;
  (void)sys::Unlink(temporary.c_str());
  errno = error;
  return false;
}

// Opens a file for reading and writing, and makes it when it is missing. A symbolic link in its place is refused.
int OpenOrMake(char const *path) {
  for (;;) {
    int fd = sys::Open(path, O_RDWR | O_NOFOLLOW);
    if (fd >= 0 || errno != ENOENT) return fd;
    fd = sys::Open(path, O_RDWR | O_CREAT | O_EXCL, kFileMode);
    if (fd >= 0) {
      if (sys::Fchmod(fd, kFileMode) == 0) return fd;
      SDescriptor const refused(fd);
      return -1;
    }
    if (errno != EEXIST) return -1;  // another process was faster: its file serves as well
  }
}

}  // namespace

int FileExists(SString const &path) {
  struct stat info;
  return GetInfo(path, &info);
}

int IsRegular(SString const &path) {
  struct stat info;
  return GetInfo(path, &info) && !S_ISDIR(info.st_mode);
}

int IsDirectory(SString const &path) {
  struct stat info;
  return GetInfo(WithoutEndSlash(path), &info) && S_ISDIR(info.st_mode);
}

int IsReadable(SString const &path) { return CanOpen(path, O_RDONLY); }
int IsWriteable(SString const &path) { return CanOpen(path, O_WRONLY); }
int IsExecutable(SString const &path) { return IsReadable(path); }

long FileSize(SString const &path) {
  struct stat info;
  return GetInfo(path, &info) && !S_ISDIR(info.st_mode) ? static_cast<long>(info.st_size) : -1;
}

double FileAge(SString const &path) {
  constexpr long long kTicksPerSecond = 10'000'000;  // of 100 ns each
  constexpr double kTicksPerDay = 864'000'000'000.0;
  struct stat info;
  struct timespec now;
  if (!GetInfo(path, &info) || S_ISDIR(info.st_mode) || clock_gettime(CLOCK_REALTIME, &now) != 0) return -1.0;
  auto const ticks = [](struct timespec const &time) { return time.tv_sec * kTicksPerSecond + time.tv_nsec / 100; };
  return static_cast<double>(ticks(now) - ticks(info.st_mtim)) / kTicksPerDay;
}

double FreeDiskSpace(SString const &dir) {
  struct statvfs info;
  if (sys::Statvfs(dir.Length() == 0 ? "." : SNativePath(dir), &info) != 0) return -1.0;
  return static_cast<double>(info.f_bavail) * static_cast<double>(info.f_frsize);
}

SString RealPath(SString const &path) { return path; }

unsigned RemoveFileLogged(SString const &path) {
  if (RemoveFile(path)) return 1;
  int const error = errno;
  if (!IsRegular(path)) return 0;
  SString const line =
      LogFileDate() + ":" + GetEnv("ModuleName") + ":ERROR:Couldn't remove file " + path + ":" + GetErrorString(error);
  std::cerr << LogText(line.View()) + "\n";
  return 0;
}

int LinkFile(SString const &from, SString const &to) {
  SDescriptor const source(sys::Open(SNativePath(from), O_RDONLY | O_NONBLOCK));
  struct stat info;
  if (!source.IsOpen() || sys::Fstat(source.Get(), &info) != 0) return 0;
  if (S_ISDIR(info.st_mode)) {
    errno = EISDIR;
    return 0;
  }
  SNativePath const target(to);
  struct stat old;
  if (sys::Stat(target, &old) == 0 && IsSameFile(info, old)) return 1;
  return ReplaceByCopy(source.Get(), info.st_mode & kFileMode, static_cast<char const *>(target));
}

int CloseFile(void *handle) { return sys::Close(DescriptorOf(handle)) == 0; }

int MakeDir(SString const &path, unsigned long) {
  if (path.Length() == 0) return 0;
  if (IsDirectory(path)) return 1;
  std::string const text{SNativePath(path)};
  std::string level = text.starts_with('/') ? "/" : ".";
  size_t start = 0;
  if (text.size() > 1 && text[1] == ':' && (text.size() == 2 || text[2] == '/')) {
    level = text.substr(0, 2);  // "C:" names a drive that is there, not a level to make
    start = 2;
  }
  while (start < text.size()) {
    size_t const end = std::min(text.find('/', start), text.size());
    std::string_view const name = std::string_view(text).substr(start, end - start);
    start = end + 1;
    if (name.empty()) continue;
    level.append("/").append(name);
    struct stat info;
    if (sys::Stat(level.c_str(), &info) == 0) continue;  // a file in the way fails the next level or the last test
    if (sys::Mkdir(level.c_str(), kDirectoryMode) == 0) {
      if (sys::Chmod(level.c_str(), kDirectoryMode) != 0) return 0;
    } else if (sys::Stat(level.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
      return 0;
    }
  }
  return IsDirectory(path);
}

int Chdir(SString const &path) { return sys::Chdir(SNativePath(WithoutEndSlash(path))) == 0; }

SStringList ReadDirRecursive(SString const &path) {
  SStringList files = ReadDir(path);
  if (!files.Defined()) return files;
  SStringList result;
  result.Define();
  std::vector<SStringList> open_lists{files};  // of the directories on the way down, what is still to visit
  while (!open_lists.empty()) {
    if (open_lists.back().Length() == 0) {
      open_lists.pop_back();
      continue;
    }
    SString const entry = open_lists.back().Shift();
    struct stat info;
    bool const is_directory = sys::Lstat(entry, &info) == 0 && S_ISDIR(info.st_mode);
    if (is_directory)
      open_lists.push_back(ReadDir(entry));
    else
      (void)result.Push(entry);
  }
  return result;
}

SString PathFromFilename(SString path) {
  SStringList parts = path.SplitExact("/", 0);
  (void)parts.Pop();
  SString const before = parts.Join("/");
  return before.Length() > 0 ? before : SString(".");
}

SString FileFromFilename(SString path) { return path.SplitExact("/", 0).Pop(); }

void *LockFile(void *handle, int mode, int offset, int length) {
  short const type = (mode & kLockShared) != 0 ? F_RDLCK : F_WRLCK;
  bool const wait = (mode & kLockWait) != 0;
  return sys::Lock(DescriptorOf(handle), type, offset, length, wait) == 0 ? handle : kNoHandle;
}

void *LockFile(SString const &path, int mode, int offset, int length) {
  SNativePath const name(path);
  for (;;) {
    SDescriptor file(OpenOrMake(name));
    if (!file.IsOpen() || LockFile(HandleOf(file.Get()), mode, offset, length) == kNoHandle) return kNoHandle;
    struct stat locked;
    struct stat named;
    if (sys::Fstat(file.Get(), &locked) != 0) return kNoHandle;
    if (sys::Stat(name, &named) == 0 && IsSameFile(locked, named)) return HandleOf(file.Release());
    // Removed while we waited: a lock on it would keep nobody out who comes after us.
  }
}

int UnlockFile(void *handle, int offset, int length) {
  return sys::Lock(DescriptorOf(handle), F_UNLCK, offset, length, false) == 0;
}
