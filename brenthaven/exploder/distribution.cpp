#include "brenthaven/exploder/distribution.h"

#include <algorithm>
#include <cerrno>
#include <ctime>

#include "brenthaven/accounts/attributes.h"
#include "brenthaven/exploder/progress.h"
#include "brenthaven/exploder/returnpath.h"
#include "brenthaven/exploder/textframe.h"
#include "brenthaven/lists/slistkey.h"
#include "brenthaven/mailbox/diskspace.h"
#include "brenthaven/platform/barrier.h"
#include "brenthaven/platform/files.h"
#include "brenthaven/platform/nativepath.h"
#include "brenthaven/platform/sys.h"
#include "brenthaven/spool/accept.h"
#include "brenthaven/spool/keys.h"
#include "brenthaven/store/sdbfile.h"
#include "brenthaven/text/base.h"

namespace {

constexpr char kMailboxEntry[] = "Mailbox ";
constexpr char kDefaultPriority[] = "3";
constexpr double kGroupBytes = 256 * 1024;  // estimate of what a group takes on the disk besides the shared files

// Fields of the posting's control that are about its own way here.
constexpr char const *kOwnFields[] = {
    kKeyAccountTo, kKeyAccountToDone, kKeyChannelTo,   kKeyChannelToDone,      kKeyDeliverTo,       kKeyDeliverToDone,
    kKeyManagerTo, kKeyManagerToDone, kKeyModuleTo,    kKeyModuleToDone,       kKeyHostTo,          kKeyDeferReason,
    kKeyTrace,     kKeyRawMailFrom,   kKeyRawRcptTo,   kKeyAccumulatedRcptNum, kKeyListPostingDone, kKeyListDigest,
    kKeyApproved,  kKeyErrorListUid,  kKeyErrorMsgType};

// Gives a body file a further name; a copy where the file system has no links.
bool LinkBody(SString const &from, SString const &to) {
  return sys::Link(SNativePath(from), SNativePath(to)) == 0 || LinkFile(from, to) != 0;
}

int Kilobytes(SControl const &message) {
  constexpr long kKilobyte = 1024;
  long const bytes =
      std::max(0L, FileSize(message.GetHeaderFilename())) + std::max(0L, FileSize(message.GetBodyFilename()));
  return static_cast<int>((bytes + kKilobyte - 1) / kKilobyte);
}

SString PriorityOf(SList const &list) {
  SString const priority = list.GetString(kAttrListPriority);
  return priority.Length() == 1 && priority[0] >= '1' && priority[0] <= '9' ? priority : SString(kDefaultPriority);
}

}  // namespace

// What one new message is for.
struct SDistribution::Batch {
  char const *function;
  char const *key;
  SStringList entries;
  char const *stage;
  SString last;             // reader, as the record has it
  SString subscriber = "";  // address of the only reader; empty where there are more
  SString returnPath = "";  // User-From:, where it is not the list's
};

SDistribution::SDistribution(SModule &module, SList const &list, SHeader const &header)
    : _module(module), _own(module.GetControl()), _list(list), _header(header), _names(list), _template(_own) {
  for (char const *key : kOwnFields) _template.Delete(key);
  _template[kKeyUserFrom] = ChannelSender(S821Address("<" + _names.ownerAddress + ">"));
  _template[kKeyErrorListUid] = list.GetUID();
  _template[kKeyPriority] = PriorityOf(list);
}

// The names of the shared files go once the messages have theirs.
SDistribution::~SDistribution() {
  if (_base.GetFilename().Length() == 0) return;
  for (SString const &path : {_base.GetHeaderFilename(), _base.GetBodyFilename()}) (void)RemoveFile(path);
}

bool SDistribution::Run() {
  _ReadSettings();
  if (!_ReadReaders()) return false;
  if (_readers.mailboxes.empty() && _readers.accounts.empty() && _readers.remotes.empty()) return true;
  _module.GetBarrier().Arm(SNativePath(_module.GetControlDir()));
  return _MakeBase() && _SendHere(_readers.mailboxes, kStageMailbox) && _SendHere(_readers.accounts, kStageAccount) &&
         _SendAway() && _EndGroup(true);
}

void SDistribution::_ReadSettings() {
  _url = SUnsubscribeURL::FromSettings();
  _secret = GetEnv("FormSigKey");
  Sdbfile settings(_module.GetModuleName(), 0, kProductWord);
  if (!settings.Open("/Config", 0)) return;
  _returnDomain = settings.Get("List-VERP-Domain").Get(0);
  _hasReturnPaths = settings.Get("List-VERP").Get(0) == "yes" && _returnDomain.Length() > 0;
}

bool SDistribution::_ReadReaders() {
  bool const isDigest = _own.Get(kKeyListDigest).Length() > 0;
  if (!_readers.Read(_list, isDigest ? SReaderKind::kDigest : SReaderKind::kImmediate)) return false;
  SProgress const progress(_own);
  if (progress.stage == kStageMailbox) _readers.DropMailboxesTo(progress.detail);
  if (progress.stage == kStageAccount) _readers.DropAccountsTo(progress.detail);
  if (progress.stage == kStageRemote) _readers.DropRemotesTo(progress.detail);
  return true;
}

bool SDistribution::_MakeBase() {
  _base = _template;
  _base.PutFilename(_module.NewMessageID());
  SHeader header(_header);
  if (_url.IsSet() && !_url.IsPersonal())
    AddUnsubscribeURL(header, _url.For(_names, SString(), SString()), _url.IsOneClick());
  header.PutFilename(_base.GetFilename());
  if (!header.Write()) return false;
  STextFrame const frame(_list.Get(kAttrListPrologue), _list.Get(kAttrListEpilogue));
  bool const isPosting = _own.Get(kKeyListDigest).Length() == 0;
  STextFrame::Result const framed =
      isPosting ? frame.Write(header, _own.GetBodyFilename(), _base.GetBodyFilename()) : STextFrame::Result::kUnfit;
  if (framed == STextFrame::Result::kFailed) return false;
  if (framed == STextFrame::Result::kUnfit && !LinkBody(_own.GetBodyFilename(), _base.GetBodyFilename())) return false;
  _template[kKeyMessageSize] = MakeSString(Kilobytes(_base));
  return true;
}

bool SDistribution::_SendHere(std::vector<SString> const &uids, char const *stage) {
  bool const isMailbox = stage == kStageMailbox;
  size_t const most = _url.IsPersonal() ? 1 : kBatch;
  for (size_t begin = 0; begin < uids.size(); begin += most) {
    Batch batch{.function = isMailbox ? kModuleMailboxDeliver : kModuleAccountHandler,
                .key = isMailbox ? kKeyDeliverTo : kKeyAccountTo,
                .entries = {},
                .stage = stage,
                .last = uids[std::min(begin + most, uids.size()) - 1]};
    for (size_t i = begin; i < std::min(begin + most, uids.size()); ++i)
      batch.entries.Push(isMailbox ? kMailboxEntry + uids[i] : uids[i]);
    SAccount reader;
    if (_url.IsPersonal() && SAccountDB().GetAccountInfo(uids[begin], &reader))
      batch.subscriber = reader.GetPrimaryAddress();
    if (!_Write(batch)) return false;
  }
  return true;
}

bool SDistribution::_SendAway() {
  std::vector<SRemoteReader> const &remotes = _readers.remotes;
  bool const isSingle = _hasReturnPaths || _url.IsPersonal();
  for (size_t next = 0; next < remotes.size();) {
    Batch batch{.function = kModuleSmtpRouter, .key = kKeyChannelTo, .entries = {}, .stage = kStageRemote, .last = ""};
    SString host;
    for (int hosts = 0; next < remotes.size() && batch.entries.Length() < (isSingle ? 1 : kRemoteBatch); ++next) {
      SRemoteReader const &reader = remotes[next];
      if (reader.host != host && ++hosts > kHosts) break;
      host = reader.host;
      batch.entries.Push(kChannelPrefix + S821Address("<" + reader.address + ">").Get());
      batch.last = reader.address;
    }
    if (isSingle) batch.subscriber = batch.last;
    if (_hasReturnPaths) {
      S821Address const path =
          MakeReturnPath(_list.GetUID(), _list.GetName(), batch.subscriber, _returnDomain, _secret);
      if (path.IsValid()) batch.returnPath = ChannelSender(path);
    }
    if (!_Write(batch)) return false;
  }
  return true;
}

// The message files alone: a crash leaves files that no module reads. The group's end writes the controls.
bool SDistribution::_Write(Batch const &batch) {
  if (_group.size() >= _MostInGroup(batch.subscriber.Length() > 0) && !_EndGroup(false)) return false;
  if (_group.empty() && GetRemainingUsableKB(_module.GetControlDir(), kGroupBytes) == 0) return false;
  _group.push_back(_template);
  SControl &copy = _group.back();
  copy.PutFilename(_module.NewMessageID());
  copy[kKeyFunction] = batch.function;
  copy[batch.key] = batch.entries;
  if (batch.returnPath.Length() > 0) {
    copy[kKeyUserFrom] = batch.returnPath;
    copy.Delete(kKeyErrorListUid);  // a failure goes back by that path, to be counted
  }
  if (!_WriteFiles(copy, batch)) {
    _UndoGroup();
    return false;
  }
  _stage = batch.stage;
  _last = batch.last;
  return true;
}

bool SDistribution::_WriteFiles(SControl const &copy, Batch const &batch) {
  if (!_url.IsPersonal() || batch.subscriber.Length() == 0) return _base.LinkMessage(copy.GetFilename()) != 0;
  SHeader header(_header);
  AddUnsubscribeURL(header, _URLFor(batch.subscriber), _url.IsOneClick());
  header.PutFilename(copy.GetFilename());
  return header.Write() && LinkBody(_base.GetBodyFilename(), copy.GetBodyFilename());
}

SString SDistribution::_URLFor(SString const &subscriber) const {
  SListKeySubject const subject = {subscriber, _list.GetUID()};
  SString const key = GetKeyDays() > 0
                          ? MakeDatedListKey(subject, SListIntent::kUnsubscribe, KeyDay(time(nullptr)), _secret)
                          : MakeListKey(subject, _secret);
  return _url.For(_names, subscriber, key);
}

// What the messages hold is on disk before a control names it: after a power cut a reader would get a part of it.
bool SDistribution::_WriteControls() {
  SSyncBarrier contents;
  if (!_isBaseSafe)
    for (SString const &path : {_base.GetHeaderFilename(), _base.GetBodyFilename()})
      contents.AddFile(SNativePath(path));
  if (_url.IsPersonal())
    for (SControl const &copy : _group) contents.AddFile(SNativePath(copy.GetHeaderFilename()));
  if (!contents.Commit()) return false;
  _isBaseSafe = true;
  for (SControl &copy : _group) {
    if (!copy.Write()) return false;
    _module.Cover(copy);
  }
  return true;
}

// The last group is recorded in memory alone: the posting is dropped next, or the frame writes what was done.
bool SDistribution::_EndGroup(bool isLast) {
  if (_group.empty()) return true;
  if (!_WriteControls()) {
    _UndoGroup();
    return false;
  }
  SStringList const before = _own.Get(kKeyListPostingDone);
  SProgress::Set(_own, _stage, _last);
  if (!_module.CommitBarrier() || (!isLast && !_own.Write())) {
    _own[kKeyListPostingDone] = before;
    _UndoGroup();
    return false;
  }
  for (SControl &copy : _group) (void)copy.Notify();  // untold, the dispatcher's next look at control/ finds it
  _group.clear();
  return true;
}

void SDistribution::_UndoGroup() {
  int const error = errno;
  for (SControl &copy : _group) (void)copy.RemoveMessage();  // as far as it was made
  _group.clear();
  errno = error;
}
