#include "brenthaven/mailbox/mailboxdeliver.h"

#include <errno.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <memory>
#include <utility>
#include <vector>

#include "brenthaven/accounts/accountdb.h"
#include "brenthaven/accounts/safeuid.h"
#include "brenthaven/mailbox/diskspace.h"
#include "brenthaven/mailbox/mailboxpath.h"
#include "brenthaven/mailbox/maillog.h"
#include "brenthaven/mailbox/newfile.h"
#include "brenthaven/platform/barrier.h"
#include "brenthaven/platform/files.h"
#include "brenthaven/platform/sys.h"
#include "brenthaven/spool/keys.h"
#include "brenthaven/store/sdbfile.h"
#include "brenthaven/text/base.h"

// A pass:
//   1. write one substance file for each slot that an entry falls into, and a copy of it for each further entry;
//   2. flush what they hold: a file has no name before it is on disk, or a power cut could leave a reader a part of it;
//   3. take entry after entry: quota, the file's name, size record;
//   4. make the names durable, then record in the control what is stored and settle what becomes of the rest.

namespace {

int g_batch = SMailboxDeliverModule::kBatch;

constexpr int kSlotCount = 2;
constexpr unsigned long kFolderMode = 0770;
constexpr int kRecipientIndent = 5;  // blanks in front of an address in an error text

// Where errors come from, and what Mailbox-Deliver-Error-Sent: calls them.
constexpr char kCreateMessageFile[] = "CreateMessageFile";
constexpr char kSubstanceFile[] = "SubstanceFile";
constexpr char kDeliverMessage[] = "DeliverMessage";

SString DirectoryOf(SString const &file) { return SString(file.View().substr(0, file.View().rfind('/') + 1)); }

void SetOrDelete(SControl &control, char const *key, SStringList const &list) {
  if (list.Length() > 0)
    control[key] = list;
  else
    control.Delete(key);
}

}  // namespace

struct SMailboxDeliverModule::Entry {
  explicit Entry(SString const &entry) : text(entry) {
    SStringList const parts = entry.SplitExact(" ", 4);
    agent = parts.Get(0);
    account = parts.Get(1);
  }
  bool IsMailbox() const { return agent == kMailboxAgent; }

  SString text;
  SString agent;
  SString account;
  bool lookedUp = false;
  bool found = false;  // the account has a record
  int slot = 0;
  SString folder;  // ends in "/in/"
  bool hasFolder = false;
  std::unique_ptr<SNewFile> copy;  // not for the account that takes the substance file itself
  SString copyName;                // its name to be
  int copyError = 0;               // errno when it could not be written
  bool waits = false;              // stands among the temporary failures
  bool isDone = false;             // stored, by this pass or an earlier one
};

// The substance file has no name until its account takes it, under the lock of the size record: so a file that can be
// seen is a file that is counted, and one that nobody takes is gone with the pass.
struct SMailboxDeliverModule::Slot {
  bool IsDefined() const { return substance != nullptr; }

  std::unique_ptr<SNewFile> substance;
  SString file;              // its name to be
  SString account;           // whose mailbox it is for
  bool isUnclaimed = false;  // that account has not taken it yet
  long long size = 0;        // bytes of each file
};

struct SMailboxDeliverModule::Pass {
  explicit Pass(SControl &control) {
    for (SString const &text : control.Get(kKeyDeliverTo))
      if (static_cast<int>(entries.size()) < g_batch)
        entries.emplace_back(text);
      else
        rest.Push(text);
    bad = control.Get(kKeyBadDeliveries);
    temporary = control.Get(kKeyTempFailures);
    overQuota = control.Get(kKeyOverQuota);
    isFurther = bad.Length() + temporary.Length() + overQuota.Length() > 0;
  }
  Pass(Pass const &) = delete;

  void FailForNow(Entry &entry, SString const &text) {
    if (errno != 0) error = errno;
    errors.Push(text);
    if (!entry.waits) temporary.Push(entry.text);
    entry.waits = true;
  }
  void Settle(Entry &entry) {
    if (entry.waits) temporary.Delete(entry.text);
    entry.waits = false;
    entry.isDone = true;
  }
  // All that is not settled, in the control's order.
  SStringList Undelivered() const {
    SStringList open;
    for (Entry const &entry : entries)
      if (!entry.isDone) open.Push(entry.text);
    open.Push(rest);
    return open;
  }

  std::vector<Entry> entries;
  SStringList rest;        // for another pass
  bool isFurther = false;  // earlier batches have left failures, which only the three lists name
  Slot slots[kSlotCount];
  SStringList bad;
  SStringList temporary;
  SStringList overQuota;
  SStringList errors;
  int error = 0;  // errno of the last failure that had one
};

SMailboxDeliverModule::SMailboxDeliverModule() : SModule(kModuleMailboxDeliver) {}

SMailboxDeliverModule::~SMailboxDeliverModule() = default;

void SMailboxDeliverModule::SetBatch(int entries) { g_batch = entries; }

unsigned int SMailboxDeliverModule::LoadEnv() {
  Sdbfile settings(GetModuleName(), 0, kProductWord);
  if (!settings.Open("/Config", 0)) return 0;
  _log = settings.Get("Log").Get(0) == "yes";
  _quotaWarningThreshold =
      static_cast<int>(std::clamp<long>(settings.Get("QuotaWarningThreshold").Get(0).AsLong(), INT_MIN, INT_MAX));
  _overQuotaNotices = settings.Get("OverQuotaNotices").Get(0) == "yes";
  _defaultQuota = KilobytesToBytes(GetEnv("DefaultMailboxQuota"));
  return 1;
}

unsigned int SMailboxDeliverModule::ProcessMail() {
  _unlimited = false;
  _delivered = SStringList();
  SControl &control = GetControl();
  Pass pass(control);
  if (pass.entries.empty())
    return ProcessError(control, "BadControlFile", kDeliverMessage, "No deliveries listed in control file");
  (void)control.CloseHeaderBody();  // what it reports is found again where the message is read
  if (pass.entries.size() > 1) GetBarrier().Arm(GetMailboxDir());
  if (!_WriteSubstances(pass)) return _DeferUnwritten(pass);
  _WriteCopies(pass);
  if (!_FlushContents(pass)) return _DeferUnwritten(pass);
  if (!_DeliverEntries(pass)) return _DeferUndefined(pass);
  return pass.rest.Length() > 0 ? _EndBatch(pass) : _EndPass(pass);
}

// False when a substance file could not be written: then no entry is delivered in this pass.
bool SMailboxDeliverModule::_WriteSubstances(Pass &pass) {
  for (Entry &entry : pass.entries) {
    if (!entry.IsMailbox()) continue;
    errno = 0;
    _LookUp(entry);
    Slot &slot = pass.slots[entry.slot];
    if (!entry.found)
      pass.FailForNow(entry, "Couldn't get account information: " + entry.account);
    else if (!slot.IsDefined() && !_WriteSubstance(pass, entry, slot))
      return false;
    if (pass.slots[0].IsDefined() && pass.slots[1].IsDefined()) break;
  }
  return true;
}

bool SMailboxDeliverModule::_WriteSubstance(Pass &pass, Entry &entry, Slot &slot) {
  if (!_MakeFolder(entry)) {
    pass.FailForNow(entry, "Couldn't create directory: " + entry.folder);
    return true;
  }
  SString const file = entry.folder + NewMessageID();
  if (FileExists(file)) {
    pass.FailForNow(entry, "Message file already exists: " + file);
    return true;
  }
  errno = 0;
  auto substance = std::make_unique<SNewFile>(file);
  if (!_WriteForm(*substance, file, &pass.errors)) {
    pass.error = errno;
    return false;
  }
  slot.substance = std::move(substance);
  slot.file = file;
  slot.account = entry.account;
  slot.isUnclaimed = true;
  slot.size = _form.Length();
  return true;
}

// A copy that can't be written is its entry's failure, and told when its turn comes.
void SMailboxDeliverModule::_WriteCopies(Pass &pass) {
  bool isClaimed[kSlotCount] = {};
  for (Entry &entry : pass.entries) {
    if (!entry.IsMailbox()) continue;
    _LookUp(entry);
    Slot &slot = pass.slots[entry.slot];
    if (!entry.found || !slot.IsDefined() || !_MakeFolder(entry)) continue;
    if (entry.account == slot.account && !std::exchange(isClaimed[entry.slot], true)) continue;
    entry.copyName = entry.folder + NewMessageID();
    errno = 0;
    entry.copy = std::make_unique<SNewFile>(entry.copyName);
    if (entry.copy->IsOpen() && _WriteCopy(slot, entry.copy->Fd())) continue;
    entry.copyError = errno;
    entry.copy.reset();
  }
}

// A message in memory is written again, which is less work than a copy of its file. A large one is copied from the
// substance file, whose blocks it may share.
bool SMailboxDeliverModule::_WriteCopy(Slot const &slot, int fd) {
  if (_form.IsInMemory()) return _form.WriteTo(fd);
  return lseek(slot.substance->Fd(), 0, SEEK_SET) == 0 && sys::CopyContents(slot.substance->Fd(), fd) == 0;
}

bool SMailboxDeliverModule::_FlushContents(Pass &pass) {
  std::vector<int> files;
  for (Slot const &slot : pass.slots)
    if (slot.IsDefined()) files.push_back(slot.substance->Fd());
  for (Entry const &entry : pass.entries)
    if (entry.copy != nullptr) files.push_back(entry.copy->Fd());
  if (SyncFilesData(files)) return true;
  pass.error = errno;
  LogError("Couldn't flush message files: " + GetErrorString(pass.error));
  return false;
}

int SMailboxDeliverModule::CreateMessageFile(SString const &file, SStringList *errors, SString const &, int) {
  SNewFile stored(file);
  return _WriteForm(stored, file, errors) && SyncFileData(stored.Fd()) && stored.Publish() ? 1 : 0;
}

// Writes the stored form of the message into a file without a name. False with the reason pushed on errors; with none
// when the disk is full or refuses the bytes, which is logged.
bool SMailboxDeliverModule::_WriteForm(SNewFile &stored, SString const &file, SStringList *errors) {
  int const openError = stored.IsOpen() ? 0 : errno;
  if (!_form.Read(GetControl(), errors)) return false;
  double const copies = GetControl().Get(kKeyDeliverTo).Length();
  if (GetRemainingUsableKB(DirectoryOf(file), static_cast<double>(_form.QueuedLength() + 2) * copies) == 0) {
    WriteMailLog("Alert:Disk Full (" + file + ")");
    errno = ENOSPC;
    return false;
  }
  if (!stored.IsOpen()) {
    errors->Push("Couldn't create temporary file: " + file);
    errno = openError;
    return false;
  }
  if (_form.WriteTo(stored.Fd())) return true;
  int const error = errno;
  LogError("Couldn't write message file " + file + ": " + GetErrorString(error));
  errno = error;
  return false;
}

// False when an entry's slot has no file: the pass then ends at once.
bool SMailboxDeliverModule::_DeliverEntries(Pass &pass) {
  for (Entry &entry : pass.entries) {
    errno = 0;
    LogDelivery(GetControl().GetFilename(), entry.text);
    if (!entry.IsMailbox()) {
      pass.errors.Push("Incorrect delivery type: " + entry.agent);
      pass.bad.Push(entry.text);
      continue;
    }
    _LookUp(entry);
    // A name that would leave the mailbox tree is told as a directory, though no account can have it.
    if (!IsSafeUID(entry.account) || (entry.found && !_MakeFolder(entry))) {
      pass.FailForNow(entry, "Couldn't create directory: " + entry.folder);
      continue;
    }
    if (!entry.found) {
      pass.FailForNow(entry, "Couldn't get account info: " + entry.account);
      continue;
    }
    Slot &slot = pass.slots[entry.slot];
    if (!slot.IsDefined()) {
      pass.FailForNow(entry, "Substance file not defined");
      return false;
    }
    _DeliverEntry(pass, entry, slot);
  }
  return true;
}

void SMailboxDeliverModule::_DeliverEntry(Pass &pass, Entry &entry, Slot &slot) {
  bool const isOwner = slot.isUnclaimed && entry.account == slot.account;
  SString const target = isOwner ? slot.file : entry.copyName;
  if (!isOwner) {
    long const size = FileSize(target);
    if (size == slot.size) return pass.Settle(entry);  // an earlier attempt made it, and counted it
    if (size >= 0) return pass.FailForNow(entry, "Message file already exists: " + target);
  }
  errno = 0;
  SSizeFile sizeFile(entry.folder);
  if (!sizeFile.Lock()) return pass.FailForNow(entry, "Can't lock size file for " + target);
  _account = entry.account;
  switch (_RoomFor(sizeFile, slot.size)) {
    case Room::kEnough:
      break;
    case Room::kTooLittle:
      pass.errors.Push("No storage space available in mailbox for " + Recipients(entry.text).Get(0));
      pass.overQuota.Push(entry.text);
      return;
    case Room::kUnknown:
      return pass.FailForNow(entry, "Couldn't get account info: " + entry.account);
  }
  SNewFile *const file = isOwner ? slot.substance.get() : entry.copy.get();
  if (file == nullptr) errno = entry.copyError;
  if (file == nullptr || !file->Publish()) return pass.FailForNow(entry, "Couldn't link message file: " + target);
  if (isOwner) slot.isUnclaimed = false;
  IncreaseMailboxByteCount(sizeFile, slot.size);
  GetBarrier().AddDirectory(entry.folder);
  _delivered.Push(SString(kMailboxAgent) + " " + entry.account);
  pass.Settle(entry);
}

unsigned int SMailboxDeliverModule::CopyOrLink(SStringList &files, SString const &target) {
  SDescriptor const source(sys::Open(files.Get(0), sys::kReadOwn));
  if (!source.IsOpen()) return 0;
  SNewFile copy(target);
  if (!copy.IsOpen() || sys::CopyContents(source.Get(), copy.Fd()) != 0 || !SyncFileData(copy.Fd()) ||
      !copy.PublishOver())
    return 0;
  files.Push(target);
  return 1;
}

unsigned int SMailboxDeliverModule::_DeferUnwritten(Pass &pass) {
  if (pass.errors.Length() > 0 && !_WasReported(kCreateMessageFile)) {
    errno = pass.error;
    ProcessNotifyError(GetControl(), "OpenFailed", kCreateMessageFile, pass.errors);
    _NoteReported(kCreateMessageFile);
  }
  return _SaveAndDefer();
}

unsigned int SMailboxDeliverModule::_DeferUndefined(Pass &pass) {
  errno = pass.error;
  ProcessNotifyError(GetControl(), "NotDefined", kSubstanceFile, pass.errors);
  _NoteReported(kSubstanceFile);
  // What this pass has stored must not be stored again by the next one.
  if (_delivered.Length() > 0 && !_Record(pass.Undelivered())) return 0;
  return _SaveAndDefer();
}

// More entries than one pass takes: the queue gives the next batch.
unsigned int SMailboxDeliverModule::_EndBatch(Pass &pass) {
  if (!_Record(pass.rest)) return 0;
  SControl &control = GetControl();
  SetOrDelete(control, kKeyBadDeliveries, pass.bad);
  SetOrDelete(control, kKeyTempFailures, pass.temporary);
  SetOrDelete(control, kKeyOverQuota, pass.overQuota);
  return HandOver(control);
}

unsigned int SMailboxDeliverModule::_EndPass(Pass &pass) {
  SControl &control = GetControl();
  SStringList open = pass.bad;
  open.Push(pass.overQuota);
  open.Push(pass.temporary);
  if (_delivered.Length() > 0) {
    if (!_Record(open)) return 0;
    control.Delete(kKeyMailboxDeliverErrorSent);
  } else if (pass.isFurther) {
    control[kKeyDeliverTo] = open;
  }
  for (char const *key : {kKeyBadDeliveries, kKeyTempFailures, kKeyOverQuota}) control.Delete(key);
  if (open.Length() == 0) return _Finish();

  SStringList text = pass.errors;
  text.Push(SStringList{"", "The following recipients haven't received this message:", ""});
  text.Push(Indent(Recipients(open), kRecipientIndent));
  errno = pass.error;
  if (pass.temporary.Length() == 0)
    return ProcessError(control, pass.overQuota.Length() > 0 ? "OverQuota" : "BadDeliveries", kDeliverMessage, text);
  if (!_WasReported(kDeliverMessage)) {
    ProcessNotifyError(control, "DeliveryErrors", kDeliverMessage, text);
    _NoteReported(kDeliverMessage);
  }
  return _SaveAndDefer();
}

// Moves what was delivered to the done list and leaves `open` to do, once the files are on disk. False when they could
// not be flushed: then nothing counts as delivered.
bool SMailboxDeliverModule::_Record(SStringList const &open) {
  if (!CommitBarrier()) {
    _delivered = SStringList();
    return false;
  }
  SControl &control = GetControl();
  if (_delivered.Length() > 0) control[kKeyDeliverToDone].Push(_delivered);
  control[kKeyDeliverTo] = open;
  return true;
}

// In line the control may have no file yet: then its first one has to be safe before the record that it came from goes.
unsigned int SMailboxDeliverModule::_SaveAndDefer() {
  SControl &control = GetControl();
  bool const isNew = !FileExists(control.GetControlFilename());
  if (!CommitBarrier() || !control.Write() || !control.Defer()) return 0;
  if (!isNew) return 1;
  SControl deferred = control;
  deferred.PutFilename(GetDeferredDir() + GetModuleName() + "/" + control.GetHostDirectory() + control.GetFilename() +
                       kControlSuffix);
  Cover(deferred);
  return 1;
}

unsigned int SMailboxDeliverModule::_Finish() {
  if (!CommitBarrier()) return 0;
  SControl &control = GetControl();
  // In line there may be no control file to remove, and that counts as a failure.
  if (!control.RemoveMessage() && FileExists(control.GetControlFilename()))
    LogError("Couldn't remove control file " + control.GetControlFilename());
  return 1;
}

void SMailboxDeliverModule::_LookUp(Entry &entry) {
  if (entry.lookedUp) return;
  entry.lookedUp = true;
  entry.folder = _MailFolder(entry.account);
  SAccountReadScope const scope;
  SAccount account;
  entry.found = SAccountDB().GetAccountInfo(entry.account, &account) != 0;
  if (entry.found) entry.slot = account.GetString(kAttrQjJudgeEnabled) == "yes" ? 1 : 0;
}

// The mail folder of a safe name, with its parents. False when it is not there in the end.
bool SMailboxDeliverModule::_MakeFolder(Entry &entry) {
  if (entry.hasFolder) return true;
  if (!IsSafeUID(entry.account)) return false;
  entry.hasFolder = IsDirectory(entry.folder) != 0;
  if (entry.hasFolder || !MakeDir(entry.folder, kFolderMode)) return entry.hasFolder;
  // Three levels may be new; each is an entry of the one above.
  SString const mailbox = GetMailboxDir() + GetMailboxSubpath(entry.account);
  GetBarrier().AddParentOf(GetMailboxDir() + "bucket");
  GetBarrier().AddParentOf(mailbox);
  GetBarrier().AddDirectory(mailbox);
  return entry.hasFolder = true;
}

SString SMailboxDeliverModule::_MailFolder(SString const &account) const {
  return GetMailboxDir() + GetMailboxSubpath(account) + "/in/";
}

bool SMailboxDeliverModule::_WasReported(char const *error) {
  return GetControl().Get(kKeyMailboxDeliverErrorSent).Contains(error);
}

void SMailboxDeliverModule::_NoteReported(char const *error) {
  if (!_WasReported(error)) GetControl()[kKeyMailboxDeliverErrorSent].Push(error);
}
