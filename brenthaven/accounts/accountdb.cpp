#include "brenthaven/accounts/accountdb.h"

#include <string_view>

#include "brenthaven/accounts/accountstore.h"
#include "brenthaven/accounts/number.h"
#include "brenthaven/accounts/special.h"

namespace {

SObjectDB &Store() { return accountstore::Objects(); }

// A setting of the store as a whole; empty when it is absent.
SStringList Setting(char const *name) {
  return accountstore::OpenSettings(0) != 0 ? accountstore::Settings().Get(name) : SStringList();
}

int Limit(char const *name) { return PositiveNumber(Setting(name).Get(0)); }

}  // namespace

SAccountReadScope::SAccountReadScope() { Store().LockRead(); }

SAccountReadScope::~SAccountReadScope() { Store().UnlockRead(); }

SString SAccountDB::GetAccountUID(S821Address const &address) {
  return _IndexLookupSingle(kAttrSmtpAddress, _MapAddress(address));
}

SStringList SAccountDB::GetAccountDelUID(S821Address const &address) {
  return _IndexLookupMultiple(kAttrChannelDelivery, _MapAddress(address));
}

SString SAccountDB::GetAccountUID(SPopName const &name) { return _IndexLookupSingle(kAttrPopAddress, name.Get()); }

SStringList SAccountDB::GetAccountUID(SAccountName const &name) { return _IndexLookupMultiple(kAttrName, name.Get()); }

SStringList SAccountDB::GetAccountUID(SString const &uid) { return _IndexLookupMultiple(kAttrAccountDelivery, uid); }

SStringList SAccountDB::GetAccountUID(SGroupName const &) { return SStringList(); }

SString SAccountDB::GetAccountUID(char const *kind, SString const &address) {
  return kind != nullptr && std::string_view(kind) == "SMTP" ? _IndexLookupSingle(kAttrSmtpAddress, address)
                                                             : SString();
}

int SAccountDB::GetAccountInfo(SString const &uid, SAccount *account) {
  if (uid.Length() == 0 || Store().GetType(uid) != accountstore::kAccountType) return 0;
  if (account != nullptr) account->_uid = uid;
  return 1;
}

SStringList SAccountDB::AccountUIDList() { return Store().ListByType(accountstore::kAccountType); }

int SAccountDB::AccountUIDCount() { return Store().CountByType(accountstore::kAccountType); }

SStringList SAccountDB::GetNameList() { return IndexList(kAttrName); }

SStringList SAccountDB::IndexLookup(int attribute, SString const &value) {
  return _IndexLookupMultiple(attribute, value);
}

SStringList SAccountDB::IndexLookup(SString const &attributeName, SString const &value) {
  return IndexLookup(_MapAttrib(attributeName), value);
}

int SAccountDB::IndexLookupCount(int attribute, SString const &value) const {
  return Store().CountByAttrib(attribute, value);
}

int SAccountDB::IndexLookupCount(SString const &attributeName, SString const &value) const {
  return IndexLookupCount(_MapAttrib(attributeName), value);
}

void SAccountDB::IndexPrefixList(int attribute, SString const &prefix, SStringList *values, SStringList *uids) const {
  Store().ListByAttrib(attribute, prefix, values, uids);
}

void SAccountDB::IndexPrefixList(SString const &attributeName, SString const &prefix, SStringList *values,
                                 SStringList *uids) const {
  IndexPrefixList(_MapAttrib(attributeName), prefix, values, uids);
}

void SAccountDB::IndexRangeList(int attribute, SString const &low, SString const &high, SStringList *values,
                                SStringList *uids) const {
  Store().ListByAttribRange(attribute, low, high, values, uids);
}

void SAccountDB::IndexRangeList(SString const &attributeName, SString const &low, SString const &high,
                                SStringList *values, SStringList *uids) const {
  IndexRangeList(_MapAttrib(attributeName), low, high, values, uids);
}

void SAccountDB::IndexSlice(int attribute, SString &low, SString const &high, int limit, SStringList *values,
                            SStringList *uids) const {
  Store().ListSlice(attribute, low, high, limit, values, uids);
}

SStringList SAccountDB::IndexList(int attribute) { return Store().ListValues(attribute); }

SStringList SAccountDB::IndexList(SString const &attributeName) { return IndexList(_MapAttrib(attributeName)); }

int SAccountDB::IndexListCount(int attribute) { return Store().CountValues(attribute); }

int SAccountDB::IndexListCount(SString const &attributeName) { return IndexListCount(_MapAttrib(attributeName)); }

int SAccountDB::ListCount() { return IndexListCount(kAttrListName) - GetAccountInfo(kAllMailboxesUID, nullptr); }

int SAccountDB::LocalUserCount() { return IndexListCount(kAttrPopAddress); }

SStringList SAccountDB::GetLocalMailDomains() { return Setting("LocalMailDomains"); }

SStringList SAccountDB::GetLdapAuthDomains() { return Setting("LdapAuthDomains"); }

int SAccountDB::GetUserLimit() { return Limit("UserLimit"); }

int SAccountDB::GetListLimit() { return Limit("ListLimit"); }

int SAccountDB::GetListSubscriberLimit() { return Limit("ListSubscriberLimit"); }

unsigned SAccountDB::BackupDB(SString const &attributeSuffix, SString const &indexSuffix) const {
  return Store().Backup(attributeSuffix, indexSuffix);
}

void SAccountDB::DBReOpen() { Store().ReOpen(); }

void SAccountDB::CloseAccountDB() {}
