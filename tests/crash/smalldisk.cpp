#include "tests/crash/smalldisk.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cstdlib>
#include <utility>

namespace {

bool Write(char const *path, std::string const &text) {
  int const fd = open(path, O_WRONLY | O_CLOEXEC);
  if (fd < 0) return false;
  bool const wrote = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  return close(fd) == 0 && wrote;
}

// Mounts that no other process sees: root has them for the asking, others as the root of a user namespace of their own.
bool HaveOwnMounts() {
  uid_t const user = getuid();
  gid_t const group = getgid();
  if (unshare(CLONE_NEWNS) != 0) {
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0 || !Write("/proc/self/setgroups", "deny") ||
        !Write("/proc/self/uid_map", "0 " + std::to_string(user) + " 1") ||
        !Write("/proc/self/gid_map", "0 " + std::to_string(group) + " 1"))
      return false;
  }
  return mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

struct statvfs Numbers(std::string const &directory) {
  struct statvfs numbers;
  if (statvfs(directory.c_str(), &numbers) != 0) abort();
  return numbers;
}

}  // namespace

SSmallDisk::SSmallDisk(std::string directory)
    : _directory(std::move(directory)),
      _isMounted(HaveOwnMounts() && mount("tmpfs", _directory.c_str(), "tmpfs", 0, "mode=0770") == 0) {}

SSmallDisk::~SSmallDisk() {
  if (_isMounted) (void)umount2(_directory.c_str(), MNT_DETACH);
}

void SSmallDisk::Leave(long pages, long files) {
  std::string const size = "size=" + std::to_string((UsedPages() + pages) * sysconf(_SC_PAGESIZE));
  std::string const options = size + ",nr_inodes=" + std::to_string(UsedFiles() + files);
  if (mount(nullptr, _directory.c_str(), nullptr, MS_REMOUNT, options.c_str()) != 0) abort();
}

long SSmallDisk::UsedPages() const {
  struct statvfs const numbers = Numbers(_directory);
  return static_cast<long>(numbers.f_blocks - numbers.f_bfree);
}

long SSmallDisk::UsedFiles() const {
  struct statvfs const numbers = Numbers(_directory);
  return static_cast<long>(numbers.f_files - numbers.f_ffree);
}
