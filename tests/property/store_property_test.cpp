// The stores against maps in memory.
#include <bit>
#include <map>
#include <set>

#include "brenthaven/store/sobjectdb.h"
#include "tests/property/property.h"
#include "tests/support/scratch.h"
#include "tests/support/texts.h"

namespace {

using Records = std::map<std::string, std::string>;

class StoreProperty : public ScratchSpool {
protected:
  static void ExpectWalk(SBTree &tree, Records const &want) {
    SString key;
    auto at = want.begin();
    for (SString value = tree.SeqFirstJJ(key); value.Defined(); value = tree.SeqNext(key), ++at) {
      ASSERT_NE(at, want.end());
      ASSERT_TRUE(Text(key) == at->first && Text(value) == at->second) << at->first.substr(0, 20);
    }
    ASSERT_EQ(at, want.end());
    ASSERT_FALSE(tree.ReadFailed());
  }
  static void ExpectEachFound(SBTree &tree, Records const &want) {
    for (auto const &[key, value] : want) ASSERT_TRUE(tree.Get(Bytes(key)) == Bytes(value)) << key.substr(0, 20);
    ASSERT_FALSE(tree.ReadFailed());
  }
};

// Lengths around the sizes at which a value leaves its page, and at which it needs one more page of its own.
int LengthNearAPage(SChoices &choices) {
  static constexpr int kEdges[] = {0, 20, 2700, 4060, 5429, 8160, 16364, 16384, 32728};
  return std::max(0, choices.Of(kEdges) + choices.Below(25) - 12);
}

// 2,000 operations with the default number of cases.
TEST_F(StoreProperty, TreeHoldsWhatAMapHolds) {
  Records want;
  SBTree tree("T.tree", 0);
  unsigned section = 0;
  ForEachCase([&](SChoices &choices) {
    tree.LockWrite();
    for (int i = 0; i < 2; ++i) {
      // Most keys are short and many; some are as long as a key may be.
      std::string const key = choices.OneIn(20)
                                  ? std::string(5429 - choices.Below(3), static_cast<char>(choices.Below(256)))
                                  : std::to_string(choices.Below(choices.OneIn(2) ? 100 : 100000));
      if (choices.OneIn(4)) {
        ASSERT_EQ(tree.Delete(Bytes(key)), want.erase(key));
        continue;
      }
      std::string const value(static_cast<size_t>(choices.OneIn(3) ? LengthNearAPage(choices) : choices.Below(100)),
                              static_cast<char>('a' + choices.Below(26)));
      ASSERT_EQ(tree.Set(Bytes(key), Bytes(value)), 1u) << key.size() << ' ' << value.size();
      want[key] = value;
    }
    tree.UnlockWrite();
    ASSERT_FALSE(tree.WriteFailed());
    if (std::has_single_bit(++section)) ExpectWalk(tree, want);
  });
  ExpectWalk(tree, want);
  ExpectEachFound(tree, want);
}

// Ten keys a case: 10,000 with the default number of cases, 1,000,000 in the long form.
TEST_F(StoreProperty, LargeTreeHoldsWhatAMapHolds) {
  static constexpr int kCasesInASection = 250;
  Records want;
  SBTree tree("T.tree", 0);
  int done = 0;
  ForEachCase([&](SChoices &choices) {
    if (done % kCasesInASection == 0) tree.LockWrite();
    for (int i = 0; i < 13; ++i) {
      std::string const key = std::to_string(choices.Below(1'000'000'000));
      if (auto const gone = want.lower_bound(key); choices.OneIn(10) && gone != want.end()) {
        ASSERT_EQ(tree.Delete(Bytes(gone->first)), 1u) << gone->first;
        want.erase(gone);
        continue;
      }
      std::string const value(static_cast<size_t>(choices.OneIn(200) ? LengthNearAPage(choices) : choices.Below(40)),
                              static_cast<char>('a' + choices.Below(26)));
      ASSERT_EQ(tree.Set(Bytes(key), Bytes(value)), 1u) << key;
      want[key] = value;
    }
    if (++done % kCasesInASection != 0) return;
    tree.UnlockWrite();
    ASSERT_FALSE(tree.WriteFailed());
  });
  if (done % kCasesInASection != 0) tree.UnlockWrite();
  ASSERT_FALSE(tree.WriteFailed());
  ExpectWalk(tree, want);
  ExpectEachFound(tree, want);
}

enum { kType, kNote, kName, kAddress, kDelivery, kDomain, kAttributes };
constexpr unsigned kFlags[] = {kAttributeIndexed,
                               0,
                               kAttributeIndexed | kAttributeLowerCase,
                               kAttributeLowerCase | kAttributeAddress | kAttributeUnique,
                               kAttributeLowerCase | kAttributeAddress | kAttributeSecondWord,
                               kAttributeDomain | kAttributeLowerCase};
constexpr _Attribute kTable[] = {{"Type", kFlags[kType]},
                                 {"Note", kFlags[kNote]},
                                 {"Name", kFlags[kName]},
                                 {"Address", kFlags[kAddress]},
                                 {"Delivery", kFlags[kDelivery]},
                                 {"Domain", kFlags[kDomain]},
                                 {nullptr, 0}};

// Objects in memory; who is found by a value is computed anew from all of them.
struct Model {
  std::map<std::string, std::map<int, Texts>> objects;

  static std::string Canonical(int attribute, std::string const &value) {
    return Text(SObjectDB::CanonicalValue(kFlags[attribute], Bytes(value)));
  }
  std::set<std::string> Holders(int attribute, std::string const &value) const {
    std::set<std::string> holders;
    std::string const wanted = Canonical(attribute, value);
    for (auto const &[name, attributes] : objects) {
      auto const found = attributes.find(attribute);
      if (found == attributes.end()) continue;
      for (std::string const &held : found->second) {
        std::string const canonical = Canonical(attribute, held);
        bool const isDomain = (kFlags[attribute] & kAttributeDomain) != 0;
        if (!canonical.empty() && (canonical == wanted || (isDomain && canonical.starts_with(wanted))))
          holders.insert(name);
      }
    }
    return holders;
  }
  bool MaySet(int attribute, std::string const &name, Texts const &values) const {
    if ((kFlags[attribute] & kAttributeUnique) == 0) return true;
    for (std::string const &value : values)
      for (std::string const &holder : Holders(attribute, value))
        if (holder != name) return false;
    return true;
  }
};

TEST_F(StoreProperty, ObjectsAreFoundByTheValuesThatTheyHold) {
  static constexpr char const *kObjects[] = {"ann", "bob", "Bob", "carl", "an"};
  static constexpr char const *kValues[] = {
      "Ann",   "ann", "<a@b.org>", "a@b.org", "SMTP <a@b.org>", "SMTP <A@B.o>", "X <a@b.org> y",
      "b.org", "org", "sub.B.org", "",        "two words",      "xb.org",       "<>",
      "<"};
  SObjectDB store("T.", 0, kTable);
  Model model;
  ForEachCase([&](SChoices &choices) {
    int const attribute = 1 + choices.Below(kAttributes - 1);
    std::string const name = choices.Of(kObjects);
    store.LockWrite();
    if (choices.OneIn(6)) {
      bool const isThere = model.objects.contains(name) && model.objects[name].contains(attribute);
      ASSERT_EQ(store.DeleteAttrib(attribute, Bytes(name)), isThere ? 1u : 0u);
      if (isThere) model.objects[name].erase(attribute);
    } else if (choices.OneIn(15)) {
      store.Delete(Bytes(name));
      model.objects.erase(name);
    } else {
      Texts values;
      for (int i = choices.Below(4); i > 0; --i) values.push_back(choices.Of(kValues));
      bool const may = model.MaySet(attribute, name, values);
      ASSERT_EQ(store.SetAttrib(attribute, Bytes(name), ListOf(values), 0), may ? 1u : 0u)
          << attribute << ' ' << name << ' ' << testing::PrintToString(values);
      if (may) {
        while (!values.empty() && values.back().empty()) values.pop_back();  // these do not come back
        model.objects[name][attribute] = values;
      }
    }
    store.UnlockWrite();
    for (char const *object : kObjects) {
      Texts const want = model.objects.contains(object) && model.objects[object].contains(attribute)
                             ? model.objects[object][attribute]
                             : Texts();
      ASSERT_EQ(List(store.GetAttrib(attribute, object)), want) << attribute << ' ' << object;
    }
    if (kFlags[attribute] != 0)
      for (char const *value : kValues) {
        if (Model::Canonical(attribute, value).empty() || Text(Bytes(value)).empty()) continue;
        Texts const found = List(store.ListByAttrib(attribute, value));
        std::set<std::string> const want = model.Holders(attribute, value);
        ASSERT_EQ(std::set<std::string>(found.begin(), found.end()), want) << attribute << ' ' << value;
        ASSERT_EQ(found.size(), want.size());
      }
  });
}

}  // namespace
