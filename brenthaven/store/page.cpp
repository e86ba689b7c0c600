#include "brenthaven/store/page.h"

#include <cstring>

#include "brenthaven/store/db185.h"

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

constexpr std::uint32_t kNoPage = 0;       // page 0 holds metadata, so links use 0 for "none"
constexpr size_t kHeaderSize = 20;         // behind it the table of offsets
constexpr std::uint32_t kInternal = 0x01;  // one type in the low bits of a page's type word
constexpr std::uint32_t kLeaf = 0x02;
constexpr std::uint32_t kOverflow = 0x04;  // part of a long key or value
constexpr std::uint32_t kTypes = 0x1f;
constexpr unsigned kLongValue = 0x01;  // entry flags: the bytes are number and size of what lies in overflow pages
constexpr unsigned kLongKey = 0x02;
constexpr size_t kEntryHeader = 9;            // two numbers and the flags
constexpr std::uint32_t kLongItem = 8;        // bytes in place of a long item
constexpr std::uint32_t kLargest = 1u << 30;  // no item is longer; keeps a made-up size from taking all memory

unsigned long damagedPages = 0;
Convert engineAfterRead = nullptr;

std::uint32_t Number(unsigned char const *at) {
  std::uint32_t number;
  std::memcpy(&number, at, sizeof number);
  return number;
}

std::uint16_t Offset(unsigned char const *at) {
  std::uint16_t offset;
  std::memcpy(&offset, at, sizeof offset);
  return offset;
}

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

void CheckAfterRead(void *cookie, std::uint32_t number, void *page) {
  engineAfterRead(cookie, number, page);
  if (number == 0) return;  // metadata, looked at when the file was opened
  size_t const size = (*static_cast<PageCache **>(cookie))->pageSize;
  if (IsSoundPage(static_cast<unsigned char *>(page), size, number)) return;
  ++damagedPages;
  MakeEmptyLeaf(static_cast<unsigned char *>(page), size, number);
}

}  // namespace

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
  PageCache *cache = *static_cast<PageCache **>(internal);
  bool const isKnown = cache->descriptor == engine->fd(engine) && cache->cookie == internal && cache->pageSize >= 512 &&
                       cache->pageSize < 65536 && cache->afterRead != nullptr;
  if (!isKnown) return false;
  if (cache->afterRead != CheckAfterRead) engineAfterRead = cache->afterRead;
  cache->afterRead = CheckAfterRead;
  return true;
}

unsigned long DamagedPages() { return damagedPages; }
