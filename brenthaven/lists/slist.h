// brenthaven/lists/slist.h - mailing lists as they stand in the account store: finding them (SListDB), reading one
// (SList).
//
// A list is an account with a List-Name. Its settings are attributes of that account; who belongs to it stands on the
// other side, in Subscribed-Lists of each subscriber, and in Subscribed-Lists-Immediate or Subscribed-Lists-Digest
// besides. A subscriber without a mailbox here has an account all the same, with Remote-SMTP-Address, which lives as
// long as its last subscription. What counts or waits for an answer is in the list's state file (sliststate.h).
#pragma once
#include "brenthaven/accounts/account.h"
#include "brenthaven/accounts/accountdb.h"
#include "brenthaven/address/address821.h"
#include "brenthaven/text/sstring.h"
#include "brenthaven/text/sstringlist.h"

// One list, read by SListDB::GetByUID. Like every account it holds no data: each call goes to the store.
class SList : public SAccount {
public:
  SList() = default;
  explicit SList(unsigned int) {}  // 0; there is one way to read a list

  SString GetName() const;  // List-Name
  // local@domain. What is not set falls back on what is: an unset request or owner address is the list's own.
  SString GetListAddress() const;     // where postings go
  SString GetRequestAddress() const;  // where commands and keys go: the address of Linked-Manager-Account
  SString GetOwnerAddress() const;    // the address of Linked-Owner-Account

  SStringList GetSubscribers() const;                             // UIDs, in the index's order; linear in their number
  int GetSubscriberCount() const;                                 // linear as well, without a list of them
  unsigned IsDigestSubscriber(SAccount const &subscriber) const;  // gets the digest, not each posting

  unsigned IsListLocked() const;                 // List-Locked says "yes"; has nothing to do with SAccount::IsLocked
  unsigned IsOwnedBy(SString const &uid) const;  // whether the account stands in List-Owners
  // 1 when it is the password of any account in List-Owners; never for an empty one.
  unsigned VerifyPassword(SString const &password) const;
};

// Finds lists and subscribers.
class SListDB : public SAccountDB {
public:
  SListDB() = default;
  explicit SListDB(unsigned int) {}  // 0

  // 1 when that account is a list, which list, if not null, then reads. The last argument is 0.
  int GetByUID(SString const &uid, SList *list, unsigned int);
  // The UID of the list with this UID, or else with this List-Name, whatever the name's case; empty when there is none.
  SString FindList(SString const &uidOrName);
  SStringList GetListUIDs();  // of all lists, All-Mailboxes among them, in order of their names

  // The lists that an account belongs to, and their names; a list that is gone has no name.
  SStringList GetSubscribedListUIDs(SString const &uid);
  SStringList GetSubscribedListNames(SString const &uid);
  // UIDs of the lists that are not locked and would let that account's primary address subscribe, in the order of
  // GetListUIDs. Those that it belongs to are among them.
  SStringList GetAvailableLists(SString const &uid);

  // The account of a subscriber: by SMTP-Address, or else by Remote-SMTP-Address; empty when the address has none.
  SString GetSubscriberUID(S821Address const &address);
  // The list that an address belongs to: the list's own, or that of its manager's or owners' account. Empty if none's.
  SString MapAddrToUID(S821Address const &address);
};

// local@domain: an address as state files, keys, logs and texts have it.
SString BareAddress(S821Address const &address);

// A digest schedule such as "daily 6pm", "mon 12 am", "weekly": 1 when it makes sense. hours is the hour of the day;
// day is 0 for Sunday to 6 for Saturday, 7 for every day; without words hours is 0 and day is 7. Hours are not held
// within the day: "13 pm" gives 25, which a caller takes as never reached.
unsigned int ParseListDeliverySpec(SString const &spec, int &hours, int &day);

// Whether the settings of the list manager turn on the log lines of one kind, such as "Subscriptions".
unsigned int ListLoggingEnabled(SString const &key);
