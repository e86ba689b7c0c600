// The decision for each recipient.
//
// The work list holds channel entries. Each is taken off its front and ends in one of five places: an account, a remote
// host, one of two lists of refused addresses, or nowhere, because the message goes there already. An alias, and an
// address with "%" that may be relayed, put further entries at the end of the list instead, and those take the same
// way.
#include <utility>

#include "brenthaven/accounts/alias.h"
#include "brenthaven/router/pass.h"
#include "brenthaven/spool/keys.h"
#include "brenthaven/text/base.h"

namespace {

constexpr char kPostmasterUid[] = "Postmaster";

SString ChannelEntry(SString const &address) { return kChannelPrefix + address; }

SString FirstWord(SString const &text) { return text.SplitExact(" ", 2).Get(0); }

// The text between an opening quote and the "@" of a local part such as "\"user@here\"", which may be an account; the
// local part itself when it has no such form.
SString WithoutQuotedHost(SString const &localPart) {
  int const at = localPart.Index('@');
  return at >= 0 && localPart[0] == '"' ? localPart.Segment(1, at - 1) : localPart;
}

// Position of the last "%" of a local part when it may route; -1 when there is none or a quote stands behind it.
int RoutingPercent(SString const &local) {
  int const percent = local.RIndex('%');
  return percent > local.RIndex('"') ? percent : -1;
}

}  // namespace

unsigned int SSMTPRouterModule::ProcessAddresses() {
  Pass pass;
  _BeginPass(pass);
  _TakeEntries(pass, GetControl().Get(kKeyChannelTo));
  if (pass.work.Length() == 0) return _FailMail("MissingChannelTo", "ProcessAddresses", "");
  _NoteListMembers(pass);
  CreateArchiveToCandidate(pass.archive);
  if (!_RouteAll(pass)) return 0;  // Channel-To: still holds all of it
  return _WriteOut(pass);
}

int SSMTPRouterModule::Explain(SStringList const &entries, SRouteObserver &observer) {
  Pass pass;
  pass.observer = &observer;
  _BeginPass(pass);
  _TakeEntries(pass, entries);
  _ExplainSender(observer);
  _NoteListMembers(pass);
  CreateArchiveToCandidate(pass.archive);
  if (!_RouteAll(pass)) return 0;
  for (SString const &target : pass.archive.Keys())
    for (SString const &entry : pass.archive.Get(target)) pass.Note(entry, SRouteStep::kArchiveCopy, target);
  return 1;
}

void SSMTPRouterModule::_BeginPass(Pass &pass) {
  ClearReadFlags();
  for (SString const &done : MatchFieldPreload()) pass.seen.Add(done);
  pass.force = GetEnv("ForceRouting") == "yes";
  pass.fromBypass = pass.force && _IsFromBypassHost();
}

bool SSMTPRouterModule::_IsFromBypassHost() {
  SString const bypass = "[" + GetEnv("ByPassIPaddr") + "]";  // "[]" when not set, which is nobody's address
  return GetControl().Get(kKeyHostFrom).Get(0).Split(' ').Get(1) == bypass;
}

void SSMTPRouterModule::_TakeEntries(Pass &pass, SStringList const &entries) {
  pass.given = entries;
  for (SString const &entry : entries) (entry.HasPrefix(kChannelPrefix) ? pass.work : pass.foreign).Push(entry);
}

// Only entries whose address is null or broken count as done, the reverse of what one would expect: a recipient that
// Channel-To! records and Channel-To: names again is routed again.
SStringList SSMTPRouterModule::MatchFieldPreload() {
  SAccountDB accounts;
  SStringList done;
  SStringList pending = GetControl().Get(kKeyChannelToDone);
  while (pending.Length() > 0) {
    SString const entry = pending.Shift();
    if (FirstWord(entry) != kChannelWord) continue;
    S821Address address(entry);
    if (address.Get().Length() >= kShortestAddress) continue;
    address.Domain() = GetHostAddrPart(address, 0);
    done.Push(LowerCase(address.Get()));
    SString const uid = accounts.GetAccountUID(address);
    if (uid.Length() == 0)
      pending.Push(SAliasDB().GetChannelAliases(address));
    else if (!done.Contains(uid))
      done.Push(uid);
  }
  return done;
}

// A list on the message takes note of its members, so that one who is a recipient too gets the message once, through
// the list, if the list wants that and no other list on the message does not. Members are known as the list knows them:
// those elsewhere by their address, those here by their UID.
void SSMTPRouterModule::_NoteListMembers(Pass &pass) {
  SAccountDB accounts;
  for (SString const &entry : pass.work) {
    SAccountReadScope const scope;
    SAccount list;
    if (!accounts.GetAccountInfo(accounts.GetAccountUID(S821Address(entry)), &list)) continue;
    SStringList const members = accounts.IndexLookup(kAttrSubscribedListsImmediate, list.GetUID());
    if (members.Length() == 0) continue;
    SStringSet &target = list.GetString(kAttrListSuppressDuplicates) == "yes" ? pass.suppressed : pass.kept;
    for (SString const &uid : members) {
      SString const lowerUid = LowerCase(uid);
      if (target.Contains(lowerUid)) continue;
      SAccount member;
      SString const remote =
          accounts.GetAccountInfo(uid, &member) ? member.GetString(kAttrRemoteSmtpAddress) : SString();
      target.Add(remote.Length() > 0 ? LowerCase(remote) : lowerUid);
    }
  }
}

// False when accounts, aliases or settings could not be read: an address that seems unknown, or a domain that seems
// remote, may be neither, so nothing of the message is decided.
bool SSMTPRouterModule::_RouteAll(Pass &pass) {
  while (pass.work.Length() > 0) {
    SString const entry = pass.work.Shift();
    _RouteEntry(pass, entry);
    if (!SomeReadFailed()) continue;
    pass.Note(entry, SRouteStep::kStoreUnreadable, "");
    return false;
  }
  return true;
}

void SSMTPRouterModule::_RouteEntry(Pass &pass, SString const &text) {
  Entry entry(text);
  entry.full = entry.found.Get();
  if (entry.full.Length() < kShortestAddress) {
    pass.unknown.Push(ChannelEntry(entry.full));
    return pass.Note(text, SRouteStep::kBadAddress, entry.full);
  }
  _CanonicalizeEntry(pass, entry);
  if (!pass.seen.Add(LowerCase(entry.plain))) return pass.Note(text, SRouteStep::kAlreadyRouted, entry.plain);
  _FindAccount(entry);
  if (entry.uid.Length() == 0) {
    if (_ExpandAlias(pass, entry)) return;
    _JudgeDomain(pass, entry);
  }
  bool const endsHere = !pass.force || pass.fromBypass;
  if (entry.uid.Length() > 0 && (endsHere || entry.unroutedHost == entry.routedHost))
    return _RouteToAccount(pass, entry);
  if (entry.isLocal && endsHere) return _RouteToLocalDomain(pass, entry);
  _RouteToHost(pass, entry);
}

void SSMTPRouterModule::_CanonicalizeEntry(Pass const &pass, Entry &entry) {
  SString const host = GetHostAddrPart(entry.found, 0);
  if (pass.observer != nullptr) _NoteHost(pass, entry, host);
  entry.sent.Domain() = host;
  entry.found.Domain() = host;
  entry.plain = entry.found.Address();
  if (!pass.force) return;
  entry.unroutedHost = LowerCase(GetHostAddrPart(entry.sent, 0));
  pass.Note(entry.text, SRouteStep::kSetting, pass.fromBypass ? "ByPassIPaddr" : "ForceRouting");
  entry.routedHost = _RouteHost(pass, entry, entry.unroutedHost);
}

// By the address as written, then, for a domain literal, by the name that the name service has for it.
void SSMTPRouterModule::_FindAccount(Entry &entry) {
  SAccountDB accounts;
  SString const localPart = entry.found.LocalPart();
  entry.local = LowerCase(localPart);
  entry.found.LocalPart() = WithoutQuotedHost(localPart);
  entry.uid = accounts.GetAccountUID(entry.found);
  if (entry.uid.Length() > 0 || entry.found.Domain()[0] != '[') return;
  entry.found.Domain() = GetHostAddrPart(entry.found, 1);
  entry.uid = accounts.GetAccountUID(entry.found);
}

bool SSMTPRouterModule::_ExpandAlias(Pass &pass, Entry const &entry) {
  SStringList const targets = SAliasDB().GetChannelAliases(entry.found);
  if (targets.Length() == 0) return false;
  pass.work.Push(targets);
  for (SString const &target : targets) pass.Note(entry.text, SRouteStep::kAlias, target);
  return true;
}

void SSMTPRouterModule::_JudgeDomain(Pass &pass, Entry &entry) {
  SString const domain = entry.found.Domain();
  entry.isLocal = (!pass.force || pass.fromBypass) && _IsLocal(pass, domain);
  pass.Note(entry.text, entry.isLocal ? SRouteStep::kLocalDomain : SRouteStep::kRemoteDomain, domain);
  if (!entry.isLocal) return;
  if (pass.observer != nullptr) pass.Note(entry.text, SRouteStep::kSetting, _WhyLocal(pass, domain));
  entry.uid = _CatchAllUid(entry.found);
  if (entry.uid.Length() > 0) pass.Note(entry.text, SRouteStep::kCatchAll, entry.uid);
}

void SSMTPRouterModule::_RouteToAccount(Pass &pass, Entry const &entry) {
  if (!pass.seen.Add(entry.uid)) return pass.Note(entry.text, SRouteStep::kAccountHasIt, entry.uid);
  SString const lowerUid = LowerCase(entry.uid);
  if (pass.suppressed.Contains(lowerUid) && !pass.kept.Contains(lowerUid))
    return pass.Note(entry.text, SRouteStep::kThroughList, entry.uid);
  pass.accounts.Push(entry.uid);
  pass.channels.Push(ChannelEntry(entry.full));
  pass.Note(entry.text, SRouteStep::kAccount, entry.uid);
}

void SSMTPRouterModule::_RouteToLocalDomain(Pass &pass, Entry &entry) {
  if (entry.local == "postmaster") return _RouteToPostmaster(pass, entry);
  int const percent = RoutingPercent(entry.local);
  if (percent >= 0) return _RouteByPercent(pass, entry, percent);
  pass.unknown.Push(ChannelEntry(entry.full));
  pass.Note(entry.text, SRouteStep::kUnknown, entry.full);
}

// Each local domain has a postmaster: the one of the installation where it names none of its own.
void SSMTPRouterModule::_RouteToPostmaster(Pass &pass, Entry const &entry) {
  if (!pass.seen.Add(kPostmasterUid)) return pass.Note(entry.text, SRouteStep::kAccountHasIt, kPostmasterUid);
  pass.accounts.Push(kPostmasterUid);
  pass.channels.Push(ChannelEntry(entry.full));
  pass.Note(entry.text, SRouteStep::kAccount, kPostmasterUid);
}

// "user%host" in a domain of ours stands for "user@host", as old gateways wrote it (RFC 1123, section 5.2.16). Whom it
// may be used to reach is limited, or anybody could send to anybody through this machine.
void SSMTPRouterModule::_RouteByPercent(Pass &pass, Entry &entry, int percent) {
  SString const before = ChannelEntry(entry.plain);
  SString const &local = entry.local;
  entry.found.Domain() = local.Segment(percent + 1, local.Length() - percent - 1);
  entry.found.LocalPart() = local.Segment(0, percent);
  SString const target = entry.found.Address();
  if (target.Length() < kShortestAddress) {
    pass.unknown.Push(before);
    return pass.Note(entry.text, SRouteStep::kUnknown, before);
  }
  if (!_MayRelay(pass, entry.found)) {
    pass.unallowed.Push(before);
    return pass.Note(entry.text, SRouteStep::kPercentRefused, before);
  }
  pass.work.Push(ChannelEntry(target));
  pass.channels.Push(before);
  pass.relayed.Add(before);
  pass.Note(entry.text, SRouteStep::kPercentRelay, ChannelEntry(target));
}

bool SSMTPRouterModule::_MayRelay(Pass &pass, S821Address const &target) {
  if (_foreignPercent) return true;
  S821Address const sender(GetControl().Get(kKeyUserFrom).Get(0));
  if (sender.Address().Length() < kShortestAddress) return false;
  return _IsLocal(pass, GetHostAddrPart(target, 1)) || _IsLocal(pass, GetHostAddrPart(sender, 1));
}

void SSMTPRouterModule::_RouteToHost(Pass &pass, Entry const &entry) {
  // Suppressed by address, but kept by UID, which a remote recipient seldom has: another list that it is on does not
  // bring the direct copy back.
  if (pass.suppressed.Contains(LowerCase(entry.full)) && !pass.kept.Contains(LowerCase(entry.uid)))
    return pass.Note(entry.text, SRouteStep::kThroughList, entry.full);
  if (entry.found.Route().Defined()) {
    SString const key = " " + entry.sent.Route().Join(",") + " " + entry.sent.Domain();
    pass.hosts[key].Push(ChannelEntry(entry.sent.Get()));
    return pass.Note(entry.text, SRouteStep::kSourceRoute, key);
  }
  SString host = entry.routedHost;
  if (!pass.force)
    host = _RouteHost(pass, entry, LowerCase(GetHostAddrPart(entry.sent, 0)));
  else if (pass.fromBypass)
    host = entry.unroutedHost;
  pass.hosts[host].Push(ChannelEntry(entry.sent.Address()));
  pass.Note(entry.text, SRouteStep::kSentTo, host);
}

// RewriteSMTPAddrs for an entry: the observer is told of the line that decides.
SString SSMTPRouterModule::_RouteHost(Pass const &pass, Entry const &entry, SString const &host) {
  SRouteLine line;
  if (!_FindRoute(host, line)) return host;
  pass.Note(entry.text, SRouteStep::kRoutingLine, line.Text());
  return line.HostFor(host);
}
