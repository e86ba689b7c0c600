#include "brenthaven/accounts/repair.h"

#include <algorithm>
#include <cerrno>

#include "brenthaven/accounts/accountstore.h"
#include "brenthaven/accounts/attributes.h"
#include "brenthaven/accounts/special.h"
#include "brenthaven/platform/barrier.h"
#include "brenthaven/platform/descriptor.h"
#include "brenthaven/platform/sys.h"
#include "brenthaven/store/salvage.h"
#include "brenthaven/store/sobjectdb.h"
#include "brenthaven/text/base.h"

namespace {

constexpr char kStem[] = "BTAccounts.";
constexpr char kNewStem[] = "BTAccounts.repair.";
constexpr char kNul = '\0';
constexpr char const *kParts[] = {"a", "i"};
constexpr int kNoIndex = 1;
constexpr int kDamagedNames = 1000;

SString PathOf(char const *stem, char const *part) { return SString(GetEnv("Brenthaven")) + "/config/" + stem + part; }

bool IsInPlace(int file, SString const &path) {
  struct stat ours, other;
  return sys::Fstat(file, &ours) == 0 && sys::Stat(path, &other) == 0 && ours.st_ino == other.st_ino &&
         ours.st_dev == other.st_dev;
}

void RemoveNew() {
  for (char const *part : {"a", "i", "j"}) (void)sys::Unlink(PathOf(kNewStem, part));
}

// Gives a file a second name that none has yet. True also when there is no such file.
bool KeepDamaged(SString const &path) {
  for (int number = 0; number < kDamagedNames; ++number) {
    SString const name = path + ".damaged" + (number == 0 ? SString("") : "." + MakeSString(number));
    if (sys::Link(path, name) == 0 || errno == ENOENT) return true;
    if (errno != EEXIST) return false;
  }
  return false;
}

// The new files, and what went into them.
class Rebuild {
public:
  Rebuild() : _store(kNewStem, 0, accountstore::Table()) {
    RemoveNew();
    _store.SetJournaled(false);  // nobody reads them before they are complete
    _store.LockWrite();
  }

  ~Rebuild() { RemoveNew(); }
  Rebuild(Rebuild const &) = delete;
  Rebuild &operator=(Rebuild const &) = delete;

  // "name NUL attribute" and the items, in any order.
  void Take(SString const &key, SString const &value) {
    int const end = key.Length() - 2;
    int const attribute = static_cast<unsigned char>(key[-1]);
    SString const uid = key.Segment(0, std::max(end, 0));
    bool const isRecord = end > 0 && key[end] == kNul && attribute < kAttrCount && uid.Index(kNul) < 0;
    if (!isRecord) return Drop();
    if (_store.GetType(uid) == 0) {  // its own record may come later, or be lost: it is an account all the same
      if (!_store.Create(uid, accountstore::kAccountType)) return Drop();
      ++_result.accounts;
    }
    if (attribute == kAttrType) ++_typeRecords;
    if (attribute == kAttrType || _store.GetAttrib(attribute, uid).Length() > 0) return;  // found before
    int const flags = IsTemplateUID(uid) ? kNoIndex : 0;
    if (!_store.SetAttrib(attribute, uid, SObjectDB::SplitValues(value), flags)) return Drop();
    ++_result.records;
  }
  void MarkSalvaged() { _result.salvaged = true; }

  SAccountRepair Finish() {
    _store.UnlockWrite();
    _result.done = !_store.WriteFailed() && Flush("a") && RetireOld() && PutIndexInPlace() && PutAttributesInPlace();
    return _result;
  }
  // The index alone, for which the attribute file has to hold what belongs there and nothing else.
  SAccountRepair FinishIndex() {
    _store.UnlockWrite();
    bool const isExact = !_result.salvaged && _result.dropped == 0 && _typeRecords == _result.accounts;
    _result.done = isExact && !_store.WriteFailed() && PutIndexInPlace();
    return _result;
  }

private:
  void Drop() { ++_result.dropped; }

  static bool Flush(char const *part) {
    SSyncBarrier barrier;
    barrier.AddFile(PathOf(kNewStem, part));
    return barrier.Commit() != 0;
  }
  static bool Replace(char const *part) {
    SSyncBarrier barrier;
    barrier.AddParentOf(PathOf(kStem, part));
    return sys::Rename(PathOf(kNewStem, part), PathOf(kStem, part)) == 0 && barrier.Commit();
  }

  // What the journal has that is not in the old files by now is over.
  static bool RetireOld() {
    SJournal journal;
    journal.Init(SString(kStem) + "j");
    return KeepDamaged(PathOf(kStem, "j")) && KeepDamaged(PathOf(kStem, "a")) && journal.Retire();
  }
  static bool PutIndexInPlace() { return Flush("i") && KeepDamaged(PathOf(kStem, "i")) && Replace("i"); }
  // Everybody takes the lock of the attribute file first: once the new one has the name, nobody is held off any more.
  // The journal goes just before, no sooner, since it tells that the index was not empty.
  static bool PutAttributesInPlace() {
    return (sys::Unlink(PathOf(kStem, "j")) == 0 || errno == ENOENT) && Replace("a");
  }

  SObjectDB _store;
  SAccountRepair _result;
  long _typeRecords = 0;
};

// Takes the attributes, as they are with what the journal has for them, into new files and gives these to finish. Both
// old files are locked meanwhile.
template <class Finish>
SAccountRepair Remake(Finish finish) {
  SDescriptor locks[2];
  for (int i = 0; i < 2; ++i) {  // the attributes first, as everybody does
    locks[i] = SDescriptor(sys::Open(PathOf(kStem, kParts[i]), O_RDWR));
    bool const isMissing = !locks[i].IsOpen() && errno == ENOENT && i == 1;
    if (isMissing) continue;
    if (!locks[i].IsOpen() || sys::Lock(locks[i].Get(), F_WRLCK, 0, 1, true) != 0) return {};
    if (!IsInPlace(locks[i].Get(), PathOf(kStem, kParts[i]))) return {};  // replaced while this waited
  }
  SJournal journal;
  journal.Init(SString(kStem) + "j");
  bool const isReplayed = journal.Replay({PathOf(kStem, "a"), PathOf(kStem, "i")}) != 0;
  Rebuild rebuild;
  SSalvage const read =
      SalvageRecords(PathOf(kStem, "a"), [&](SString const &key, SString const &value) { rebuild.Take(key, value); });
  if (!read.isRead || !read.isKnown) return {};
  if (!read.isWhole || !isReplayed) rebuild.MarkSalvaged();
  return finish(rebuild);
}

}  // namespace

SAccountRepair RepairAccountFiles() {
  return Remake([](Rebuild &rebuild) { return rebuild.Finish(); });
}

SAccountRepair RepairAccountIndex() {
  return Remake([](Rebuild &rebuild) { return rebuild.FinishIndex(); });
}
