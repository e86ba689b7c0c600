#include "brenthaven/text/base.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <utility>

#include "brenthaven/platform/descriptor.h"
#include "brenthaven/platform/nativepath.h"
#include "brenthaven/platform/sys.h"

namespace {

constexpr int kLastError = -1;
constexpr mode_t kFileMode = 0660;

int g_socketError = 0;

bool IsSlash(char c) { return c == '/' || c == '\\'; }

// The path with each run of one kind of slash cut to one, and without slashes at its end.
SString DirectoryPart(SString const &path) {
  std::string part;
  for (char const c : path.View())
    if (!IsSlash(c) || part.empty() || part.back() != c) part += c;
  while (!part.empty() && IsSlash(part.back())) part.pop_back();
  return SString(part);
}

struct FreeBlock {
  void operator()(char *block) const { free(block); }
};
using Block = std::unique_ptr<char, FreeBlock>;

bool Resize(Block &block, size_t size) {
  char *resized = static_cast<char *>(realloc(block.get(), size));
  if (resized == nullptr) return false;
  (void)block.release();  // realloc has taken it
  block.reset(resized);
  return true;
}

// All that is left to read of an open file, straight into the block that becomes the string's own. The size told is a
// guess: a file may grow, and those of the system say 0.
SString ReadAll(int fd, size_t guess) {
  Block block;
  size_t size = guess + 1;  // one more than expected, so that one short read tells the end
  size_t length = 0;
  if (!Resize(block, size)) return {};
  for (;;) {
    ssize_t const count = sys::Read(fd, block.get() + length, size - length);
    if (count < 0) return {};
    if (count == 0) break;
    length += static_cast<size_t>(count);
    if (length > static_cast<size_t>(SString::kMaxLength)) {
      errno = EFBIG;
      return {};
    }
    if (length < size) continue;
    size = std::max<size_t>(2 * size, 4096);
    if (!Resize(block, size)) return {};
  }
  if (length == 0) return "";
  SString text;
  text.UseBuffer(block.release(), static_cast<int>(length));
  return text;
}

SString ReadRegular(SString const &path, int flags) {
  // A pipe without a writer must not hang.
  SDescriptor const file(sys::Open(SNativePath(path), O_RDONLY | O_NONBLOCK | flags));
  struct stat info;
  if (!file.IsOpen() || sys::Fstat(file.Get(), &info) != 0) return {};
  if (!S_ISREG(info.st_mode)) {
    errno = S_ISDIR(info.st_mode) ? EISDIR : EINVAL;
    return {};
  }
  if (info.st_size > SString::kMaxLength) {
    errno = EFBIG;
    return {};
  }
  return ReadAll(file.Get(), static_cast<size_t>(info.st_size));
}

int WriteNew(SDescriptor &file, SString const &data) {
  if (sys::Fchmod(file.Get(), kFileMode) != 0) return 0;
  if (data.Length() > 0 && sys::WriteAll(file.Get(), data.View().data(), data.View().size()) != 0) return 0;
  return sys::Close(file.Release()) == 0;
}

SString TextOfError(int error) {
  char text[128];
  return strerror_r(error, text, sizeof text);
}

}  // namespace

// Files.

int RemoveFile(SString const &path) { return sys::Unlink(SNativePath(path)) == 0; }

int Rename(SString const &from, SString const &to) {
  SNativePath const source(from);
  struct stat info;
  if (sys::Lstat(source, &info) != 0) return 0;
  if (S_ISDIR(info.st_mode)) {
    errno = EISDIR;
    return 0;
  }
  return sys::Rename(source, SNativePath(to)) == 0;
}

int RemoveDir(SString const &path) {
  bool const endsInSlash = IsSlash(path[-1]);
  SString const directory = path.Segment(0, path.Length() - (endsInSlash ? 1 : 0));
  return sys::Rmdir(SNativePath(directory)) == 0;
}

SStringList ReadDir(SString const &path) {
  SStringList names;
  if (path.Length() < 1) return names;
  SString const prefix = DirectoryPart(path) + '/';
  DIR *directory = sys::OpenDir(SNativePath(prefix));
  if (directory == nullptr) return names;
  names.Define();
  errno = 0;
  while (struct dirent const *entry = sys::ReadDir(directory)) {
    if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
    names.Push(prefix + entry->d_name);
  }
  int const error = errno;
  if (error != 0) names.Undef();   // half a directory would be taken for all of it
  (void)sys::CloseDir(directory);  // it was only read
  errno = error;
  return names;
}

SString MapFileRead(SString const &path) { return ReadRegular(path, 0); }
SString MapOwnFileRead(SString const &path) { return ReadRegular(path, O_NOFOLLOW); }

int MapFileWrite(SString const &path, SString const &data) {
  if (path.Length() == 0) return 0;
  SNativePath const native(path);
  SDescriptor file(sys::Open(native, O_WRONLY | O_CREAT | O_EXCL, kFileMode));
  if (!file.IsOpen()) return 0;
  if (WriteNew(file, data) != 0) return 1;
  int const error = errno;
  (void)sys::Unlink(native);  // the failure of the write is the one to tell
  errno = error;
  return 0;
}

// Paths.

SString BaseName(SString const &path) {
  size_t const slash = path.View().rfind('/');
  if (slash == std::string_view::npos) return path;
  return SString(path.View().substr(slash + 1));
}

SString BaseName(SString const &path, SString const &suffix) {
  SString name = BaseName(path);
  if (!name.View().ends_with(suffix.View())) return name;
  return std::as_const(name).Segment(0, name.Length() - suffix.Length());
}

SString BaseName(char const *path, SString const &suffix) { return BaseName(SString(path), suffix); }

SStringList BaseName(SStringList const &paths, SString const &suffix) {
  SStringList names;
  if (paths.Defined()) names.Define();
  for (SString const &path : paths) names.Push(BaseName(path, suffix));
  return names;
}

// Dates.

SString LogFileDate() {
  time_t const now = time(nullptr);
  struct tm local;
  if (localtime_r(&now, &local) == nullptr) return {};
  int const minutes = static_cast<int>(local.tm_gmtoff / 60);  // east of Greenwich
  // Hours and minutes are printed as signed numbers and cut to five characters, so that west of Greenwich a zone with
  // a part of an hour comes out as "-03-3": readers of the log take the first three characters.
  char zone[32];
  snprintf(zone, sizeof zone, "%03d%02d", minutes / 60, minutes % 60);
  if (minutes >= 0) zone[0] = '+';
  char text[96];
  snprintf(text, sizeof text, "%04d%02d%02d%02d%02d%02d%.5s", local.tm_year + 1900, local.tm_mon + 1, local.tm_mday,
           local.tm_hour, local.tm_min, local.tm_sec, zone);
  return text;
}

SString MessageIdDate() {
  struct timespec now;
  struct tm utc;
  if (clock_gettime(CLOCK_REALTIME, &now) != 0 || gmtime_r(&now.tv_sec, &utc) == nullptr) return {};
  char text[96];
  snprintf(text, sizeof text, "%04d%02d%02d%02d%02d%02d%03d", utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday,
           utc.tm_hour, utc.tm_min, utc.tm_sec, static_cast<int>(now.tv_nsec / 1000000));
  return text;
}

// Process.

SString GetEnv(char const *name) { return name != nullptr ? getenv(name) : nullptr; }
SString GetEnv(SString const &name) { return GetEnv(static_cast<char const *>(name)); }
SString ProcessIdString() { return MakeSString(static_cast<int>(getpid())); }
int RandomInt(int limit) { return limit < 1 ? 0 : static_cast<int>(arc4random_uniform(static_cast<uint32_t>(limit))); }

// Errors.

int GetErrorNo() { return errno; }
int GetSocketErrorNo() { return g_socketError; }
void SetSocketErrorNo(int error) { g_socketError = error; }
SString GetErrorString(int error) { return TextOfError(error == kLastError ? GetErrorNo() : error); }
SString GetSocketErrorString(int error) { return TextOfError(error == kLastError ? GetSocketErrorNo() : error); }

void NewHandler() {
  constexpr char kMessage[] = "Out of memory\n";
  constexpr int kTryAgain = 105;
  (void)!write(STDERR_FILENO, kMessage, sizeof kMessage - 1);  // nothing is left to tell it to
  _exit(kTryAgain);
}

void SetNewHandler() { std::set_new_handler(NewHandler); }
