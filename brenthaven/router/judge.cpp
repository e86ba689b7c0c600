#include "brenthaven/router/judge.h"

#include <iterator>

#include "brenthaven/address/parser821.h"
#include "brenthaven/net/dns.h"
#include "brenthaven/net/dottedquad.h"
#include "brenthaven/router/settings.h"
#include "brenthaven/router/sideline.h"
#include "brenthaven/spool/keys.h"

namespace {

// What the rules look at. sender and domain are taken from the envelope, whatever the header says.
struct Case {
  SControl &control;
  SSidelineSettings const &settings;
  SHeaderFilter const *filter;  // null: none
  SString sender;               // without its brackets, but "<>" for the null sender; empty for no address
  SString domain;

  bool IsNull() const { return sender == "<>"; }
};

// The sender, as rules and log lines speak of it.
void TakeSender(Case &c) {
  static SPerlRegex const kBrackets("<([^\\s]+)>");
  S821Address const address = S821Parser(c.control.Get(kKeyUserFrom).Get(0), 1).ExtractAddress();
  c.sender = address.Address();
  c.sender.S(kBrackets, "$1");
  c.domain = address.Domain();
}

// A domain that is an address, with or without brackets. A name with a quad in it, as hosts behind a modem have, is a
// name.
bool IsQuad(SString const &domain) {
  std::string_view text = domain.View();
  if (text.starts_with('[')) text.remove_prefix(1);
  if (text.ends_with(']')) text.remove_suffix(1);
  return IsDottedQuad(text);
}

// The address of the client: the quad in brackets, which the accepting side has seen, before one in the name that the
// client gave itself.
SString ClientAddress(Case const &c) {
  SString const host = c.control.Get(kKeyHostFrom).Get(0);
  std::string_view quad;
  if (size_t const bracket = host.View().rfind('['); bracket != std::string_view::npos)
    quad = FindDottedQuad(host.View().substr(bracket));
  if (quad.empty()) quad = FindDottedQuad(host.View());
  return quad.empty() ? GetRecord(c.domain, 0) : SString(quad);
}

bool HasNullSender(Case const &c) { return c.IsNull(); }

bool HasNoDomain(Case const &c) {
  static SPerlRegex const kWithDomain("([^\\s@]+)@([^\\s@]+)");
  return !c.IsNull() && !kWithDomain.HasMatch(c.sender);
}

bool HasHostAlone(Case const &c) {
  static SPerlRegex const kHostAlone("([^\\s@]+)@([^@\\s\\.]+)(\\s+[^\\s@]*)*$");
  return kHostAlone.HasMatch(c.sender) != 0;
}

bool HasIpDomain(Case const &c) {
  static SPerlRegex const kIpDomain("([^\\s@]+)@\\[?\\d{1,3}\\.\\d{1,3}\\.\\d{1,3}\\.\\d{1,3}\\]?");
  return kIpDomain.HasMatch(c.sender) != 0;
}

bool HasUnknownDomain(Case const &c) {
  if (c.IsNull()) return false;
  SStringList found;
  if (IsQuad(c.domain)) return GetHostByAddr(c.domain, &found) != kNameFound;
  return GetHostByName(c.domain, &found) != kHostFound;
}

bool HasNoMxDomain(Case const &c) {
  if (c.IsNull() || IsQuad(c.domain)) return false;
  SStringList exchanges;
  return MxQuery(c.domain, &exchanges) != kMxFound;
}

bool HasManyRecipients(Case const &c) {
  int count = 0;
  for (char const *key :
       {kKeyChannelToDone, kKeyChannelTo, kKeyAccountToDone, kKeyAccountTo, kKeyDeliverToDone, kKeyDeliverTo})
    count += c.control.Get(key).Length();
  return count > c.settings.mostRecipients;
}

bool HasManyTcpRecipients(Case const &c) {
  SStringList const count = c.control.Get(kKeyAccumulatedRcptNum);
  return count.Length() > 0 && count.Get(0).AsLong() > c.settings.mostTcpRecipients;
}

bool HasFilteredHeader(Case const &c) {
  if (c.filter == nullptr || c.filter->IsEmpty()) return false;
  SHeader header;
  if (c.control.ReadHeader(&header)) return c.filter->Hits(header);
  LogSideline(c.control.GetModuleName(), kSidelineHeaderError, c.control.GetFilename());
  return false;
}

bool IsOnBlockList(Case const &c) {
  SString const address = ClientAddress(c);
  return address.Length() > 0 && PortableRBLCheck(address, c.settings.blockList) == 1;
}

// In the order in which they are applied: each costs more than most before it, and a hit spares all behind it.
struct Rule {
  SSidelineRule number;
  char const *key;
  char const *logKey;
  bool (*hits)(Case const &c);
};
constexpr Rule kRules[] = {
    {kSidelineNullAddress, "SideLineNullAddress", "LogNullFrom", HasNullSender},
    {kSidelineNoDomain, "SideLineNoDomainAddress", "LogNoDomain", HasNoDomain},
    {kSidelineHostDomain, "SideLineOnlyHostDomain", "LogOnlyHost", HasHostAlone},
    {kSidelineIpDomain, "SideLineIPDomain", "LogIPDomain", HasIpDomain},
    {kSidelineUnknownDomain, "SideLineDomain", "LogLookupFail", HasUnknownDomain},
    {kSidelineNoMxDomain, "SideLineNoMXDomain", "LogMxLookupFail", HasNoMxDomain},
    {kSidelineRecipients, "SideLineDestNumExceedMsg", "LogNumRecipient", HasManyRecipients},
    {kSidelineTcpRecipients, "SideLineTCPDestNumExceedMsg", "LogNumRecipient_TCP", HasManyTcpRecipients},
    {kSidelineHeaderFilter, "SideLineDetail", "LogDetailFilter", HasFilteredHeader},
    {kSidelineBlockList, "SideLineRBL", "LogRBLCheck", IsOnBlockList},
};
static_assert(std::size(kRules) == kSidelineRules);

}  // namespace

void SSidelineSettings::Load(SNamedStringList const &config) {
  for (Rule const &rule : kRules) {
    rules[rule.number] = config.Get(rule.key).Get(0) == "yes";
    logs[rule.number] = config.Get(rule.logKey).Get(0) == "yes";
  }
  mostRecipients = ReadCount(config, "SideLineDestNumMax");
  mostTcpRecipients = ReadCount(config, "SideLineTCPDestNumMax");
  blockList = config.Get("SideLineRBLServer").Get(0);
}

void SSidelineAction::Load(SStringList const &values) {
  *this = SSidelineAction();
  for (SString const &value : values) {
    if (value == kActionReturn || value == kActionDelete || value == kActionHold) action = value;
    if (value == "log") log = true;
    if (value == "mail") mail = true;
  }
}

unsigned int SSidelineJudge::InitFilters(SStringList const &lines, SString *badLine) {
  _filter = SHeaderFilter::Of(lines, badLine);
  return _filter != nullptr;
}

unsigned int SSidelineJudge::Judge(SControl &control, SSidelineSettings const &settings, SString &reason) const {
  if (settings.rules.none() || control.Get(kKeyTrace).Contains(kSidelinePlace) || IsReport(control)) return 1;
  Case c{control, settings, _filter.get(), {}, {}};
  TakeSender(c);
  for (Rule const &rule : kRules) {
    if (!settings.rules[rule.number] || !rule.hits(c)) continue;
    if (settings.logs[rule.number]) LogSideline(control.GetModuleName(), rule.number, c.sender);
    reason = SidelineReason(rule.number);
    return 0;
  }
  return 1;
}
