#include "tests/crash/witness.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <map>

namespace {

// Calls that always change something. Those further down in NameOf do so with some arguments only.
std::map<std::uint64_t, char const *> const kChanging = {
    {SYS_write, "write"},
    {SYS_pwrite64, "pwrite"},
    {SYS_writev, "writev"},
    {SYS_pwritev, "pwritev"},
    {SYS_pwritev2, "pwritev2"},
    {SYS_renameat, "rename"},
    {SYS_renameat2, "rename"},
    {SYS_linkat, "link"},
    {SYS_symlinkat, "symlink"},
    {SYS_mkdirat, "mkdir"},
    {SYS_mknodat, "mknod"},
    {SYS_ftruncate, "ftruncate"},
    {SYS_truncate, "truncate"},
    {SYS_fallocate, "fallocate"},
    {SYS_copy_file_range, "copy_file_range"},
    {SYS_sendfile, "sendfile"},
    {SYS_splice, "splice"},
    {SYS_ioctl, "ioctl"},
    {SYS_fchmod, "fchmod"},
    {SYS_fchmodat, "chmod"},
    {SYS_fchown, "fchown"},
    {SYS_fchownat, "chown"},
    {SYS_utimensat, "utimens"},
    {SYS_setxattr, "setxattr"},
    {SYS_fsetxattr, "fsetxattr"},
    {SYS_fsync, "fsync"},
    {SYS_fdatasync, "fdatasync"},
    {SYS_syncfs, "syncfs"},
    {SYS_sync, "sync"},
    {SYS_sync_file_range, "sync_file_range"},
    {SYS_msync, "msync"},
    {SYS_sendto, "sendto"},
    {SYS_sendmsg, "sendmsg"},
    {SYS_sendmmsg, "sendmmsg"},
    {SYS_io_uring_enter, "io_uring_enter"},
    {SYS_clone, "clone"},
    {SYS_clone3, "clone3"},
    {SYS_execve, "execve"},
#ifdef SYS_rename  // the older forms, which not every machine has
    {SYS_rename, "rename"},
    {SYS_link, "link"},
    {SYS_symlink, "symlink"},
    {SYS_unlink, "unlink"},
    {SYS_mkdir, "mkdir"},
    {SYS_rmdir, "rmdir"},
    {SYS_mknod, "mknod"},
    {SYS_chmod, "chmod"},
    {SYS_chown, "chown"},
    {SYS_lchown, "chown"},
    {SYS_creat, "create"},
    {SYS_fork, "fork"},
    {SYS_vfork, "vfork"},
#endif
};

// The name of an opening call with these flags; nullptr for one that changes nothing.
char const *NameOfOpen(std::uint64_t flags) {
  if ((flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE) return "create";
  return (flags & O_TRUNC) != 0 ? "open" : nullptr;
}

char const *NameOf(std::uint64_t number, std::uint64_t const *arguments) {
  bool const isReport = (number == SYS_write || number == SYS_writev) && arguments[0] == STDERR_FILENO;
  if (isReport) return nullptr;  // by the C library's own streams, and nothing is kept there
  if (auto const found = kChanging.find(number); found != kChanging.end()) return found->second;
  switch (number) {
    case SYS_openat:
      return NameOfOpen(arguments[2]);
#ifdef SYS_open
    case SYS_open:
      return NameOfOpen(arguments[1]);
#endif
    case SYS_unlinkat:
      return (arguments[2] & AT_REMOVEDIR) != 0 ? "rmdir" : "unlink";
    case SYS_mmap:  // writing to a file's memory is a change that no call tells of
      return (arguments[2] & PROT_WRITE) != 0 && (arguments[3] & MAP_TYPE) != MAP_PRIVATE &&
                     (arguments[3] & MAP_ANONYMOUS) == 0
                 ? "mmap"
                 : nullptr;
    default:
      return nullptr;
  }
}

constexpr int kCallStop = SIGTRAP | 0x80;  // PTRACE_O_TRACESYSGOOD marks the stops at calls by this

}  // namespace

bool SWitness::Begin() {
#ifdef BRENTHAVEN_SANITIZED
  return false;
#else
  return ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) == 0 && raise(SIGSTOP) == 0;
#endif
}

int SWitness::Follow(pid_t child) {
  _seen.clear();
  bool isFirstStop = true;
  for (;;) {
    int status = 0;
    if (waitpid(child, &status, 0) != child) abort();
    if (!WIFSTOPPED(status)) return status;
    long signal = 0;
    if (isFirstStop) {
      isFirstStop = false;
      if (ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL) != 0) abort();
    } else if (WSTOPSIG(status) == kCallStop) {
      __ptrace_syscall_info info = {};
      if (ptrace(PTRACE_GET_SYSCALL_INFO, child, sizeof info, &info) <= 0) abort();
      if (info.op == PTRACE_SYSCALL_INFO_ENTRY)
        if (char const *const name = NameOf(info.entry.nr, info.entry.args)) _seen.emplace_back(name);
    } else {
      signal = WSTOPSIG(status);
    }
    if (ptrace(PTRACE_SYSCALL, child, nullptr, signal) != 0) abort();
  }
}
