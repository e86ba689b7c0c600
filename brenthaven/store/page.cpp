#include "brenthaven/store/page.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

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
  static std::vector<SPageShadow *> shadows;  // attached ones: at most two where accounts are written
  return shadows;
}

PageCache *CacheOf(void *engine) { return *static_cast<PageCache **>(engine); }

// A reference to overflow pages, standing in place of a long key or value.
bool IsSoundReference(unsigned char const *at, std::uint32_t size) {
  return size == kLongItem && Number(at) != kNoPage && Number(at + 4) <= kLargest;
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

void MakeEmptyLeaf(unsigned char *page, size_t size, std::uint32_t number) {
  std::uint32_t const head[] = {number, kNoPage, kNoPage, kLeaf};
  std::uint16_t const bounds[] = {kHeaderSize, static_cast<std::uint16_t>(size)};
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
    if (shadow != nullptr && !shadow->_Holds(number) && !ReadPage(shadow->_file, number, page, size))
      std::memset(page, 0, size);
    engineAfterRead(engine, number, page);
    if (number == 0) return;  // metadata, looked at when the file was opened
    if (IsSoundPage(static_cast<unsigned char *>(page), size, number)) return;
    ++damagedPages;
    MakeEmptyLeaf(static_cast<unsigned char *>(page), size, number);
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
  for (size_t at = kHeaderSize; at < tableEnd; at += 2) {
    size_t const offset = Offset(page + at);
    if (offset < entries || offset + kEntryHeader > size) return false;
    unsigned char const *entry = page + offset;
    if (type == kLeaf ? !IsSoundLeafEntry(entry, size - offset) : !IsSoundInternalEntry(entry, size - offset, number))
      return false;
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
  return true;
}

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
  return sys::Ftruncate(_memory.Get(), 0) == 0 && _Resize();
}

// The engine wants whole pages wherever it reads.
bool SPageShadow::_Resize() {
  return sys::Ftruncate(_memory.Get(), static_cast<off_t>(CacheOf(_engine)->filePages * _pageSize)) == 0;
}
