// brenthaven/text/sindexstring.h - a small map from int to string, kept in the order of insertion.
#pragma once
#include "brenthaven/text/sstring.h"

// Look-ups are linear: for a handful of entries. Copies are deep as to the pairs and share the strings' bytes.
class SIndexString {
public:
  SIndexString() = default;
  SIndexString(SIndexString const &other);
  SIndexString &operator=(SIndexString const &other);
  ~SIndexString();

  SString &operator[](int const &key);  // an absent key is made, with an undefined value; holds until the next call
  SString Get(int const &key) const;    // undefined when absent
  void Delete(int const &key);          // later pairs keep their order
  // The number of keys whose value is not empty. A non-null keys receives a new array of them, for the caller to
  // delete[].
  int Keys(int **keys) const;

private:
  struct Pair {
    int key = 0;
    SString value;
  };
  int _Search(int key) const;  // -1 when absent
  void _Grow();

  int _count = 0;
  int _free = 0;  // slots behind the used ones
  Pair *_pairs = nullptr;
};
