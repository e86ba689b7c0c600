#include "brenthaven/accounts/check.h"

#include "brenthaven/accounts/attributes.h"
#include "brenthaven/accounts/special.h"
#include "brenthaven/store/sbtree.h"
#include "brenthaven/store/sobjectdb.h"
#include "brenthaven/text/sstringlist.h"

namespace {

constexpr char kNul = '\0';

bool IsTemplate(SString const &uid) { return uid == kDefaultUID || uid.HasPrefix("Default-"); }

// One check: the two files, opened for reading only, and what has been found so far.
struct Check {
  SBTree attributes{"BTAccounts.a", 0};
  SBTree index{"BTAccounts.i", 0};
  std::function<void(SString const &)> const &report;
  SAccountCheck result = {};

  void Fault(SString const &uid, int attribute, char const *what) {
    SString const name = attribute >= 0 && attribute < kAttrCount
                             ? SString(attributes::kTable[attribute].name)
                             : "attribute " + MakeSString(attribute);
    ++result.faults;
    report(uid + ": " + name + ": " + what);
  }
  void AttributeRecord(SString const &key, SString const &value);
  void IndexRecord(SString const &key);
};

// "name NUL attribute" and its values: every one that is indexed must have its entry.
void Check::AttributeRecord(SString const &key, SString const &value) {
  ++result.attributes;
  int const end = key.Length() - 2;
  SString const uid = key.Segment(0, end);
  int const attribute = static_cast<unsigned char>(key[-1]);
  if (end <= 0 || key[end] != kNul || attribute >= kAttrCount) return Fault(uid, attribute, "not a record of this store");
  if (attribute != kAttrType && !attributes.Get(uid + kNul + static_cast<char>(kAttrType)).Defined())
    Fault(uid, attribute, "belongs to no account");
  unsigned const flags = attributes::kTable[attribute].flags;
  if (flags == 0 || IsTemplate(uid)) return;
  for (SString const &item : SObjectDB::SplitValues(value)) {
    SString const canonical = SObjectDB::CanonicalValue(flags, item);
    if (canonical.Length() > 0 && !index.Get(SString(static_cast<char>(attribute), 1) + canonical + kNul + uid).Defined())
      Fault(uid, attribute, "a value is missing in the index");
  }
}

// "attribute value NUL name": the object must hold the value.
void Check::IndexRecord(SString const &key) {
  ++result.entries;
  int const attribute = static_cast<unsigned char>(key[0]);
  size_t const end = key.View().rfind(kNul);
  if (attribute >= kAttrCount || end == std::string_view::npos || end == 0)
    return Fault("?", attribute, "not an entry of this index");
  SString const canonical(key.View().substr(1, end - 1));
  SString const uid(key.View().substr(end + 1));
  unsigned const flags = attributes::kTable[attribute].flags;
  for (SString const &item : SObjectDB::SplitValues(attributes.Get(uid + kNul + static_cast<char>(attribute))))
    if (SObjectDB::CanonicalValue(flags, item) == canonical) return;
  Fault(uid, attribute, "the index has a value that the account lacks");
}

}  // namespace

SAccountCheck CheckAccountFiles(std::function<void(SString const &fault)> const &report) {
  Check check{.report = report};
  check.attributes.LockRead();  // holds writers off both files: they take this one first
  SString key;
  for (SString value = check.attributes.SeqFirstJJ(key); value.Defined(); value = check.attributes.SeqNext(key))
    check.AttributeRecord(key, value);
  for (SString value = check.index.SeqFirstJJ(key); value.Defined(); value = check.index.SeqNext(key))
    check.IndexRecord(key);
  check.attributes.UnlockRead();
  return check.result;
}
