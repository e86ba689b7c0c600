#include "brenthaven/store/sobjectdb.h"

#include <algorithm>
#include <cerrno>
#include <iostream>
#include <limits>
#include <string_view>
#include <utility>

#include "brenthaven/platform/barrier.h"
#include "brenthaven/platform/descriptor.h"
#include "brenthaven/platform/sys.h"

namespace {

constexpr int kTypeAttribute = 0;
constexpr int kNoIndex = 1;             // bit 0 of the flags of SetAttrib
constexpr int kMaxListedValue = 10000;  // bytes of an index key that ListValues looks at
constexpr char kBehindPrefix = '\x7f';  // ends a prefix range
constexpr char const *kBackupSuffix = ".backup";
constexpr mode_t kBackupMode = 0660;
constexpr mode_t kTreeMode = 0660;
constexpr int kReplayTries = 100;  // each one lost to another writer who died meanwhile

SString const kNul('\0', 1);

SString Byte(int number) { return SString(static_cast<char>(number), 1); }

SString AttributeKey(SString const &name, int attribute) { return name + kNul + Byte(attribute); }

bool HoldsNul(SString const &text) { return text.Index('\0') >= 0; }

SString TextOf(std::string_view bytes) { return SString(bytes.data(), static_cast<int>(bytes.size())); }

// The two parts of an index key: the value, and the object name behind its NUL.
struct IndexKey {
  std::string_view value;
  std::string_view name;
};

IndexKey SplitIndexKey(SString const &key) {
  std::string_view const rest = key.View().substr(std::min<size_t>(1, key.View().size()));
  size_t const nul = std::min(rest.find('\0'), rest.size());
  return {rest.substr(0, nul), rest.substr(std::min(nul + 1, rest.size()))};
}

// Gives every key of a tree from first on to take, until that answers false. False when the walk met a failure.
template <class Take>
bool Walk(SBTree &tree, SString const &first, Take take) {
  SString key = first;
  tree.SeqFirst(key);
  while (tree.GetMoveStatus() == 0 && take(key)) tree.SeqNext(key);
  return tree.GetMoveStatus() >= 0;
}

void Complain(char const *what, SString const &name) {
  int const error = errno;
  std::cerr << what << name << ": error " << error << '\n';
}

// Copies a file to a temporary name, keeps the copy that stood under the name before, and takes its place.
void CopyTree(SBTree &tree, SString const &suffix) {
  SString const destination = tree.Path() + suffix;
  SString const temporary = destination + ".temp";
  SDescriptor const from(sys::Open(tree.Path(), O_RDONLY));
  if (!tree.Flush() || !from.IsOpen()) return Complain("Couldn't get handle for source file ", tree.Name());
  (void)sys::Unlink(temporary);  // left by a backup that was killed; mostly there is none
  SDescriptor const to(sys::Open(temporary, O_RDWR | O_CREAT | O_EXCL, kBackupMode));
  if (!to.IsOpen()) return Complain("Couldn't get handle for destination file ", tree.Name() + suffix);

  SSyncBarrier barrier;
  barrier.AddFile(temporary);
  bool const isCopied =
      sys::Fchmod(to.Get(), kBackupMode) == 0 && sys::CopyContents(from.Get(), to.Get()) == 0 && barrier.Commit();
  bool const isKept = isCopied && (sys::Rename(destination, destination + ".previous") == 0 || errno == ENOENT);
  barrier.AddParentOf(destination);
  if (isKept && sys::Rename(temporary, destination) == 0 && barrier.Commit()) return;
  Complain("Couldn't write to destination file ", tree.Name() + suffix);
  (void)sys::Unlink(temporary);
}

}  // namespace

// One read section, which brings the index tree up to date for those who scan that.
class SObjectDB::ReadSection {
public:
  enum class Of { kAttributes, kIndex };
  ReadSection(SObjectDB &store, Of what) : _store(store) {
    _store.LockRead();
    if (what == Of::kIndex && !std::exchange(_store._indexIsCurrent, true)) _store._RefreshIndex();
  }
  ReadSection(ReadSection const &) = delete;
  ReadSection &operator=(ReadSection const &) = delete;
  ~ReadSection() { _store.UnlockRead(); }

private:
  SObjectDB &_store;
};

SObjectDB::SObjectDB() { Init("", 0, nullptr); }

SObjectDB::SObjectDB(SString name, int unused, _Attribute const *table) { Init(name, unused, table); }

void SObjectDB::Init(SString const &name, int unused, _Attribute const *table) {
  _attributes.Init(name + "a", unused);
  _index.Init(name + "i", unused);
  _journal.Init(name + "j");
  _table = table;
  for (_count = 0; table != nullptr && table[_count].name != nullptr;) ++_count;
}

void SObjectDB::ReOpen() {
  for (SBTree *tree : {&_attributes, &_index}) {
    tree->Close();
    tree->Open();
  }
}

// A child process has none of its parent's sections.
void SObjectDB::_DropInherited() {
  if (_forks == ForkCount()) return;
  _forks = ForkCount();
  _readers = _writers = 0;
  _isRefused = false;
}

// The shared lock of the attribute tree orders readers of both trees against every writer. A journal that is pending
// under it is that of a writer who died, and is finished before anything is read: within a section it would be too
// late, since it changes both trees. It need not be asked about while both trees are open and the attribute tree is as
// it was when it was opened: writers touch that one before they change anything. Trees that can't be relied on are
// asked about each time, so that each section tells it.
void SObjectDB::LockRead() {
  _DropInherited();
  if (_readers++ > 0) return;
  _indexIsCurrent = false;
  for (int tries = 0; tries < kReplayTries; ++tries) {
    unsigned const hadFailed = _attributes.ReadFailed();
    unsigned long const opens = _attributes.Opens();
    _attributes.LockRead();
    bool const isUnchanged = !_isUnsound && _attributes.IsOpen() && _attributes.Opens() == opens && _index.IsOpen();
    if (_isRefused) _pairFailed = 1;
    if (_writers > 0 || isUnchanged) return;
    if (!_journal.IsPending()) {
      if (_isUnsound || !_attributes.IsOpen() || _attributes.Opens() != opens) (void)_IsTreeGone();
      return;
    }
    _attributes.UnlockRead();
    _attributes.Close();
    if (!_Replay()) break;
    if (!hadFailed) _attributes.ClearReadFailed();
  }
  _attributes.LockRead();
}

void SObjectDB::UnlockRead() {
  _DropInherited();
  if (_readers > 0 && --_readers == 0) _attributes.UnlockRead();
}

// Brings the index tree up to date for the section that holds the shared lock.
void SObjectDB::_RefreshIndex() {
  _index.Refresh();
  (void)_index.Open();
}

// Told on the error stream when it is met first, and by ReadFailed each time.
void SObjectDB::_MarkUnsound(char const *what) {
  if (!std::exchange(_isUnsound, true)) Complain(what, _attributes.Name());
  _pairFailed = 1;
}

// Whether a tree has lost all that it held, which would look as if it never had held anything.
bool SObjectDB::_IsTreeGone() {
  if (!_journal.IsTreeGone(_Paths())) return _isUnsound = false;
  errno = EUCLEAN;
  _MarkUnsound("A file that had records is gone or empty, of ");
  return true;
}

std::array<SString, SJournal::kTrees> SObjectDB::_Paths() const { return {_attributes.Path(), _index.Path()}; }

// Finishes what a writer that died has decided. Waits for writers, and holds them off meanwhile.
bool SObjectDB::_Replay() {
  std::array<SString, SJournal::kTrees> const paths = _Paths();
  SDescriptor locks[SJournal::kTrees];
  bool isLocked = true;
  for (int tree = 0; tree < SJournal::kTrees && isLocked; ++tree) {
    locks[tree] = SDescriptor(sys::Open(paths[tree], O_RDWR | O_CREAT, kTreeMode));
    isLocked = locks[tree].IsOpen() && sys::Lock(locks[tree].Get(), F_WRLCK, 0, 1, true) == 0;
  }
  if (isLocked && _journal.Replay(paths)) return true;
  _MarkUnsound("Couldn't finish a change of ");
  return false;
}

void SObjectDB::LockWrite() {
  _DropInherited();
  if (_writers++ > 0) return;
  for (int tries = 0; tries < kReplayTries; ++tries) {
    _attributes.LockWrite();
    _index.LockWrite();
    bool const isPending = _journal.IsPending();  // nobody else is writing: what is pending has no writer
    if (!isPending && !_IsTreeGone()) return;
    _index.UnlockWrite();
    _attributes.UnlockWrite();
    if (!isPending || !_Replay()) break;
  }
  _isRefused = true;  // the next journal would take the place of this one
}

void SObjectDB::UnlockWrite() {
  _DropInherited();
  if (_writers == 0 || --_writers > 0) return;
  if (std::exchange(_isRefused, false)) return;
  (void)_Commit();  // told by WriteFailed
  _index.UnlockWrite();
  _attributes.UnlockWrite();
}

unsigned SObjectDB::Commit() {
  _DropInherited();
  if (_writers != 1) return 1;
  return !_isRefused && _Commit();
}

// Brings the changes of both trees into their files, all of them or, after a 0, none; where the last step fails they
// are decided all the same, and the next one to open the trees takes that step.
unsigned SObjectDB::_Commit() {
  if (!_attributes.HasChanged() && !_index.HasChanged()) return 1;
  bool const isDecided =
      _attributes.Stage() && _index.Stage() && (!_journaled || _journal.Write({&_attributes, &_index}));
  if (!isDecided) {
    Complain("Couldn't write the changes of ", _attributes.Name());
    _index.Discard();
    _attributes.Discard();
    _commitFailed = 1;
    return 0;
  }
  bool const isApplied =
      (_journaled || _journal.Retire()) && _attributes.Touch() && _index.Apply() && _attributes.Apply();
  if (!isApplied) {
    Complain("Couldn't write all changes of ", _attributes.Name());
    _commitFailed = 1;
  }
  if (isApplied && _journaled) _journal.Finish();
  return isApplied;
}

void SObjectDB::ClearReadFailed() {
  _pairFailed = 0;
  _attributes.ClearReadFailed();
  _index.ClearReadFailed();
}

void SObjectDB::ClearWriteFailed() {
  _commitFailed = 0;
  _attributes.ClearWriteFailed();
  _index.ClearWriteFailed();
}

bool SObjectDB::_Knows(int attribute) const { return attribute >= 0 && attribute < _count; }

unsigned SObjectDB::_FlagsOf(int attribute) const { return _Knows(attribute) ? _table[attribute].flags : 0; }

unsigned SObjectDB::Create(SString const &name, int type) { return SetAttrib(kTypeAttribute, name, Byte(type), 0); }

unsigned SObjectDB::Delete(SString const &name) {
  for (SString const &number : ListAttribs(name)) DeleteAttrib(static_cast<unsigned char>(number[0]), name);
  return DeleteAttrib(kTypeAttribute, name);
}

int SObjectDB::GetType(SString const &name) { return GetStringAttrib(kTypeAttribute, name)[0]; }

SStringList SObjectDB::GetAttrib(int attribute, SString const &name) {
  if (!_Knows(attribute)) return SStringList();
  ReadSection section(*this, ReadSection::Of::kAttributes);
  return SplitValues(_attributes.Get(AttributeKey(name, attribute)));
}

SString SObjectDB::GetStringAttrib(int attribute, SString const &name) {
  if (!_Knows(attribute)) return SString("");
  ReadSection section(*this, ReadSection::Of::kAttributes);
  SString const text = _attributes.Get(AttributeKey(name, attribute));
  int const end = text.Index('\0', 1);
  return text.Segment(1, (end < 0 ? text.Length() : end) - 1);
}

unsigned SObjectDB::SetAttrib(int attribute, SString const &name, SStringList const &values, int flags) {
  if (!_Knows(attribute) || HoldsNul(name)) return 0;
  for (SString const &value : values)
    if (HoldsNul(value)) return 0;  // would read back as two
  if (_isRefused) {
    _commitFailed = 1;
    return 0;
  }
  if (!_attributes.Open() || !_index.Open()) return 0;
  if ((flags & kNoIndex) == 0 && !_UpdateIndex(attribute, name, values)) return 0;
  return _attributes.Set(AttributeKey(name, attribute), _JoinValues(values));
}

unsigned SObjectDB::DeleteAttrib(int attribute, SString const &name) {
  if (!_Knows(attribute) || _isRefused) return 0;
  if (_FlagsOf(attribute) != 0)
    for (SString const &value : GetAttrib(attribute, name)) _DeleteIndexEntry(attribute, name, value);
  return _attributes.Delete(AttributeKey(name, attribute));
}

// Brings the entries of an object's attribute from its present values to the new ones. 0 when a unique value is another
// object's, before anything is changed, or when something could not be read or written.
unsigned SObjectDB::_UpdateIndex(int attribute, SString const &name, SStringList const &values) {
  if (_FlagsOf(attribute) == 0) return 1;
  SStringList const present = GetAttrib(attribute, name);
  if (_attributes.GetStatus() < 0) return 0;
  if ((_FlagsOf(attribute) & kAttributeUnique) != 0 && !_MayHold(attribute, name, values)) return 0;

  SStringList kept;  // canonical: an entry stays as long as any value of the object has its form
  for (SString const &value : values) kept.Push(_CanonicalizeValue(attribute, value));
  SStringList toAdd = values;
  for (SString const &value : present)
    if (!toAdd.Delete(value) && !kept.Contains(_CanonicalizeValue(attribute, value)))
      _DeleteIndexEntry(attribute, name, value);
  for (SString const &value : toAdd)
    if (!_AddIndexEntry(attribute, name, value)) return 0;
  return 1;
}

// Whether no other object holds any of these values.
unsigned SObjectDB::_MayHold(int attribute, SString const &name, SStringList const &values) {
  for (SString const &value : values) {
    SStringList const owners = ListByAttrib(attribute, value);
    if (_index.GetMoveStatus() < 0 || owners.Length() > 1) return 0;
    if (owners.Length() == 1 && owners.Get(0) != name) return 0;
  }
  return 1;
}

SStringList SObjectDB::ListAttribs(SString const &name) {
  SStringList numbers;
  SString const prefix = name + kNul;
  ReadSection section(*this, ReadSection::Of::kAttributes);
  Walk(_attributes, prefix, [&](SString const &key) {
    if (!key.HasPrefix(prefix)) return false;
    char const number = key[prefix.Length()];
    if (number != kTypeAttribute) numbers.Push(Byte(number));
    return true;
  });
  return numbers;
}

// What index keys for a value begin with, up to the object name or, for a domain, up to the rest of a longer domain.
SString SObjectDB::_IndexPrefix(int attribute, SString const &value) const {
  SString const prefix = Byte(attribute) + _CanonicalizeValue(attribute, value);
  return (_FlagsOf(attribute) & kAttributeDomain) != 0 ? prefix : prefix + kNul;
}

SStringList SObjectDB::ListByAttrib(int attribute, SString const &value) {
  SStringList names;
  if (!_Knows(attribute)) return names;
  bool const isDomain = (_FlagsOf(attribute) & kAttributeDomain) != 0;
  SString const prefix = _IndexPrefix(attribute, value);
  {
    ReadSection section(*this, ReadSection::Of::kIndex);
    Walk(_index, prefix, [&](SString const &key) {
      if (!key.HasPrefix(prefix)) return false;
      names.Push(isDomain ? TextOf(SplitIndexKey(key).name)
                          : key.Segment(prefix.Length(), key.Length() - prefix.Length()));
      return true;
    });
  }
  if (isDomain) {  // an object may match by more than one value
    names.Sort(SString::StrCmp);
    names.Unique();
  }
  return names;
}

int SObjectDB::CountByAttrib(int attribute, SString const &value) {
  if (!_Knows(attribute)) return 0;
  if ((_FlagsOf(attribute) & kAttributeDomain) != 0) return ListByAttrib(attribute, value).Length();
  int count = 0;
  SString const prefix = _IndexPrefix(attribute, value);
  ReadSection section(*this, ReadSection::Of::kIndex);
  Walk(_index, prefix, [&](SString const &key) { return key.HasPrefix(prefix) && ++count > 0; });
  return count;
}

void SObjectDB::ListByAttrib(int attribute, SString const &prefix, SStringList *values, SStringList *names) {
  ListByAttribRange(attribute, prefix, prefix + kBehindPrefix, values, names);
}

void SObjectDB::ListByAttribRange(int attribute, SString const &low, SString const &high, SStringList *values,
                                  SStringList *names) {
  SString from = low;
  ListSlice(attribute, from, high, std::numeric_limits<int>::max(), values, names);
}

void SObjectDB::ListSlice(int attribute, SString &low, SString const &high, int limit, SStringList *values,
                          SStringList *names) {
  values->Reset();
  names->Reset();
  if (!_Knows(attribute) || limit <= 0) return;
  SString const end = Byte(attribute) + high;
  SString last;
  {
    ReadSection section(*this, ReadSection::Of::kIndex);
    Walk(_index, Byte(attribute) + low, [&](SString const &key) {
      if (!(key < end)) return false;
      IndexKey const parts = SplitIndexKey(key);
      values->Push(TextOf(parts.value));
      names->Push(TextOf(parts.name));
      last = key;
      return values->Length() < limit;
    });
  }
  if (last.Defined()) low = std::as_const(last).Segment(1, last.Length() - 1) + kNul;  // no key stands in between
}

SStringList SObjectDB::ListByType(int type) { return ListByAttrib(kTypeAttribute, Byte(type)); }

int SObjectDB::CountByType(int type) { return CountByAttrib(kTypeAttribute, Byte(type)); }

// Gives each distinct value in the index of an attribute to take. The index is sorted, so equal ones are neighbours.
template <class Take>
void SObjectDB::_WalkValues(int attribute, Take take) {
  if (!_Knows(attribute)) return;
  SString const first = Byte(attribute);
  SString last;
  ReadSection section(*this, ReadSection::Of::kIndex);
  Walk(_index, first, [&](SString const &key) {
    if (!key.HasPrefix(first)) return false;
    SString const value = TextOf(SplitIndexKey(key).value.substr(0, kMaxListedValue));
    if (last.Defined() && value == last) return true;
    take(value);
    last = value;
    return true;
  });
}

SStringList SObjectDB::ListValues(int attribute) {
  SStringList values;
  _WalkValues(attribute, [&](SString const &value) { values.Push(value); });
  return values;
}

int SObjectDB::CountValues(int attribute) {
  int count = 0;
  _WalkValues(attribute, [&](SString const &) { ++count; });
  return count;
}

unsigned SObjectDB::Backup(SString const &attributeSuffix, SString const &indexSuffix) {
  LockWrite();
  if (_isRefused || !_Commit()) {  // what stands in the files now is worse than the copies that there are
    Complain("Couldn't back up ", _attributes.Name());
    UnlockWrite();
    return 1;
  }
  CopyTree(_attributes, attributeSuffix.Length() > 0 ? attributeSuffix : SString(kBackupSuffix));
  CopyTree(_index, indexSuffix.Length() > 0 ? indexSuffix : SString(kBackupSuffix));
  UnlockWrite();
  return 1;
}

SString SObjectDB::_CanonicalizeValue(int attribute, SString const &value) const {
  return CanonicalValue(_FlagsOf(attribute), value);
}

SString SObjectDB::CanonicalValue(unsigned flags, SString const &value) {
  SString text = value;
  if ((flags & kAttributeLowerCase) != 0) text.LowerCase();
  if ((flags & kAttributeAddress) != 0) {
    if ((flags & kAttributeSecondWord) != 0 && text.Index(' ') > 0) text = text.SplitExact(" ").Get(1);
    if (text[0] == '<' && text[-1] == '>') text = std::as_const(text).Segment(1, text.Length() - 2);
  }
  if ((flags & kAttributeDomain) != 0) {
    text.Reverse();
    text += '.';
  }
  return text;
}

// Trailing empty items are lost here: their NUL bytes can't be told from the end.
SStringList SObjectDB::SplitValues(SString value) {
  if (!value.Defined()) return SStringList();
  while (value.Length() > 0 && value[-1] == '\0') value.Chop();
  SStringList items = value.SplitExact(kNul);
  items.Shift();  // the empty text in front of the leading NUL
  return items;
}

SString SObjectDB::_JoinValues(SStringList const &values) const {
  return values.Length() == 0 ? SString("") : kNul + values.Join(kNul);
}

void SObjectDB::_DeleteIndexEntry(int attribute, SString const &name, SString const &value) {
  SString const canonical = _CanonicalizeValue(attribute, value);
  if (canonical.Length() > 0) _index.Delete(Byte(attribute) + canonical + kNul + name);
}

unsigned SObjectDB::_AddIndexEntry(int attribute, SString const &name, SString const &value) {
  SString const canonical = _CanonicalizeValue(attribute, value);
  return canonical.Length() == 0 || _index.Set(Byte(attribute) + canonical + kNul + name, "");
}
