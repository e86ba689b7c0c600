#include "brenthaven/store/sbtree.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "brenthaven/platform/barrier.h"
#include "brenthaven/platform/secretfile.h"
#include "brenthaven/platform/sys.h"
#include "brenthaven/store/db185.h"
#include "brenthaven/text/base.h"

// The engine knows no locks and opens the file by itself. So each open takes three steps, all under our lock: our own
// descriptor, the lock on it, and then the engine's open, after a check that the path still leads to the locked file. A
// reader keeps the engine and its pages over many read sections; what it has is good as long as the file's stamp (size,
// times, links) is the one of that moment, which LockRead compares once it holds the lock. Since file times move in the
// steps of the system's clock, a writer makes sure that each section that changed something moves them forward.

namespace {

// Entries of at least this share of a page get pages of their own. With the engine's default, 2, a split can find no
// place for entries of nearly half a page, and loses records or ends the process. What is in the file reads alike with
// any number.
constexpr int kEntriesPerPage = 3;

constexpr SBTreeInfo kInfo = {.flags = 0,  // no duplicate keys
                              .cachesize = 2097152,
                              .maxkeypage = 0,
                              .minkeypage = kEntriesPerPage,
                              .psize = 16384,
                              .compare = nullptr,
                              .prefix = nullptr,
                              .lorder = 0};
constexpr int kEngineMode = 0666;  // never takes effect: the file is there when the engine opens it
constexpr mode_t kFileMode = 0660;
constexpr int kExplicit = 1;     // value of the mode that makes the stored flags count
constexpr int kOpenTries = 100;  // each one lost to a file that was replaced between two steps
constexpr std::uint32_t kMagic = 0x053162;
constexpr std::uint32_t kNoDuplicates = 0x20;

std::int64_t Nanoseconds(struct timespec const &time) { return time.tv_sec * 1000000000LL + time.tv_nsec; }

SBTreeItem ItemOf(SString const &text) {
  return {const_cast<char *>(static_cast<char const *>(text)), static_cast<size_t>(text.Length())};
}

SString TextOf(SBTreeItem const &item) {
  return SString(static_cast<char const *>(item.data), static_cast<int>(item.size));
}

bool IsSameFile(struct stat const &a, struct stat const &b) { return a.st_ino == b.st_ino && a.st_dev == b.st_dev; }

// Opens a file for the lock. A file made here gets its mode whatever the umask is, and its name is made durable.
int OpenDescriptor(char const *path, int flags) {
  int const access = flags & O_ACCMODE;
  if ((flags & O_CREAT) == 0) return sys::Open(path, access);
  int const created = sys::Open(path, access | O_CREAT | O_EXCL, kFileMode);
  if (created < 0) return errno == EEXIST && (flags & O_EXCL) == 0 ? sys::Open(path, access) : -1;
  SSyncBarrier barrier;
  barrier.AddParentOf(path);
  if (sys::Fchmod(created, kFileMode) == 0 && barrier.Commit()) return created;
  sys::Close(created);
  return -1;
}

// What a file's metadata say, whichever byte order it has; what they would say of a new file when it is empty or no
// B-tree file.
struct Metadata {
  std::uint32_t pageSize = kInfo.psize;
  std::uint32_t flags = kNoDuplicates;
};

Metadata MetadataOf(int descriptor) {
  std::uint32_t head[6];  // magic, version, page size, first free page, number of records, flags
  if (sys::Pread(descriptor, head, sizeof head, 0) != static_cast<ssize_t>(sizeof head) || head[2] == 0) return {};
  if (head[0] == kMagic) return {head[2], head[5]};
  if (head[0] == __builtin_bswap32(kMagic)) return {__builtin_bswap32(head[2]), __builtin_bswap32(head[5])};
  return {};
}

// The engine moves a longer key out of the page and then looks for its place by the reference it left behind, so that
// the key is never found again.
size_t LongestKey(std::uint32_t pageSize) { return pageSize / kEntriesPerPage - 32; }

}  // namespace

SBTree::SBTree() = default;

SBTree::SBTree(SString file, int) : _file(std::move(file)) {}

SBTree::SBTree(SString file, int mode, int openFlags) : _mode(mode), _openFlags(openFlags), _file(std::move(file)) {}

SBTree::~SBTree() { Close(); }

void SBTree::Init(SString const &file, int) {
  _file = file;
  _status = 0;
}

void SBTree::Init(SString const &file, int mode, int openFlags) {
  Init(file, 0);
  _mode = mode;
  _openFlags = openFlags;
}

SString StorePath(SString const &file) { return file[0] == '/' ? file : GetEnv("Brenthaven") + "/config/" + file; }

SString SBTree::Path() const { return _mode != 0 ? _file : StorePath(_file); }

int SBTree::_OpenFlags() const {
  if (_mode == kExplicit) return _openFlags;
  return _depth > 0 ? O_RDWR | O_CREAT | kLockFlag : O_RDONLY;
}

unsigned SBTree::Open() {
  _DropInherited();
  if (_handle != nullptr) return 1;
  SString const path = Path();
  int const flags = _OpenFlags();
  int error = EINVAL;  // for write-only, which the engine could not work with
  if ((flags & O_ACCMODE) != O_WRONLY) {
    error = EAGAIN;
    for (int tries = 0; tries < kOpenTries && error == EAGAIN; ++tries) {
      error = _OpenLocked(path, flags);
      if (error != 0) _Drop();
    }
  }
  if (error == 0) return 1;
  if (error != ENOENT) _readFailed = 1;
  errno = error;
  return 0;
}

// One try to open. 0, or an error; EAGAIN when the file was replaced meanwhile.
int SBTree::_OpenLocked(char const *path, int flags) {
  struct stat ours, other;
  _writable = (flags & O_ACCMODE) == O_RDWR;
  _descriptor = OpenDescriptor(path, flags);
  if (_descriptor < 0) return errno;
  // A reader waits here for a writer who has the file open, also one who has only just made it.
  _holdsLock = (flags & kLockFlag) != 0;
  if (sys::Lock(_descriptor, _writable && _holdsLock ? F_WRLCK : F_RDLCK, 0, 1, true) != 0) return errno;
  if (sys::Fstat(_descriptor, &ours) != 0) return errno;
  if (_isSecret && !IsClosedToOthers(path, ours)) return errno;
  if (sys::Stat(path, &other) != 0) return errno == ENOENT && (flags & O_CREAT) != 0 ? EAGAIN : errno;
  if (!IsSameFile(ours, other)) return EAGAIN;
  if (_writable && (flags & O_TRUNC) != 0) {
    if (sys::Ftruncate(_descriptor, 0) != 0) return errno;
  }
  auto const [pageSize, treeFlags] = MetadataOf(_descriptor);
  if (treeFlags != kNoDuplicates) return EINVAL;  // the engine would go through it by other rules
  constexpr std::uint32_t kSmallestPage = 512;    // that the engine has
  if (pageSize < kSmallestPage) return EINVAL;
  // The engine takes a file without a whole page of metadata for a new one: all of it would seem absent.
  constexpr off_t kFewestPages = 2;  // metadata and root
  if (ours.st_size > 0 && (flags & O_TRUNC) == 0 && ours.st_size / pageSize < kFewestPages) return EINVAL;
  // A file that does not end with a whole page lost pages that others refer to: writing would give their numbers to new
  // ones.
  if (_writable && (flags & O_TRUNC) == 0 && ours.st_size % pageSize != 0) return EINVAL;
  _longestKey = LongestKey(pageSize);
  _place.Undef();

  do {
    errno = 0;
    _handle = dbopen(path, flags & O_ACCMODE, kEngineMode, kBTreeType, &kInfo);
  } while (_handle == nullptr && errno == EINTR);  // the engine gives up when its open is interrupted
  if (_handle == nullptr) return errno != 0 ? errno : EINVAL;
  if (sys::Fstat(_handle->fd(_handle), &other) != 0) return errno;
  if (!IsSameFile(ours, other)) return EAGAIN;
  if (!_TakeStamp(_stamp)) return errno;
  (void)WatchPages(_handle);  // an engine laid out in another way reads as well, without the watch
  if (_writable && !_staged.Attach(_handle, _descriptor)) return errno;
  ++_opens;
  if (!_holdsLock && sys::Lock(_descriptor, F_UNLCK, 0, 1, true) != 0) return errno;
  return 0;
}

bool SBTree::_TakeStamp(Stamp &stamp) const {
  struct stat info;
  if (sys::Fstat(_descriptor, &info) != 0) return false;
  stamp = {info.st_nlink, info.st_size, Nanoseconds(info.st_mtim), Nanoseconds(info.st_ctim)};
  return true;
}

void SBTree::Close() {
  _DropInherited();
  if (_handle == nullptr) return;
  if (Flush()) return _Release();
  int const error = errno;
  _Drop();
  errno = error;
}

unsigned SBTree::Flush() { return Stage() && Apply(); }

unsigned SBTree::Stage() {
  if (_handle == nullptr || !_changed) return 1;
  if (!_damaged && _handle->sync(_handle, 0) == 0 && _Reserve()) return 1;
  _writeFailed = 1;
  return 0;
}

// So that a full disk shows before the first page is overwritten.
bool SBTree::_Reserve() {
  struct stat info;
  if (sys::Fstat(_descriptor, &info) != 0) return false;
  std::vector<std::uint32_t> const pages = _staged.Pages();
  if (pages.empty()) return true;
  off_t const end = (static_cast<off_t>(pages.back()) + 1) * static_cast<off_t>(_staged.PageSize());
  return end <= info.st_size || sys::Allocate(_descriptor, info.st_size, end - info.st_size) == 0 ||
         errno == EOPNOTSUPP;
}

unsigned SBTree::Apply() {
  if (_handle == nullptr || !_changed) return 1;
  // The times move first as well: readers look for a dead writer's journal only when they have moved.
  if (_MoveTimes() && _WriteStaged() && _MoveTimes() && SyncFile(_descriptor) && _staged.Clear()) {
    _changed = false;
    return 1;
  }
  _writeFailed = 1;
  return 0;
}

bool SBTree::_WriteStaged() {
  size_t const size = _staged.PageSize();
  std::vector<char> page(size);
  for (std::uint32_t const number : _staged.Pages()) {
    off_t const at = static_cast<off_t>(number) * static_cast<off_t>(size);
    if (!_staged.Read(number, page.data()) || sys::PwriteAll(_descriptor, page.data(), size, at) != 0) return false;
  }
  return true;
}

// Readers know a changed file by its times, and the clock may not have moved since the last section.
bool SBTree::_MoveTimes() {
  Stamp now;
  if (!_TakeStamp(now)) return false;
  if (now.modified <= _stamp.modified) {
    std::int64_t const next = _stamp.modified + 1;
    struct timespec const times[] = {{0, UTIME_OMIT}, {next / 1000000000LL, next % 1000000000LL}};
    if (futimens(_descriptor, times) != 0) return false;
  }
  return _TakeStamp(_stamp);
}

// Closes an engine that has nothing to write, then the descriptor and with it the lock.
void SBTree::_Release() {
  UnwatchPages(_handle);
  if (_handle->close(_handle) != 0) _readFailed = 1;
  _handle = nullptr;
  _Drop();
}

// Lets go of everything as it is, with nothing written: for damaged files, for failed writes, and for what belongs to
// the parent of this process. The engine closes only by writing its dirty pages, but it has only the shadow to write
// to.
void SBTree::_Drop() {
  bool const isOurs = _forks == ForkCount();
  if (!isOurs) _staged.Abandon();
  if (_handle != nullptr) {
    UnwatchPages(_handle);
    (void)_handle->close(_handle);
  }
  _staged.Detach();
  if (_descriptor >= 0) {
    // Not left to the close: a child process that was forked meanwhile may hold the descriptor and the lock with it.
    if (isOurs) (void)sys::Lock(_descriptor, F_UNLCK, 0, 1, true);
    sys::Close(_descriptor);
  }
  _handle = nullptr;
  _descriptor = -1;
  _holdsLock = _writable = _damaged = _changed = false;
}

// After a fork the descriptors share offset and locks with the parent, and the engine's dirty pages are the parent's.
void SBTree::_DropInherited() {
  if (_forks == ForkCount()) return;
  _Drop();
  _forks = ForkCount();
  _depth = 0;
}

// Runs one call of the engine. Its result, except that a call that met a damaged page finds nothing for sure: that is
// a failure.
template <class Call>
int SBTree::_Run(Call call) {
  unsigned long const before = DamagedPages();
  int const result = call(_handle);
  if (DamagedPages() != before || result < 0) _damaged = true;  // a call that failed may have stopped half-way
  if (result != 0 && _damaged) {
    errno = EIO;
    return -1;
  }
  return result;
}

SString SBTree::Get(SString const &key) {
  if (!Open()) {
    _status = errno == ENOENT ? 1 : -1;
    return SString();
  }
  SBTreeItem const wanted = ItemOf(key);
  SBTreeItem value;
  _status = _Run([&](SBTreeEngine *engine) { return engine->get(engine, &wanted, &value, 0); });
  if (_status < 0) _readFailed = 1;
  return _status == 0 ? TextOf(value) : SString();
}

unsigned SBTree::Set(SString const &key, SString const &value) {
  if (!Open() || static_cast<size_t>(key.Length()) > _longestKey) return 0;
  SBTreeItem wanted = ItemOf(key);
  SBTreeItem const stored = ItemOf(value);
  return _Change([&](SBTreeEngine *engine) { return engine->put(engine, &wanted, &stored, 0); });
}

unsigned SBTree::Delete(SString const &key) {
  if (!Open()) return 0;
  SBTreeItem const wanted = ItemOf(key);
  return _Change([&](SBTreeEngine *engine) { return engine->del(engine, &wanted, 0); });
}

template <class Call>
unsigned SBTree::_Change(Call call) {
  if (!_writable) return 0;
  int const result = _damaged ? -1 : _Run(call);
  if (result <= 0) _changed = true;  // a failed call may have changed pages as well
  if (result < 0) _writeFailed = 1;
  return result == 0 && !_damaged;
}

// Moves the engine's cursor, of which a handle has one.
SString SBTree::_Seq(SString &key, unsigned move) {
  if (!Open()) {
    _moveStatus = errno == ENOENT ? 1 : -1;
    return SString();
  }
  SBTreeItem found = ItemOf(key);
  SBTreeItem value;
  // Through a handle that met a damaged page there is no walk: what came in its place is none of the tree's.
  auto const step = [&](SBTreeEngine *engine) { return engine->seq(engine, &found, &value, move); };
  _moveStatus = _damaged ? -1 : _Run(step);
  if (_damaged) _moveStatus = -1;
  SString const next = _moveStatus == 0 ? TextOf(found) : SString();
  // Where leaves are chained wrongly, a walk would not end.
  bool const goesBack =
      _place.Defined() && ((move == kMoveNext && next <= _place) || (move == kMovePrevious && next >= _place));
  if (_moveStatus == 0 && goesBack) {
    _damaged = true;
    _moveStatus = -1;
  }
  if (_moveStatus < 0) {
    errno = EIO;
    _readFailed = 1;
  }
  if (_moveStatus != 0) return SString();
  key = _place = next;
  return TextOf(value);
}

// The engine refuses an empty key here, at or behind which every key is.
SString SBTree::SeqFirst(SString &key) { return _Seq(key, key.Length() > 0 ? kMoveCursor : kMoveFirst); }
SString SBTree::SeqNext(SString &key) { return _Seq(key, kMoveNext); }
SString SBTree::SeqFirstJJ(SString &key) { return _Seq(key, kMoveFirst); }
SString SBTree::SeqLastJJ(SString &key) { return _Seq(key, kMoveLast); }
SString SBTree::SeqPrevJJ(SString &key) { return _Seq(key, kMovePrevious); }

void *SBTree::GetFd() {
  // NOLINTNEXTLINE(performance-no-int-to-ptr): file handles travel as pointers and are never followed
  return reinterpret_cast<void *>(static_cast<std::intptr_t>(_handle != nullptr ? _handle->fd(_handle) : -1));
}

unsigned SBTree::SetPBSflags(int flags) {
  if (_handle != nullptr) return 0;
  _openFlags = flags;
  return 1;
}

void SBTree::LockRead() {
  _DropInherited();
  while (_depth == 0 && Open() && !_holdsLock) {
    if (sys::Lock(_descriptor, F_RDLCK, 0, 1, true) != 0) {
      _readFailed = 1;
      return;
    }
    if (_IsCurrent()) return;
    Close();  // with the lock; the file may be another one now
  }
}

void SBTree::UnlockRead() {
  _DropInherited();
  if (_depth > 0 || _handle == nullptr || _holdsLock) return;
  if (sys::Lock(_descriptor, F_UNLCK, 0, 1, true) != 0) _readFailed = 1;
}

void SBTree::LockWrite() {
  _DropInherited();
  if (_depth == 0) Close();
  ++_depth;
  Open();
}

void SBTree::UnlockWrite() {
  _DropInherited();
  if (_depth > 0) --_depth;
  if (_depth == 0) Close();
}

void SBTree::Refresh() {
  _DropInherited();
  if (_handle == nullptr || _writable || _IsCurrent()) return;
  Close();
  Open();
}

bool SBTree::_IsCurrent() const {
  Stamp now;
  return _TakeStamp(now) && now == _stamp;
}
