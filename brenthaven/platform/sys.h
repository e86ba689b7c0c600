// brenthaven/platform/sys.h - the one door to the file system.
//
// Every file call of the library and its programs goes through these functions and nowhere else, so that a test can
// count the calls, make the n-th of them fail, or end the process there. They keep the results and errno of the system
// calls they are named for, retry on EINTR where a retry is safe, and open everything with O_CLOEXEC.
#pragma once
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/types.h>

#include <cstddef>

namespace sys {

// What a hook is told: the call's name ("rename", "fsync", ...), and the path it works on, or "" for a descriptor. Of
// two paths it is the first. WriteAll and PwriteAll tell each single "write" and "pwrite" that they make.
struct CallInfo {
  char const *name;
  char const *path;
};

// Called before each call when set. A result of 0 lets the call go on; any other value becomes errno and the call
// fails with -1 (or null) without reaching the system. Not for use by running mail: one process, one test.
using Hook = int (*)(CallInfo const &call, void *context);
void SetHook(Hook hook, void *context);

int Open(char const *path, int flags, mode_t mode = 0660);
// How a file of the spool or of a mailbox is opened to be read: no link there is followed, and no FIFO waited for.
constexpr int kReadOwn = O_RDONLY | O_NOFOLLOW | O_NONBLOCK;
int Close(int fd);                                  // never retried: the descriptor is gone either way
ssize_t Read(int fd, void *buffer, size_t length);  // one read; short counts are the caller's
ssize_t Pread(int fd, void *buffer, size_t length, off_t offset);
int WriteAll(int fd, void const *data, size_t length);  // 0 when all bytes went, else -1
int PwriteAll(int fd, void const *data, size_t length, off_t offset);
int Fstat(int fd, struct stat *info);
int Stat(char const *path, struct stat *info);  // follows symbolic links
int Lstat(char const *path, struct stat *info);
int Access(char const *path, int mode);
int Rename(char const *from, char const *to);
int Unlink(char const *path);
int Rmdir(char const *path);
int Mkdir(char const *path, mode_t mode);
int Link(char const *from, char const *to);
int LinkFd(int fd, char const *to);  // gives an O_TMPFILE descriptor a name
int Ftruncate(int fd, off_t length);
int Allocate(int fd, off_t offset, off_t length);  // room on the disk for a range; the size stays
int Fsync(int fd);
int Fdatasync(int fd);
int Syncfs(int fd);
int Fchmod(int fd, mode_t mode);  // undoes the umask on files that must be 0660
int Chmod(char const *path, mode_t mode);
int Chdir(char const *path);
int Statvfs(char const *path, struct statvfs *info);
int CloneFile(int from, int to);                                      // FICLONE: shares the blocks, or fails at once
ssize_t CopyRange(int from, int to, size_t length);                   // copy_file_range at both current offsets
int Lock(int fd, short type, off_t offset, off_t length, bool wait);  // open-file lock: F_RDLCK, F_WRLCK, F_UNLCK
DIR *OpenDir(char const *path);
struct dirent *ReadDir(DIR *dir);  // null at the end with errno 0, or on an error
int CloseDir(DIR *dir);

// Maps the first length bytes, above 0, of a file read-only; null on failure. A zero byte follows them in memory. The
// mapping does not need the descriptor any longer; Unmap takes the same length.
void const *MapRead(int fd, size_t length);
void Unmap(void const *area, size_t length);

// Copies all that is left in one file to another, in the kernel where it can (clone, then copy_file_range, then read
// and write). 0 on success, -1 with errno otherwise; what was written so far stays.
int CopyContents(int from, int to);

}  // namespace sys
