// Hosts: their canonical form, and whether mail for them ends here.
#include "brenthaven/accounts/accountdb.h"
#include "brenthaven/net/dns.h"
#include "brenthaven/router/pass.h"
#include "brenthaven/spool/keys.h"
#include "brenthaven/text/base.h"

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
  return SAccountDB().GetLocalMailDomains().Contains(name) || _IsThisHost(name);
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
  bool const local = pass.localDomains.Contains(name) || _IsThisHost(name);
  pass.isLocal[host] = local ? 1 : 0;
  return local;
}

// Whether a lower-cased host is this machine, by name or as "localhost".
bool SSMTPRouterModule::_IsThisHost(SString const &name) const {
  return name == LowerCase(GetEnv("HostName")) || name == "localhost" ||
         name == "localhost." + LowerCase(GetEnv("DomainName"));
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
