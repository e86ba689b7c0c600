#include "brenthaven/store/page.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>

#include "brenthaven/platform/sys.h"
#include "brenthaven/store/db185.h"
#include "brenthaven/store/pagelayout.h"

using namespace pagelayout;

namespace {

using Convert = void (*)(void *cookie, std::uint32_t number, void *page);

// The engine's page cache, the first thing that its internal data point at.
struct PageCache {
  struct Chain {
    void *first;
    void *last;
  };
  Chain byAge;
  Chain byNumber[128];
  std::uint32_t pages;
  std::uint32_t maxPages;
  std::uint32_t filePages;
  unsigned long pageSize;
  int descriptor;
  Convert afterRead;  // swaps bytes when the file has the other order; its cookie is the engine's internal data
  Convert beforeWrite;
  void *cookie;
};

unsigned long damagedPages = 0;
Convert engineAfterRead = nullptr;
Convert engineBeforeWrite = nullptr;

std::vector<SPageShadow *> &Shadows() {
  // Attached ones: at most two where accounts are written. Never destroyed: see Watched.
  static auto &shadows = *new std::vector<SPageShadow *>;
  return shadows;
}

PageCache *CacheOf(void *engine) { return *static_cast<PageCache **>(engine); }

// What the pages of a file, as they come from it, say of each other. Each page below the root is the child of one page,
// so that no way down goes in a circle; it is no overflow page, and not empty; and what stands beside a leaf is one.
class Links {
public:
  void Reset() { _pages.clear(); }

  // False when a page, sound by itself, and those before it can't be of one tree of so many pages.
  bool Take(unsigned char const *page, std::uint32_t number, std::uint32_t filePages) {
    std::uint32_t const type = Number(page + 12) & kTypes;
    size_t const tableEnd = Offset(page + 16);
    std::uint32_t const neighbours[] = {Number(page + 4), Number(page + 8)};
    if (number >= filePages) return false;
    if (_pages.size() < filePages) _pages.resize(filePages);
    _pages[number].isSeen = true;
    _pages[number].type = type;
    _pages[number].isEmpty = type == kLeaf && tableEnd == kHeaderSize && number != kRootPage;
    if (!_Fits(number)) return false;
    for (std::uint32_t const neighbour : neighbours) {
      if (neighbour == kNoPage) continue;
      if (neighbour >= filePages) return false;
      if (type != kLeaf || _pages[number].isEmpty) continue;
      _pages[neighbour].isBesideLeaf = true;
      if (!_Fits(neighbour)) return false;
    }
    // A page that no page led to is one of the free list, which keeps what stood there before.
    bool const hasChildren = type == kInternal && (number == kRootPage || _pages[number].parent != kNoPage);
    for (size_t at = kHeaderSize; hasChildren && at < tableEnd; at += 2) {
      std::uint32_t const child = Number(page + Offset(page + at) + 4);
      if (child == kRootPage || child >= filePages) return false;
      std::uint32_t &parent = _pages[child].parent;
      if (parent != kNoPage && parent != number) return false;
      parent = number;
      if (!_Fits(child)) return false;
    }
    return true;
  }

private:
  static constexpr std::uint32_t kRootPage = 1;

  struct Known {
    std::uint32_t parent = kNoPage;
    std::uint32_t type = 0;
    bool isSeen = false;
    bool isEmpty = false;
    bool isBesideLeaf = false;
  };

  bool _Fits(std::uint32_t number) const {
    Known const &page = _pages[number];
    if (!page.isSeen) return true;
    bool const isInTree = page.parent != kNoPage || page.isBesideLeaf;
    if (isInTree && (page.type == kOverflow || page.isEmpty)) return false;
    return !page.isBesideLeaf || page.type == kLeaf;
  }

  std::vector<Known> _pages;
};

std::map<void *, Links> &Watched() {
  // By the internal data of the engine. Never destroyed: a tree that is closed at the end of the process needs it
  // still.
  static auto *const watched = new std::map<void *, Links>();
  return *watched;
}

// A reference to overflow pages, standing in place of a long key or value.
bool IsSoundReference(unsigned char const *at, std::uint32_t size) {
  return size == kLongItem && Number(at) != kNoPage && Number(at + 4) <= kLargest;
}

// Whether a file of this size has room for the long keys and values of a page that is sound by itself.
bool HasRoomForReferences(unsigned char const *page, std::uint64_t fileSize) {
  std::uint32_t const type = Number(page + 12) & kTypes;
  if (type == kOverflow) return true;
  for (size_t at = kHeaderSize; at < Offset(page + 16); at += 2) {
    unsigned char const *entry = page + Offset(page + at);
    unsigned char const *bytes = entry + kEntryHeader;
    if ((entry[8] & kLongKey) != 0 && Number(bytes + 4) > fileSize) return false;
    if (type == kLeaf && (entry[8] & kLongValue) != 0 && Number(bytes + Number(entry) + 4) > fileSize) return false;
  }
  return true;
}

// An entry of a leaf: key size, value size, flags, key, value.
bool IsSoundLeafEntry(unsigned char const *entry, size_t room) {
  std::uint64_t const key = Number(entry);
  std::uint64_t const value = Number(entry + 4);
  unsigned const flags = entry[8];
  if (key + value > room - kEntryHeader) return false;
  unsigned char const *bytes = entry + kEntryHeader;
  if ((flags & kLongKey) != 0 && !IsSoundReference(bytes, static_cast<std::uint32_t>(key))) return false;
  return (flags & kLongValue) == 0 || IsSoundReference(bytes + key, static_cast<std::uint32_t>(value));
}

// An entry of an internal page: key size, page below, flags, key.
bool IsSoundInternalEntry(unsigned char const *entry, size_t room, std::uint32_t self) {
  std::uint32_t const key = Number(entry);
  std::uint32_t const below = Number(entry + 4);
  if (key > room - kEntryHeader || below == kNoPage || below == self) return false;
  return (entry[8] & kLongKey) == 0 || IsSoundReference(entry + kEntryHeader, key);
}

// Bytes of an entry with those that fill it up to a multiple of 4.
size_t EntrySize(unsigned char const *entry, std::uint32_t type) {
  size_t const value = type == kLeaf ? Number(entry + 4) : 0;
  return (kEntryHeader + Number(entry) + value + 3) / 4 * 4;
}

// A walk looks at the first entry of a leaf even where there is none: that one is an empty key with an empty value.
void MakeEmptyLeaf(unsigned char *page, size_t size, std::uint32_t number) {
  std::uint32_t const head[] = {number, kNoPage, kNoPage, kLeaf};
  std::uint16_t const bounds[] = {kHeaderSize, static_cast<std::uint16_t>(size),
                                  static_cast<std::uint16_t>(size - 2 * kEntryHeader)};
  std::memset(page, 0, size);
  std::memcpy(page, head, sizeof head);
  std::memcpy(page + sizeof head, bounds, sizeof bounds);
}

}  // namespace

// What the engine calls for each page, in place of its own conversions, which they call.
struct SPageHooks {
  static SPageShadow *ShadowOf(void *engine) {
    for (SPageShadow *shadow : Shadows())
      if (shadow->_engine == engine) return shadow;
    return nullptr;
  }

  static void AfterRead(void *engine, std::uint32_t number, void *page) {
    size_t const size = CacheOf(engine)->pageSize;
    SPageShadow const *shadow = ShadowOf(engine);
    // The engine has read from the shadow, where nothing stands yet.
    bool const isOurs = shadow != nullptr && shadow->_Holds(number);
    if (shadow != nullptr && !isOurs && !ReadPage(shadow->_file, number, page, size)) std::memset(page, 0, size);
    engineAfterRead(engine, number, page);
    if (number == 0) return;  // metadata, looked at when the file was opened
    auto *bytes = static_cast<unsigned char *>(page);
    std::uint32_t const filePages = CacheOf(engine)->filePages;
    // What the engine wrote itself is of the tree as it is to be, and not as the file has it.
    if (IsSoundPage(bytes, size, number) && (isOurs || (HasRoomForReferences(bytes, std::uint64_t{filePages} * size) &&
                                                        Watched()[engine].Take(bytes, number, filePages))))
      return;
    ++damagedPages;
    MakeEmptyLeaf(bytes, size, number);
  }

  static void BeforeWrite(void *engine, std::uint32_t number, void *page) {
    engineBeforeWrite(engine, number, page);
    SPageShadow *shadow = ShadowOf(engine);
    if (shadow == nullptr) return;
    if (number >= shadow->_held.size()) shadow->_held.resize(number + 1);
    shadow->_held[number] = true;
  }

  static bool ReadPage(int file, std::uint32_t number, void *page, size_t size) {
    return sys::Pread(file, page, size, static_cast<off_t>(number) * static_cast<off_t>(size)) ==
           static_cast<ssize_t>(size);
  }
};

bool IsSoundPage(unsigned char const *page, size_t size, std::uint32_t number) {
  if (Number(page) != number) return false;
  std::uint32_t const type = Number(page + 12) & kTypes;
  if (type == kOverflow) return true;  // bytes only
  if (type != kLeaf && type != kInternal) return false;
  size_t const tableEnd = Offset(page + 16);
  size_t const entries = Offset(page + 18);
  if (tableEnd < kHeaderSize || tableEnd % 2 != 0 || tableEnd > entries || entries > size) return false;
  if (type == kInternal && tableEnd == kHeaderSize) return false;  // leads nowhere
  // The entries stand one behind another up to the end of the page: the engine moves them about by their sizes.
  std::vector<bool> isStart(size);
  size_t left = (tableEnd - kHeaderSize) / 2;
  size_t place = entries;
  for (; place < size; --left) {
    if (left == 0 || place + kEntryHeader > size) return false;
    unsigned char const *entry = page + place;
    if (type == kLeaf ? !IsSoundLeafEntry(entry, size - place) : !IsSoundInternalEntry(entry, size - place, number))
      return false;
    isStart[place] = true;
    place += EntrySize(entry, type);
  }
  if (place != size) return false;
  for (size_t at = kHeaderSize; at < tableEnd; at += 2) {
    size_t const offset = Offset(page + at);
    if (offset >= size || !isStart[offset]) return false;
    isStart[offset] = false;
  }
  return true;
}

bool WatchPages(SBTreeEngine *engine) {
  void *internal = engine->internal;
  PageCache *cache = CacheOf(internal);
  bool const isKnown = cache->descriptor == engine->fd(engine) && cache->cookie == internal && cache->pageSize >= 512 &&
                       cache->pageSize < 65536 && cache->afterRead != nullptr && cache->beforeWrite != nullptr;
  if (!isKnown) return false;
  engineAfterRead = cache->afterRead;
  engineBeforeWrite = cache->beforeWrite;
  cache->afterRead = SPageHooks::AfterRead;
  cache->beforeWrite = SPageHooks::BeforeWrite;
  Watched()[internal].Reset();
  return true;
}

void UnwatchPages(SBTreeEngine const *engine) { Watched().erase(engine->internal); }

unsigned long DamagedPages() { return damagedPages; }

bool SPageShadow::Attach(SBTreeEngine *engine, int file) {
  PageCache *cache = CacheOf(engine->internal);
  if (cache->afterRead != SPageHooks::AfterRead) {
    errno = ENOSYS;
    return false;
  }
  _memory = SDescriptor(memfd_create("brenthaven", MFD_CLOEXEC));
  if (!_memory.IsOpen()) return false;
  _file = file;
  _pageSize = cache->pageSize;
  _engine = engine->internal;
  if (!_Resize()) {
    Detach();
    return false;
  }
  Shadows().push_back(this);
  cache->descriptor = _memory.Get();
  return true;
}

void SPageShadow::Detach() {
  std::erase(Shadows(), this);
  _memory = SDescriptor();
  _held.clear();
  _engine = nullptr;
}

void SPageShadow::Abandon() {
  if (!IsAttached()) return;
  SDescriptor const other(memfd_create("brenthaven", MFD_CLOEXEC));
  // Under the number that the engine knows. Without a descriptor to spare the engine's writes fail instead.
  if (!other.IsOpen() || dup3(other.Get(), _memory.Get(), O_CLOEXEC) < 0) _memory = SDescriptor();
}

std::vector<std::uint32_t> SPageShadow::Pages() const {
  std::vector<std::uint32_t> numbers;
  for (std::uint32_t number = 0; number < _held.size(); ++number)
    if (_held[number]) numbers.push_back(number);
  return numbers;
}

bool SPageShadow::Read(std::uint32_t number, void *page) const {
  return SPageHooks::ReadPage(_memory.Get(), number, page, _pageSize);
}

bool SPageShadow::Clear() {
  _held.clear();
  Watched()[_engine].Reset();  // the file has another tree now
  return sys::Ftruncate(_memory.Get(), 0) == 0 && _Resize();
}

// The engine wants whole pages wherever it reads.
bool SPageShadow::_Resize() {
  return sys::Ftruncate(_memory.Get(), static_cast<off_t>(CacheOf(_engine)->filePages * _pageSize)) == 0;
}
