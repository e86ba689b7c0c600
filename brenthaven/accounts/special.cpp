#include "brenthaven/accounts/special.h"

#include <algorithm>
#include <array>
#include <span>
#include <string_view>

#include "brenthaven/accounts/accountdb.h"
#include "brenthaven/accounts/safeuid.h"

namespace {

constexpr char const *kReserved[] = {"List-Manager", "Account-Manager", "Configuration-Manager", "Error-Handler"};
constexpr char kErrorHandlerUID[] = "Error-Handler";

// What a domain-bound account gets its addresses from: without empty domains, and none twice.
struct SDomains {
  SStringList both;  // the secondary one, then the primary one
  SStringList primary;

  SDomains(SString const &first, SString const &second) {
    if (second.Length() > 0 && second.CompareNoCase(first) == 0) both.Push(second);
    if (first.Length() == 0) return;
    both.Push(first);
    primary.Push(first);
  }
};

// The local part of an address that an account has in one domain or in both.
struct SAddressRow {
  char const *local;
  bool inBoth;
};

// An account that a module serves. Its mail goes to the module of the account's own name.
struct SServiceRow {
  char const *uid;
  char const *name;
  int delivery;  // the attribute that names the module
  std::span<SAddressRow const> addresses;
};

constexpr SAddressRow kConfigurationAddresses[] = {{"Configuration", true}};
constexpr SAddressRow kAccountAddresses[] = {{"Accounts", true}, {"Account", false}};
constexpr SAddressRow kErrorAddresses[] = {{"Error-Handler", true}};
constexpr SAddressRow kListAddresses[] = {{"List.Manager", false}, {"Majordomo", false}};

constexpr SServiceRow kServices[] = {
    {"Configuration-Manager", "Configuration Manager", kAttrManagerDelivery, kConfigurationAddresses},
    {"Account-Manager", "Account Manager", kAttrManagerDelivery, kAccountAddresses},
    {kErrorHandlerUID, "Error Handler", kAttrManagerDelivery, kErrorAddresses},
    {"List-Manager", "List Manager", kAttrHandlerDelivery, kListAddresses},
};

// One attribute and its value. A value that ends in "@" is a local part: the primary domain comes behind it, and
// without one the attribute is left unset.
struct SValueRow {
  int attribute;
  char const *value;
};

constexpr SValueRow kServiceValues[] = {
    {kAttrSmtpRewriteStyle, "comment"},
    {kAttrFingerAccess, "none"},
    {kAttrAccessDomains, "none"},
};

constexpr SValueRow kDefaultValues[] = {{kAttrSmtpRewriteStyle, "comment"}};

constexpr SValueRow kDefaultListValues[] = {
    {kAttrListAddressExpansionStyle, "none"},
    {kAttrListModerationMethod, "queue-notify"},
    {kAttrListPriority, "3"},
    {kAttrSmtpRewriteStyle, "comment"},
    {kAttrListRemoveXHeaders, "no"},
    {kAttrListDigestSchedule, "daily"},
    {kAttrListDigestRestriction, "none"},
    {kAttrListLocalSubscriberPolicy, "open"},
    {kAttrListRemoteSubscriberPolicy, "open"},
    {kAttrListVerifySubscriptions, "yes"},
    {kAttrListVerifyUnsubscriptions, "yes"},
    {kAttrListModerateUnsubscriptions, "no"},
    {kAttrListSubscriberPostingPolicy, "open"},
    {kAttrListNonsubscriberPostingPolicy, "open"},
    {kAttrListRequestDetection, "yes"},
    {kAttrListMaxSubscribers, "100"},
    {kAttrListMaxMessagesPerDay, "100"},
    {kAttrListMaxKbytesPerDay, "1000"},
    {kAttrListMaxMessageKbytes, "500"},
    {kAttrAccessDomains, "none"},
};

constexpr char kAllMailboxesManagerUID[] = "All-Mailboxes-Manager-Account";
constexpr char kAllMailboxesOwnerUID[] = "All-Mailboxes-Owner-Account";

constexpr SValueRow kAllMailboxesManagerValues[] = {
    {kAttrHandlerDelivery, "List-Manager"},
    {kAttrName, "All-Mailboxes Manager Account"},
    {kAttrSmtpAddress, "All-Mailboxes-request@"},
    {kAttrManagerListName, kAllMailboxesUID},
};

constexpr SValueRow kAllMailboxesOwnerValues[] = {
    {kAttrName, "All-Mailboxes Owner Account"},
    {kAttrSmtpAddress, "owner-All-Mailboxes@"},
    {kAttrExpandedDelivery, "Accounts List-Owners All-Mailboxes"},
};

constexpr SValueRow kAllMailboxesValues[] = {
    {kAttrListName, kAllMailboxesUID},
    {kAttrHandlerDelivery, "List-Exploder"},
    {kAttrSmtpAddress, "All-Mailboxes@"},
    {kAttrLinkedManagerAccount, kAllMailboxesManagerUID},
    {kAttrLinkedOwnerAccount, kAllMailboxesOwnerUID},
    {kAttrListApprovedPosters, "Postmaster@"},
    {kAttrListOwners, kPostmasterUID},
    {kAttrListShortInfo, "All accounts with POP3 delivery. [Restricted]"},
    {kAttrListAddressExpansionStyle, "none"},
    {kAttrListSubscriberPostingPolicy, "closed"},
    {kAttrListNonsubscriberPostingPolicy, "closed"},
    {kAttrListLocalSubscriberPolicy, "closed"},
    {kAttrListRemoteSubscriberPolicy, "closed"},
    {kAttrListRequestDetection, "yes"},
    {kAttrAccessDomains, "none"},
    {kAttrFingerAccess, "none"},
    {kAttrListStatsMode, "off"},
    {kAttrListVerifySubscriptions, "no"},
    {kAttrListVerifyUnsubscriptions, "no"},
    {kAttrListModerationMethod, "queue-notify"},
    {kAttrListModerateUnsubscriptions, "no"},
    {kAttrListDigestSchedule, "daily"},
    {kAttrListDigestRestriction, "immediate-only"},
    {kAttrListPriority, "3"},
    {kAttrSmtpRewriteStyle, "comment"},
    {kAttrListRemoveXHeaders, "no"},
    {kAttrListMaxSubscribers, "0"},
    {kAttrListMaxMessagesPerDay, "0"},
    {kAttrListMaxKbytesPerDay, "0"},
    {kAttrListMaxMessageKbytes, "0"},
    {kAttrListLocked, "yes"},
};

// Results of Set are dropped here: an attribute that cannot be set, such as an address that somebody has already, is
// left unset, and the installation works on without it.

bool Exists(SAccountDB &store, char const *uid) { return store.GetAccountInfo(uid, nullptr) != 0; }

void SetAddresses(SAccountMod &account, std::span<SAddressRow const> rows, SDomains const &domains) {
  SStringList addresses;
  for (SAddressRow const &row : rows)
    for (SString const &domain : row.inBoth ? domains.both : domains.primary)
      addresses.Push(SString(row.local) + '@' + domain);
  if (addresses.Length() > 0) (void)account.Set(kAttrSmtpAddress, addresses);
}

void SetValues(SAccountMod &account, std::span<SValueRow const> rows, SDomains const &domains) {
  for (SValueRow const &row : rows) {
    SString value = row.value;
    if (value[-1] == '@') {
      if (domains.primary.Length() == 0) continue;
      value += domains.primary.Get(0);
    }
    (void)account.Set(row.attribute, value);
  }
}

void MakeService(SAccountDBMod &store, SServiceRow const &row, SDomains const &domains) {
  SAccountMod account;
  if (Exists(store, row.uid) || store.ModifyAccount(row.uid, &account) == 0) return;
  SetValues(account, std::array{SValueRow{kAttrName, row.name}, SValueRow{row.delivery, row.uid}}, domains);
  SetAddresses(account, row.addresses, domains);
  SetValues(account, kServiceValues, domains);
  (void)account.Lock();
}

void Make(SAccountDBMod &store, char const *uid, std::span<SValueRow const> rows, SDomains const &domains) {
  SAccountMod account;
  if (store.ModifyAccount(uid, &account) != 0) SetValues(account, rows, domains);
}

// An installation whose only address for errors names a machine by its number gets the ones in its domains.
void MendErrorHandler(SAccountDBMod &store, SDomains const &domains) {
  SAccountMod account;
  if (!Exists(store, kErrorHandlerUID) || store.ModifyAccount(kErrorHandlerUID, &account) == 0) return;
  SStringList const addresses = account.Get(kAttrSmtpAddress);
  if (std::all_of(addresses.begin(), addresses.end(), [](SString const &text) { return text.Index('[') >= 0; }))
    SetAddresses(account, kErrorAddresses, domains);
}

void MakeDefaultList(SAccountDBMod &store, SDomains const &domains) {
  if (!Exists(store, kDefaultListUID)) return Make(store, kDefaultListUID, kDefaultListValues, domains);
  SAccountMod account;
  if (store.ModifyAccount(kDefaultListUID, &account) != 0 && account.Get(kAttrAccessDomains).Length() == 0)
    (void)account.Set(kAttrAccessDomains, "none");
}

bool IsWordCharacter(char c) {
  return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_';
}

// The names of devices on file systems that reserve them, whatever their case.
bool IsDeviceName(SString const &name) {
  SString const lower = LowerCase(name);
  if (lower == "con" || lower == "aux" || lower == "prn" || lower == "nul") return true;
  return lower.Length() == 4 && (lower.HasPrefix("lpt") || lower.HasPrefix("com")) && lower[3] >= '1' &&
         lower[3] <= '9';
}

// What a UID is made of before it is compared with the ones that exist.
SString BaseOfUID(SString const &name) {
  constexpr int kRoomForNumber = 10;
  SString base;
  bool inGap = false;
  for (char c : name.View()) {
    if (base.Length() == kMaxUIDLength - kRoomForNumber) break;
    bool const isWord = IsWordCharacter(c);
    if (isWord || !inGap) base += isWord ? c : '_';
    inGap = !isWord;
  }
  if (base.Length() == 0) return "_";
  return IsDeviceName(base) ? '_' + base : base;
}

}  // namespace

SStringList GetReservedAccountList() {
  SStringList list;
  for (char const *uid : kReserved) list.Push(uid);
  return list;
}

SStringList GetSpecialAccountList() {
  SStringList list = GetReservedAccountList();
  for (char const *uid : {kPostmasterUID, kDefaultUID, kDefaultListUID}) list.Push(uid);
  return list;
}

unsigned CreateSpecialAccounts(SString const &primary, SString const &secondary) {
  SDomains const domains(primary, secondary);
  SAccountDBMod store;
  MendErrorHandler(store, domains);
  for (SServiceRow const &row : kServices) MakeService(store, row, domains);
  if (!Exists(store, kDefaultUID)) Make(store, kDefaultUID, kDefaultValues, domains);
  MakeDefaultList(store, domains);
  if (!Exists(store, kAllMailboxesUID)) {
    Make(store, kAllMailboxesManagerUID, kAllMailboxesManagerValues, domains);
    Make(store, kAllMailboxesOwnerUID, kAllMailboxesOwnerValues, domains);
    Make(store, kAllMailboxesUID, kAllMailboxesValues, domains);
  }
  return 1;
}

SString GenerateAccountUID(SString name) {
  SString const base = BaseOfUID(name);
  SAccountDB store;
  SString candidate = base;
  for (int number = 1; candidate == kPostmasterUID || store.GetAccountInfo(candidate, nullptr) != 0; ++number)
    candidate = base + MakeSString(number);
  return candidate;
}

unsigned IsPostmasterForwardee(SString const &uid) {
  if (uid == kPostmasterUID) return 1;
  SAccount postmaster;
  if (SAccountDB().GetAccountInfo(kPostmasterUID, &postmaster) == 0) return 0;
  return postmaster.Get(kAttrAccountDelivery).Contains(uid);
}
