// brenthaven/platform/barrier.h - what was written becomes durable, at the least cost.
#pragma once
#include <sys/types.h>

#include <string>
#include <unordered_set>
#include <vector>

// How barriers flush. The setting SpoolSync in the environment takes "auto", "fsync", "syncfs" and "no"; anything else
// and an unset value are "auto": fsync for at most kFsyncLimit files and directories, one syncfs a file system above.
enum class SyncMode { kAuto, kFsync, kSyncfs, kNo };
SyncMode GetSyncMode();

// Flushes one open file under the same setting: 1 when it is on disk or "no" is set, else 0 with errno.
int SyncFile(int fd);
// The same for a file whose times need not survive, which saves the file system a step where the size stays.
int SyncFileData(int fd);
// The same for the content of many open files: each for itself, or, as a barrier chooses, one syncfs a file system. The
// files may have no name yet. They were opened before they were written, so that every write error is reported.
int SyncFilesData(std::vector<int> const &fds);

// Collects the files and directories that one step of a message made or changed, and flushes them together. A file is
// named by its path and must stand under that name when Commit is called; a directory is flushed for the entries in it.
// Each path counts once however often it is added. Nothing is flushed before Commit, and Commit empties the barrier.
class SSyncBarrier {
public:
  static constexpr size_t kFsyncLimit = 4;

  SSyncBarrier() = default;
  SSyncBarrier(SSyncBarrier const &) = delete;
  SSyncBarrier &operator=(SSyncBarrier const &) = delete;
  ~SSyncBarrier() { _Disarm(); }

  // Opens the file system of a directory for a syncfs to come, once for each file system. Called before the writes it
  // lets Commit report every write error since; without it Commit opens then, and may miss an error that another
  // process was told of in between. Costs one open; nothing in the modes that never use syncfs.
  void Arm(char const *directory);
  void AddFile(char const *path);
  void AddDirectory(char const *path);
  // The directory that holds path, for a file that was renamed, linked or created there.
  void AddParentOf(char const *path);

  // 1 when all of it is on disk, else 0 with errno of the first failure. A failure is final: the caller reports its own
  // failure and does not try again, since the kernel may have dropped the dirty pages.
  int Commit();
  size_t Size() const { return _paths.size(); }
  // Number of fsync and syncfs calls made by SyncFile and all barriers of this process, for benches and tests.
  static unsigned long SyncCount();

private:
  struct Armed {  // one file system
    dev_t device;
    int fd;
  };
  void _Add(std::string path);
  int _FsyncAll() const;
  int _SyncfsAll();
  Armed const *_ArmPath(char const *path);  // null with errno when the path can't be opened
  void _Disarm();

  std::unordered_set<std::string> _paths;
  std::vector<std::string const *> _order;  // of addition: a file before the directory that names it
  std::vector<Armed> _armed;                // outlives Commit: one barrier may serve several steps
};
