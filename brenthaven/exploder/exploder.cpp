#include "brenthaven/exploder/exploder.h"

#include <algorithm>
#include <cerrno>
#include <string>
#include <string_view>

#include "brenthaven/accounts/accountdb.h"
#include "brenthaven/accounts/attributes.h"
#include "brenthaven/accounts/safeuid.h"
#include "brenthaven/accounts/special.h"
#include "brenthaven/exploder/bounces.h"
#include "brenthaven/exploder/decision.h"
#include "brenthaven/exploder/detection.h"
#include "brenthaven/exploder/digest.h"
#include "brenthaven/exploder/distribution.h"
#include "brenthaven/exploder/listheaders.h"
#include "brenthaven/exploder/progress.h"
#include "brenthaven/exploder/returnpath.h"
#include "brenthaven/lists/sbouncefilter.h"
#include "brenthaven/lists/slistactions.h"
#include "brenthaven/platform/descriptor.h"
#include "brenthaven/platform/files.h"
#include "brenthaven/platform/nativepath.h"
#include "brenthaven/spool/keys.h"
#include "brenthaven/spool/log.h"
#include "brenthaven/spool/returned.h"
#include "brenthaven/store/sdbfile.h"
#include "brenthaven/text/base.h"
#include "brenthaven/text/sstringset.h"

// The road of a posting:
//   1. the decision, with the list's state locked; for one that goes on or is held, first the record in the control,
//      then the commit of the state;
//   2. what follows from it: distribution, moderation, a report to the sender, the way to the list's manager, or the
//   end.
// A pass over a control with a record begins at 2.

namespace {

constexpr char kExploder[] = "List-Exploder";
constexpr char kProcessMail[] = "ProcessMail";
constexpr char kQueued[] = "queue-";
constexpr char kQueuedSilently[] = "queue-no-mail";
constexpr unsigned long kDirectoryMode = 0770;
constexpr int kLookedAtOfBounce = 64 * 1024;

SStringList Remaining(SControl const &control, char const *pending, char const *finished) {
  SStringSet done(control.Get(finished));
  SStringList remaining;
  for (SString const &entry : control.Get(pending))
    if (done.Add(entry)) remaining.Push(entry);
  return remaining;
}

bool IsOurs(SString const &entry) { return entry.HasPrefix("List-Exploder "); }
SString AccountOf(SString const &entry) { return entry.SplitExact(" ", 2).Get(1); }

SStringList OurEntries(SControl const &control) {
  SStringList ours;
  for (SString const &entry : Remaining(control, kKeyModuleTo, kKeyModuleToDone))
    if (IsOurs(entry)) ours.Push(entry);
  return ours;
}

// What the account handler still has to do with the message, besides our entries.
bool IsForOthersToo(SControl const &control) {
  SStringList const modules = Remaining(control, kKeyModuleTo, kKeyModuleToDone);
  return std::any_of(modules.begin(), modules.end(), [](SString const &entry) { return !IsOurs(entry); }) ||
         Remaining(control, kKeyChannelTo, kKeyChannelToDone).Length() > 0 ||
         Remaining(control, kKeyManagerTo, kKeyManagerToDone).Length() > 0;
}

// The first bytes of a body file; none when it can't be read.
std::string BeginningOf(SString const &path, int most) {
  SDescriptor const file(sys::Open(SNativePath(path), sys::kReadOwn));
  std::string bytes(static_cast<size_t>(most), '\0');
  ssize_t const got = file.IsOpen() ? sys::Pread(file.Get(), bytes.data(), bytes.size(), 0) : 0;
  bytes.resize(got > 0 ? static_cast<size_t>(got) : 0);
  return bytes;
}

int Kilobytes(SControl const &message) {
  constexpr long kKilobyte = 1024;
  long const bytes =
      std::max(0L, FileSize(message.GetHeaderFilename())) + std::max(0L, FileSize(message.GetBodyFilename()));
  return static_cast<int>((bytes + kKilobyte - 1) / kKilobyte);
}

// The list whose owners an account stands for.
bool FindListOfOwners(SString const &uid, SList &list) {
  SListDB lists;
  for (SString const &listUID : lists.IndexLookup(kAttrLinkedOwnerAccount, uid))
    if (lists.GetByUID(listUID, &list, 0)) return true;
  return false;
}

SStringList OwnersOf(SList const &list) {
  SStringList const owners = list.Get(kAttrListOwners);
  return owners.Length() > 0 ? owners : SStringList(kPostmasterUID);
}

// Whether the owners' account brings its mail to the owners without us.
bool ReachesOwners(SAccount const &account) {
  constexpr int kDeliveries[] = {kAttrExpandedDelivery, kAttrAccountDelivery, kAttrLocalDelivery, kAttrChannelDelivery};
  return std::any_of(std::begin(kDeliveries), std::end(kDeliveries),
                     [&account](int attribute) { return account.Get(attribute).Length() > 0; });
}

// Whether the owners learn of a posting at all: nothing may be dropped because they were not told.
bool OwnersAreTold(SList const &list, SString const &text) {
  SStringList const suppressed = list.Get(kAttrListSuppressNotifications);
  bool const isOverLimit = text.HasPrefix("OverGlobalLimit") && suppressed.Contains("OverLimitNotification");
  return !suppressed.Contains(text) && !isOverLimit && !list.IsListLocked();
}

bool IsQueued(SList const &list) { return list.GetString(kAttrListModerationMethod).HasPrefix(kQueued); }

}  // namespace

SListExploderModule::SListExploderModule() : SModule(kExploder) {}

SListExploderModule::~SListExploderModule() = default;

unsigned int SListExploderModule::LoadEnv() {
  Sdbfile settings(GetModuleName(), 0, kProductWord);
  if (!settings.Open("/Config", 0)) return 0;
  if (GetEnv("FormSigKey").Length() > 0) return 1;
  _Log("ERROR:FormSigKey is not set");
  return 0;
}

unsigned int SListExploderModule::ProcessMail() {
  SControl &control = GetControl();
  SStringList const entries = OurEntries(control);
  if (entries.Length() == 0) return _HandBack();
  if (entries.Length() > 1 || IsForOthersToo(control)) return _Split(entries);
  return _Serve(AccountOf(entries.Get(0)));
}

// What is split off is recorded in the control, which the frame writes if this pass can't finish.
unsigned int SListExploderModule::_Split(SStringList const &entries) {
  for (SString const &entry : entries)
    if (!_SplitOff(entry)) return 0;
  return _HandBack();
}

bool SListExploderModule::_SplitOff(SString const &entry) {
  SControl &own = GetControl();
  SControl copy = own;
  for (char const *key : {kKeyAccountTo, kKeyAccountToDone, kKeyDeliverTo, kKeyDeliverToDone, kKeyChannelTo,
                          kKeyManagerTo, kKeyManagerToDone, kKeyModuleToDone})
    copy.Delete(key);
  copy[kKeyModuleTo] = entry;
  copy.PutFreeFilename(own.GetFilename() + "-List");
  if (!own.LinkMessage(copy.GetFilename())) return false;
  if (!HandOver(copy)) {
    (void)copy.RemoveMessage();  // as far as it was made
    return false;
  }
  own[kKeyModuleToDone].Push(entry);
  return true;
}

// Gives the message back to the account handler for what is not ours. A list of modules that are all done would make
// the handler drop the message with all that is left, so it goes.
unsigned int SListExploderModule::_HandBack() {
  SControl &control = GetControl();
  if (!IsForOthersToo(control)) return _Drop("");
  SStringList const modules = Remaining(control, kKeyModuleTo, kKeyModuleToDone);
  if (modules.Length() > 0)
    control[kKeyModuleTo] = modules;
  else
    control.Delete(kKeyModuleTo);
  control[kKeyFunction] = kModuleAccountHandler;
  if (HandOver(control)) return 1;
  control[kKeyFunction] = kExploder;
  return 0;
}

unsigned int SListExploderModule::_Serve(SString const &uid) {
  SAccountBase::ClearReadFailed();
  Sdbfile::ClearReadFailed();
  SHeader header;
  if (!GetControl().ReadHeader(&header) && FileSize(GetControl().GetHeaderFilename()) != 0) return 0;
  SList list;
  SAccount account;
  if (IsSafeUID(uid) && SListDB().GetByUID(uid, &list, 0)) return _ServePosting(list, header);
  bool const isKnown = SListDB().GetAccountInfo(uid, &account) != 0;
  if (isKnown && FindListOfOwners(uid, list)) return _ServeOwners(account, list, header);
  if (SAccountBase::ReadFailed()) return 0;
  if (isKnown) return _ServeReturnPaths(header);
  return ProcessError(GetControl(), "UnknownAccounts", kProcessMail, uid);
}

unsigned int SListExploderModule::_ServePosting(SList const &list, SHeader &header) {
  bool const isApproved = GetControl().Get(kKeyApproved).Get(0) == "yes";
  SProgress const progress(GetControl());
  if (progress.IsModeration() && !isApproved) return _Moderate(list, header);
  if (progress.stage.Length() > 0 && !progress.IsModeration()) return _Distribute(list, header);
  SDecision const decision = _Decide(list, header);
  switch (decision.verdict) {
    case SVerdict::kSend:
      return _Distribute(list, header);
    case SVerdict::kHold:
      return _Moderate(list, header);
    case SVerdict::kRefuse:
      return _Refuse(list, header, decision);
    case SVerdict::kRedirect:
      return _HandTo(list.GetString(kAttrLinkedManagerAccount));
    case SVerdict::kDrop:
      return _Drop(list.GetUID() + ": " + decision.why);
    case SVerdict::kRetry:
      break;
  }
  _Log("ERROR:" + list.GetUID() + ": " + decision.why);
  return 0;
}

// The rules that need nothing of the list's state come first; a bounce is counted in it by itself.
SDecision SListExploderModule::_Decide(SList const &list, SHeader &header) {
  SControl &control = GetControl();
  SPosting const posting{.list = list,
                         .control = control,
                         .header = header,
                         .poster = control.GetPoster(&header),
                         .kbytes = Kilobytes(control)};
  if (control.Get(kKeyApproved).Get(0) == "yes") return _DecideAndRecord(posting);
  if (IsLoop(list, header)) return {.verdict = SVerdict::kDrop, .why = "loop"};
  if (IsReport(control)) return {.verdict = SVerdict::kDrop, .why = "report"};
  SListState ofBounces(list.GetUID());
  if (SBounceFilter(this).FilterBounce(control, header, ofBounces) != kBounceNot)
    return {.verdict = SVerdict::kDrop, .why = "bounce"};
  if (list.GetString(kAttrListRequestDetection) == "yes" &&
      SListDB().GetAccountInfo(list.GetString(kAttrLinkedManagerAccount), nullptr) &&
      IsMisdirectedRequest(header, BeginningOf(control.GetBodyFilename(), kDetectionBytes)))
    return {.verdict = SVerdict::kRedirect, .why = "request"};
  return _DecideAndRecord(posting);
}

SDecision SListExploderModule::_DecideAndRecord(SPosting const &posting) {
  SAccountReadScope const accounts;  // before the state, as whoever subscribes takes them
  SListState state(posting.list.GetUID());
  if (!state.Read()) return {.verdict = SVerdict::kRetry, .why = "Couldn't get list state"};
  bool const isApproved = GetControl().Get(kKeyApproved).Get(0) == "yes";
  SDecision decision = isApproved ? SDecision() : DecideByRules(posting, state);
  if (decision.verdict != SVerdict::kSend && decision.verdict != SVerdict::kHold) return decision;
  // The record is on disk before the state is: a state that knows the posting alone would take it for a duplicate.
  bool const isTakenIn = _TakeIn(posting, state, decision);
  GetBarrier().AddParentOf(SNativePath(GetControl().GetControlFilename()));
  if (!isTakenIn || !CommitBarrier()) return {.verdict = SVerdict::kRetry, .why = "Couldn't record the posting"};
  if (!state.Commit()) _Log("ERROR:" + posting.list.GetUID() + ": Couldn't write list state");
  return decision;
}

// Counts the posting, puts one that is sent into the next digest, and records it. The state is left to be committed.
bool SListExploderModule::_TakeIn(SPosting const &posting, SListState &state, SDecision const &decision) {
  int const user = state.GetUserNum(LowerCase(BareAddress(posting.poster)));
  if (decision.verdict == SVerdict::kHold) {
    (void)state.IncrModeratedPostCount(user);
    return _Record(kStageHold, decision.text);
  }
  (void)state.IncrTotalMessages();
  (void)state.IncrTotalKbytes(posting.kbytes);
  (void)state.IncrUserTotalMessages(user);
  (void)state.IncrUserTotalKbytes(user, posting.kbytes);
  bool const hasDigest = SAccountDB().IndexLookupCount(kAttrSubscribedListsDigest, posting.list.GetUID()) > 0;
  if (hasDigest &&
      !(MakeDir(GetDeferredDir() + kExploder, kDirectoryMode) &&  // by which walks come here
        SDigestBox(posting.list.GetUID())
            .Add(GetControl().GetFilename(), posting.header, GetControl().GetBodyFilename(), GetBarrier())))
    return false;
  return _Record(kStageAccepted, "");
}

bool SListExploderModule::_Record(char const *stage, SString const &detail) {
  SStringList const before = GetControl().Get(kKeyListPostingDone);
  SProgress::Set(GetControl(), stage, detail);
  if (CommitBarrier() && GetControl().Write()) return true;
  GetControl()[kKeyListPostingDone] = before;
  return false;
}

unsigned int SListExploderModule::_Distribute(SList const &list, SHeader const &header) {
  SHeader sent(header);
  bool const isDigest = GetControl().Get(kKeyListDigest).Length() > 0;
  if (!isDigest) DressHeader(sent, list, SListNames(list));
  if (SDistribution(*this, list, sent).Run()) return _Drop("");
  _Log("ERROR:" + list.GetUID() + ": Couldn't send to all readers");
  return 0;
}

// Asked first and held then: a crash in between has the owners asked twice, and never a posting wait that they do not
// know of.
unsigned int SListExploderModule::_Moderate(SList const &list, SHeader &header) {
  SControl &control = GetControl();
  SProgress const progress(control);
  bool const isQueued = IsQueued(list);
  bool const isSilent = list.GetString(kAttrListModerationMethod) == kQueuedSilently;
  if (!isQueued && !OwnersAreTold(list, progress.detail))
    return _Refuse(list, header,
                   {.verdict = SVerdict::kRefuse, .why = "the list takes no postings", .status = "5.7.2"});
  if (progress.stage == kStageHold && !isSilent && !_AskOwners(list, header, progress.detail)) return 0;
  if (!isQueued) return _Drop(list.GetUID() + ": forwarded to the owners");
  SListActions actions(this, list.GetUID(), control.GetPoster(&header));
  if (!CommitBarrier() || actions.Hold(control.GetFilename(), control) != kListSuccess) return 0;
  _Log(list.GetUID() + ": held: " + control.GetFilename());
  return 1;
}

// Nobody to ask is an error of the list's settings: it is filed, and a posting that is held waits for whoever mends it.
bool SListExploderModule::_AskOwners(SList const &list, SHeader &header, SString const &text) {
  SControl &control = GetControl();
  SListActions actions(this, list.GetUID(), control.GetPoster(&header));
  actions.SetAuthKey(control.GetFilename(), 1);  // what names the posting in the owners' answer
  SStringList const failure = actions.SendToModerators(text, control, header);
  if (failure.Length() > 0 && list.Get(kAttrListOwners).Length() > 0) return false;
  if (failure.Length() > 0 && !ProcessError("NoModerators", failure.Get(0), failure.Slice(1, -1))) return false;
  SProgress::Set(control, kStageAsked, text);
  return true;
}

// Back to the sender, unless that is a program: what answers to an answer goes on for ever.
unsigned int SListExploderModule::_Refuse(SList const &list, SHeader &header, SDecision const &decision) {
  SControl &control = GetControl();
  SListNames const names(list);
  SString const address = names.address.Length() > 0 ? names.address : names.name;
  if (!NoReply(_Sender(), header)) {
    SReturnReasons const reasons{
        .lines = {"The mailing list " + address + " did not take your message:", "    " + decision.why},
        .recipients = {
            {.recipient = address, .action = "failed", .status = decision.status, .diagnostic = decision.why}}};
    SStringList error;
    if (ReturnMessage(*this, control, reasons, &error) == SReturned::kFailed) {
      _Log("ERROR:" + error.Join(" "));
      return 0;
    }
  }
  if (*decision.text != '\0') {
    SListActions actions(this, list.GetUID(), control.GetPoster(&header));
    SStringList const failure = actions.SendToModerators(decision.text, control, header);
    if (failure.Length() > 0) _Log("ERROR:" + failure.Join(" "));  // the sender knows, and he is the one who must
  }
  return _Drop(list.GetUID() + ": refused: " + decision.why);
}

// Gives the message to the account handler for these accounts in place of ours.
unsigned int SListExploderModule::_HandTo(SStringList const &uids) {
  SControl &control = GetControl();
  SControl next = control;
  for (char const *key : {kKeyModuleTo, kKeyModuleToDone, kKeyChannelTo, kKeyChannelToDone}) next.Delete(key);
  next[kKeyFunction] = kModuleAccountHandler;
  next[kKeyAccountTo] = uids;
  return HandOver(next);
}

unsigned int SListExploderModule::_ServeOwners(SAccount const &account, SList const &list, SHeader &header) {
  SListState state(list.GetUID());
  bool const isCounted = SBounceFilter(this).FilterBounce(GetControl(), header, state) == kBounceCounted;
  if (isCounted || ReachesOwners(account)) return _Drop(list.GetUID() + ": mail for the owners looked at");
  return _HandTo(OwnersOf(list));
}

// The catch-all account of the bounce domain: the envelope's recipients say whose bounce it is.
unsigned int SListExploderModule::_ServeReturnPaths(SHeader &header) {
  SStringList recipients = GetControl().Get(kKeyChannelToDone);
  recipients.Push(GetControl().Get(kKeyChannelTo));
  SString const secret = GetEnv("FormSigKey");
  SReturnPath path;
  for (SString const &recipient : recipients)
    if (ReadReturnPath(S821Address(recipient), secret, path)) return _CountReturned(path, header);
  if (SAccountBase::ReadFailed()) return 0;
  if (!_Sender().IsValid()) return _Drop("bounce of nobody known");
  return ProcessError(GetControl(), "UnknownAccounts", kProcessMail, recipients);
}

unsigned int SListExploderModule::_CountReturned(SReturnPath const &path, SHeader &header) {
  SBounceFilter filter(this);
  SList list;
  if (!SListDB().GetByUID(path.listUID, &list, 0)) return 0;
  if (_Sender().IsValid() && !filter.CheckHeader(header)) return _HandTo(OwnersOf(list));
  std::string const beginning = BeginningOf(GetControl().GetBodyFilename(), kLookedAtOfBounce);
  if (IsAutomaticReply(header) || IsDelayNotice(header, beginning))
    return _Drop(path.listUID + ": no bounce of " + path.subscriber);
  SListState state(path.listUID);
  (void)filter.CountBounce(path.subscriber, state);  // uncounted, the next bounce makes up for it
  return _Drop(path.listUID + ": bounce of " + path.subscriber);
}

unsigned int SListExploderModule::_Drop(SString const &why) {
  if (why.Length() > 0) _Log(GetControl().GetFilename() + ": " + why);
  return DropMessage(*this, GetControl());
}

void SListExploderModule::_Log(SString const &text) const {
  WriteLogLine(LogFileDate() + ":" + GetModuleName() + ":" + text);
}

void SListExploderModule::ProcessQueue() {
  SModule::ProcessQueue();
  SendDueDigests(time(nullptr));
}

// The dispatcher plans walks for modules with a deferred directory, which a walk removes when it is empty.
void SListExploderModule::SendDueDigests(time_t now) {
  SList list;
  for (SString const &uid : SDigestBox::ListUIDs()) {
    SDigestBox const box(uid);
    SAccountBase::ClearReadFailed();
    if (SListDB().GetByUID(uid, &list, 0))
      (void)SendDueDigest(*this, list, now);  // said in the log; the next walk tries again
    else if (!SAccountBase::ReadFailed())
      box.Remove(box.Paths());  // the list is gone
    if (box.Paths().Length() > 0) (void)MakeDir(GetDeferredDir() + kExploder, kDirectoryMode);
  }
}
