#include "brenthaven/accounts/account.h"

#include <algorithm>
#include <string_view>

#include "brenthaven/accounts/accountstore.h"
#include "brenthaven/accounts/number.h"
#include "brenthaven/accounts/passwords.h"
#include "brenthaven/accounts/special.h"
#include "brenthaven/address/address821.h"
#include "brenthaven/text/base.h"

namespace {

SObjectDB &Store() { return accountstore::Objects(); }

bool Has(int attribute, SString const &uid) { return Store().GetStringAttrib(attribute, uid).Length() > 0; }

}  // namespace

unsigned SAccountBase::ReadFailed() { return (Store().ReadFailed() | Sdbfile::ReadFailed()) != 0; }

void SAccountBase::ClearReadFailed() {
  Store().ClearReadFailed();
  Sdbfile::ClearReadFailed();
}

unsigned SAccountBase::WriteFailed() { return Store().WriteFailed(); }

void SAccountBase::ClearWriteFailed() { Store().ClearWriteFailed(); }

int SAccountBase::_MapAttrib(SString const &name) const { return attributes::NumberOf(name.View()); }

SString SAccountBase::_MapAttrib(int number) {
  char const *name = attributes::NameOf(number);
  return name != nullptr ? name : "Invalid-Attribute";
}

SString SAccountBase::_MapAddress(S821Address const &address) { return address.LocalPart() + '@' + address.Domain(); }

SString SAccountBase::_IndexLookupSingle(int attribute, SString const &value) const {
  return _IndexLookupMultiple(attribute, value).Get(0);
}

SStringList SAccountBase::_IndexLookupMultiple(int attribute, SString const &value) const {
  return Store().ListByAttrib(attribute, value);
}

Sdbfile *SAccountBase::_GetMTAAccounts() { return &accountstore::Settings(); }

SStringList SAccount::Get(int attribute) const {
  if (attribute != kAttrProgDelPassword) return Store().GetAttrib(attribute, _uid);
  SString const password = GetString(attribute);
  return password.Length() > 0 ? SStringList(password) : SStringList();
}

SStringList SAccount::Get(SString const &name) const { return Get(_MapAttrib(name)); }

SString SAccount::GetString(int attribute) const {
  if (attribute < 0) return SString();
  SString const value = Store().GetStringAttrib(attribute, _uid);
  return attribute == kAttrProgDelPassword ? Scramble(value, 1) : value;
}

SStringList SAccount::Values() const {
  SStringList names;
  for (SString const &number : Store().ListAttribs(_uid)) {
    char const *name = attributes::NameOf(static_cast<unsigned char>(number[0]));
    names.Push(name != nullptr ? name : "Invalid-Attribute");
  }
  return names;
}

unsigned SAccount::IsLocked() const { return Get(kAttrLocked).Length() > 0; }

unsigned SAccount::IsRemoteAcct() const { return Has(kAttrRemoteSmtpAddress, _uid); }

unsigned SAccount::IsListAcct() const {
  return Has(kAttrListName, _uid) || Has(kAttrExpandedDelivery, _uid) || Has(kAttrManagerListName, _uid);
}

SString SAccount::GetPrimaryAddress() const {
  SString const address = GetString(kAttrSmtpAddress);
  return address.Length() > 0 ? address : GetString(kAttrRemoteSmtpAddress);
}

SStringList SAccount::GetAddress_s(SString const &uid) {
  SStringList const addresses = Store().GetAttrib(kAttrSmtpAddress, uid);
  return addresses.Length() > 0 ? addresses : Store().GetAttrib(kAttrRemoteSmtpAddress, uid);
}

SStringList SAccount::GetAccDoms(SString const &uid) { return Store().GetAttrib(kAttrAccessDomains, uid); }

int SAccount::GetMailboxQuota(SString const &uid) {
  int const own = PositiveNumber(Store().GetStringAttrib(kAttrMailboxQuota, uid));
  if (own > 0) return own;
  int const general = PositiveNumber(GetEnv("DefaultMailboxQuota"));
  return general > 0 ? general : -1;
}

int SAccount::GetPufSwitch(SString const &uid) { return Store().GetStringAttrib(kAttrPufEnabled, uid) != "no"; }

SStringList SAccount::GetPufList(SString const &uid) { return Store().GetAttrib(kAttrPerUserFilters, uid); }

unsigned SAccount::IsManagedBy(SStringList domains) {
  for (SString const &manager : Get(kAttrParentDomains)) {
    if (manager == kPostmasterUID) return 1;
    if (_DomainsContainedIn(domains, Store().GetAttrib(kAttrManagedDomains, manager)) != 0) return 1;
  }
  return 0;
}

unsigned SAccount::_DomainsContainedIn(SStringList domains, SStringList containers) {
  if (containers.Length() == 0) return 0;
  return std::all_of(domains.begin(), domains.end(),
                     [&](SString const &domain) { return _DomainContainedIn(domain, containers) != 0; });
}

unsigned SAccount::_DomainContainedIn(SString domain, SStringList containers) {
  std::string_view const whole = domain.View();
  for (SString const &item : containers) {
    if (!whole.ends_with(item.View())) continue;
    std::size_t const above = whole.size() - item.View().size();  // bytes in front of the tail
    if (above == 0 || whole[above - 1] == '.') return 1;
  }
  return 0;
}
