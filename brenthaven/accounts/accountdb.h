// brenthaven/accounts/accountdb.h - finding accounts (SAccountDB) and writing them (SAccountDBMod).
#pragma once
#include "brenthaven/accounts/account.h"
#include "brenthaven/address/address821.h"
#include "brenthaven/address/identifiers.h"
#include "brenthaven/text/sstring.h"
#include "brenthaven/text/sstringlist.h"

// While one lives, all reads of accounts see one state of the store, under one lock in place of one for each. Writers
// of every process wait for its end, so it spans look-ups and nothing slow, and no write section begins inside. Nests.
class SAccountReadScope {
public:
  SAccountReadScope();
  SAccountReadScope(SAccountReadScope const &) = delete;
  SAccountReadScope &operator=(SAccountReadScope const &) = delete;
  ~SAccountReadScope();
};

// Reads the account store. Needs no set-up and costs nothing to make; a store that was never written has no accounts.
class SAccountDB : public SAccountBase {
public:
  // UIDs by what a caller holds. Addresses, names and POP addresses are found whatever their case.
  SString GetAccountUID(S821Address const &address);                // SMTP-Address; undefined if nobody's
  SStringList GetAccountDelUID(S821Address const &address);         // Channel-Delivery: who delivers there
  SString GetAccountUID(SPopName const &name);                      // POP-Address; undefined if nobody's
  SStringList GetAccountUID(SAccountName const &name);              // Name: people may share one
  SStringList GetAccountUID(SString const &uid);                    // Account-Delivery: who delivers to that account
  SStringList GetAccountUID(SGroupName const &name);                // nobody: there are no groups
  SString GetAccountUID(char const *kind, SString const &address);  // SMTP-Address local@domain; kind is "SMTP"

  // 1 when there is such an account; `account`, if not null, then reads it. 0 for an empty UID.
  int GetAccountInfo(SString const &uid, SAccount *account);
  SStringList AccountUIDList();
  int AccountUIDCount();
  SStringList GetNameList();  // the distinct values of Name, in lower case, sorted

  // The index by attribute. Values come as they stand in the index, in its canonical form and order; an unknown
  // attribute has no values. The list parameters are replaced: values and, at the same places, UIDs.
  SStringList IndexLookup(int attribute, SString const &value);
  SStringList IndexLookup(SString const &attributeName, SString const &value);
  int IndexLookupCount(int attribute, SString const &value) const;
  int IndexLookupCount(SString const &attributeName, SString const &value) const;
  // Values that begin with `prefix`, which is taken as it is: lower case for an attribute that is indexed so. A value
  // with a byte of 0x7F or above right behind the prefix is not found.
  void IndexPrefixList(int attribute, SString const &prefix, SStringList *values, SStringList *uids) const;
  void IndexPrefixList(SString const &attributeName, SString const &prefix, SStringList *values,
                       SStringList *uids) const;
  // Values from `low` up to but not including `high`.
  void IndexRangeList(int attribute, SString const &low, SString const &high, SStringList *values,
                      SStringList *uids) const;
  void IndexRangeList(SString const &attributeName, SString const &low, SString const &high, SStringList *values,
                      SStringList *uids) const;
  // The first `limit` pairs of such a range, and `low` moved behind them, for walks that stop early or are long: each
  // call takes the lock for itself. Empty lists are the end.
  void IndexSlice(int attribute, SString &low, SString const &high, int limit, SStringList *values,
                  SStringList *uids) const;
  SStringList IndexList(int attribute);  // distinct values
  SStringList IndexList(SString const &attributeName);
  int IndexListCount(int attribute);
  int IndexListCount(SString const &attributeName);

  int ListCount();       // mailing lists, without All-Mailboxes
  int LocalUserCount();  // accounts with a mailbox of their own: the distinct values of POP-Address

  // Settings of MTA-Accounts, read at each call: LocalMailDomains, LdapAuthDomains.
  SStringList GetLocalMailDomains();
  SStringList GetLdapAuthDomains();
  // How many users, lists and subscribers of one list the installation allows: UserLimit, ListLimit,
  // ListSubscriberLimit of MTA-Accounts. 0, absent or no number: no limit.
  int GetUserLimit();
  int GetListLimit();
  int GetListSubscriberLimit();

  // Copies both files beside themselves under these suffixes, or ".backup"; holds off all writers meanwhile.
  unsigned BackupDB(SString const &attributeSuffix, SString const &indexSuffix) const;
  // Opens both files anew. Reads look for other processes' changes by themselves; this drops what is cached as well.
  void DBReOpen();
  void CloseAccountDB();  // nothing: the store is closed with the process
};

// Holds the write lock on the whole store for its whole life: one account's change holds off all processes. Nests.
class SAccountDBMod : public SAccountDB {
public:
  SAccountDBMod();
  ~SAccountDBMod();
  SAccountDBMod(SAccountDBMod const &) = delete;
  SAccountDBMod &operator=(SAccountDBMod const &) = delete;

  // Brings what was changed so far to disk, both files or neither, and keeps the lock: 1, or 0 with the changes gone.
  // The end does the same and can't tell; SAccountBase::WriteFailed does. Inside another section 1, with nothing done.
  unsigned Commit();
  // Makes the account when it is missing, and lets `account` write it. `account` may be null only for a new one. 0 for
  // an empty UID, a new one that is no safe name of a directory (safeuid.h), and a failed write.
  int ModifyAccount(SString const &uid, SAccountMod *account);
  // Deletes the account, the mention of it in other accounts' delivery, subscriptions and owners, the accounts of its
  // list's managers and owners, and its readable password. 1 when it was there and is gone.
  int DeleteAccount(SString const &uid);
  // Points the process at other files, "a" and "i" behind the stem; an empty stem means BTAccounts. again. Inside a
  // write section, which this object is, the change waits for the section's end: the lock belongs to the old files.
  void ReOpenDB(SString stem);
};
