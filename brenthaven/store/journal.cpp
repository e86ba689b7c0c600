#include "brenthaven/store/journal.h"

#include <cryptopp/crc.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "brenthaven/platform/barrier.h"
#include "brenthaven/platform/sys.h"
#include "brenthaven/store/sbtree.h"

namespace {

constexpr char kMagic[] = {'B', 'H', 'J', 'R', 'N', 'L', '1', '\n'};
constexpr mode_t kMode = 0660;
constexpr std::uint32_t kDone = 0;
constexpr std::uint32_t kPendingState = 1;
constexpr size_t kSector = 512;           // what disks write at once
constexpr size_t kChunk = 1 << 20;        // bytes collected for one write
constexpr off_t kLargestKept = 16 << 20;  // a journal that was longer gives its room back when it is done
constexpr std::uint32_t kLargestPage = 65536;
constexpr off_t kRecordHead = 8;  // tree and number

class Checksum {
public:
  void Add(void const *data, size_t length) { _crc.Update(static_cast<CryptoPP::byte const *>(data), length); }
  std::uint32_t Take() {
    std::uint32_t sum;
    _crc.TruncatedFinal(reinterpret_cast<CryptoPP::byte *>(&sum), sizeof sum);
    return sum;
  }

private:
  CryptoPP::CRC32C _crc;
};

std::uint32_t ChecksumOf(std::string_view bytes) {
  Checksum sum;
  sum.Add(bytes.data(), bytes.size());
  return sum.Take();
}

// One page on its way through the journal.
struct Record {
  std::uint32_t tree = 0;
  std::uint32_t number = 0;
  std::vector<std::uint32_t> before;  // a checksum for each sector; zeros for none
  std::vector<char> page;

  void Size(size_t pageSize) {
    before.assign((pageSize + kSector - 1) / kSector, 0);
    page.resize(pageSize);
  }
  off_t Place() const { return static_cast<off_t>(number) * static_cast<off_t>(page.size()); }
  size_t SumsSize() const { return before.size() * sizeof before[0]; }
  std::string_view Sector(std::vector<char> const &of, size_t number) const {
    return std::string_view(of.data(), of.size()).substr(number * kSector, kSector);
  }

  // The page as it stands in a tree that was `size` bytes long.
  bool TakeBefore(int file, off_t size) {
    std::fill(before.begin(), before.end(), 0);
    if (Place() >= size) return true;
    std::vector<char> old(page.size());
    if (sys::Pread(file, old.data(), old.size(), Place()) != static_cast<ssize_t>(old.size())) return false;
    for (size_t i = 0; i < before.size(); ++i) before[i] = ChecksumOf(Sector(old, i));
    return true;
  }

  // Whether what stands in the tree, which was `size` bytes long, comes from before the section or from the section,
  // sector by sector. Behind the old end there was nothing, which reads as zeros once the tree is longer.
  bool IsOurs(int file, off_t size) const {
    bool const isNew = Place() >= size;
    std::vector<char> found(page.size());
    ssize_t const got = sys::Pread(file, found.data(), found.size(), Place());
    if (got < 0 || (!isNew && static_cast<size_t>(got) != found.size())) return false;
    auto const isFromBefore = [&](size_t i) {
      std::string_view const sector = Sector(found, i);
      return isNew ? sector.find_first_not_of('\0') == sector.npos : ChecksumOf(sector) == before[i];
    };
    for (size_t i = 0; i < before.size(); ++i)
      if (Sector(found, i) != Sector(page, i) && !isFromBefore(i)) return false;
    return true;
  }
};

// Collects what goes behind the header and writes it in large pieces.
class Writer {
public:
  Writer(int file, off_t start) : _file(file), _at(start) { _pending.reserve(kChunk + kLargestPage); }

  bool Put(Record const &record) {
    _Add(&record.tree, sizeof record.tree);
    _Add(&record.number, sizeof record.number);
    _Add(record.before.data(), record.SumsSize());
    _Add(record.page.data(), record.page.size());
    return _pending.size() < kChunk || Flush();
  }
  bool Flush() {
    _sum.Add(_pending.data(), _pending.size());
    bool const isWritten = sys::PwriteAll(_file, _pending.data(), _pending.size(), _at) == 0;
    _at += static_cast<off_t>(_pending.size());
    _pending.clear();
    return isWritten;
  }
  off_t End() const { return _at; }
  std::uint32_t Sum() { return _sum.Take(); }

private:
  void _Add(void const *data, size_t length) { _pending.append(static_cast<char const *>(data), length); }

  int _file;
  off_t _at;
  std::string _pending;
  Checksum _sum;
};

bool ReadExactly(int file, void *data, size_t length, off_t at) {
  ssize_t const got = sys::Pread(file, data, length, at);
  if (got >= 0 && static_cast<size_t>(got) < length) errno = EUCLEAN;
  return got == static_cast<ssize_t>(length);
}

bool SizeOf(int file, off_t &size) {
  struct stat info;
  if (sys::Fstat(file, &info) != 0) return false;
  size = info.st_size;
  return true;
}

bool IsPageSize(std::uint32_t size) { return size >= kSector && size <= kLargestPage; }

}  // namespace

struct SJournal::Header {
  char magic[sizeof kMagic] = {};
  std::uint64_t sequence = 0;
  std::uint32_t state = kDone;
  std::uint32_t pageSize[kTrees] = {};
  std::uint32_t pages = 0;
  std::uint64_t treeSize[kTrees] = {};
  std::uint64_t bodySize = 0;
  std::uint32_t bodySum = 0;
  std::uint32_t sum = 0;

  std::string_view Summed() const { return {magic, sizeof *this - sizeof sum}; }

  // False with errno 0 for a file that holds no header, or with the error of a read that failed.
  bool Read(int file) {
    errno = 0;
    ssize_t const got = sys::Pread(file, this, sizeof *this, 0);
    if (got < 0) return false;
    errno = 0;
    return got == sizeof *this && std::memcmp(magic, kMagic, sizeof kMagic) == 0 && sum == ChecksumOf(Summed());
  }
  bool Write(int file) {
    std::memcpy(magic, kMagic, sizeof kMagic);
    sum = ChecksumOf(Summed());
    return sys::PwriteAll(file, this, sizeof *this, 0) == 0;
  }

  // Gives each record of a journal to take, until that answers false. False when the file can't be read or is not as
  // this header says.
  template <class Take>
  bool ForEachRecord(int file, Take take) const {
    Record record;
    Checksum body;
    off_t at = sizeof *this;
    for (std::uint32_t i = 0; i < pages; ++i) {
      std::uint32_t head[2];
      if (!ReadExactly(file, head, sizeof head, at)) return false;
      if (head[0] >= kTrees || !IsPageSize(pageSize[head[0]])) return Refuse();
      record.tree = head[0];
      record.number = head[1];
      record.Size(pageSize[record.tree]);
      if (!ReadExactly(file, record.before.data(), record.SumsSize(), at + kRecordHead) ||
          !ReadExactly(file, record.page.data(), record.page.size(),
                       at + kRecordHead + static_cast<off_t>(record.SumsSize())))
        return false;
      body.Add(head, sizeof head);
      body.Add(record.before.data(), record.SumsSize());
      body.Add(record.page.data(), record.page.size());
      at += kRecordHead + static_cast<off_t>(record.SumsSize() + record.page.size());
      if (!take(record)) return false;
    }
    if (at != static_cast<off_t>(sizeof *this + bodySize) || body.Take() != bodySum) return Refuse();
    return true;
  }
  static bool Refuse() {
    errno = EUCLEAN;
    return false;
  }
};

// A file made here gets its mode whatever the umask is, and its name is made durable.
SDescriptor SJournal::_Open(int flags) const {
  SString const path = StorePath(_name);
  SDescriptor file(sys::Open(path, flags & ~O_CREAT));
  if (file.IsOpen() || errno != ENOENT || (flags & O_CREAT) == 0) return file;
  file = SDescriptor(sys::Open(path, flags | O_EXCL, kMode));
  SSyncBarrier barrier;
  barrier.AddParentOf(path);
  if (file.IsOpen() && (sys::Fchmod(file.Get(), kMode) != 0 || !barrier.Commit())) return SDescriptor();
  return file;
}

bool SJournal::IsPending() {
  static_assert(sizeof(Header) == 64);
  SDescriptor const file = _Open(O_RDONLY);
  if (!file.IsOpen()) return errno != ENOENT;
  Header header;
  if (!header.Read(file.Get())) return errno != 0;
  return header.state == kPendingState;
}

bool SJournal::IsTreeGone(std::array<SString, kTrees> const &paths) {
  SDescriptor const file = _Open(O_RDONLY);
  Header header;
  if (!file.IsOpen() || !header.Read(file.Get())) return false;
  for (int tree = 0; tree < kTrees; ++tree) {
    struct stat info;
    bool const isEmpty = sys::Stat(paths[tree], &info) == 0 ? info.st_size == 0 : errno == ENOENT;
    if (isEmpty && header.treeSize[tree] > 0) return true;
  }
  return false;
}

unsigned SJournal::Write(std::array<SBTree const *, kTrees> const &trees) {
  _written = _Open(O_RDWR | O_CREAT);
  if (!_written.IsOpen()) return 0;
  Header header;
  if (!header.Read(_written.Get())) {
    if (errno != 0) return 0;
    header = Header();  // new, or cut short before anything was decided
  }
  header.pages = 0;
  Writer writer(_written.Get(), sizeof header);
  Record record;
  for (std::uint32_t tree = 0; tree < kTrees; ++tree) {
    SPageShadow const &staged = trees[tree]->Staged();
    off_t size = 0;
    if (!staged.IsAttached() || !SizeOf(trees[tree]->Descriptor(), size)) return 0;
    header.pageSize[tree] = static_cast<std::uint32_t>(staged.PageSize());
    header.treeSize[tree] = static_cast<std::uint64_t>(size);
    record.tree = tree;
    record.Size(staged.PageSize());
    for (std::uint32_t const number : staged.Pages()) {
      record.number = number;
      if (!record.TakeBefore(trees[tree]->Descriptor(), size) || !staged.Read(number, record.page.data()) ||
          !writer.Put(record))
        return 0;
      ++header.pages;
    }
  }
  if (!writer.Flush()) return 0;
  header.state = kPendingState;
  header.sequence += 1;
  header.bodySize = static_cast<std::uint64_t>(writer.End()) - sizeof header;
  header.bodySum = writer.Sum();
  if (header.Write(_written.Get()) && SyncFileData(_written.Get())) return 1;
  int const error = errno;
  Finish();  // the section is not to come back
  errno = error;
  return 0;
}

void SJournal::Finish() {
  Header header;
  if (_written.IsOpen() && header.Read(_written.Get())) {
    header.state = kDone;
    if (header.Write(_written.Get()) && header.bodySize > kLargestKept)
      (void)sys::Ftruncate(_written.Get(), sizeof header);
  }
  _written = SDescriptor();
}

unsigned SJournal::Retire() {
  SDescriptor const file = _Open(O_RDWR);
  if (!file.IsOpen()) return errno == ENOENT;
  Header header;
  if (!header.Read(file.Get())) return errno == 0;
  header.state = kDone;
  return header.Write(file.Get()) && SyncFileData(file.Get());
}

unsigned SJournal::Replay(std::array<SString, kTrees> const &paths) {
  SDescriptor const journal = _Open(O_RDWR);
  if (!journal.IsOpen()) return errno == ENOENT;
  Header header;
  if (!header.Read(journal.Get())) return errno == 0;
  if (header.state != kPendingState) return 1;
  if (!SyncFileData(journal.Get())) return 0;  // decided from here on, if its writer died before its own flush

  SDescriptor files[kTrees];
  off_t sizes[kTrees] = {};
  for (int tree = 0; tree < kTrees; ++tree) {
    files[tree] = SDescriptor(sys::Open(paths[tree], O_RDWR | O_CREAT, kMode));
    if (!files[tree].IsOpen() || !SizeOf(files[tree].Get(), sizes[tree])) return 0;
    if (sizes[tree] < static_cast<off_t>(header.treeSize[tree])) return Header::Refuse();
  }

  // All of it is looked at before the first page is written.
  bool isComplete = header.ForEachRecord(journal.Get(), [](Record const &) { return true; });
  if (!isComplete && errno != EUCLEAN) return 0;
  if (isComplete) {
    auto const isOurs = [&](Record const &record) {
      off_t const before = static_cast<off_t>(header.treeSize[record.tree]);
      return record.IsOurs(files[record.tree].Get(), before) || Header::Refuse();
    };
    auto const apply = [&](Record const &record) {
      return sys::PwriteAll(files[record.tree].Get(), record.page.data(), record.page.size(), record.Place()) == 0;
    };
    if (!header.ForEachRecord(journal.Get(), isOurs) || !header.ForEachRecord(journal.Get(), apply)) return 0;
    for (SDescriptor const &file : files)
      if (!SyncFile(file.Get())) return 0;
  }
  header.state = kDone;
  return header.Write(journal.Get());
}
