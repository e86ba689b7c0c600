#include "brenthaven/router/directorylookup.h"

#include "brenthaven/accounts/directorysettings.h"
#include "brenthaven/directory/escape.h"
#include "brenthaven/directory/ldap.h"
#include "brenthaven/router/pass.h"
#include "brenthaven/spool/keys.h"

namespace {

SString BetweenBrackets(SString const &text) {
  int const open = text.Index('<');
  int const close = text.RIndex('>');  // a quoted local part may hold one as well
  return open >= 0 && close > open ? text.Segment(open + 1, close - open - 1) : text;
}

// Connects as nobody. A server that takes the connection and then says nothing is out of reach as well.
SLdapResult Enter(SLdap &server, SString const &host, SString const &port) {
  SLdapResult const opened = server.Open("LDAP://" + host + ":" + port, SLdapTransport::kClear);
  return opened == SLdapResult::kDone ? server.BindSimple("", "") : opened;
}

// To the askers a directory that fails looks like one that does not know the address; the operator is told.
void LogFailure(SLdap const &server) { LogRouterLine(kModuleSmtpRouter, "LDAP Error ( " + server.ErrorText() + " ) "); }

SString FindUid(SLdap &server, SString const &base, SString const &filter) {
  SLdapEntry entry;
  if (server.FindFirst(base, filter, "uid", entry) != SLdapResult::kDone) LogFailure(server);
  return entry.value;
}

}  // namespace

SString LookupDirectoryUid(SString const &address, SString const &primaryHost, SString const &secondaryHost,
                           SString const &port, SString const &base) {
  SString const mail = BetweenBrackets(address);
  if (primaryHost.Length() == 0 || port.Length() == 0 || base.Length() == 0 || !IsDirectoryText(mail)) return SString();
  SString const filter = "(mail=" + EscapeFilter(mail) + ")";
  for (SString const &host : {primaryHost, secondaryHost}) {
    if (host.Length() == 0) break;
    SLdap server(ReadDirectoryOptions());
    SLdapResult const entered = Enter(server, host, port);
    if (entered == SLdapResult::kDone) return FindUid(server, base, filter);
    LogFailure(server);
    if (entered != SLdapResult::kUnreachable) break;
  }
  return SString();
}
