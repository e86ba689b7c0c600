// brenthaven/store/page.h - between the B-tree engine and its file: a check on what it reads, and a hold on what it
// writes.
//
// The engine trusts every offset in a page that it reads, so one torn page would end the process. The watch looks at
// each page once, as it comes from the file: a page that is none is counted and becomes an empty leaf in memory, which
// the engine can handle and finds nothing in. It sees pages that are torn, zeroed or overwritten, and links that no
// sound tree has: out of the file, to a page of another kind, or in a circle on the way down. Bytes of keys and values
// may be wrong, and pages from two states of a file may fit, without its notice.
//
// The engine also writes pages whenever its cache is full, long before a change is complete. The shadow takes them in
// the file's place, until the owner of the file says that they belong there.
//
// Both hook the engine's own conversion step and its descriptor. Their places are checked first: an engine laid out in
// another way is left alone.
#pragma once
#include <cstddef>
#include <cstdint>
#include <vector>

#include "brenthaven/platform/descriptor.h"

struct SBTreeEngine;

// Puts the watch on an open handle. False when the engine is laid out in another way.
bool WatchPages(SBTreeEngine *engine);
// Before the handle is closed.
void UnwatchPages(SBTreeEngine const *engine);

// Number of pages that the watch has turned down in this process: when it moves during a call, that call met damage.
unsigned long DamagedPages();

// Whether these bytes, in the byte order of the host, are page `number` of a B-tree file with pages of this size.
bool IsSoundPage(unsigned char const *page, size_t size, std::uint32_t number);

// The pages that the engine wrote, in a file in memory, in the form that they have in the real one. One open handle at
// a time.
class SPageShadow {
public:
  SPageShadow() = default;
  SPageShadow(SPageShadow const &) = delete;
  SPageShadow &operator=(SPageShadow const &) = delete;
  ~SPageShadow() { Detach(); }

  // From here on the engine, on which the watch is, writes into the shadow, and reads from it what it wrote and all
  // else from the file, a descriptor that is borrowed. False with errno on failure.
  bool Attach(SBTreeEngine *engine, int file);
  // Before or after the engine is closed; what was not written to the file is forgotten.
  void Detach();
  // In a child process, which shares the shadow of its parent: gives the engine another one to throw away.
  void Abandon();

  bool IsAttached() const { return _memory.IsOpen(); }
  size_t PageSize() const { return _pageSize; }
  // Numbers of the pages held, in order.
  std::vector<std::uint32_t> Pages() const;
  bool Read(std::uint32_t number, void *page) const;
  // The file has them now: the shadow is empty again. False with errno when its memory could not be given back.
  bool Clear();

private:
  friend struct SPageHooks;
  bool _Holds(std::uint32_t number) const { return number < _held.size() && _held[number]; }
  bool _Resize();

  SDescriptor _memory;
  int _file = -1;
  size_t _pageSize = 0;
  void *_engine = nullptr;  // its internal data, which its hooks are called with
  std::vector<bool> _held;
};
