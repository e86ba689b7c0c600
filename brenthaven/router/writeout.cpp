// What follows from the decision: copies for remote hosts, error records, the hand-over to the account handler.
#include <cerrno>

#include "brenthaven/router/pass.h"
#include "brenthaven/spool/keys.h"
#include "brenthaven/spool/log.h"
#include "brenthaven/text/base.h"

namespace {

constexpr char kUnknownSuffix[] = "-Unknown";

}  // namespace

void LogRouterLine(SString const &module, SString const &text) {
  WriteLogLine(LogFileDate() + ":" + module + ":" + text);
}

unsigned int SSMTPRouterModule::_WriteOut(Pass &pass) {
  if (!_WriteRemote(pass) || !_WriteRefused("Unallowed%Addr", pass.unallowed) ||
      !_WriteRefused("UnknownAccounts", pass.unknown)) {
    _KeepWhatIsLeft(pass);
    return 0;
  }
  return _NeedsHandOver(pass) ? _HandOver(pass) : _Drop();
}

bool SSMTPRouterModule::_WriteRemote(Pass &pass) {
  if (pass.hosts.Keys().Length() > 0 && !WriteSMTPDeliver(&pass.hosts, 0)) return false;
  // An archive that can't be written does not hold the mail back.
  if (pass.archive.Keys().Length() > 0 && !WriteSMTPDeliver(&pass.archive, 1))
    LogRouterLine(_logName, "Archive Failed");
  return true;
}

// Files the error and empties the list, so that what stands in a list is what is left.
bool SSMTPRouterModule::_WriteRefused(char const *error, SStringList &entries) {
  if (entries.Length() == 0) return true;
  if (!WriteErrorAddrs(error, entries)) return false;
  entries.Reset();
  return true;
}

int SSMTPRouterModule::WriteErrorAddrs(SString const &error, SStringList const &addresses) {
  SControl &own = GetControl();
  SControl copy = own;
  for (char const *key : {kKeyChannelTo, kKeyAccountToDone, kKeyDeliverToDone}) copy.Delete(key);
  copy.PutFreeFilename(own.GetFilename() + kUnknownSuffix);  // an earlier report may still stand under the name
  if (!own.LinkMessage(copy.GetFilename())) return 0;
  copy[kKeyChannelTo] = addresses;
  errno = 0;  // the report is about addresses; no call has failed
  if (!ProcessError(copy, error, "WriteUnknownAcct", addresses)) {
    (void)copy.RemoveMessage();  // its control was not written; what the links leave behind would belong to nobody
    return 0;
  }
  own[kKeyChannelToDone].Push(addresses);
  return 1;
}

bool SSMTPRouterModule::_NeedsHandOver(Pass const &pass) {
  return pass.accounts.Length() > 0 || pass.foreign.Length() > 0 || GetControl().Get(kKeyModuleTo).Length() > 0 ||
         GetControl().Get(kKeyManagerTo).Length() > 0;
}

unsigned int SSMTPRouterModule::_HandOver(Pass &pass) {
  SStringList const done = GetControl().Get(kKeyChannelToDone);
  for (SString const &entry : pass.foreign) LogRouterLine(_logName, "No router for this channel:" + entry);
  bool const handled = WriteAcctHandler(pass.accounts, pass.channels, pass.foreign) != 0;
  if (!handled) _TakeBack(pass, done);
  if (_handler.Waits()) _LetWait(pass, done);
  return handled ? 1 : 0;
}

int SSMTPRouterModule::WriteAcctHandler(SStringList const &accounts, SStringList const &channels,
                                        SStringList const &others) {
  SControl &own = GetControl();
  own[kKeyFunction] = kModuleAccountHandler;
  own[kKeyAccountTo] = accounts;
  own[kKeyChannelTo] = channels;
  own[kKeyChannelToDone].Push(others);
  own[kKeyChannelToDone].Push(channels);
  return _handler.ProcessMailControl(own) ? 1 : 0;
}

// The handler could not finish. What it has done is known to its control alone (Deliver-To!), so that becomes ours,
// with the handler's pass in its trace. Then the recipients handed over are ours to route again. When there were none,
// only handlers of other kinds are left to be served, and the control stays the account handler's.
void SSMTPRouterModule::_TakeBack(Pass const &pass, SStringList const &done) {
  SControl &own = GetControl();
  own = _handler.GetControl();
  own.AddTrace();
  own.SetModule(this);
  own[kKeyFunction] = kModuleAccountHandler;
  if (_EntriesLeft(pass).Length() == 0) return;
  own[kKeyFunction] = kModuleSmtpRouter;
  own[kKeyChannelToDone] = done;
  own.Delete(kKeyAccountTo);
  _KeepWhatIsLeft(pass);
}

// The handler left the message where it is, in control/, to be looked at again: what this pass has sent and reported is
// not to be sent and reported then. Where there was nothing of that the file stays as it came.
void SSMTPRouterModule::_LetWait(Pass const &pass, SStringList const &done) {
  _TakeBack(pass, done);
  bool const isShorter = IsInLine() || !(GetControl().Get(kKeyChannelTo) == pass.given);
  if (isShorter && CommitBarrier()) (void)GetControl().Write();  // untaken, the whole message is looked at again
}

// The recipients of a message with nothing for an account here are all served: what was made of it is durable, then the
// message goes.
unsigned int SSMTPRouterModule::_Drop() {
  if (!CommitBarrier()) return 0;
  SControl &own = GetControl();
  if (!own.RemoveMessage()) (void)ProcessError("RemoveError", "ProcessAddresses", SStringList(own.GetFilename()));
  return 1;
}

// Entries of the pass that neither left with a copy nor with an error record, as the next pass shall route them. Local
// recipients stand for themselves, not for the aliases that led to them.
SStringList SSMTPRouterModule::_EntriesLeft(Pass const &pass) {
  SStringList left;
  for (SString const &host : pass.hosts.Keys()) left.Push(pass.hosts.Get(host));
  left.Push(pass.unallowed);
  left.Push(pass.unknown);
  for (SString const &entry : pass.channels)
    if (!pass.relayed.Contains(entry)) left.Push(entry);
  return left;
}

// Shortens Channel-To: to what is left, so that the next pass does nothing twice. Where what was made can't be made
// durable, everything stays: twice is better than never.
void SSMTPRouterModule::_KeepWhatIsLeft(Pass const &pass) {
  SStringList left = _EntriesLeft(pass);
  left.Push(pass.foreign);
  GetControl()[kKeyChannelTo] = CommitBarrier() ? left : pass.given;
}
