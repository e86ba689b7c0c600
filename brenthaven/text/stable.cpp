#include "brenthaven/text/stable.h"

#include <stdlib.h>

#include <algorithm>
#include <cstdint>

namespace {

constexpr int kDefaultBuckets = 7;
constexpr int kPrimes[] = {7, 17, 37, 79, 163, 331, 673, 1361, 2729, 5471, 10949};

// The bucket count for a wanted size: the next prime of the ladder, or past its end the size itself.
int BucketsFor(int wanted) {
  int const *prime = std::lower_bound(std::begin(kPrimes), std::end(kPrimes), wanted);
  return prime != std::end(kPrimes) ? *prime : wanted;
}

constexpr int Lower(int c) { return c >= 'A' && c <= 'Z' ? c + ('a' - 'A') : c; }

}  // namespace

struct STable::Hashes {
  unsigned hash;
  unsigned spread;
};

STable::Hashes STable::_Hash(SString const &key) {
  static uint64_t const seed = (static_cast<uint64_t>(arc4random()) << 32 | arc4random()) | 1;
  unsigned hash = 0;
  uint64_t mixed = seed;
  for (char const c : key.View()) {
    int const folded = Lower(static_cast<signed char>(c));
    hash = static_cast<unsigned>(folded) + hash * 33;
    // One round of multiply and fold with the secret seed as factor and state.
    __uint128_t const product = static_cast<__uint128_t>(mixed ^ static_cast<unsigned char>(folded)) * seed;
    mixed = static_cast<uint64_t>(product) ^ static_cast<uint64_t>(product >> 64);
  }
  return {hash, static_cast<unsigned>(mixed >> 32)};
}

STable::STable(int size, unsigned caseSensitive)
    : _bucketCount(size > 0 ? size : kDefaultBuckets), _caseSensitive(caseSensitive) {
  _buckets = new STableItem *[static_cast<size_t>(_bucketCount)]();
  _order._nextInOrder = _order._previousInOrder = &_order;
}

STable::~STable() {
  Reset();
  delete[] _buckets;
}

// The link that holds the key's item, or the null link at the end of its chain.
STableItem **STable::_Find(SString const &key, Hashes const &hashes) const {
  STableItem **link = &_buckets[hashes.spread % static_cast<unsigned>(_bucketCount)];
  for (; *link != nullptr; link = &(*link)->_nextInBucket) {
    STableItem const &item = **link;
    if (item._hash != hashes.hash) continue;
    if (_caseSensitive != 0 ? item._key == key : item._key.CompareNoCase(key) != 0) break;
  }
  return link;
}

STableItem *STable::Lookup(SString const &key) const { return *_Find(key, _Hash(key)); }

void STable::Add(SString const &key, STableItem *item) {
  if (_count > 2 * _bucketCount) _Enlarge();
  Hashes const hashes = _Hash(key);
  item->_key = key;
  item->_hash = hashes.hash;
  item->_spread = hashes.spread;
  STableItem **link = _Find(key, hashes);
  STableItem *old = *link;
  if (old == item) return;
  *link = item;
  if (old != nullptr) {
    item->_nextInBucket = old->_nextInBucket;
    item->_nextInOrder = old->_nextInOrder;
    item->_previousInOrder = old->_previousInOrder;
    delete old;
  } else {
    item->_nextInBucket = nullptr;
    item->_nextInOrder = &_order;
    item->_previousInOrder = _order._previousInOrder;
    ++_count;
  }
  item->_nextInOrder->_previousInOrder = item;
  item->_previousInOrder->_nextInOrder = item;
}

int STable::Remove(SString const &key) {
  STableItem **link = _Find(key, _Hash(key));
  STableItem *item = *link;
  if (item == nullptr) return 0;
  *link = item->_nextInBucket;
  item->_nextInOrder->_previousInOrder = item->_previousInOrder;
  item->_previousInOrder->_nextInOrder = item->_nextInOrder;
  --_count;
  delete item;
  return 1;
}

SStringList STable::Keys() const {
  SStringList keys;
  keys.Define();
  for (STableItem const *item = First(); item != End(); item = item->Next()) keys.Push(item->Key());
  return keys;
}

void STable::Reset() {
  STableItem *item = _order._nextInOrder;
  while (item != &_order) {
    STableItem *next = item->_nextInOrder;
    delete item;
    item = next;
  }
  _order._nextInOrder = _order._previousInOrder = &_order;
  std::fill_n(_buckets, _bucketCount, nullptr);
  _count = 0;
}

// Moves every item to the bucket that its stored hash picks among more of them; no key is hashed again.
void STable::_Enlarge() {
  int const count = BucketsFor(2 * _bucketCount);
  auto **buckets = new STableItem *[static_cast<size_t>(count)]();
  for (STableItem *item = _order._nextInOrder; item != &_order; item = item->_nextInOrder) {
    STableItem *&head = buckets[item->_spread % static_cast<unsigned>(count)];
    item->_nextInBucket = head;
    head = item;
  }
  delete[] _buckets;
  _buckets = buckets;
  _bucketCount = count;
}
