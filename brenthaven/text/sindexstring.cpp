#include "brenthaven/text/sindexstring.h"

#include <algorithm>
#include <utility>

namespace {
constexpr int kGrowth = 5;  // slots added when none is left
}

SIndexString::SIndexString(SIndexString const &other) { *this = other; }

SIndexString &SIndexString::operator=(SIndexString const &other) {
  if (this == &other) return *this;
  delete[] _pairs;
  _count = other._count;
  _free = other._free;
  _pairs = _count + _free > 0 ? new Pair[static_cast<size_t>(_count + _free)] : nullptr;
  std::copy_n(other._pairs, _count, _pairs);
  return *this;
}

SIndexString::~SIndexString() { delete[] _pairs; }

SString &SIndexString::operator[](int const &key) {
  int const wanted = key;  // the reference may point into what growth replaces
  int const at = _Search(wanted);
  if (at >= 0) return _pairs[at].value;
  if (_free == 0) _Grow();
  --_free;
  _pairs[_count].key = wanted;
  return _pairs[_count++].value;
}

SString SIndexString::Get(int const &key) const {
  int const at = _Search(key);
  return at >= 0 ? _pairs[at].value : SString();
}

void SIndexString::Delete(int const &key) {
  int const at = _Search(key);
  if (at < 0) return;
  std::move(_pairs + at + 1, _pairs + _count, _pairs + at);
  _pairs[--_count] = Pair();
  ++_free;
}

int SIndexString::Keys(int **keys) const {
  auto const hasValue = [](Pair const &pair) { return pair.value.Length() > 0; };
  int const count = static_cast<int>(std::count_if(_pairs, _pairs + _count, hasValue));
  if (keys == nullptr) return count;
  int *out = *keys = new int[static_cast<size_t>(count)];
  for (Pair const *pair = _pairs; pair != _pairs + _count; ++pair)
    if (hasValue(*pair)) *out++ = pair->key;
  return count;
}

int SIndexString::_Search(int key) const {
  for (int at = 0; at < _count; ++at)
    if (_pairs[at].key == key) return at;
  return -1;
}

void SIndexString::_Grow() {
  auto *pairs = new Pair[static_cast<size_t>(_count + kGrowth)];
  std::move(_pairs, _pairs + _count, pairs);
  delete[] _pairs;
  _pairs = pairs;
  _free = kGrowth;
}
