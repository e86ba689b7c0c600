#include "brenthaven/accounts/check.h"

#include <string>
#include <unordered_map>
#include <unordered_set>

#include "brenthaven/accounts/attributes.h"
#include "brenthaven/accounts/special.h"
#include "brenthaven/store/sbtree.h"
#include "brenthaven/store/sobjectdb.h"
#include "brenthaven/text/sstringlist.h"

namespace {

constexpr char kNul = '\0';

// Values from which on a record is kept, taken apart: each of its entries is looked up in it, and to take it apart for
// each would cost the square of their number.
constexpr int kManyValues = 32;

// Whether values of this attribute of the account stand in the index.
bool IsIndexed(SString const &uid, int attribute) {
  return attributes::kTable[attribute].flags != 0 && (attribute == kAttrType || !IsTemplateUID(uid));
}

SString Byte(int number) { return SString(static_cast<char>(number), 1); }

// One check: the two files, opened for reading only, and what has been found so far.
struct Check {
  SBTree attributes{"BTAccounts.a", 0};
  SBTree index{"BTAccounts.i", 0};
  std::function<void(SString const &)> const &report;
  SAccountCheck result = {};
  std::unordered_map<std::string, std::unordered_set<std::string>> large = {};  // canonical values, by attribute key

  void Fault(SString const &uid, int attribute, char const *what) {
    SString const name = attribute >= 0 && attribute < kAttrCount ? SString(attributes::kTable[attribute].name)
                                                                  : "attribute " + MakeSString(attribute);
    ++result.faults;
    report(uid + ": " + name + ": " + what);
  }
  void AttributeRecord(SString const &key, SString const &value);
  void IndexRecord(SString const &key);
  bool Holds(SString const &uid, int attribute, SString const &canonical);
};

// "name NUL attribute" and its values: every one that is indexed must have its entry.
void Check::AttributeRecord(SString const &key, SString const &value) {
  ++result.attributes;
  int const end = key.Length() - 2;
  SString const uid = key.Segment(0, end);
  int const attribute = static_cast<unsigned char>(key[-1]);
  if (end <= 0 || key[end] != kNul || attribute >= kAttrCount)
    return Fault(uid, attribute, "not a record of this store");
  if (attribute != kAttrType && !attributes.Get(uid + kNul + Byte(kAttrType)).Defined())
    Fault(uid, attribute, "belongs to no account");
  if (!IsIndexed(uid, attribute)) return;
  SStringList const items = SObjectDB::SplitValues(value);
  auto *const kept = items.Length() >= kManyValues ? &large[std::string(key.View())] : nullptr;
  for (SString const &item : items) {
    SString const canonical = SObjectDB::CanonicalValue(attributes::kTable[attribute].flags, item);
    if (kept != nullptr) kept->emplace(canonical.View());
    if (canonical.Length() > 0 && !index.Get(Byte(attribute) + canonical + kNul + uid).Defined())
      Fault(uid, attribute, "a value is missing in the index");
  }
}

// "attribute value NUL name": the object must hold the value.
void Check::IndexRecord(SString const &key) {
  ++result.entries;
  int const attribute = static_cast<unsigned char>(key[0]);
  size_t const end = key.View().rfind(kNul);
  if (attribute >= kAttrCount || attributes::kTable[attribute].flags == 0 || end == std::string_view::npos || end < 2)
    return Fault("?", attribute, "not an entry of this index");
  SString const canonical(key.View().substr(1, end - 1));
  SString const uid(key.View().substr(end + 1));
  if (!IsIndexed(uid, attribute))
    Fault(uid, attribute, "the index has a value of a template");
  else if (!Holds(uid, attribute, canonical))
    Fault(uid, attribute, "the index has a value that the account lacks");
}

bool Check::Holds(SString const &uid, int attribute, SString const &canonical) {
  SString const key = uid + kNul + Byte(attribute);
  if (auto const kept = large.find(std::string(key.View())); kept != large.end())
    return kept->second.contains(std::string(canonical.View()));
  for (SString const &item : SObjectDB::SplitValues(attributes.Get(key)))
    if (SObjectDB::CanonicalValue(attributes::kTable[attribute].flags, item) == canonical) return true;
  return false;
}

}  // namespace

SAccountCheck CheckAccountFiles(std::function<void(SString const &fault)> const &report) {
  Check check{.report = report};
  check.attributes.SetSecret(true);
  check.index.SetSecret(true);
  check.attributes.LockRead();  // holds writers off both files: they take this one first
  SString key;
  for (SString value = check.attributes.SeqFirstJJ(key); value.Defined(); value = check.attributes.SeqNext(key))
    check.AttributeRecord(key, value);
  for (SString value = check.index.SeqFirstJJ(key); value.Defined(); value = check.index.SeqNext(key))
    check.IndexRecord(key);
  check.attributes.UnlockRead();
  check.result.readFailed = (check.attributes.ReadFailed() | check.index.ReadFailed()) != 0;
  return check.result;
}
