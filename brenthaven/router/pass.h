// brenthaven/router/pass.h - what one pass over a message's recipients knows. Private to the router.
#pragma once
#include "brenthaven/accounts/accountdb.h"
#include "brenthaven/address/address821.h"
#include "brenthaven/router/routeobserver.h"
#include "brenthaven/router/smtprouter.h"
#include "brenthaven/text/named.h"
#include "brenthaven/text/sstringset.h"

// A printed address shorter than this is null or broken: the shortest that names somebody is "<a>".
inline constexpr int kShortestAddress = 3;

struct SSMTPRouterModule::Pass {
  // The message and the settings of the moment.
  SRouteObserver *observer = nullptr;  // null in running mail
  bool force = false;                  // ForceRouting: all mail goes through the routing table
  bool fromBypass = false;             // with force: the submitting host is the one that ByPassIPaddr names

  // Entries.
  SStringList given;    // as they came
  SStringList work;     // those still to route; expansions join the end
  SStringList foreign;  // those of channels that this router does not serve

  // What was met.
  SStringSet seen;        // lower-cased addresses, and UIDs as they are
  SStringSet suppressed;  // in lower case: members of lists on this message whose members get it through the list only
  SStringSet kept;        // in lower case: members of other lists on this message
  SNamedValue isLocal;    // host to 1 or 0, so that a domain is judged once a message
  SStringSet localDomains;
  bool localDomainsRead = false;

  // Where the entries went.
  SStringList accounts;  // UIDs
  SStringList channels;  // entries for the hand-over
  SStringSet relayed;    // those of them that stand for the target of a "%" address, which is routed itself
  SStringList unknown;
  SStringList unallowed;     // "%" addresses that the sender may not relay by
  SNamedStringList hosts;    // route key to entries
  SNamedStringList archive;  // archive target to entries

  void Note(SString const &entry, SRouteStep step, SString const &detail) const {
    if (observer != nullptr) observer->Note(entry, step, detail);
  }
};

struct SSMTPRouterModule::Entry {
  explicit Entry(SString const &channelEntry) : text(channelEntry), sent(channelEntry), found(sent) {}

  SString text;         // the channel entry as it stands on the work list
  S821Address sent;     // the address as a remote host gets it
  S821Address found;    // the address as accounts and aliases are asked for it
  SString full;         // as written, printed
  SString plain;        // with its host canonical, printed
  SString local;        // lower-cased local part as written
  SString uid;          // empty: no account
  bool isLocal = true;  // mail for the domain ends here
  // With ForceRouting: the host before and after the routing table.
  SString unroutedHost;
  SString routedHost;
};

// What was read since ClearReadFlags is only as good as the reading.
inline void ClearReadFlags() {
  SAccountBase::ClearReadFailed();
  Sdbfile::ClearReadFailed();
}
inline bool SomeReadFailed() { return SAccountBase::ReadFailed() || Sdbfile::ReadFailed(); }

// Writes one line of "date:module:text" to the log stream.
void LogRouterLine(SString const &module, SString const &text);
