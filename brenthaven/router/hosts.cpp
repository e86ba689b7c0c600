// Hosts: their canonical form, and whether mail for them ends here.
#include "brenthaven/accounts/accountdb.h"
#include "brenthaven/net/dns.h"
#include "brenthaven/router/pass.h"
#include "brenthaven/spool/keys.h"
#include "brenthaven/text/base.h"

namespace {

// The setting that names this machine by a lower-cased host; null when none does.
char const *WhichOfOurNames(SString const &name) {
  if (name == LowerCase(GetEnv("HostName"))) return "HostName";
  if (name == "localhost" || name == "localhost." + LowerCase(GetEnv("DomainName"))) return "DomainName";
  return nullptr;
}

}  // namespace

SString SSMTPRouterModule::GetHostAddrPart(S821Address const &address, unsigned int resolve) {
  SString const domain = address.Domain();
  if (domain.Length() > 0) return CanonicalizeHost(domain, resolve);
  SString const standIn = GetEnv("DefaultDomain");
  return standIn.Length() > 0 ? standIn : GetHostName();
}

SString SSMTPRouterModule::CanonicalizeHost(SString host, unsigned int resolve) {
  static SPerlRegex const kLiteral("\\[(\\d{1,3}\\.\\d{1,3}\\.\\d{1,3}\\.\\d{1,3})\\]");
  if (host.Index('[') >= 0) {
    SStringList const literal = kLiteral.Match(host);
    if (literal.Length() > 0) {
      SString const name = resolve ? ::GetHostByAddr(literal.Get(1)).Get(0) : SString();
      if (name.Length() == 0) return host;
      host = name;
    }
  }
  SString const replacement = _rewriteDomains.Get(LowerCase(host)).Get(0);
  if (replacement.Length() > 0) host = replacement;
  return ::CanonicalizeHostName(host);
}

int SSMTPRouterModule::IsLocalDelivery(SString host) {
  SString const name = LowerCase(CanonicalizeHost(host, 1));
  return SAccountDB().GetLocalMailDomains().Contains(name) || WhichOfOurNames(name) != nullptr;
}

int SSMTPRouterModule::IsLdapAuth(SString host) {
  return SAccountDB().GetLdapAuthDomains().Contains(LowerCase(CanonicalizeHost(host, 1)));
}

// IsLocalDelivery for a pass: the settings are read once, and each host is judged once, which for a domain literal may
// mean a question to the name service.
bool SSMTPRouterModule::_IsLocal(Pass &pass, SString const &host) {
  int const known = pass.isLocal.Get(host);
  if (known >= 0) return known != 0;
  if (!pass.localDomainsRead) {
    for (SString const &domain : SAccountDB().GetLocalMailDomains()) pass.localDomains.Add(domain);
    pass.localDomainsRead = true;
  }
  SString const name = LowerCase(CanonicalizeHost(host, 1));
  bool const local = pass.localDomains.Contains(name) || WhichOfOurNames(name) != nullptr;
  pass.isLocal[host] = local ? 1 : 0;
  return local;
}

// For the observer: the setting by which a domain is local.
char const *SSMTPRouterModule::_WhyLocal(Pass const &pass, SString const &host) {
  SString const name = LowerCase(CanonicalizeHost(host, 1));
  return pass.localDomains.Contains(name) ? "LocalMailDomains" : WhichOfOurNames(name);
}

// For the observer: the host that an entry is taken to be for, where it is another than the one written, and the
// setting that says so.
void SSMTPRouterModule::_NoteHost(Pass const &pass, Entry const &entry, SString const &host) {
  SString const written = entry.found.Domain();
  if (host == written) return;
  if (written.Length() == 0)
    pass.Note(entry.text, SRouteStep::kSetting, GetEnv("DefaultDomain").Length() > 0 ? "DefaultDomain" : "HostName");
  else if (SString const replacement = _rewriteDomains.Get(LowerCase(written)).Get(0); replacement.Length() > 0)
    pass.Note(entry.text, SRouteStep::kSetting, "RewriteDomains " + LowerCase(written) + ":" + replacement);
  pass.Note(entry.text, SRouteStep::kHost, host);
}

SStringList SSMTPRouterModule::GetRFC821Addresses(SString const &text) {
  static SPerlRegex const kBracketed("<(.+)(@.*)>");
  SStringList addresses;
  SString rest(text);
  for (SStringList match = rest.S(kBracketed, ""); match.Length() > 0; match = rest.S(kBracketed, ""))
    addresses.Push(match.Get(1) + match.Get(2));
  if (addresses.Length() == 0 && text.Length() > 0)
    addresses.Push(text.Index('@') >= 0 ? text : text + "@" + GetHostName());
  return addresses;
}
