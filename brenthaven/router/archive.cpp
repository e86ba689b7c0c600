#include "brenthaven/router/archive.h"

#include "brenthaven/handler/fanout.h"
#include "brenthaven/router/pass.h"
#include "brenthaven/router/settings.h"
#include "brenthaven/spool/keys.h"
#include "brenthaven/text/base.h"
#include "brenthaven/text/sstringset.h"

namespace {

void DropLeadingSpace(SString &text) {
  static SPerlRegex const kSpace("^\\s+");
  (void)text.S(kSpace, "");  // most have none
}

// An entry in one pair of angle brackets, without what stands around those that it has.
SString InBrackets(SString entry) {
  static SPerlRegex const kBracketed("<.*>"), kFront("^.+<"), kBack(">.+$"), kOpen("^[\\s<]+"), kClose("[\\s>]+$");
  if (entry.HasMatch(kBracketed)) {
    (void)entry.S(kFront, "<");
    (void)entry.S(kBack, ">");
  }
  (void)entry.S(kOpen, "");
  (void)entry.S(kClose, "");
  return "<" + entry + ">";
}

// An address that the pattern covers whole.
SString PatternExpression(SString const &pattern) { return "^<" + WildcardExpression(pattern) + ">$"; }

SStringList EachOnce(SStringList const &entries) {
  SStringSet seen;
  SStringList once;
  for (SString const &entry : entries)
    if (seen.Add(entry)) once.Push(entry);
  return once;
}

}  // namespace

SStringList RawAddresses(SStringList const &values) {
  SStringList addresses;
  for (SString const &value : values)
    for (SString line : value.SplitExact("\r\n")) {
      if (line.Length() == 0 || line.Index(':') >= 0) continue;
      DropLeadingSpace(line);
      for (SString entry : line.SplitExact(",")) {
        DropLeadingSpace(entry);
        if (entry.Length() > 0) addresses.Push(InBrackets(entry));
      }
    }
  return addresses;
}

SArchiveRule::SArchiveRule(SString const &text) {
  static SPerlRegex const kRule("^<(\\S+)><(\\S+)><(\\S+)><(\\S*)>$");
  SStringList const parts = kRule.Match(text);
  if (parts.Length() == 0) {
    _fault = "not of the form <sender><recipient><target><mailbox>";
    return;
  }
  _sender.Set(PatternExpression(parts.Get(1)));
  _recipient.Set(PatternExpression(parts.Get(2)));
  if (!_sender.OK() || !_recipient.OK())
    _fault = "has a pattern that does not compile";
  else if (!IsArchiveTarget(parts.Get(3)))
    _fault = "has a target that is no host";
  _target = ArchiveTarget(parts.Get(3));
  _mailbox = parts.Get(4);
}

void SArchiveRule::AddCopies(SStringList const &senders, SStringList const &recipients,
                             SNamedStringList &copies) const {
  if (senders.Grep(_sender).Length() == 0) return;
  SStringList const taken = recipients.Grep(_recipient);
  for (SString const &recipient : taken)
    copies[_target].Push(kChannelPrefix + (_mailbox.Length() > 0 ? "<" + _mailbox + ">" : recipient));
}

SArchiveRules::SArchiveRules(SStringList const &lines) {
  for (SString const &line : lines)
    if (auto rule = std::make_unique<SArchiveRule>(line); rule->Fault().Length() == 0)
      _rules.push_back(std::move(rule));
}

void SArchiveRules::AddCopies(SStringList const &senders, SStringList const &recipients,
                              SNamedStringList &copies) const {
  for (auto const &rule : _rules) rule->AddCopies(senders, recipients, copies);
  for (SString const &target : copies.Keys()) copies[target] = EachOnce(copies.Get(target));
}

void SSMTPRouterModule::CreateArchiveToCandidate(SNamedStringList &table) {
  SControl const &own = GetControl();
  if (own.Get(kKeyArchiveTransferDone).Contains(GetModuleName())) return;
  if (GetEnv("ForceRouting") == "yes" && _IsFromBypassHost()) return;  // archived on its way to that host
  Sdbfile settings(GetModuleName(), 0, kProductWord);
  if (!settings.Open("/Config", 0) || settings.Get("Archive-Enabled").Get(0) != "yes") return;
  SStringList const senders = RawAddresses(own.Get(kKeyRawMailFrom));
  SStringList const recipients = RawAddresses(own.Get(kKeyRawRcptTo));
  if (senders.Length() == 0 || recipients.Length() == 0) return;
  CompiledFrom<SArchiveRules>(settings.Get("Archive-Rule"))->AddCopies(senders, recipients, table);
}
