#include "brenthaven/platform/barrier.h"

#include <stdlib.h>

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <utility>

#include "brenthaven/platform/sys.h"

namespace {

unsigned long g_sync_count = 0;

// The directory part of a path: "." without a slash, "/" for an entry of the root.
std::string ParentOf(std::string_view path) {
  size_t const slash = path.rfind('/');
  if (slash == std::string_view::npos) return ".";
  return std::string(path.substr(0, std::max<size_t>(slash, 1)));
}

bool IsOneByOne(SyncMode mode, size_t count) {
  return mode == SyncMode::kFsync || (mode == SyncMode::kAuto && count <= SSyncBarrier::kFsyncLimit);
}

// Closes and keeps errno, so that the first failure is the one reported.
void CloseQuietly(int fd) {
  int const error = errno;
  (void)sys::Close(fd);  // read-only descriptors: there is nothing left that a close could lose
  errno = error;
}

}  // namespace

SyncMode GetSyncMode() {
  constexpr std::pair<std::string_view, SyncMode> kModes[] = {
      {"fsync", SyncMode::kFsync}, {"syncfs", SyncMode::kSyncfs}, {"no", SyncMode::kNo}};
  char const *value = getenv("SpoolSync");
  if (value == nullptr) return SyncMode::kAuto;
  for (auto const &[name, mode] : kModes)
    if (name == value) return mode;
  return SyncMode::kAuto;
}

int SyncFile(int fd) {
  if (GetSyncMode() == SyncMode::kNo) return 1;
  ++g_sync_count;
  return sys::Fsync(fd) == 0;
}

int SyncFileData(int fd) {
  if (GetSyncMode() == SyncMode::kNo) return 1;
  ++g_sync_count;
  return sys::Fdatasync(fd) == 0;
}

int SyncFilesData(std::vector<int> const &fds) {
  SyncMode const mode = GetSyncMode();
  if (mode == SyncMode::kNo) return 1;
  if (IsOneByOne(mode, fds.size())) return std::all_of(fds.begin(), fds.end(), SyncFileData);
  std::unordered_set<dev_t> synced;
  for (int const fd : fds) {
    struct stat info;
    if (sys::Fstat(fd, &info) != 0) return 0;
    if (!synced.insert(info.st_dev).second) continue;
    ++g_sync_count;
    if (sys::Syncfs(fd) != 0) return 0;
  }
  return 1;
}

void SSyncBarrier::Arm(char const *directory) {
  SyncMode const mode = GetSyncMode();
  if (mode == SyncMode::kNo || mode == SyncMode::kFsync) return;
  (void)_ArmPath(directory);  // one that can't be opened yet is opened by Commit
}

void SSyncBarrier::AddFile(char const *path) { _Add(path); }
void SSyncBarrier::AddDirectory(char const *path) { _Add(path); }
void SSyncBarrier::AddParentOf(char const *path) { _Add(ParentOf(path)); }

int SSyncBarrier::Commit() {
  SyncMode const mode = GetSyncMode();
  int const result = mode == SyncMode::kNo ? 1 : IsOneByOne(mode, _order.size()) ? _FsyncAll() : _SyncfsAll();
  _order.clear();
  _paths.clear();
  return result;
}

unsigned long SSyncBarrier::SyncCount() { return g_sync_count; }

void SSyncBarrier::_Add(std::string path) {
  auto const [place, is_new] = _paths.insert(std::move(path));
  if (is_new) _order.push_back(&*place);
}

int SSyncBarrier::_FsyncAll() const {
  for (std::string const *path : _order) {
    int const fd = sys::Open(path->c_str(), O_RDONLY | O_NONBLOCK);
    if (fd < 0) return 0;
    ++g_sync_count;
    int const result = sys::Fsync(fd);
    CloseQuietly(fd);
    if (result != 0) return 0;
  }
  return 1;
}

int SSyncBarrier::_SyncfsAll() {
  std::vector<Armed> touched;  // armed file systems without any path of this step are left alone
  for (std::string const *path : _order) {
    struct stat info;
    if (sys::Stat(path->c_str(), &info) != 0) return 0;
    auto const on_device = [&](Armed const &armed) { return armed.device == info.st_dev; };
    if (std::any_of(touched.begin(), touched.end(), on_device)) continue;
    auto const known = std::find_if(_armed.begin(), _armed.end(), on_device);
    Armed const *armed = known != _armed.end() ? &*known : _ArmPath(path->c_str());
    if (armed == nullptr) return 0;
    touched.push_back(*armed);
  }
  for (Armed const &armed : touched) {
    ++g_sync_count;
    if (sys::Syncfs(armed.fd) != 0) return 0;
  }
  return 1;
}

SSyncBarrier::Armed const *SSyncBarrier::_ArmPath(char const *path) {
  int const fd = sys::Open(path, O_RDONLY | O_NONBLOCK);
  if (fd < 0) return nullptr;
  struct stat info;
  if (sys::Fstat(fd, &info) != 0) {
    CloseQuietly(fd);
    return nullptr;
  }
  auto const known =
      std::find_if(_armed.begin(), _armed.end(), [&](Armed const &armed) { return armed.device == info.st_dev; });
  if (known != _armed.end()) {
    CloseQuietly(fd);
    return &*known;
  }
  _armed.push_back({info.st_dev, fd});
  return &_armed.back();
}

void SSyncBarrier::_Disarm() {
  for (Armed const &armed : _armed) CloseQuietly(armed.fd);
}
