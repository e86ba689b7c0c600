#include "brenthaven/text/named.h"

#include <algorithm>
#include <string_view>

namespace {

constexpr std::string_view kLineEnd = "\r\n";

struct SNamedListItem : STableItem {
  SStringList list;
};

struct SNamedValueItem : STableItem {
  int value = 0;
};

constexpr int kDeleted = -1;

template <typename Item>
Item &Found(STable &table, SString const &key) {
  auto *item = static_cast<Item *>(table.Lookup(key));
  if (item == nullptr) table.Add(key, item = new Item);
  return *item;
}

SStringList const &ListOf(STableItem const *item) { return static_cast<SNamedListItem const *>(item)->list; }

bool IsBlank(char c) { return c == ' ' || c == '\t'; }

// Whether a key, written with a blank behind it, is the key of one line again. The empty key is: it holds what stands
// in front of the first key of a broken header.
bool ReadsBack(std::string_view key) {
  return key.find(' ') == std::string_view::npos && key.find(kLineEnd) == std::string_view::npos;
}

}  // namespace

void SNLists::Delete(SString const &key) { _table.Remove(key); }
void SNLists::Reset() { _table.Reset(); }

// SNamedStringList.

SNamedStringList::SNamedStringList(unsigned caseSensitive, unsigned headerStyle)
    : SNLists(caseSensitive), _headerStyle(headerStyle) {}

SNamedStringList::SNamedStringList(SNamedStringList const &other)
    : SNLists(other._caseSensitive), _headerStyle(other._headerStyle) {
  *this = other;
}

SNamedStringList &SNamedStringList::operator=(SNamedStringList const &other) {
  if (this == &other) return *this;
  Reset();
  _caseSensitive = other._caseSensitive;
  _headerStyle = other._headerStyle;
  for (auto *item = other._table.First(); item != other._table.End(); item = item->Next())
    if (ListOf(item).Defined()) (*this)[item->Key()] = ListOf(item);
  return *this;
}

SNamedStringList &SNamedStringList::operator+=(SNamedStringList const &other) {
  if (this == &other) return *this;  // it holds every value already
  for (auto *item = other._table.First(); item != other._table.End(); item = item->Next()) {
    SStringList const &theirs = ListOf(item);
    if (!theirs.Defined()) continue;
    SStringList &ours = (*this)[item->Key()];
    if (!ours.Defined()) {
      ours = theirs;
      continue;
    }
    SStringList const before = ours;  // a value that stands twice in theirs is pushed twice
    for (SString const &value : theirs)
      if (!before.Contains(value)) ours.Push(value);
  }
  return *this;
}

SStringList &SNamedStringList::operator[](SString const &key) { return Found<SNamedListItem>(_table, key).list; }

SStringList SNamedStringList::Keys() const {
  SStringList keys;
  keys.Define();
  for (auto *item = _table.First(); item != _table.End(); item = item->Next())
    if (ListOf(item).Defined()) keys.Push(item->Key());
  return keys;
}

SStringList SNamedStringList::Get(SString const &key) const {
  STableItem const *item = _table.Lookup(key);
  return item != nullptr ? ListOf(item) : SStringList();
}

SString &operator<<(SString &text, SNamedStringList const &table) {
  STable const &items = table._table;
  size_t total = text.View().size();
  for (auto *item = items.First(); item != items.End(); item = item->Next()) {
    size_t const perLine = item->Key().View().size() + 1 + kLineEnd.size();
    total += perLine;  // of a list without values
    for (SString const &value : ListOf(item)) total += perLine + value.View().size();
  }
  text.Reserve(total <= static_cast<size_t>(SString::kMaxLength) ? static_cast<int>(total) : 0);
  for (auto *item = items.First(); item != items.End(); item = item->Next()) {
    SStringList const &list = ListOf(item);
    if (!list.Defined()) continue;
    std::string_view const key = item->Key().View();
    if (!ReadsBack(key)) continue;
    if (list.Length() == 0) text.Append(key).Append(" ").Append(kLineEnd);
    for (SString const &value : list)
      text.Append(key).Append(" ").Append(FoldedFieldValue(value).View()).Append(kLineEnd);
  }
  return text;
}

// Each value is cut out of the text once, its continuation lines included: they stand in it as they do in the value.
SString const &operator>>(SString const &text, SNamedStringList &table) {
  SString const kept = text;  // the caller's string may be a value of this table
  std::string_view const rest = kept.View();
  table.Reset();
  SString key;
  SStringList *list = nullptr;
  size_t at = 0;
  while (at < rest.size()) {
    size_t end = rest.find(kLineEnd, at);
    size_t next = end;
    while (end != std::string_view::npos) {
      next = end + kLineEnd.size();
      if (next == rest.size() || !IsBlank(rest[next])) break;
      end = rest.find(kLineEnd, next);
    }
    if (end == std::string_view::npos) end = next = rest.size();
    size_t const lineEnd = std::min(rest.find(kLineEnd, at), end);
    size_t const blank = rest.substr(at, lineEnd - at).find(' ');
    size_t value = at;
    if (blank != std::string_view::npos) {
      value = at + blank + 1;
      if (blank > 0 && key.View() != rest.substr(at, blank)) {
        key = SString(rest.substr(at, blank));
        list = nullptr;
      }
    }
    if (list == nullptr) list = &table[key];
    list->Push(SString(rest.substr(value, end - value)));
    at = next;
  }
  return text;
}

SString FoldedFieldValue(SString const &value) {
  std::string_view const text = value.View();
  SString folded;
  size_t copied = 0;
  for (size_t at = text.find(kLineEnd); at != std::string_view::npos; at = text.find(kLineEnd, at)) {
    at += kLineEnd.size();
    if (at < text.size() && IsBlank(text[at])) continue;
    folded.Append(text.substr(copied, at - copied)).Append(" ");
    copied = at;
  }
  return copied == 0 ? value : folded.Append(text.substr(copied));
}

bool IsFieldKey(SString const &key) {
  return key.Length() > 0 && key.View().find_first_of(" \r\n") == std::string_view::npos;
}

// SNamedValue.

SNamedValue::SNamedValue(unsigned caseSensitive) : SNLists(caseSensitive) {}

SNamedValue::SNamedValue(SNamedValue const &other) : SNLists(1) { *this = other; }

SNamedValue &SNamedValue::operator=(SNamedValue const &other) {
  if (this == &other) return *this;
  Reset();
  _caseSensitive = other._caseSensitive;
  for (auto *item = other._table.First(); item != other._table.End(); item = item->Next()) {
    int const value = static_cast<SNamedValueItem const *>(item)->value;
    if (value != kDeleted) (*this)[item->Key()] = value;
  }
  return *this;
}

int &SNamedValue::operator[](SString const &key) { return Found<SNamedValueItem>(_table, key).value; }

int SNamedValue::Get(SString const &key) const {
  auto const *item = static_cast<SNamedValueItem const *>(_table.Lookup(key));
  return item != nullptr ? item->value : kDeleted;
}

SStringList SNamedValue::Keys() const {
  SStringList keys;
  keys.Define();
  for (auto *item = _table.First(); item != _table.End(); item = item->Next())
    if (static_cast<SNamedValueItem const *>(item)->value != kDeleted) keys.Push(item->Key());
  return keys;
}
