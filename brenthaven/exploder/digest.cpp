#include "brenthaven/exploder/digest.h"

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <vector>

#include "brenthaven/accounts/attributes.h"
#include "brenthaven/accounts/safeuid.h"
#include "brenthaven/exploder/listheaders.h"
#include "brenthaven/exploder/progress.h"
#include "brenthaven/lists/sliststate.h"
#include "brenthaven/mime/smime.h"
#include "brenthaven/platform/dates.h"
#include "brenthaven/platform/descriptor.h"
#include "brenthaven/platform/files.h"
#include "brenthaven/platform/nativepath.h"
#include "brenthaven/spool/accept.h"
#include "brenthaven/spool/keys.h"
#include "brenthaven/spool/log.h"
#include "brenthaven/text/base.h"

namespace {

constexpr unsigned long kDirectoryMode = 0770;
constexpr int kEveryDay = 7;
constexpr int kLastHour = 23;
constexpr char kLineEnd[] = "\r\n";
constexpr size_t kBlock = 64 * 1024;

// What a reader needs of a posting's header, in the order of RFC 2822 section 3.6.
constexpr char const *kKept[] = {kHeaderDate,
                                 kHeaderFrom,
                                 kHeaderReplyTo,
                                 kHeaderTo,
                                 "Cc:",
                                 kHeaderMessageId,
                                 "In-Reply-To:",
                                 "References:",
                                 kHeaderSubject,
                                 kHeaderMimeVersion,
                                 kHeaderContentType,
                                 kHeaderContentTransferEncoding,
                                 "Content-Disposition:",
                                 "Content-Language:"};

SString BoxDirectory() { return GetEnv("Brenthaven") + "/List-Exploder/digest/"; }

void LogError(SModule const &module, SString const &text) {
  WriteLogLine(LogFileDate() + ":" + module.GetModuleName() + ":ERROR:" + text + ": " + GetErrorString(-1));
}

bool Append(int fd, std::string_view text) { return sys::WriteAll(fd, text.data(), text.size()) == 0; }

// Copies a part to the end of a body, and tells whether it has bytes above ASCII.
bool AppendPart(int fd, SString const &path, bool &hasHighBytes) {
  SDescriptor const part(sys::Open(SNativePath(path), sys::kReadOwn));
  if (!part.IsOpen()) return false;
  std::vector<char> block(kBlock);
  for (;;) {
    ssize_t const got = sys::Read(part.Get(), block.data(), block.size());
    if (got <= 0) return got == 0;
    std::string_view const bytes(block.data(), static_cast<size_t>(got));
    hasHighBytes = hasHighBytes || std::any_of(bytes.begin(), bytes.end(), [](char c) { return (c & 0x80) != 0; });
    if (!Append(fd, bytes)) return false;
  }
}

bool IsDue(SModule const &module, SList const &list, SDigestBox const &box, time_t now) {
  int hours = 0;
  int day = kEveryDay;
  SString const schedule = list.Get(kAttrListDigestSchedule).Join(" ");
  bool const isSchedule = ParseListDeliverySpec(schedule, hours, day) != 0;
  time_t const last = isSchedule ? LastDigestTime(now, hours, day) : -1;
  if (last >= 0) return box.HasOneBefore(last);
  errno = 0;
  LogError(module, "No digest of " + list.GetUID() + ": no time of a digest: " + schedule);
  return false;
}

// One digest while it is made.
class Digest {
public:
  Digest(SModule &module, SList const &list, SStringList const &parts)
      : _list(list), _parts(parts), _control(module.NewMessageID()), _boundary(CreateMIMEBoundary()) {
    _control.SetModule(&module);
    _header.PutFilename(_control.GetFilename());
  }

  bool WriteBody();
  bool WriteHeader(int volume, int number);
  bool Commit(int volume, int number);
  void Remove() { (void)_control.RemoveMessage(); }  // as far as it was made

private:
  SList const &_list;
  SStringList const &_parts;
  SControl _control;
  SHeader _header;
  SString _boundary;
  bool _hasHighBytes = false;
};

bool Digest::WriteBody() {
  SDescriptor const body(sys::Open(SNativePath(_control.GetBodyFilename()), O_WRONLY | O_CREAT | O_EXCL));
  if (!body.IsOpen() || sys::Fchmod(body.Get(), 0660) != 0) return false;
  SString const delimiter = "--" + _boundary;
  for (SString const &part : _parts)  // without fields of its own a part of a digest is a message
    if (!Append(body.Get(), (delimiter + kLineEnd + kLineEnd).View()) || !AppendPart(body.Get(), part, _hasHighBytes) ||
        !Append(body.Get(), kLineEnd))
      return false;
  return Append(body.Get(), (delimiter + "--" + kLineEnd).View());
}

bool Digest::WriteHeader(int volume, int number) {
  SListNames const names(_list);
  SString const title = names.name + " digest, Vol " + MakeSString(volume) + " #" + MakeSString(number);
  SString const sender = names.requestAddress.Length() > 0 ? names.requestAddress : names.ownerAddress;
  SString const to = names.address.Length() > 0 ? names.address : sender;
  _header[kHeaderDate] = RFC822Date();
  _header[kHeaderFrom] = "<" + sender + ">";
  _header[kHeaderReplyTo] = "<" + to + ">";
  _header[kHeaderTo] = "<" + to + ">";
  _header[kHeaderSubject] = title;
  _header[kHeaderMessageId] = "<" + _control.GetFilename() + ">";
  _header[kHeaderMimeVersion] = "1.0";
  _header[kHeaderContentType] = "multipart/digest;\r\n\tboundary=\"" + _boundary + "\"";
  _header[kHeaderContentTransferEncoding] = _hasHighBytes ? "8bit" : "7bit";
  AddListFields(_header, _list, names);
  return _header.Write() != 0;
}

bool Digest::Commit(int volume, int number) {
  _control[kKeyFunction] = "List-Exploder";
  _control[kKeyControlType] = kTypeMail;
  _control[kKeyPriority] = kPriorityNew;
  _control[kKeyUserFrom] = ChannelSender(S821Address("<" + SListNames(_list).ownerAddress + ">"));
  _control[kKeyHostFrom] = LocalSubmissionHost();
  _control[kKeySubmittedDate] = RFC822Date();
  _control[kKeyMtaHops] = "0";
  _control[kKeyModuleTo] = "List-Exploder " + _list.GetUID();
  _control[kKeyListDigest] = MakeSString(volume) + " " + MakeSString(number);
  SProgress::Set(_control, kStageAccepted, "");
  if (!CommitNewMessage(_control)) return false;
  (void)_control.Notify();  // untold, the dispatcher's next look at control/ finds it
  return true;
}

// Numbers the digest and writes it. The number is used up even if the writing fails: readers see a gap, not two alike.
bool MakeDigest(SModule &module, SList const &list, SStringList const &parts) {
  SListState state(list.GetUID());
  if (!state.Read()) return false;
  int const volume = state.GetDigestVolume();
  int const number = state.IncrDigestNumber();
  if (!state.Commit()) return false;
  Digest digest(module, list, parts);
  if (digest.WriteBody() && digest.WriteHeader(volume, number) && digest.Commit(volume, number)) return true;
  int const error = errno;
  digest.Remove();
  errno = error;
  return false;
}

}  // namespace

time_t LastDigestTime(time_t now, int hours, int day) {
  struct tm local;
  if (hours < 0 || hours > kLastHour || localtime_r(&now, &local) == nullptr) return -1;
  for (int back = 0; back <= kEveryDay; ++back) {
    struct tm moment = local;
    moment.tm_mday -= back;
    moment.tm_hour = hours;
    moment.tm_min = moment.tm_sec = 0;
    moment.tm_isdst = -1;  // whatever the clock is there then
    time_t const time = mktime(&moment);
    if (time <= now && (day == kEveryDay || moment.tm_wday == day)) return time;
  }
  return -1;
}

SDigestBox::SDigestBox(SString const &listUID)
    : _directory(IsSafeUID(listUID) ? BoxDirectory() + listUID + "/" : SString()) {}

SStringList SDigestBox::ListUIDs() { return BaseName(ReadDir(BoxDirectory()), ""); }

unsigned SDigestBox::Add(SString const &name, SHeader const &header, SString const &bodyPath,
                         SSyncBarrier &barrier) const {
  if (_directory.Length() == 0 || !IsSafeUID(name) || !MakeDir(_directory, kDirectoryMode)) return 0;
  SHeader kept;
  for (char const *key : kKept)
    if (SStringList const values = header.Get(key); values.Length() > 0) kept[key] = values;
  SString const path = _directory + name;
  SString const temporary = path + kTempSuffix;
  (void)RemoveFile(temporary);  // left by a crash
  SDescriptor const part(sys::Open(SNativePath(temporary), O_WRONLY | O_CREAT | O_EXCL));
  bool ignored = false;
  bool const isWritten = part.IsOpen() && sys::Fchmod(part.Get(), 0660) == 0 &&
                         Append(part.Get(), (kept.Text() + kLineEnd).View()) &&
                         AppendPart(part.Get(), bodyPath, ignored) && Rename(temporary, path);
  if (!isWritten) {
    int const error = errno;
    (void)RemoveFile(temporary);
    errno = error;
    return 0;
  }
  barrier.AddFile(SNativePath(path));
  barrier.AddDirectory(SNativePath(_directory));
  barrier.AddDirectory(SNativePath(BoxDirectory()));  // the two above may be new as well
  barrier.AddParentOf(SNativePath(GetEnv("Brenthaven") + "/List-Exploder/digest"));
  return 1;
}

SStringList SDigestBox::Paths() const {
  SStringList paths;
  if (_directory.Length() == 0) return paths;
  for (SString const &path : ReadDir(_directory))
    if (!path.View().ends_with(kTempSuffix)) paths.Push(path);
  paths.Sort(SString::StrCmp);
  return paths;
}

bool SDigestBox::HasOneBefore(time_t moment) const {
  SStringList const paths = Paths();
  return std::any_of(paths.begin(), paths.end(), [moment](SString const &path) {
    struct stat info;
    return sys::Stat(SNativePath(path), &info) == 0 && info.st_mtime < moment;
  });
}

void SDigestBox::Remove(SStringList const &paths) const {
  for (SString const &path : paths) (void)RemoveFileLogged(path);
  (void)RemoveDir(_directory);  // refused while postings have come in meanwhile
}

unsigned SendDueDigest(SModule &module, SList const &list, time_t now) {
  SDigestBox const box(list.GetUID());
  if (!IsDue(module, list, box, now)) return 1;
  SStringList const parts = box.Paths();
  SAccountDB accounts;
  SAccountBase::ClearReadFailed();
  bool const hasReaders = accounts.IndexLookupCount(kAttrSubscribedListsDigest, list.GetUID()) > 0;
  if (SAccountBase::ReadFailed()) return 0;
  if (hasReaders && !MakeDigest(module, list, parts)) {
    LogError(module, "Couldn't make the digest of " + list.GetUID());
    return 0;
  }
  box.Remove(parts);
  return 1;
}
