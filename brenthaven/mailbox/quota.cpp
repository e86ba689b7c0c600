// Quotas: whether a mailbox can take a message, and when its owner hears about it.
#include <dirent.h>

#include <cmath>
#include <limits>

#include "brenthaven/accounts/accountdb.h"
#include "brenthaven/accounts/safeuid.h"
#include "brenthaven/accounts/special.h"
#include "brenthaven/mailbox/mailboxdeliver.h"
#include "brenthaven/mailbox/maillog.h"
#include "brenthaven/mailbox/newfile.h"
#include "brenthaven/platform/barrier.h"
#include "brenthaven/platform/dates.h"
#include "brenthaven/platform/files.h"
#include "brenthaven/spool/keys.h"
#include "brenthaven/store/sdbfile.h"
#include "brenthaven/text/base.h"

namespace {

constexpr long long kNoQuota = std::numeric_limits<int32_t>::max();  // what callers see where there is no limit

// Bytes of the messages in a folder; -1 when it could not be read.
long long CountFolder(SString const &folder) {
  DIR *directory = sys::OpenDir(folder);
  if (directory == nullptr) return -1;
  long long total = 0;
  while (struct dirent const *entry = sys::ReadDir(directory)) {
    if (entry->d_name[0] < '0' || entry->d_name[0] > '9') continue;
    long const size = FileSize(folder + entry->d_name);
    if (size > 0) total += size;
  }
  bool const complete = errno == 0;
  (void)sys::CloseDir(directory);  // only read
  return complete ? total : -1;
}

void ReplaceAll(std::string &text, std::string_view from, std::string_view to) {
  for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
    text.replace(at, from.size(), to);
}

}  // namespace

long long KilobytesToBytes(SString const &kilobytes) {
  double const bytes = kilobytes.AsDouble() * 1024;
  if (!(bytes > 0)) return 0;
  constexpr double kMost = 4.0e18;  // well inside 64 bits
  return static_cast<long long>(bytes < kMost ? bytes : kMost);
}

long long SMailboxDeliverModule::AvailableMailboxStorage(SSizeFile &f, unsigned int recount, long long *quota) {
  long long limit = _QuotaOf(_account);
  _unlimited = limit <= 0;
  if (_unlimited) limit = kNoQuota;
  long long size = f.GetSize();
  if (size < 0 || recount) {
    size = CountFolder(f.Folder());
    if (size >= 0) f.SetSize(size);  // else the next delivery counts
  }
  if (quota != nullptr) *quota = limit;
  return _unlimited ? limit : limit - size;
}

// 0 or less: no limit.
long long SMailboxDeliverModule::_QuotaOf(SString const &uid) const {
  SAccountReadScope const scope;
  SAccount account;
  long long const own =
      SAccountDB().GetAccountInfo(uid, &account) ? KilobytesToBytes(account.GetString(kAttrMailboxQuota)) : 0;
  return own > 0 ? own : _defaultQuota;
}

// The rule for one message of the current account. A message of exactly the remaining space is taken. Where accounts
// can't be read nobody is refused for good: the quota found may not be the account's own.
SMailboxDeliverModule::Room SMailboxDeliverModule::_RoomFor(SSizeFile &f, long long messageSize) {
  long long quota = 0;
  SAccountBase::ClearReadFailed();
  long long const left = AvailableMailboxStorage(f, 0, &quota) - messageSize;
  if (_unlimited) return Room::kEnough;
  if (left < 0 && !IsPostmasterForwardee(_account)) {
    if (SAccountBase::ReadFailed()) return Room::kUnknown;
    if (_overQuotaNotices && !f.OverNoticeSent()) SendOverQuotaMessage(f, left + messageSize, messageSize, quota);
    return Room::kTooLittle;
  }
  if (_quotaWarningThreshold == 0 || f.NearNoticeSent()) return Room::kEnough;
  double const warnBelow = std::trunc(static_cast<double>(quota) * (100.0 - _quotaWarningThreshold) / 100);
  if (static_cast<double>(left) < warnBelow && !IsPostmasterForwardee(_account)) SendNearQuotaMessage(f, left, quota);
  return Room::kEnough;
}

void SMailboxDeliverModule::IncreaseMailboxByteCount(SSizeFile &f, long long bytes) {
  long long const size = f.GetSize();
  if (size >= 0) f.SetSize(size + bytes);
}

void SMailboxDeliverModule::ComputeSizes() {
  for (SString const &uid : SAccountDB().AccountUIDList()) {
    if (!IsSafeUID(uid)) continue;
    _account = uid;
    SSizeFile sizeFile(_MailFolder(uid));
    if (sizeFile.Lock()) (void)AvailableMailboxStorage(sizeFile, 1, nullptr);
  }
}

int SMailboxDeliverModule::SendQuotaMessage(SSizeFile &f, SString const &key, long long spaceLeft,
                                            long long messageSize, long long quota) {
  Sdbfile settings(kModuleMailboxDeliver, 0, kProductWord);
  if (!settings.Open("Messages", 0)) return 0;
  std::string text(settings.Get(key).Get(0).View());
  if (text.empty()) return 0;
  ReplaceAll(text, "<+++PostMasterAccount+++>", ("Postmaster@" + GetEnv("HostName")).View());
  ReplaceAll(text, "<+++SendingDate+++>", RFC822Date().View());
  ReplaceAll(text, "<+++SpaceLeft+++>", std::to_string(spaceLeft));
  ReplaceAll(text, "<+++MessageSize+++>", std::to_string(messageSize));
  ReplaceAll(text, "<+++Quota+++>", std::to_string(quota));
  SNewFile notice(f.Folder() + NewMessageID());
  if (!notice.IsOpen() || sys::WriteAll(notice.Fd(), text.data(), text.size()) != 0 || !SyncFileData(notice.Fd()) ||
      !notice.Publish())
    return 0;
  return static_cast<int>(text.size());
}

void SMailboxDeliverModule::SendOverQuotaMessage(SSizeFile &f, long long spaceLeft, long long messageSize,
                                                 long long quota) {
  int const bytes = SendQuotaMessage(f, "OverQuotaMessage", spaceLeft, messageSize, quota);
  if (bytes == 0) return;
  f.SetOverNoticeSent();
  IncreaseMailboxByteCount(f, bytes);
}

void SMailboxDeliverModule::SendNearQuotaMessage(SSizeFile &f, long long spaceLeft, long long quota) {
  int const bytes = SendQuotaMessage(f, "NearQuotaMessage", spaceLeft, 0, quota);
  if (bytes == 0) return;
  f.SetNearNoticeSent();
  IncreaseMailboxByteCount(f, bytes);
}
