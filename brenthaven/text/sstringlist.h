// brenthaven/text/sstringlist.h - a list of strings in the manner of a scripting language's array.
#pragma once
#include <cstddef>
#include <initializer_list>
#include <iosfwd>
#include <iterator>

#include "brenthaven/text/sstring.h"

// One node of a list. A new one stands alone, in a circle with itself; one that ends unlinks itself.
class SStringItem {
public:
  explicit SStringItem(SString text) : value(static_cast<SString &&>(text)), next(this), previous(this) {}
  SStringItem(SStringItem const &) = delete;
  SStringItem &operator=(SStringItem const &) = delete;
  ~SStringItem() {
    previous->next = next;
    next->previous = previous;
  }

  SString value;
  SStringItem *next;
  SStringItem *previous;
};

// Copies share their items until one of them is changed; the strings themselves stay shared after that too. An
// undefined list is an empty one that Defined() tells apart. Reading out of range is harmless: it gives an undefined
// string. Negative indexes count from the end, except where a member says otherwise. A list and all its copies belong
// to one thread.
//
// Walk a list with a range-for: it reads each item in place. Get(i) remembers where the last one was found, so that
// walking by index is linear too. A list must not be changed while it is walked; walk a copy, which costs nothing.
class SStringList {
public:
  class Iterator {
  public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = SString;
    using difference_type = std::ptrdiff_t;
    using pointer = SString const *;
    using reference = SString const &;

    Iterator() = default;
    Iterator(SStringItem const *item, int index) : _item(item), _index(index) {}
    SString const &operator*() const { return _item->value; }
    SString const *operator->() const { return &_item->value; }
    Iterator &operator++() {
      _item = _item->next;
      ++_index;
      return *this;
    }
    Iterator operator++(int) {
      Iterator before = *this;
      ++*this;
      return before;
    }
    bool operator==(Iterator const &other) const { return _index == other._index; }

  private:
    SStringItem const *_item = nullptr;
    int _index = 0;
  };

  SStringList() : _rep(&_undefined) {}  // undefined
  SStringList(SString const &text);     // one item
  SStringList(char const *text);        // one item
  SStringList(char const **texts);      // up to the null pointer that ends them; undefined for a null pointer
  SStringList(std::initializer_list<SString> texts);
  SStringList(SStringList const &other) : _rep(other._rep) { _Retain(); }
  SStringList(SStringList &&other) noexcept : _rep(other._rep) { other._rep = &_undefined; }
  ~SStringList() { _Release(); }

  SStringList &operator=(SStringList const &other);
  SStringList &operator=(SStringList &&other) noexcept;
  SStringList &operator=(SString const &text);
  SStringList &operator=(char const *text);
  SStringList &operator=(char const **texts);

  // State.
  bool Defined() const { return (_rep->flags & kDefined) != 0; }
  void Undef();   // empty and undefined
  void Reset();   // empty and defined
  void Define();  // defined, and left as it is when it was
  int Length() const { return _rep->count; }
  int Scalar() const { return _rep->count; }
  SStringList Clone() const;  // a deep copy

  // Reading.
  Iterator begin() const { return {_rep->head, 0}; }
  Iterator end() const { return {_rep->head, _rep->count}; }
  SString Get(int index) const;
  int Index(SString const &text) const;  // the first equal item, or -1
  int Index(char const *text) const;
  bool Contains(SString const &text) const { return Index(text) >= 0; }
  bool Contains(char const *text) const { return Index(text) >= 0; }
  bool operator==(SStringList const &other) const;  // item by item; undefined equals empty
  // One allocation. An undefined list gives an undefined string, an empty one an empty string.
  SString Join(SString const &separator) const { return _Join(separator.View()); }
  SString Join() const { return _Join({}); }
  // A null-terminated vector, to be released with free(); all its strings lie in one more block, which is the first
  // entry (null for an empty list) and is released with free() too. Null for an undefined list.
  operator char **() const;

  // Writing. A reference holds until its item is removed. An index past the end extends the list with undefined
  // strings, which also defines it; one that stays negative gives a reference to a string outside the list, which is
  // never freed.
  SString &operator[](int index);
  int Push(SString const &text);  // the new count
  int Push(char const *text);
  int Push(SStringList const &list);  // an empty defined list defines this one; an undefined one does nothing
  SString Pop();                      // undefined on an empty list
  SString Shift();
  int Unshift(SString const &text);  // the new count
  int Unshift(char const *text);
  int Unshift(SStringList const &list);
  // Puts the list in front of the item at index, 0 to Length(); any other index does nothing. An empty list takes
  // over list whatever the index, behind that many undefined strings.
  void Insert(SStringList const &list, int index);
  int Delete(int index);            // 1, or 0 out of range; negative indexes are out of range here
  int Delete(SString const &text);  // the first equal item only
  int Delete(char const *text);
  SStringList &operator+=(SString const &text);
  SStringList &operator+=(char const *text);
  SStringList &operator+=(SStringList const &list);

  // Whole lists.
  SStringList Slice(int first, int last) const;  // both inclusive; undefined on bad bounds
  SStringList Splice(int offset);                // cuts to the end, and returns what was cut
  // Cuts length items and returns them; undefined on bad bounds or a length of 0. The form with a list puts it where
  // they stood, unless the bounds are bad.
  SStringList Splice(int offset, int length);
  SStringList Splice(int offset, int length, SStringList const &list);
  void Reverse();
  // A positive result of compare means that its first argument stands behind the second. The order among equal items
  // is not fixed and differs from run to run.
  void Sort(int (*compare)(SString const &, SString const &));
  void Unique();  // drops adjacent equal items
  char Chop();    // SString::Chop on the last item

  // The items that match (keep non-zero) or do not (keep 0). Undefined list or broken expression: empty.
  SStringList Grep(SRegex const &regex, int keep = 1) const;
  // Selects by an expression: "/RE/flags", "m,RE,flags", "s/RE/replacement/flags" (which changes the items of this
  // list), or a file test "-d", "-e", "-f", "-r", "-w", "-x"; "!" in front negates. rest, when not null, receives what
  // was not selected. A broken regular expression gives an empty list; one that makes no sense is told on the error
  // stream.
  SStringList Grep(SString const &expression, SStringList *rest = nullptr);

  friend std::ostream &operator<<(std::ostream &out, SStringList const &list);  // no separators
  friend std::istream &operator>>(std::istream &in, SStringList &list);         // lines to the end of the stream

private:
  static constexpr unsigned kDefined = 1;
  static constexpr int kImmortal = 1 << 30;  // the count of the static reps, which are never counted or changed

  struct Rep {
    SStringItem *head = nullptr;  // a circle; null when empty
    int count = 0;
    int references = 1;
    unsigned flags = 0;
    SStringItem *lastFound = nullptr;  // where the last look-up by index ended, null when items have moved since
    int lastIndex = 0;
  };

  static Rep _undefined;
  static Rep _empty;

  void _Retain() {
    if (_rep->references < kImmortal) ++_rep->references;
  }
  void _Release() {
    if (_rep->references < kImmortal && --_rep->references == 0) _Free(_rep);
  }
  [[gnu::noinline]] static void _Free(Rep *rep);  // the rare end of the inline paths
  void _MakeUnique();
  SStringItem *_FindItem(int index) const;
  SStringItem *_Link(SString text, SStringItem *before);
  SString _Unlink(SStringItem *item);
  int _Index(std::string_view text) const;
  SString _Join(std::string_view separator) const;

  Rep *_rep;
};
