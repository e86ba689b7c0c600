// tests/crash/smalldisk.h - a file system of its own in memory, which is full when it is told to be.
#pragma once
#include <string>

class SSmallDisk {
public:
  // Mounts it over a directory, for this process and its children alone, as long as it lives.
  explicit SSmallDisk(std::string directory);
  SSmallDisk(SSmallDisk const &) = delete;
  ~SSmallDisk();
  bool IsMounted() const { return _isMounted; }  // false where the kernel forbids it

  // What is still free from here on, in pages for contents and in files; it aborts when that cannot be had.
  void Leave(long pages, long files);
  void LeaveAll() { Leave(kAll, kAll); }
  long UsedPages() const;
  long UsedFiles() const;
  static constexpr long kAll = 1 << 16;

private:
  std::string _directory;
  bool _isMounted;
};
