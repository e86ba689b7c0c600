// brenthaven/store/db185.h - the B-tree engine's interface, which its package brings as a shared object alone.
//
// These are the structures of the 1.85 interface as libdb1.so.2 was built with them. Only brenthaven/store includes
// this header. A file starts with a page of metadata, all numbers in the byte order named by the magic:
//
//   offset  0  magic 0x053162      8  page size        16  number of records (not kept for B-trees)
//           4  version 3          12  first free page  20  flags: 0x20, no duplicate keys
//
// Each further page starts with 20 bytes and has a table of 2-byte offsets behind them, growing upward, and its entries
// growing downward from its end:
//
//   offset  0  its own number      8  next page        16  end of the offset table
//           4  previous page      12  type             18  start of the entries
#pragma once
#include <cstddef>
#include <cstdint>

// A key or a value. What the engine hands out is its own memory, good until the next call on the same handle.
struct SBTreeItem {
  void *data = nullptr;
  size_t size = 0;
};

// An open file. Results are 0, 1 (not found, or the end) and -1 with errno.
struct SBTreeEngine {
  int type;
  int (*close)(SBTreeEngine *);
  int (*del)(SBTreeEngine const *, SBTreeItem const *key, unsigned flags);
  int (*get)(SBTreeEngine const *, SBTreeItem const *key, SBTreeItem *value, unsigned flags);
  int (*put)(SBTreeEngine const *, SBTreeItem *key, SBTreeItem const *value, unsigned flags);
  int (*seq)(SBTreeEngine const *, SBTreeItem *key, SBTreeItem *value, unsigned move);
  int (*sync)(SBTreeEngine const *, unsigned flags);  // writes and flushes the pages when there was a change
  void *internal;
  int (*fd)(SBTreeEngine const *);
};

// How to open a B-tree. Zeros and nulls mean the engine's defaults; an existing file's page size and order win.
struct SBTreeInfo {
  unsigned long flags;
  unsigned cachesize;
  int maxkeypage;
  int minkeypage;
  unsigned psize;
  int (*compare)(SBTreeItem const *, SBTreeItem const *);
  size_t (*prefix)(SBTreeItem const *, SBTreeItem const *);
  int lorder;
};

inline constexpr int kBTreeType = 0;
inline constexpr unsigned kMoveCursor = 1;  // smallest key at or behind the given one
inline constexpr unsigned kMoveFirst = 3;
inline constexpr unsigned kMoveLast = 6;
inline constexpr unsigned kMoveNext = 7;
inline constexpr unsigned kMovePrevious = 9;

extern "C" SBTreeEngine *dbopen(char const *path, int flags, int mode, int type, void const *info);
