// What the fan-out records in the router's own control, and who does a large one.
#include "brenthaven/handler/fanout.h"

#include "brenthaven/router/smtprouter.h"
#include "brenthaven/spool/keys.h"

int SSMTPRouterModule::WriteSMTPDeliver(SNamedStringList *hosts, unsigned int archive) {
  if (!archive && IsInLine() && hosts->Keys().Length() > SFanOut::kBatch) return _PassFanOutOn(*hosts);
  SFanOut fan(*this, *hosts);
  if (archive) fan.MarkAsArchive(SArchiveMark::Of(GetModuleName()));
  SFanOut::Result const result =
      fan.Write([this, archive](SStringList const &entries) { return _CommitBatch(entries, archive != 0); });
  if (result == SFanOut::Result::kNoRoom && IsInLine() && CommitBarrier())
    (void)GetControl().Write();  // the frame does it elsewhere; the 0 says the rest
  return result == SFanOut::Result::kDone ? 1 : 0;
}

// Within another module's run a large fan-out would hold that module up: a control for the router's own process takes
// it. Archive copies never go that way, since there they would be routed as mail, to their recipients a second time.
int SSMTPRouterModule::_PassFanOutOn(SNamedStringList &hosts) {
  SControl copy = CopyWithoutRecipients(GetControl(), kModuleSmtpRouter);
  copy.PutFilename(NewMessageID());
  SStringList &entries = copy[kKeyChannelTo];
  for (SString const &key : hosts.Keys()) entries.Push(hosts.Get(key));
  if (!GetControl().LinkMessage(copy.GetFilename()) || !HandOver(copy)) {
    (void)copy.RemoveMessage();  // as far as it was made
    return 0;
  }
  hosts.Reset();
  return 1;
}

// The write of the own control, which then records the batch, is what makes its copies count. Where it fails they are
// taken back, and the record with them.
bool SSMTPRouterModule::_CommitBatch(SStringList const &entries, bool archive) {
  SControl &own = GetControl();
  SNamedStringList const before(own);
  if (archive) own[kKeyArchiveTransferDone].Push(_logName);
  own[kKeyChannelToDone].Push(entries);
  // In line the control has lost what the module before this one has done, and that may not be on disk yet; and what is
  // recorded as archived is never archived again.
  bool const isFinal = IsInLine() || archive;
  if ((!isFinal || CommitBarrier()) && own.Write()) return true;
  static_cast<SNamedStringList &>(own) = before;
  return false;
}
