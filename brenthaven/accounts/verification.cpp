// Whether a password is right for an account.
#include <initializer_list>

#include "brenthaven/accounts/account.h"
#include "brenthaven/accounts/accountdb.h"
#include "brenthaven/accounts/accountstore.h"
#include "brenthaven/accounts/directorysettings.h"
#include "brenthaven/accounts/logonplan.h"
#include "brenthaven/accounts/storedpassword.h"
#include "brenthaven/accounts/systemlogon.h"
#include "brenthaven/directory/escape.h"
#include "brenthaven/directory/ldap.h"

namespace {

bool AreDirectoryTexts(std::initializer_list<SString> texts) {
  for (SString const &text : texts)
    if (!IsDirectoryText(text)) return false;
  return true;
}

// A bind as a user principal on a connection without TLS: TLS if the server has it, else a challenge. In clear text
// only where the administrator allows it and there is no better way; a challenge that was refused is the last word.
SLdapResult BindPrincipal(SLdap &server, SString const &user, SString const &password) {
  SLdapResult const secured = server.StartTls();
  if (secured == SLdapResult::kDone) return server.BindSimple(user, password);
  if (secured != SLdapResult::kRefused) return secured;
  SLdapResult const bound = server.BindSasl(user, password);
  return bound == SLdapResult::kUnusable && MaySendClearText() ? server.BindSimple(user, password) : bound;
}

SLdapResult BindUser(SLdap &server, SString const &user, SString const &password, int authFlag, int secureFlag) {
  if (authFlag == kLdapSasl) return server.BindSasl(user, password);
  if (authFlag == kLdapUserPrincipal && secureFlag != kLdapTls) return BindPrincipal(server, user, password);
  return server.BindSimple(user, password);
}

SPasswordError ReferenceError(SLdapResult result) {
  return result == SLdapResult::kUnreachable ? kPasswordUnreachable : kPasswordDirectory;
}

}  // namespace

int SAccount::LdapAuth(SString url, SString user, SString password, int authFlag, int secureFlag) const {
  if (!AreDirectoryTexts({url, user, password})) return kBindNoText;
  SLdap server(ReadDirectoryOptions());
  SLdapResult result = server.Open(url, secureFlag == kLdapTls ? SLdapTransport::kTls : SLdapTransport::kClear);
  if (result == SLdapResult::kDone) result = BindUser(server, user, password, authFlag, secureFlag);
  switch (result) {
    case SLdapResult::kDone:
      return kBound;
    case SLdapResult::kUnreachable:
      return kBindUnreachable;
    default:
      return kBindRefused;
  }
}

int SAccount::LdapAuth2(SString url, SString adminDN, SString adminPassword, SString filter, SString password) const {
  if (!AreDirectoryTexts({url, adminDN, adminPassword, filter, password})) return kPasswordConfiguration;
  SLdapUrl parts;
  SLdapEntry entry;
  SLdap server(ReadDirectoryOptions());
  SLdapResult result = server.Open(url, SLdapTransport::kClear);  // or TLS, where the url says so
  if (result == SLdapResult::kDone) result = server.BindSimple(adminDN, adminPassword);
  if (result == SLdapResult::kDone && parts.Parse(url)) result = server.FindFirst(parts.base, filter, "1.1", entry);
  if (result != SLdapResult::kDone) return ReferenceError(result);
  if (entry.dn.Length() == 0) return kPasswordNoEntry;
  result = server.BindSimple(entry.dn, password);
  return result == SLdapResult::kDone ? kPasswordNoCause : ReferenceError(result);
}

int SAccount::_AskDirectory(SLogonPlan const &plan, SString const &password) const {
  auto const ask = [&](SString const &url) {
    return plan.method == SLogonMethod::kReferenceDirectory
               ? LdapAuth2(url, plan.readerDN, plan.readerPassword, plan.filter, password)
               : LdapAuth(url, plan.user, password, plan.authFlag, plan.secureFlag);
  };
  int result = ask(plan.url);
  if ((result == kBindUnreachable || result == kPasswordUnreachable) && plan.secondUrl.Length() > 0)
    result = ask(plan.secondUrl);
  switch (result) {
    case kBound:
      return kPasswordNoCause;
    case kBindNoText:
      return kPasswordConfiguration;
    case kBindRefused:
    case kBindUnreachable:
      return plan.method == SLogonMethod::kActiveDirectory ? kPasswordActiveDirectory : kPasswordDirectory;
    default:
      return result;
  }
}

unsigned SAccount::VerifyPassword(SString const &password, int *error, int external) const {
  SLogonPlan plan;
  {
    accountstore::ReadWatch const reads;
    SAccountReadScope const scope;
    if (IsLocked() != 0 || password.Length() == 0) return 0;
    plan = PlanLogon(*this, external);
    plan.usable = plan.usable && !reads.Failed();  // a lock that can't be read must not open the account
  }
  int cause = plan.error;
  bool right = false;
  if (plan.usable) switch (plan.method) {
      case SLogonMethod::kStoredHash:
        right = IsStoredPassword(password, plan.storedPassword);
        break;
      case SLogonMethod::kSystemLogon:
        right = SystemLogon(plan.user, password);
        break;
      default:
        cause = _AskDirectory(plan, password);
        right = cause == kPasswordNoCause;
    }
  if (error != nullptr) *error = cause;
  return right;
}

unsigned SAccount::VerifyPassword(SString const &password, int external) const {
  return VerifyPassword(password, nullptr, external);
}
