#include "brenthaven/lists/slist.h"

#include <algorithm>
#include <array>
#include <climits>
#include <string_view>

#include "brenthaven/accounts/attributes.h"
#include "brenthaven/lists/slistactions.h"
#include "brenthaven/store/sdbfile.h"
#include "brenthaven/text/base.h"

namespace {

constexpr char kListManagerModule[] = "List-Manager";
constexpr char kYes[] = "yes";

// The address of an account that stands behind a list, by the list's attribute that names the account.
SString LinkedAddress(SList const &list, int link) {
  SAccount account;
  return SAccountDB().GetAccountInfo(list.GetString(link), &account) ? account.GetPrimaryAddress() : SString();
}

SString FirstSet(SString const &first, SString const &second, SString const &third) {
  if (first.Length() > 0) return first;
  return second.Length() > 0 ? second : third;
}

constexpr std::array<std::string_view, 9> kDayWords = {"sun", "mon", "tue",   "wed",   "thu",
                                                       "fri", "sat", "daily", "weekly"};
constexpr int kSunday = 0;
constexpr int kDaily = 7;
constexpr int kWeekly = 8;

int DayOf(SString const &word) {
  auto const place = std::find(kDayWords.begin(), kDayWords.end(), word.View());
  return place == kDayWords.end() ? -1 : static_cast<int>(place - kDayWords.begin());
}

}  // namespace

SString SList::GetName() const { return GetString(kAttrListName); }

SString SList::GetListAddress() const { return GetPrimaryAddress(); }

SString SList::GetRequestAddress() const {
  return FirstSet(LinkedAddress(*this, kAttrLinkedManagerAccount), GetString(kAttrListMgrSmtpAddress),
                  "List.Manager@" + GetEnv("DomainName"));
}

SString SList::GetOwnerAddress() const {
  return FirstSet(LinkedAddress(*this, kAttrLinkedOwnerAccount), GetString(kAttrListOwnerSmtpAddress),
                  "Postmaster@" + GetEnv("DomainName"));
}

SStringList SList::GetSubscribers() const { return SAccountDB().IndexLookup(kAttrSubscribedLists, _uid); }

int SList::GetSubscriberCount() const { return SAccountDB().IndexLookupCount(kAttrSubscribedLists, _uid); }

unsigned SList::IsDigestSubscriber(SAccount const &subscriber) const {
  return subscriber.Get(kAttrSubscribedListsDigest).Contains(_uid);
}

unsigned SList::IsListLocked() const { return GetString(kAttrListLocked) == kYes; }

unsigned SList::IsOwnedBy(SString const &uid) const { return Get(kAttrListOwners).Contains(uid); }

unsigned SList::VerifyPassword(SString const &password) const {
  SStringList const owners = Get(kAttrListOwners);
  return std::any_of(owners.begin(), owners.end(), [&password](SString const &uid) {
    SAccount owner;
    return SAccountDB().GetAccountInfo(uid, &owner) && owner.VerifyPassword(password, 1);
  });
}

int SListDB::GetByUID(SString const &uid, SList *list, unsigned int) {
  SList found;
  if (!GetAccountInfo(uid, &found) || found.GetName().Length() == 0) return 0;
  if (list != nullptr) *list = found;
  return 1;
}

SString SListDB::FindList(SString const &uidOrName) {
  if (GetByUID(uidOrName, nullptr, 0)) return uidOrName;
  return uidOrName.Length() > 0 ? _IndexLookupSingle(kAttrListName, LowerCase(uidOrName)) : SString();
}

SStringList SListDB::GetListUIDs() {
  SAccountReadScope const scope;
  SStringList uids;
  for (SString const &name : IndexList(kAttrListName)) uids.Push(IndexLookup(kAttrListName, name));
  return uids;
}

SStringList SListDB::GetSubscribedListUIDs(SString const &uid) {
  SAccount subscriber;
  return GetAccountInfo(uid, &subscriber) ? subscriber.Get(kAttrSubscribedLists) : SStringList();
}

SStringList SListDB::GetSubscribedListNames(SString const &uid) {
  SStringList names;
  SList list;
  for (SString const &listUID : GetSubscribedListUIDs(uid))
    if (GetByUID(listUID, &list, 0)) names.Push(list.GetName());
  return names;
}

SStringList SListDB::GetAvailableLists(SString const &uid) {
  SStringList available;
  SAccount account;
  if (!GetAccountInfo(uid, &account)) return available;
  SString const primary = account.GetPrimaryAddress();
  S821Address const address(primary[0] == '<' ? primary : "<" + primary + ">");
  SList list;
  for (SString const &listUID : GetListUIDs())
    if (GetByUID(listUID, &list, 0) && !list.IsListLocked() &&
        SListActions(nullptr, listUID, address).AllowedToSubscribe())
      available.Push(listUID);
  return available;
}

SString SListDB::GetSubscriberUID(S821Address const &address) {
  SString uid = GetAccountUID(address);
  return uid.Length() > 0 ? uid : _IndexLookupSingle(kAttrRemoteSmtpAddress, _MapAddress(address));
}

SString SListDB::MapAddrToUID(S821Address const &address) {
  SString uid = GetAccountUID(address);
  if (uid.Length() == 0 || GetByUID(uid, nullptr, 0)) return uid;
  for (int link : {kAttrLinkedManagerAccount, kAttrLinkedOwnerAccount})
    for (SString const &listUID : IndexLookup(link, uid))
      if (GetByUID(listUID, nullptr, 0)) return listUID;
  return SString();
}

SString BareAddress(S821Address const &address) {
  return address.Domain().Length() > 0 ? address.LocalPart() + "@" + address.Domain() : address.LocalPart();
}

unsigned int ParseListDeliverySpec(SString const &spec, int &hours, int &day) {
  constexpr long kGreatestHour = INT_MAX / 2;  // leaves room for the halves of the day behind it
  hours = 0;
  day = kDaily;
  for (SString const &word : LowerCase(spec).Split(' ')) {
    if (word.Length() == 0) continue;
    long const number = word.AsLong();
    if (number > 0) {
      hours = number == 12 ? 0 : static_cast<int>(std::min(number, kGreatestHour));
      if (word.Index('p') >= 0) hours += 12;
      continue;
    }
    if (int const found = DayOf(word); found >= 0)
      day = found == kWeekly ? kSunday : found;
    else if (word[0] == 'p')
      hours = std::min(hours, INT_MAX - 12) + 12;
    else if (word[0] != 'a')
      return 0;
  }
  return 1;
}

unsigned int ListLoggingEnabled(SString const &key) {
  Sdbfile settings(kListManagerModule, 0, kProductWord);
  return settings.Open("Log", 0) && settings.Get(key).Get(0) == kYes;
}
