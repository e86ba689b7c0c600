// DeleteAll, a source of its own: the removal of a whole tree, directory by directory.
#include <algorithm>
#include <cerrno>
#include <string>
#include <utility>
#include <vector>

#include "brenthaven/platform/descriptor.h"
#include "brenthaven/platform/files.h"
#include "brenthaven/platform/nativepath.h"
#include "brenthaven/platform/sys.h"

namespace {

constexpr char kLockName[] = "__lock__";

// One frame for each directory on the way down, so that depth costs memory and no stack. A directory is listed as a
// whole and closed before anything in it is touched, so that depth costs no descriptors either, but for the locks.
class STreeRemover {
public:
  explicit STreeRemover(char const *top) : _path(top) {}
  DeleteAllCode Run();

private:
  struct Frame {
    size_t path_length;              // of _path in this directory
    SDescriptor lock;                // of its lock file, if it has one
    std::vector<std::string> names;  // still to remove, the next one last
  };
  DeleteAllCode _Enter();
  DeleteAllCode _Remove(std::string const &name);
  void _Finish();
  bool _List(std::vector<std::string> *names) const;
  std::string _Below(char const *name) const { return _path + (_path.ends_with('/') ? "" : "/") + name; }

  std::string _path;  // of the entry in hand
  std::vector<Frame> _frames;
};

DeleteAllCode STreeRemover::Run() {
  DeleteAllCode code = _Enter();
  while (code == kDeleteAllDone && !_frames.empty()) {
    Frame &frame = _frames.back();
    _path.resize(frame.path_length);
    if (frame.names.empty()) {
      _Finish();
      continue;
    }
    std::string const name = std::move(frame.names.back());
    frame.names.pop_back();
    code = _Remove(name);
  }
  return code;
}

// Locks and lists the directory in hand.
DeleteAllCode STreeRemover::_Enter() {
  Frame frame{_path.size(), SDescriptor(), {}};
  std::string const lock_path = _Below(kLockName);
  struct stat info;
  if (sys::Lstat(lock_path.c_str(), &info) == 0 && S_ISREG(info.st_mode)) {
    frame.lock = SDescriptor(sys::Open(lock_path.c_str(), O_RDWR | O_NOFOLLOW));
    if (!frame.lock.IsOpen() || sys::Lock(frame.lock.Get(), F_WRLCK, 0, 1, false) != 0) return kDeleteAllLocked;
  }
  if (!_List(&frame.names)) return kDeleteAllUnreadable;
  _frames.push_back(std::move(frame));
  return kDeleteAllDone;
}

// Removes a file of the directory in hand, or enters a directory of it.
DeleteAllCode STreeRemover::_Remove(std::string const &name) {
  _path = _Below(name.c_str());
  struct stat info;
  if (sys::Lstat(_path.c_str(), &info) == 0 && S_ISDIR(info.st_mode))
    return _Enter() == kDeleteAllDone ? kDeleteAllDone : kDeleteAllDirectoryFailed;
  if (sys::Unlink(_path.c_str()) == 0) return kDeleteAllDone;
  return _frames.size() == 1 ? kDeleteAllFileFailed : kDeleteAllDirectoryFailed;
}

// Removes the directory in hand, which is empty but for its lock file. That one goes while it is locked, so that who
// waits for it can see that it is gone.
void STreeRemover::_Finish() {
  if (_frames.back().lock.IsOpen()) (void)sys::Unlink(_Below(kLockName).c_str());  // else rmdir is refused, as below
  _frames.pop_back();
  (void)sys::Rmdir(_path.c_str());  // refused when a file came in meanwhile: it stays, and so does its directory
}

bool STreeRemover::_List(std::vector<std::string> *names) const {
  DIR *const dir = sys::OpenDir(_path.c_str());
  if (dir == nullptr) return false;
  while (struct dirent const *entry = sys::ReadDir(dir)) {
    std::string name = entry->d_name;
    if (name != "." && name != ".." && name != kLockName) names->push_back(std::move(name));
  }
  bool const complete = errno == 0;
  (void)sys::CloseDir(dir);  // was only read
  std::reverse(names->begin(), names->end());
  return complete;
}

}  // namespace

int DeleteAll(SString const &path) {
  if (path.Length() == 0) return kDeleteAllEmptyPath;
  SNativePath const top(path);
  std::string link(top);
  while (link.size() > 1 && link.ends_with('/')) link.pop_back();  // a slash would lead through the link
  struct stat info;
  if (sys::Lstat(link.c_str(), &info) == 0 && S_ISLNK(info.st_mode))
    return sys::Unlink(link.c_str()) == 0 ? kDeleteAllDone : kDeleteAllFileFailed;
  return STreeRemover(top).Run();
}
