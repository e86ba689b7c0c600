// brenthaven/store/page.h - a watch on the pages that the B-tree engine reads.
//
// The engine trusts every offset in a page that it reads, so one torn page would end the process. The watch looks at
// each page once, as it comes from the file: a page that is none is counted and becomes an empty leaf in memory, which
// the engine can handle and finds nothing in. It sees pages that are torn, zeroed or overwritten; it does not see sound
// pages that hang together wrongly.
#pragma once
#include <cstddef>
#include <cstdint>

struct SBTreeEngine;

// Puts the watch on an open handle. It hooks the engine's own conversion step, whose place is checked first: on an
// engine laid out in another way nothing is changed and the result is false.
bool WatchPages(SBTreeEngine *engine);

// Number of pages that the watch has turned down in this process: when it moves during a call, that call met damage.
unsigned long DamagedPages();

// Whether these bytes, in the byte order of the host, are page `number` of a B-tree file with pages of this size.
bool IsSoundPage(unsigned char const *page, size_t size, std::uint32_t number);
