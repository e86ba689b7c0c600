#include "brenthaven/text/sstringlist.h"

#include <cassert>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <istream>
#include <new>
#include <ostream>
#include <utility>
#include <vector>

#include "brenthaven/text/base.h"

namespace {

using Compare = int (*)(SString const &, SString const &);

// Quicksort by exchange of strings, with a random pivot so that no order of the input is a bad one. Items equal to the
// pivot are set apart, so that many equal ones cost nothing; the larger side is left to the loop, which bounds the
// depth of the recursion by the logarithm of the count.
void SortRange(std::vector<SString *> &items, int first, int last, Compare compare) {
  while (last - first > 1) {
    SString const pivot = *items[static_cast<size_t>(first) + static_cast<size_t>(RandomInt(last - first))];
    int below = first;
    int at = first;
    int above = last;
    while (at < above) {
      int const order = compare(*items[static_cast<size_t>(at)], pivot);
      if (order < 0)
        std::swap(*items[static_cast<size_t>(below++)], *items[static_cast<size_t>(at++)]);
      else if (order > 0)
        std::swap(*items[static_cast<size_t>(at)], *items[static_cast<size_t>(--above)]);
      else
        ++at;
    }
    if (below - first < last - above) {
      SortRange(items, first, below, compare);
      first = above;
    } else {
      SortRange(items, above, last, compare);
      last = below;
    }
  }
}

template <typename Block>
Block *Allocate(size_t bytes) {
  for (;;) {
    void *block = malloc(bytes);
    if (block != nullptr) return static_cast<Block *>(block);
    std::new_handler handler = std::get_new_handler();
    if (handler == nullptr) abort();
    handler();
  }
}

}  // namespace

constinit SStringList::Rep SStringList::_undefined{nullptr, 0, kImmortal, 0, nullptr, 0};
constinit SStringList::Rep SStringList::_empty{nullptr, 0, kImmortal, kDefined, nullptr, 0};

// Reps and items.

void SStringList::_Free(Rep *rep) {
  SStringItem *item = rep->head;
  for (int left = rep->count; left > 0; --left) {
    SStringItem *next = item->next;
    delete item;
    item = next;
  }
  delete rep;
}

// Every change starts here: it takes a private rep, with nodes of its own whose strings share their bytes.
void SStringList::_MakeUnique() {
  if (_rep->references == 1) return;
  SStringList shared;
  std::swap(shared._rep, _rep);
  _rep = new Rep;
  _rep->flags = shared._rep->flags;
  for (SString const &text : shared) _Link(text, _rep->head);
}

// The nearest known item is the head, from either side, or where the last look-up ended.
SStringItem *SStringList::_FindItem(int index) const {
  int const count = _rep->count;
  if (index < 0) index += count;
  if (index < 0 || index >= count) return nullptr;
  SStringItem *item = _rep->head;
  int steps = index <= count / 2 ? index : index - count;
  if (_rep->lastFound != nullptr && std::abs(index - _rep->lastIndex) < std::abs(steps)) {
    item = _rep->lastFound;
    steps = index - _rep->lastIndex;
  }
  for (; steps > 0; --steps) item = item->next;
  for (; steps < 0; ++steps) item = item->previous;
  _rep->lastFound = item;
  _rep->lastIndex = index;
  return item;
}

// Links a new item in front of another; in front of the head it is the last one, and callers that want it first move
// the head. The list is unique.
SStringItem *SStringList::_Link(SString text, SStringItem *before) {
  auto *item = new SStringItem(std::move(text));
  if (before == nullptr) {
    _rep->head = item;
  } else {
    item->next = before;
    item->previous = before->previous;
    before->previous->next = item;
    before->previous = item;
    if (before != _rep->head) _rep->lastFound = nullptr;
  }
  ++_rep->count;
  return item;
}

// Takes an item out of a unique list and returns its string.
SString SStringList::_Unlink(SStringItem *item) {
  SString text = std::move(item->value);
  if (item == _rep->head) _rep->head = item->next;
  if (--_rep->count == 0) _rep->head = nullptr;
  _rep->lastFound = nullptr;
  delete item;
  return text;
}

// Construction and assignment.

SStringList::SStringList(SString const &text) : _rep(&_undefined) { Push(text); }
SStringList::SStringList(char const *text) : _rep(&_undefined) { Push(text); }

SStringList::SStringList(char const **texts) : _rep(texts == nullptr ? &_undefined : &_empty) {
  if (texts == nullptr) return;
  for (; *texts != nullptr; ++texts) Push(*texts);
}

SStringList::SStringList(std::initializer_list<SString> texts) : _rep(&_empty) {
  for (SString const &text : texts) Push(text);
}

SStringList &SStringList::operator=(SStringList const &other) {
  if (_rep != other._rep) {
    Rep *old = _rep;
    _rep = other._rep;
    _Retain();
    if (old->references < kImmortal && --old->references == 0) _Free(old);
  }
  return *this;
}

SStringList &SStringList::operator=(SStringList &&other) noexcept {
  if (this != &other) std::swap(_rep, other._rep);
  return *this;
}

SStringList &SStringList::operator=(SString const &text) { return *this = SStringList(text); }
SStringList &SStringList::operator=(char const *text) { return *this = SStringList(text); }
SStringList &SStringList::operator=(char const **texts) { return *this = SStringList(texts); }

void SStringList::Undef() {
  _Release();
  _rep = &_undefined;
}

void SStringList::Reset() {
  _Release();
  _rep = &_empty;
}

void SStringList::Define() {
  if (!Defined()) Reset();  // an undefined list has no items
}

SStringList SStringList::Clone() const {
  SStringList copy;
  if (Defined()) copy.Define();
  for (SString const &text : *this) copy.Push(text.Clone());
  return copy;
}

// Reading.

SString SStringList::Get(int index) const {
  SStringItem const *item = _FindItem(index);
  return item != nullptr ? item->value : SString();
}

int SStringList::_Index(std::string_view text) const {
  int index = 0;
  for (SString const &item : *this) {
    if (item.View() == text) return index;
    ++index;
  }
  return -1;
}

int SStringList::Index(SString const &text) const { return _Index(text.View()); }
int SStringList::Index(char const *text) const { return _Index(SString::_Bytes(text)); }

bool SStringList::operator==(SStringList const &other) const {
  if (_rep == other._rep) return true;
  if (Length() != other.Length()) return false;
  Iterator theirs = other.begin();
  for (SString const &ours : *this)
    if (!(ours == *theirs++)) return false;
  return true;
}

SString SStringList::_Join(std::string_view separator) const {
  if (!Defined()) return {};
  if (Length() == 1 && _rep->head->value.Defined()) return _rep->head->value;
  size_t total = 0;
  for (SString const &text : *this) total += text.View().size() + separator.size();
  if (total > 0) total -= separator.size();  // none stands behind the last item
  SString joined("");
  if (total > static_cast<size_t>(SString::kMaxLength)) return {};
  joined.Reserve(static_cast<int>(total));
  bool isFirst = true;
  for (SString const &text : *this) {
    if (!isFirst) joined.Append(separator);
    isFirst = false;
    joined.Append(text.View());
  }
  return joined;
}

SStringList::operator char **() const {
  if (!Defined()) return nullptr;
  size_t total = 0;
  for (SString const &text : *this) total += text.View().size() + 1;
  auto **vector = Allocate<char *>((static_cast<size_t>(Length()) + 1) * sizeof(char *));
  char **entry = vector;
  *entry = nullptr;
  if (Length() == 0) return vector;
  assert(total > 0);  // a NUL for each string
  char *at = Allocate<char>(total);
  for (SString const &text : *this) {
    *entry++ = at;
    memcpy(at, text.View().data(), text.View().size());
    at += text.View().size();
    *at++ = '\0';
  }
  *entry = nullptr;
  return vector;
}

// Writing.

SString &SStringList::operator[](int index) {
  if (index < 0) index += Length();
  if (index < 0) {
    static auto *strays = new std::deque<SString>;  // never freed: callers may keep what they got
    return strays->emplace_back();
  }
  _MakeUnique();
  _rep->flags |= kDefined;
  while (Length() <= index) _Link(SString(), _rep->head);
  return _FindItem(index)->value;
}

int SStringList::Push(SString const &text) {
  SString kept = text;  // it may be an item of this list
  _MakeUnique();
  _rep->flags |= kDefined;
  _Link(std::move(kept), _rep->head);
  return _rep->count;
}

int SStringList::Push(char const *text) { return Push(SString(text)); }

int SStringList::Push(SStringList const &list) {
  if (Length() == 0 && list.Defined()) {
    *this = list;
    return Length();
  }
  SStringList const kept = list;  // NOLINT(performance-unnecessary-copy-initialization): it may be this list
  for (SString const &text : kept) Push(text);
  return Length();
}

SString SStringList::Pop() {
  if (Length() == 0) return {};
  _MakeUnique();
  return _Unlink(_rep->head->previous);
}

SString SStringList::Shift() {
  if (Length() == 0) return {};
  _MakeUnique();
  return _Unlink(_rep->head);
}

int SStringList::Unshift(SString const &text) {
  SString kept = text;  // it may be an item of this list
  _MakeUnique();
  _rep->flags |= kDefined;
  _rep->lastFound = nullptr;
  _rep->head = _Link(std::move(kept), _rep->head);
  return _rep->count;
}

int SStringList::Unshift(char const *text) { return Unshift(SString(text)); }

int SStringList::Unshift(SStringList const &list) {
  Insert(list, 0);
  return Length();
}

void SStringList::Insert(SStringList const &list, int index) {
  if (Length() == 0) {
    *this = list;
    for (; index > 0; --index) Unshift(SString());
    return;
  }
  if (index < 0 || index > Length() || list.Length() == 0) return;
  SStringList const kept = list;  // NOLINT(performance-unnecessary-copy-initialization): it may be this list
  _MakeUnique();
  SStringItem *before = index < Length() ? _FindItem(index) : _rep->head;
  SStringItem *first = nullptr;
  for (SString const &text : kept) {
    SStringItem *item = _Link(text, before);
    if (first == nullptr) first = item;
  }
  if (index == 0) _rep->head = first;
  _rep->lastFound = nullptr;
}

int SStringList::Delete(int index) {
  if (index < 0 || index >= Length()) return 0;
  _MakeUnique();
  _Unlink(_FindItem(index));
  return 1;
}

int SStringList::Delete(SString const &text) { return Delete(Index(text)); }
int SStringList::Delete(char const *text) { return Delete(Index(text)); }

SStringList &SStringList::operator+=(SString const &text) {
  Push(text);
  return *this;
}

SStringList &SStringList::operator+=(char const *text) {
  Push(text);
  return *this;
}

SStringList &SStringList::operator+=(SStringList const &list) {
  Push(list);
  return *this;
}

// Whole lists.

SStringList SStringList::Slice(int first, int last) const {
  if (first < 0 || last < first || last >= Length()) return {};
  SStringList copy;
  SStringItem const *item = _FindItem(first);
  for (int left = last - first + 1; left > 0; --left, item = item->next) copy.Push(item->value);
  return copy;
}

SStringList SStringList::Splice(int offset) { return Splice(offset, Length() - offset); }

SStringList SStringList::Splice(int offset, int length) {
  if (offset < 0 || length <= 0 || offset > Length() - length) return {};
  _MakeUnique();
  SStringList cut;
  SStringItem *item = _FindItem(offset);
  for (; length > 0; --length) {
    SStringItem *next = item->next;
    cut.Push(_Unlink(item));
    item = next;
  }
  return cut;
}

SStringList SStringList::Splice(int offset, int length, SStringList const &list) {
  if (offset < 0 || length < 0 || offset > Length() - length) return {};
  SStringList const kept = list;  // NOLINT(performance-unnecessary-copy-initialization): it may be this list
  SStringList cut = Splice(offset, length);
  if (kept.Length() > 0) Insert(kept, offset);
  return cut;
}

void SStringList::Reverse() {
  if (Length() < 2) return;
  _MakeUnique();
  SStringItem *front = _rep->head;
  SStringItem *back = front->previous;
  for (int left = Length() / 2; left > 0; --left) {
    std::swap(front->value, back->value);
    front = front->next;
    back = back->previous;
  }
}

void SStringList::Sort(int (*compare)(SString const &, SString const &)) {
  if (Length() < 2) return;
  _MakeUnique();
  std::vector<SString *> items;
  items.reserve(static_cast<size_t>(Length()));
  SStringItem *item = _rep->head;
  for (int left = Length(); left > 0; --left, item = item->next) items.push_back(&item->value);
  SortRange(items, 0, Length(), compare);
}

void SStringList::Unique() {
  if (Length() < 2) return;
  _MakeUnique();
  SStringItem *item = _rep->head;
  for (int left = Length() - 1; left > 0; --left) {
    if (item->next->value == item->value)
      _Unlink(item->next);
    else
      item = item->next;
  }
}

char SStringList::Chop() {
  if (Length() == 0) return '\0';
  _MakeUnique();
  return _rep->head->previous->value.Chop();
}

// Streams.

std::ostream &operator<<(std::ostream &out, SStringList const &list) {
  for (SString const &text : list) out << text;
  return out;
}

std::istream &operator>>(std::istream &in, SStringList &list) {
  list.Reset();
  SString line;
  while (line.ReadLine(in)) list.Push(line);
  return in;
}
