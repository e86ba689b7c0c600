#include "brenthaven/accounts/logonplan.h"

#include <string_view>

#include "brenthaven/directory/escape.h"
#include "brenthaven/store/sdbfile.h"

namespace {

constexpr char kMethodStoredHash[] = "AccountDB";
constexpr char kMethodSystemLogon[] = "NTLM";
constexpr char kMethodActiveDirectory[] = "ActiveDirectory";
constexpr char kMethodDirectory[] = "LDAP";
constexpr char kUrlScheme[] = "LDAP://";
constexpr char kUrlSchemeTls[] = "LDAPS://";

bool IsYes(SString const &value) { return value == "yes"; }

void Refuse(SLogonPlan &plan, SPasswordError error) {
  plan.usable = false;
  plan.error = error;
}

void PlanStoredHash(SAccount const &account, SLogonPlan &plan) {
  plan.method = SLogonMethod::kStoredHash;
  plan.storedPassword = account.GetString(kAttrPassword);
}

void PlanSystemLogon(SAccount const &account, SLogonPlan &plan) {
  plan.method = SLogonMethod::kSystemLogon;
  plan.user = account.GetString(kAttrLogonId);
  if (plan.user.Length() == 0) Refuse(plan, kPasswordNoCause);
}

void PlanActiveDirectory(SAccount const &account, SLogonPlan &plan) {
  plan.method = SLogonMethod::kActiveDirectory;
  plan.user = account.GetString(kAttrActiveDirectoryDomainUserName);
  if (plan.user.Length() == 0) return Refuse(plan, kPasswordConfiguration);
  int const at = plan.user.Index('@');
  if (at < 0 || at == plan.user.Length() - 1) return Refuse(plan, kPasswordUserName);
  SString domain = account.GetString(kAttrActiveDirectoryDomain);
  SString const behindAt = plan.user;
  if (domain.Length() == 0) domain = behindAt.Segment(at + 1, behindAt.Length() - at - 1).BreakToWords().Get(0);
  if (domain.Length() == 0) return Refuse(plan, kPasswordUserName);
  plan.url = kUrlScheme + domain;
  plan.authFlag = kLdapUserPrincipal;
  plan.secureFlag = IsYes(account.GetString(kAttrActiveDirectorySecureTransport)) ? kLdapTls : kLdapClear;
}

// The name to bind as: the template with the first of the placeholders below that it holds filled in, once. In a DN the
// value is escaped; a template without "=" makes a plain name, such as "%s@example.org".
SString FillTemplate(SString const &text, SAccount const &account) {
  struct {
    char const *placeholder;
    SAttributeNumber attribute;
  } constexpr kRows[] = {{"%sn", kAttrName}, {"%cn", kAttrPopAddress}, {"%s", kAttrPopAddress}};
  for (auto const &row : kRows) {
    int const at = text.Index(row.placeholder);
    if (at < 0) continue;
    int const behind = at + static_cast<int>(std::string_view(row.placeholder).size());
    SString const value = account.GetString(row.attribute);
    return text.Segment(0, at) + (text.Index('=') >= 0 ? EscapeDN(value) : value) +
           text.Segment(behind, text.Length() - behind);
  }
  return text;
}

void PlanOwnDirectory(SAccount const &account, SLogonPlan &plan) {
  plan.method = SLogonMethod::kOwnDirectory;
  SString const server = account.GetString(kAttrLdapServer), second = account.GetString(kAttrLdapServer2);
  SString const port = account.GetString(kAttrLdapPort), text = account.GetString(kAttrLdapDn);
  if (server.Length() == 0 || text.Length() == 0) return Refuse(plan, kPasswordNoCause);
  SString const behind = port.Length() > 0 ? ":" + port : SString("");
  plan.url = kUrlScheme + server + behind;
  if (second.Length() > 0) plan.secondUrl = kUrlScheme + second + behind;
  plan.user = FillTemplate(text, account);
  plan.authFlag = account.GetString(kAttrLdapAuthMethod) == "SASL" ? kLdapSasl : kLdapSimple;
  plan.secureFlag = IsYes(account.GetString(kAttrLdapSecureTransport)) ? kLdapTls : kLdapClear;
}

void PlanReferenceDirectory(SAccount const &account, SLogonPlan &plan) {
  plan.method = SLogonMethod::kReferenceDirectory;
  Sdbfile settings("LDAP-Reference", 0, kProductWord);
  if (settings.Open("/Config", 0) == 0) return Refuse(plan, kPasswordConfiguration);
  auto const setting = [&](char const *key) { return settings.Get(SString("LDAP-Reference-") + key).Get(0); };
  SString const host = setting("Host"), second = setting("Host2"), port = setting("Port"), base = setting("DN");
  SString const attribute = setting("Auth-Attribute");
  if (host.Length() == 0 || port.Length() == 0 || base.Length() == 0 || attribute.Length() == 0)
    return Refuse(plan, kPasswordConfiguration);
  plan.secureFlag = IsYes(setting("Secure-Transport")) ? kLdapTls : kLdapClear;
  SString const scheme = plan.secureFlag == kLdapTls ? kUrlSchemeTls : kUrlScheme;
  SString const behind = ":" + port + "/" + base;
  plan.url = scheme + host + behind;
  if (second.Length() > 0) plan.secondUrl = scheme + second + behind;
  plan.filter = attribute + "=" + EscapeFilter(account.GetString(kAttrPopAddress));
  plan.readerDN = setting("Admin-DN");
  plan.readerPassword = setting("Admin-Passwd");
}

}  // namespace

SLogonPlan PlanLogon(SAccount const &account, int external) {
  SLogonPlan plan;
  bool const useLogon = IsYes(account.GetString(kAttrUseLogonPw));
  SString method = account.GetString(kAttrLogonAuthMethod);
  if (method.Length() == 0) method = useLogon ? kMethodSystemLogon : kMethodStoredHash;
  bool const isActiveDirectory = method == kMethodActiveDirectory && external != 0;
  bool const isDirectory = method == kMethodDirectory && external != 0;
  // An unknown method, or a directory that must not be asked: the system for those who have a logon id, else the hash.
  bool const isLogon = method == kMethodSystemLogon ||
                       (method != kMethodStoredHash && useLogon && account.GetString(kAttrLogonId).Length() > 0);
  if (isActiveDirectory)
    PlanActiveDirectory(account, plan);
  else if (isDirectory && IsYes(account.GetString(kAttrLdapUseDefault)))
    PlanReferenceDirectory(account, plan);
  else if (isDirectory)
    PlanOwnDirectory(account, plan);
  else if (isLogon)
    PlanSystemLogon(account, plan);
  else
    PlanStoredHash(account, plan);
  return plan;
}

char const *LogonMethodName(SLogonMethod method) {
  switch (method) {
    case SLogonMethod::kStoredHash:
      return kMethodStoredHash;
    case SLogonMethod::kSystemLogon:
      return kMethodSystemLogon;
    case SLogonMethod::kActiveDirectory:
      return kMethodActiveDirectory;
    case SLogonMethod::kOwnDirectory:
    case SLogonMethod::kReferenceDirectory:
      break;
  }
  return kMethodDirectory;
}
