#include "brenthaven/accounts/accountstore.h"

#include <array>

#include "brenthaven/accounts/attributes.h"
#include "brenthaven/text/base.h"

namespace {

constexpr char kStem[] = "BTAccounts.";

// The table as the object database takes it: a row's number is its place, and a null name ends it.
constexpr auto kRows = [] {
  std::array<_Attribute, kAttrCount + 1> rows{};
  for (attributes::Row const &row : attributes::kTable) rows[row.number] = {row.name.data(), row.flags};
  return rows;
}();

struct SStore {
  SStore() { objects.SetSecret(true); }

  SObjectDB objects{kStem, 0, kRows.data()};
  int depth = 0;        // of nested write sections
  SString pendingStem;  // undefined: none
};

SStore &Store() {
  static SStore store;
  return store;
}

}  // namespace

namespace accountstore {

SObjectDB &Objects() { return Store().objects; }

_Attribute const *Table() { return kRows.data(); }

void LockWrite() {
  if (++Store().depth == 1) Store().objects.SetJournaled(GetEnv("AccountJournal") != "no");
  Store().objects.LockWrite();
}

void UnlockWrite() {
  SStore &store = Store();
  store.objects.UnlockWrite();
  if (--store.depth > 0 || !store.pendingStem.Defined()) return;
  store.objects.Init(store.pendingStem, 0, kRows.data());
  store.pendingStem.Undef();
}

void PointAt(SString const &stem) {
  SStore &store = Store();
  store.pendingStem = stem.Length() > 0 ? stem : SString(kStem);
}

Sdbfile &Settings() {
  static auto *settings = new Sdbfile("MTA-Accounts", 0, kProductWord);
  return *settings;
}

int OpenSettings(int flags) { return Settings().Open("/", flags); }

SString Setting(char const *key) { return OpenSettings(0) != 0 ? Settings().Get(key).Get(0) : SString(); }

}  // namespace accountstore
