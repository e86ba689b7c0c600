#include "brenthaven/exploder/readers.h"

#include <algorithm>

#include "brenthaven/accounts/accountdb.h"
#include "brenthaven/accounts/attributes.h"
#include "brenthaven/accounts/special.h"
#include "brenthaven/text/sstringset.h"

namespace {

constexpr char kMailboxAgent[] = "Mailbox";
constexpr int kLookUpsAtOnce = 256;  // accounts in one read scope, which writers have to wait for

// What the account handler would do more than, or other than, store into the mailbox.
constexpr int kOtherDeliveries[] = {kAttrAccountDelivery, kAttrChannelDelivery,  kAttrHandlerDelivery,
                                    kAttrManagerDelivery, kAttrExpandedDelivery, kAttrArchiveRule};

bool IsPlainMailbox(SAccount const &account) {
  SStringList const agents = account.Get(kAttrLocalDelivery);
  return agents.Length() == 1 && agents.Get(0) == kMailboxAgent &&
         std::none_of(std::begin(kOtherDeliveries), std::end(kOtherDeliveries),
                      [&account](int attribute) { return account.Get(attribute).Length() > 0; });
}

bool StandsBefore(SRemoteReader const &a, SRemoteReader const &b) {
  return a.host == b.host ? a.address < b.address : a.host < b.host;
}

void TakeReader(SAccount const &account, SListReaders &readers) {
  SString const remote = account.GetString(kAttrRemoteSmtpAddress);
  if (remote.Length() == 0)
    return (IsPlainMailbox(account) ? readers.mailboxes : readers.accounts).push_back(account.GetUID());
  S821Address const address("<" + remote + ">");
  // An address that can't be one is the account handler's to report.
  if (!address.IsValid() || address.Domain().Length() == 0) return readers.accounts.push_back(account.GetUID());
  readers.remotes.push_back({LowerCase(address.Domain()), BareAddress(address)});
}

void TakeMailbox(SAccount const &account, SListReaders &readers) {
  if (!IsTemplateUID(account.GetUID()) && account.Get(kAttrLocalDelivery).Contains(kMailboxAgent))
    readers.mailboxes.push_back(account.GetUID());
}

}  // namespace

bool SListReaders::Read(SList const &list, SReaderKind kind) {
  *this = SListReaders();
  SAccountBase::ClearReadFailed();
  SAccountDB store;
  bool const isAll = list.GetUID() == kAllMailboxesUID;
  SStringList const digest = store.IndexLookup(kAttrSubscribedListsDigest, list.GetUID());
  SStringList const uids = isAll                          ? store.AccountUIDList()
                           : kind == SReaderKind::kDigest ? digest
                                                          : list.GetSubscribers();
  SStringSet const others(kind == SReaderKind::kDigest || isAll ? SStringList() : digest);
  for (auto uid = uids.begin(); uid != uids.end();) {
    SAccountReadScope const scope;
    for (int count = 0; count < kLookUpsAtOnce && uid != uids.end(); ++count, ++uid) {
      SAccount account;
      if (others.Contains(*uid) || !store.GetAccountInfo(*uid, &account)) continue;
      (isAll ? TakeMailbox : TakeReader)(account, *this);
    }
  }
  std::sort(mailboxes.begin(), mailboxes.end());
  std::sort(accounts.begin(), accounts.end());
  std::sort(remotes.begin(), remotes.end(), StandsBefore);
  return !SAccountBase::ReadFailed();
}

void SListReaders::DropMailboxesTo(SString const &uid) {
  mailboxes.erase(mailboxes.begin(), std::upper_bound(mailboxes.begin(), mailboxes.end(), uid));
}

void SListReaders::DropAccountsTo(SString const &uid) {
  mailboxes.clear();
  accounts.erase(accounts.begin(), std::upper_bound(accounts.begin(), accounts.end(), uid));
}

void SListReaders::DropRemotesTo(SString const &address) {
  mailboxes.clear();
  accounts.clear();
  SRemoteReader const last = {LowerCase(address.Segment(address.RIndex('@') + 1, address.Length())), address};
  remotes.erase(remotes.begin(), std::upper_bound(remotes.begin(), remotes.end(), last, StandsBefore));
}
