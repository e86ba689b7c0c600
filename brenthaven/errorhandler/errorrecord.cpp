#include "brenthaven/errorhandler/errorrecord.h"

#include <algorithm>
#include <cerrno>

#include "brenthaven/accounts/accountdb.h"
#include "brenthaven/address/address821.h"
#include "brenthaven/errorhandler/errortable.h"
#include "brenthaven/mime/japanese.h"
#include "brenthaven/platform/nativepath.h"
#include "brenthaven/platform/sys.h"
#include "brenthaven/spool/keys.h"
#include "brenthaven/text/base.h"
#include "brenthaven/text/sstringset.h"

namespace {

constexpr char kIndent[] = "    ";
constexpr char kFailed[] = "failed";  // actions, RFC 3464 section 2.3.3
constexpr char kDelayed[] = "delayed";
constexpr int kMostListed = 50;  // recipients in the text for people; the machine-readable part has all
constexpr int kMostSubjectBytes = 1000;

SString AddressOfAccount(SString const &uid) {
  SAccount account;
  if (SAccountDB().GetAccountInfo(uid, &account))
    if (SString address = account.GetPrimaryAddress(); address.Length() > 0) return address;
  return uid.Index('@') >= 0 ? uid : uid + "@" + GetEnv("DomainName");
}

// "SMTP <user@host>"; what is no address stays as it is.
SString AddressOfEntry(SString const &entry) {
  S821Address const address(entry);
  if (!address.IsValid()) return entry;
  return address.Domain().Length() > 0 ? address.LocalPart() + "@" + address.Domain() : address.LocalPart();
}

// "Mailbox UID"
SString AddressOfDelivery(SString const &entry) { return AddressOfAccount(entry.SplitExact(" ", 2).Get(-1)); }

struct RecipientRow {
  char const *key;
  SString (*address)(SString const &entry);
};
constexpr RecipientRow kRecipients[] = {
    {kKeyChannelTo, AddressOfEntry}, {kKeyAccountTo, AddressOfAccount}, {kKeyDeliverTo, AddressOfDelivery}};
constexpr RecipientRow kRecipientsDone = {kKeyAccountToDone, AddressOfAccount};

void AddRecipients(SControl const &record, RecipientRow const &row, SStringList &addresses) {
  SStringSet seen(addresses);
  for (SString const &entry : record.Get(row.key)) {
    SString const address = row.address(entry);
    if (seen.Add(address)) addresses.Push(address);
  }
}

SStringList Listed(SStringList const &recipients) {
  SStringList lines;
  for (SString const &address : recipients) {
    if (lines.Length() == kMostListed) {
      lines.Push(kIndent + SString("and ") + MakeSString(recipients.Length() - kMostListed) + " more");
      break;
    }
    lines.Push(kIndent + address);
  }
  return lines;
}

// The record's own lines. An entry of its recipients is shown as its address.
SStringList TextOf(SControl const &record) {
  SStringSet const entries(record.Get(kKeyChannelTo));
  SStringSet const accounts(record.Get(kKeyAccountTo));
  SStringList lines;
  for (SString const &line : record.Get(kKeyErrorText)) {
    if (entries.Contains(line))
      lines.Push(kIndent + AddressOfEntry(line));
    else
      lines.Push(accounts.Contains(line) ? kIndent + AddressOfAccount(line) : line);
  }
  if (lines.Length() == 1 && lines.Get(0).Length() == 0) lines.Reset();
  return lines;
}

SString SubjectOf(SControl &record) {
  SHeader header;
  if (!record.ReadHeader(&header)) return {};  // whoever attaches the header tells of that
  return DecodeEncodedWords(SString(header.Get(kHeaderSubject).Get(0).View().substr(0, kMostSubjectBytes)));
}

bool IsThere(SString const &path, bool &unreadable) {
  struct stat info;
  if (sys::Lstat(SNativePath(path), &info) == 0) return true;
  unreadable = unreadable || errno != ENOENT;
  return false;
}

// A number of the record with the text that the system has for it; nothing when it has none.
void AddNumber(SStringList &lines, SControl const &record, char const *key, SString (*text)(int)) {
  SString const number = record.Get(key).Get(0);
  if (number.Length() == 0) return;
  lines.Push(SString(key) + " " + number + " (" + text(static_cast<int>(number.AsLong())) + ")");
}

}  // namespace

SRecordFiles FilesOf(SControl const &record) {
  int const error = errno;
  bool unreadable = false;
  bool const header = IsThere(record.GetHeaderFilename(), unreadable);
  bool const body = IsThere(record.GetBodyFilename(), unreadable);
  errno = error;
  if (unreadable) return SRecordFiles::kUnreadable;
  return header && body ? SRecordFiles::kMessage : SRecordFiles::kNone;
}

SString ErrorNameOf(SControl const &record) {
  SString const error = record.Get(kKeyError).Get(0);
  int const open = error.RIndex('(');
  if (open < 0 || error[-1] != ')') return {};
  return error.Segment(open + 1, error.Length() - open - 2);
}

bool FailedRecipients(SControl const &record, SStringList &addresses) {
  SAccountDB::ClearReadFailed();
  for (RecipientRow const &row : kRecipients) AddRecipients(record, row, addresses);
  if (addresses.Length() == 0) AddRecipients(record, kRecipientsDone, addresses);
  return !SAccountDB::ReadFailed();
}

SReturnReasons ReasonsFor(SControl &record, SStringList const &recipients, bool delayed) {
  SErrorMeaning const meaning = delayed ? MeaningOf(ErrorNameOf(record)) : FinalMeaningOf(ErrorNameOf(record));
  SReturnReasons reasons;
  reasons.lines = {meaning.text, ""};
  SStringList const text = TextOf(record);
  SStringSet const lines(text);
  bool const isNamed = std::all_of(recipients.begin(), recipients.end(),
                                   [&lines](SString const &address) { return lines.Contains(kIndent + address); });
  if (!isNamed) reasons.lines.Push(Listed(recipients));
  reasons.lines.Push(text);
  if (SString const subject = SubjectOf(record); subject.Length() > 0) {
    reasons.lines.Push("");
    reasons.lines.Push("Subject: " + subject);
  }
  for (SString const &address : recipients)
    reasons.recipients.push_back({address, delayed ? kDelayed : kFailed, meaning.status, meaning.text});
  return reasons;
}

SString TextForPostmaster(SControl const &record) {
  SStringList lines{SString(kKeyError) + " " + record.Get(kKeyError).Get(0), "Record: " + record.GetFilename()};
  AddNumber(lines, record, kKeyErrorNumber, GetErrorString);
  AddNumber(lines, record, kKeySocketErrorNumber, GetSocketErrorString);
  if (SString const sender = record.Get(kKeyUserFrom).Get(0); sender.Length() > 0)
    lines.Push(SString(kKeyUserFrom) + " " + sender);
  SStringList recipients;
  (void)FailedRecipients(record, recipients);  // those that can be named: the rest of the text does not wait for them
  lines.Push("");
  lines.Push(TextOf(record));
  if (recipients.Length() > 0) {
    lines.Push(SStringList{"", "Recipients:", ""});
    lines.Push(Listed(recipients));
  }
  return ToIso2022Jp(lines.Join("\r\n"));
}
