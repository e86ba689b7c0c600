#include "brenthaven/accounts/alias.h"

#include "brenthaven/accounts/accountstore.h"

namespace {

constexpr char kOuterSection[] = "/SMTP-Address";
constexpr char kInnerSection[] = "Aliases";
constexpr char kSection[] = "/SMTP-Address/Aliases";
constexpr int kCreate = 1;  // make what is missing, and write

// The name under which an address's aliases stand.
SString KeyOf(S821Address const &address) { return LowerCase(address.Get()); }

}  // namespace

// Each operation starts at the module's key: a cursor whose module was not there at first would otherwise take the
// section itself for its root and not find it again.

SStringList SAliasDB::GetChannelAliases(S821Address const &address) {
  Sdbfile *const table = _GetMTAAccounts();
  if (accountstore::OpenSettings(0) == 0 || table->Open(kSection, 0) == 0) return SStringList();
  return table->Get(KeyOf(address));
}

SStringList SAliasDB::GetAliases() {
  Sdbfile *const table = _GetMTAAccounts();
  if (accountstore::OpenSettings(0) == 0 || table->Open(kSection, 0) == 0) return SStringList();
  return table->Values();
}

unsigned SAliasDBMod::AddChannelAliases(S821Address const &address, SStringList const &aliases) {
  Sdbfile *const table = _GetMTAAccounts();
  if (accountstore::OpenSettings(kCreate) == 0) return 0;
  if (table->Open(kOuterSection, kCreate) == 0 || table->Open(kInnerSection, kCreate) == 0) return 0;
  return table->Set(KeyOf(address), aliases) != 0;
}

unsigned SAliasDBMod::DeleteChannelAliases(S821Address const &address) {
  Sdbfile *const table = _GetMTAAccounts();
  if (accountstore::OpenSettings(kCreate) == 0 || table->Open(kSection, kCreate) == 0) return 0;
  return table->DeleteValue(KeyOf(address)) != 0;
}
