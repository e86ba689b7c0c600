// The writing side of accounts: SAccountMod, SAccountDBMod.
#include "brenthaven/accounts/account.h"
#include "brenthaven/accounts/accountdb.h"
#include "brenthaven/accounts/accountstore.h"
#include "brenthaven/accounts/auxpassword.h"
#include "brenthaven/accounts/passwords.h"
#include "brenthaven/accounts/safeuid.h"
#include "brenthaven/accounts/special.h"
#include "brenthaven/accounts/storedpassword.h"

namespace {

constexpr int kNoIndex = 1;  // the flag of SObjectDB::SetAttrib

// What other accounts say about an account by its UID.
constexpr int kMentions[] = {kAttrAccountDelivery, kAttrSubscribedLists, kAttrSubscribedListsImmediate,
                             kAttrSubscribedListsDigest, kAttrListOwners};
// The accounts that exist for a list alone.
constexpr int kLinks[] = {kAttrLinkedManagerAccount, kAttrLinkedOwnerAccount};

SObjectDB &Store() { return accountstore::Objects(); }

// Takes away the copy of a password that can be deciphered: it would go on to be good. False when it is still there.
bool RemoveCopy(SString const &uid) {
  SAuxPassword copies;
  return copies.DeletePassword(uid) != 0 || !copies.GetPassword(uid).Defined();  // most often there is none
}

// Takes every occurrence of an item out of a list; whether there was one.
bool Remove(SStringList &list, SString const &item) {
  bool found = false;
  while (list.Delete(item) != 0) found = true;
  return found;
}

}  // namespace

SAccountMod::~SAccountMod() { _End(); }

void SAccountMod::_End() {
  if (_deleteOnEnd != 0) (void)Store().Delete(_uid);  // nobody left to tell; the next change of the account meets it
  _deleteOnEnd = 0;
}

void SAccountMod::_Take(SString const &uid) {
  _End();
  _uid = uid;
}

int SAccountMod::Set(int attribute, SStringList const &values) {
  if (attribute < 0 || _uid.Length() == 0) return 0;
  switch (attribute) {
    case kAttrPassword:
      return _SetPassword(values.Get(0));
    case kAttrRawPassword:
      return _SetStoredPassword(values);
    case kAttrSubscribedLists:
      if (IsRemoteAcct() != 0) _deleteOnEnd = values.Length() == 0;
      return _Store(attribute, values);
    case kAttrProgDelPassword:
      if (values.Get(0).Length() > 0) return _Store(attribute, SStringList(Scramble(values.Get(0), 0)));
      return _Store(attribute, values);
    default:
      return _Store(attribute, values);
  }
}

int SAccountMod::Set(SString const &name, SStringList const &values) { return Set(_MapAttrib(name), values); }

// The hash first: a password that can't be hashed must not leave a readable copy of itself.
int SAccountMod::_SetPassword(SString const &plain) {
  accountstore::ReadWatch const reads;
  SString const scheme = accountstore::Setting("PasswordScheme");
  bool const keepCopy = accountstore::Setting("AuxPasswordStore") != "no";
  if (reads.Failed()) return 0;
  SString const stored = MakeStoredPassword(plain, scheme);
  if (!stored.Defined()) return 0;
  if (IsTemplateUID(_uid)) return _Store(kAttrPassword, SStringList(stored));
  if (plain.Length() == 0) return 0;
  if (!keepCopy) return _SetStoredPassword(SStringList(stored));
  return SAuxPassword().SetPassword(_uid, plain) != 0 && _Store(kAttrPassword, SStringList(stored)) != 0;
}

int SAccountMod::_SetStoredPassword(SStringList const &values) {
  return (IsTemplateUID(_uid) || RemoveCopy(_uid)) && _Store(kAttrPassword, values) != 0;
}

int SAccountMod::_Store(int attribute, SStringList const &values) {
  return Store().SetAttrib(attribute, _uid, values, IsTemplateUID(_uid) ? kNoIndex : 0) != 0;
}

int SAccountMod::Delete(int attribute) {
  if (attribute == kAttrPassword && !IsTemplateUID(_uid) && !RemoveCopy(_uid)) return 0;
  return Store().DeleteAttrib(attribute, _uid) != 0;
}

int SAccountMod::Delete(SString const &name) { return Delete(_MapAttrib(name)); }

int SAccountMod::Lock() { return Set(kAttrLocked, SStringList("yes")); }

int SAccountMod::Unlock() { return Delete(kAttrLocked); }

SAccountDBMod::SAccountDBMod() { accountstore::LockWrite(); }

SAccountDBMod::~SAccountDBMod() { accountstore::UnlockWrite(); }

unsigned SAccountDBMod::Commit() { return accountstore::Objects().Commit(); }

int SAccountDBMod::ModifyAccount(SString const &uid, SAccountMod *account) {
  if (GetAccountInfo(uid, nullptr) == 0) {
    if (IsSafeUID(uid) == 0 || Store().Create(uid, accountstore::kAccountType) == 0) return 0;
    if (account == nullptr) return 1;
  }
  account->_Take(uid);
  return 1;
}

int SAccountDBMod::DeleteAccount(SString const &uid) {
  if (uid.Length() == 0) return 0;
  for (int attribute : kMentions) {
    for (SString const &holderUID : _IndexLookupMultiple(attribute, uid)) {
      SAccountMod holder;
      holder._Take(holderUID);
      SStringList values = holder.Get(attribute);
      if (Remove(values, uid)) (void)holder.Set(attribute, values);  // a mention that stays names nobody
    }
  }
  for (int attribute : kLinks)
    for (SString const &linked : Store().GetAttrib(attribute, uid))
      (void)Store().Delete(linked);  // may be gone already
  return RemoveCopy(uid) && Store().Delete(uid) != 0;
}

void SAccountDBMod::ReOpenDB(SString stem) { accountstore::PointAt(stem); }
