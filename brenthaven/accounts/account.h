// brenthaven/accounts/account.h - one account: its attributes read (SAccount) and written (SAccountMod).
//
// Accounts, mailing lists among them, are the objects of type 1 in one object database for the whole installation,
// BTAccounts.a and BTAccounts.i in config/ below Brenthaven. No class here has virtual operations or keeps data of an
// account: every read goes to the store, takes its read lock, and sees what other processes have written.
#pragma once
#include "brenthaven/accounts/attributes.h"
#include "brenthaven/text/sstring.h"
#include "brenthaven/text/sstringlist.h"

class S821Address;
class Sdbfile;
struct SLogonPlan;

// What the account classes have in common: names of attributes, lookups in the index, and the settings of the store as
// a whole, which are the configuration module MTA-Accounts.
class SAccountBase {
public:
  // 1 when, since the last ClearReadFailed, the account store or MTA-Accounts could not be read for another reason than
  // that something is absent: descriptors used up, an I/O error, a damaged page, a file that is open to others. Every
  // operation then answers as if the thing were absent, so whoever turns "no such account" or "no such alias" into a
  // refusal looks here first.
  static unsigned ReadFailed();
  static void ClearReadFailed();
  // 1 when pages of the account store could not be written, at the latest at the end of a write section: what Set and
  // its like reported as stored may then be missing.
  static unsigned WriteFailed();
  static void ClearWriteFailed();

protected:
  int _MapAttrib(SString const &name) const;        // -1 for a name that is no attribute's
  SString _MapAttrib(int number);                   // "Invalid-Attribute" outside the table
  SString _MapAddress(S821Address const &address);  // local@domain, the form of an address in the index
  // UIDs of the accounts that hold a value: the first one, undefined if there is none; all of them.
  SString _IndexLookupSingle(int attribute, SString const &value) const;
  SStringList _IndexLookupMultiple(int attribute, SString const &value) const;
  // One cursor for the process, made on first use. Not null; where MTA-Accounts does not exist, every Open fails.
  Sdbfile *_GetMTAAccounts();
};

// Why a password was not taken, as SAccount::VerifyPassword tells it.
enum SPasswordError : int {
  kPasswordNoCause = 0,           // the password is wrong, or the method can't be used
  kPasswordConfiguration = -1,    // settings are incomplete, or a text is not UTF-8 or holds a NUL
  kPasswordActiveDirectory = -2,  // Active Directory refused or could not be reached
  kPasswordDirectory = -3,        // LDAP refused or failed, the reader's bind and search included
  kPasswordUserName = -4,         // the Active Directory user or its domain is badly formed
  kPasswordNoEntry = -5,          // the reference directory has no entry for the user
  kPasswordUnreachable = -6,      // no reference directory could be reached
};

// Reads one account. An account that was never found has an empty UID and no attributes.
class SAccount : public SAccountBase {
public:
  SString const &GetUID() const { return _uid; }

  // All values of an attribute; empty for one that the account lacks, and for no attribute at all (below 0, or a name
  // that the table does not have). ProgDel-Password comes uncovered, first value alone.
  SStringList Get(int attribute) const;
  SStringList Get(SString const &name) const;
  SStringList operator[](int attribute) const { return Get(attribute); }
  SStringList operator[](SString const &name) const { return Get(name); }
  // The first value; undefined below 0, empty or undefined when there is none.
  SString GetString(int attribute) const;
  // The names of the attributes that the account has, Type left out. (Not their values.)
  SStringList Values() const;

  unsigned IsLocked() const;          // has a value in Locked, whatever it says
  unsigned IsRemoteAcct() const;      // has a Remote-SMTP-Address
  unsigned IsListAcct() const;        // a list, the account of its managers or the one of its owners
  SString GetPrimaryAddress() const;  // first SMTP-Address, else first Remote-SMTP-Address; local@domain

  // By UID, for callers that need one thing of an account.
  static SStringList GetAddress_s(SString const &uid);  // all SMTP-Address, else all Remote-SMTP-Address
  static SStringList GetAccDoms(SString const &uid);    // Access-Domains
  // Kilobytes; -1 for no limit. Mailbox-Quota of the account where it is above 0, else the environment's
  // DefaultMailboxQuota where that is.
  static int GetMailboxQuota(SString const &uid);
  static int GetPufSwitch(SString const &uid);        // 0 when PUF-Enabled says "no", else 1: a missing value means on
  static SStringList GetPufList(SString const &uid);  // PerUserFilters

  // 1 when the account is managed by one who may manage all of the domains: Postmaster among its Parent-Domains, or an
  // account there whose Managed-Domains contain them all.
  unsigned IsManagedBy(SStringList domains);
  // Whether every domain is contained; 0 without containers, 1 without domains.
  unsigned _DomainsContainedIn(SStringList domains, SStringList containers);
  // Whether the domain is one of the items or lies below one, whole labels only.
  unsigned _DomainContainedIn(SString domain, SStringList containers);

  // 1 when the password is right for the account, by the one method that the account's attributes choose; there is no
  // chain from one method to the next. Always 0 for a locked account and for an empty password. The methods that ask a
  // directory are used only with `external` set. May block for the directory's time-out or the system's logon delay.
  // `error`, which may be null, is left alone for a locked account or an empty password, and else set to an
  // SPasswordError.
  unsigned VerifyPassword(SString const &password, int *error, int external) const;
  unsigned VerifyPassword(SString const &password, int external) const;

protected:
  friend class SAccountDB;
  friend class SAccountDBMod;
  SString _uid;

private:
  // A bind at the server of an LDAP url, with the user's own name: an SBindResult. The flags are of logonplan.h.
  int LdapAuth(SString url, SString user, SString password, int authFlag, int secureFlag) const;
  // Finds the user's entry below the url with the identity of a directory's reader, and binds as that entry: 0 or an
  // SPasswordError. No reader's name and no password: anonymously.
  int LdapAuth2(SString url, SString adminDN, SString adminPassword, SString filter, SString password) const;
  // One of the two, and again for the second server when the first can't be reached: an SPasswordError.
  int _AskDirectory(SLogonPlan const &plan, SString const &password) const;
};

// Writes one account, inside the life of an SAccountDBMod, and ends before it: its end may delete the account.
class SAccountMod : public SAccount {
public:
  SAccountMod() = default;
  ~SAccountMod();
  SAccountMod(SAccountMod const &) = delete;
  SAccountMod &operator=(SAccountMod const &) = delete;

  // Replaces all values of an attribute. 1 when stored; 0 for no attribute, an account that was not found, a unique
  // value that another account holds, and a failed write. The template accounts, "Default" and "Default-...", are
  // written without index, so that no lookup finds them and their unique values are nobody's. Some attributes are more
  // than their values:
  //   Password          the first value is the plain text; its hash is stored, and, but for template accounts, a copy
  //                     that can be deciphered (SAuxPassword). Empty: 0, but a template takes the hash of "".
  //                     PasswordScheme of MTA-Accounts chooses the hash ("md5", "yescrypt", "sha512"; another word
  //                     gives 0); AuxPasswordStore "no" there keeps no copy, and removes one that there was.
  //   Raw-Password      a finished hash, in one of the forms of storedpassword.h, stored as Password. A copy of the
  //                     password before it is removed, since it would stay good for some protocols.
  //   Subscribed-Lists  emptied on an account with Remote-SMTP-Address, which exists for its subscriptions alone, it
  //                     marks the account to be deleted when this object ends; filled again, it takes the mark back.
  //   ProgDel-Password  stored covered (Scramble).
  int Set(int attribute, SStringList const &values);
  int Set(SString const &name, SStringList const &values);
  // Removes an attribute; 0 when the account has none of that name.
  int Delete(int attribute);
  int Delete(SString const &name);
  // Against use of the account; has nothing to do with concurrency. 1 on success.
  int Lock();
  int Unlock();

private:
  friend class SAccountDBMod;
  void _Take(SString const &uid);  // writes that account from now on, after ending the one before
  void _End();                     // deletes the account if it is marked
  int _Store(int attribute, SStringList const &values);
  int _SetPassword(SString const &plain);
  int _SetStoredPassword(SStringList const &values);  // keeps no copy that can be deciphered

  int _deleteOnEnd = 0;
};
