// What mailbox delivery tells people: log lines, and the lists of an error report.
#include "brenthaven/accounts/accountdb.h"
#include "brenthaven/mailbox/mailboxdeliver.h"
#include "brenthaven/mailbox/maillog.h"
#include "brenthaven/spool/keys.h"
#include "brenthaven/spool/log.h"
#include "brenthaven/text/base.h"

namespace {

constexpr std::string_view kSpaces = " \t\r\n\f\v";

// The second word of an entry, when it has one directly behind a single blank; else the entry as it is.
SString AccountOf(SString const &entry) {
  std::string_view const text = entry.View();
  size_t const blank = text.find_first_of(kSpaces);
  if (blank == 0 || blank == std::string_view::npos || text[blank] != ' ') return entry;
  std::string_view const rest = text.substr(blank + 1);
  std::string_view const account = rest.substr(0, rest.find_first_of(kSpaces));
  return account.empty() ? entry : SString(account);
}

SString LogName(SString const &message) { return BaseName(message) + "-" + kMailboxAgent; }

}  // namespace

void WriteMailLog(SString const &fields) { WriteLogLine(LogFileDate() + ":" + ProcessIdString() + ":" + fields); }

void SMailboxDeliverModule::LogDelivery(SString const &message, SStringList const &entries) {
  if (!_log) return;
  SStringList accounts;
  for (SString const &entry : entries) accounts.Push(AccountOf(entry));
  accounts.Sort(SString::StrCmp);
  accounts.Unique();
  WriteMailLog(LogName(message) + ":" + accounts.Join(","));
}

void SMailboxDeliverModule::LogError(SString const &text) {
  WriteMailLog(LogName(GetControl().GetFilename()) + ":ERROR::" + text);
}

SStringList SMailboxDeliverModule::Recipients(SStringList const &entries) {
  SStringList addresses;
  for (SString const &entry : entries) {
    SString const name = entry.SplitExact(" ", 4).Get(1);
    SAccount account;
    addresses.Push(SAccountDB().GetAccountInfo(name, &account) ? account.GetPrimaryAddress() : "Bad account: " + name);
  }
  return addresses;
}

SStringList SMailboxDeliverModule::Indent(SStringList const &lines, int n) {
  if (n < 1) return lines;
  SString const blanks(' ', n);
  SStringList indented;
  for (SString const &line : lines) indented.Push(blanks + line);
  return indented;
}

SStringList SMailboxDeliverModule::GetAllMailboxDeliveries() {
  SStringList deliveries;
  for (SString const &entry : GetControl().Get(kKeyDeliverTo))
    if (entry.SplitExact(" ", 2).Get(0) == kMailboxAgent) deliveries.Push(entry);
  return deliveries;
}
