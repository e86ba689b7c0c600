#include "brenthaven/errorhandler/errorhandler.h"

#include "brenthaven/accounts/accountdb.h"
#include "brenthaven/accounts/special.h"
#include "brenthaven/errorhandler/errorrecord.h"
#include "brenthaven/errorhandler/errortable.h"
#include "brenthaven/platform/dates.h"
#include "brenthaven/platform/files.h"
#include "brenthaven/spool/keys.h"
#include "brenthaven/spool/log.h"
#include "brenthaven/spool/returned.h"
#include "brenthaven/spool/submitter.h"
#include "brenthaven/store/sdbfile.h"
#include "brenthaven/text/base.h"

namespace {

constexpr char kNoticeSubtype[] = "plain; charset=iso-2022-jp";

// A record of the judge is held where the judge would have held it.
char const *PlaceOf(SString const &error) { return error == "SideLined" ? kSidelinePlace : kHeldPlace; }

bool IsAction(SString const &word) { return word == kActionReturn || word == kActionHold || word == kActionDelete; }

// How often this module was the last to write the record.
int PassesInARow(SControl const &record) {
  int passes = 0;
  for (SString const &name : record.Get(kKeyTrace)) passes = name == kModuleErrorHandler ? passes + 1 : 0;
  return passes;
}

// Takes this module's entries off a list of work.
void TakeOwn(SControl &mail, char const *open, char const *done) {
  SStringList others;
  SStringList own;
  for (SString const &entry : mail.Get(open))
    (entry.SplitExact(" ", 2).Get(0) == kModuleErrorHandler ? own : others).Push(entry);
  if (own.Length() == 0) return;
  mail.Delete(open);
  if (others.Length() > 0) mail[open] = others;
  mail[done].Push(own);
}

}  // namespace

SErrorHandlerModule::SErrorHandlerModule() : SModule(kModuleErrorHandler) { TakeErrors(); }

// An instance without the section has no settings, which is as good.
unsigned int SErrorHandlerModule::LoadEnv() {
  _actions.Reset();
  Sdbfile::ClearReadFailed();
  Sdbfile settings(GetModuleName(), 0, kProductWord);
  if (settings.Open("/Error-Actions", 0))
    for (SString const &error : settings.Values()) {
      SString const action = settings.Get(error).Get(0);
      if (IsAction(action))
        _actions[error] = action;
      else
        _Log("ERROR:Error-Actions/" + error + ": no such action: " + action);
    }
  return !Sdbfile::ReadFailed();
}

unsigned int SErrorHandlerModule::ProcessMail() {
  SControl &record = GetControl();
  if (record.Get(kKeyErrorReported).Length() > 0) return _Remove();
  SRecordFiles const files = FilesOf(record);
  if (files == SRecordFiles::kUnreadable) return 0;
  bool const isMail = files == SRecordFiles::kMessage && record.Get(kKeyControlType).Get(0) == kTypeMail;
  if (isMail && record.Get(kKeyError).Length() == 0) return _Forward();
  SString const error = ErrorNameOf(record);
  if (IsReport(record)) {
    _Log("No report about a report:" + record.GetFilename() + ":" + error + ":" + record.Get(kKeyErrorText).Join(" "));
    return _Remove();
  }
  if (PassesInARow(record) >= kMostPasses) return _Hold(kHeldPlace);
  SString const action = _ActionFor(error);
  if (action == kActionDelete) return _Remove();
  if (files == SRecordFiles::kNone) return _TellPostmaster();
  if (action == kActionHold && !CameBack(record, PlaceOf(error))) return _Hold(PlaceOf(error));
  return _Return();
}

SString SErrorHandlerModule::_ActionFor(SString const &error) const {
  SString const action = _actions.Get(error).Get(0);
  return action.Length() > 0 ? action : SString(MeaningOf(error).action);
}

// Mail that somebody wrote to this module's address, and what came back for it.
unsigned int SErrorHandlerModule::_Forward() {
  SControl &mail = GetControl();
  SControl const before = mail;
  TakeOwn(mail, kKeyManagerTo, kKeyManagerToDone);
  TakeOwn(mail, kKeyModuleTo, kKeyModuleToDone);
  mail[kKeyFunction] = kModuleAccountHandler;
  mail[kKeyAccountTo].Push(kPostmasterUID);
  if (HandOver(mail)) return 1;
  mail = before;
  return 0;
}

unsigned int SErrorHandlerModule::_Hold(char const *place) {
  SControl &record = GetControl();
  if (!HoldMessage(*this, record, place)) return 0;
  _Log("HELD:" + record.GetFilename() + ":" + record.Get(kKeyError).Get(0));
  return 1;
}

// A delay is told once: when the message comes back, it has failed.
unsigned int SErrorHandlerModule::_Return() {
  SControl &record = GetControl();
  SStringList recipients;
  if (!FailedRecipients(record, recipients)) return 0;
  SControl resumed = record;
  bool const delayed =
      MeaningOf(ErrorNameOf(record)).IsDelay() && !CameBack(record, kModuleErrorHandler) && ResumeMessage(resumed);
  SStringList error;
  if (ReturnMessage(*this, record, ReasonsFor(record, recipients, delayed), &error) == SReturned::kFailed) {
    _Log("ERROR:" + error.Join(":"));
    bool const isUnreadable = error.Get(0) == "ReadHeader" || error.Get(0) == "ReadBody";
    if (!isUnreadable || PassesInARow(record) < kReadPasses) return 0;
    return _WriteToPostmaster() ? _Hold(kHeldPlace) : 0;
  }
  if (!delayed) return _Remove();
  record = resumed;
  return _LetGoOn();
}

unsigned int SErrorHandlerModule::_TellPostmaster() { return _WriteToPostmaster() ? _Remove() : 0; }

bool SErrorHandlerModule::_WriteToPostmaster() {
  SControl &record = GetControl();
  SString const postmaster = SString(kPostmasterUID) + "@" + GetDomainName();
  SMIME body;
  body.SetType("text", kNoticeSubtype);
  body.AddPart("", "", "", TextForPostmaster(record));
  SSubmitter mail(this);
  mail.SetRecipientUIDs(SStringList(kPostmasterUID), postmaster);
  mail.SetSender("Mail Administrator<" + postmaster + ">", 0);
  mail.SetEnvelopeFrom(S821Address());
  mail.SetSubject("Mail System Error - " + ErrorNameOf(record));
  mail.AddControlHeader(kKeyErrorMsgType, kErrorMsgTypeReturn);
  mail.AddHeader("Auto-Submitted:", "auto-generated");  // RFC 3834 section 5
  mail.SetMimeBody(body);
  SStringList error;
  if (!mail.Submit(&error)) {
    _Log("ERROR:" + error.Join(":"));
    return false;
  }
  if (!SAccountDB().GetAccountInfo(kPostmasterUID, nullptr))
    _Log("ERROR:no account Postmaster, mail for it waits:" + mail.GetMessageID());
  return true;
}

// A record that is still there goes into the queue, with word that its report is sent.
unsigned int SErrorHandlerModule::_Remove() {
  SControl &record = GetControl();
  if (DropMessage(*this, record)) return 1;
  record[kKeyErrorReported] = RFC822Date();
  return 0;
}

// Into the queue of the module that failed, which takes it up at its next walk. Where it can't be moved, it waits in
// this module's queue, whose walk passes it on.
unsigned int SErrorHandlerModule::_LetGoOn() {
  SControl &mail = GetControl();
  if (!mail.Write()) return 0;
  mail.SetModuleName(mail.Get(kKeyFunction).Get(0));
  bool const moved = mail.Defer() != 0;
  mail.SetModuleName(GetModuleName());
  return moved;
}

void SErrorHandlerModule::_Log(SString const &text) {
  WriteLogLine(LogFileDate() + ":" + GetModuleName() + ":" + text);
}
