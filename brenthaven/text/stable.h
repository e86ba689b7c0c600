// brenthaven/text/stable.h - the hash table under all named tables, which keeps the order of insertion.
#pragma once
#include "brenthaven/text/sstringlist.h"

// Base of a table's entries, which derive from it and add their value. The table owns and deletes them.
class STableItem {
public:
  STableItem() = default;
  STableItem(STableItem const &) = delete;
  STableItem &operator=(STableItem const &) = delete;
  virtual ~STableItem() = default;

  STableItem const *Next() const { return _nextInOrder; }  // for walks from STable::First; ends at STable::End
  SString const &Key() const { return _key; }

private:
  friend class STable;
  STableItem *_nextInBucket = nullptr;
  STableItem *_nextInOrder = nullptr;
  STableItem *_previousInOrder = nullptr;
  SString _key;
  unsigned _hash = 0;    // of the key without regard to ASCII case, so that one spelling finds another
  unsigned _spread = 0;  // picks the bucket: the key mixed with a random seed of this process
};

// Chained buckets, doubled along a ladder of primes when there are more than two items a bucket. The bucket is picked
// by a second, seeded hash, since keys come from mail: keys made to collide would else cost quadratic time. Order and
// results do not depend on the seed.
class STable {
public:
  STable(int size, unsigned caseSensitive);  // size: number of buckets, 0 for 7
  STable(STable const &) = delete;
  STable &operator=(STable const &) = delete;
  ~STable();

  STableItem *Lookup(SString const &key) const;  // null when absent
  // Takes the item over. An item already there under the key is deleted, and the new one takes its place in the order
  // and its own spelling of the key.
  void Add(SString const &key, STableItem *item);
  int Remove(SString const &key);  // 1 when an item was removed
  SStringList Keys() const;        // in the order of insertion; always defined
  void Reset();                    // deletes all items and keeps the buckets
  int Count() const { return _count; }
  int BucketCount() const { return _bucketCount; }

  STableItem const *First() const { return _order._nextInOrder; }
  STableItem const *End() const { return &_order; }

private:
  struct Hashes;
  static Hashes _Hash(SString const &key);
  STableItem **_Find(SString const &key, Hashes const &hashes) const;
  void _Enlarge();

  STableItem **_buckets;
  int _bucketCount;
  int _count = 0;
  STableItem _order;  // anchors the circle in the order of insertion
  unsigned _caseSensitive;
};
