#include "brenthaven/handler/accounthandler.h"

#include "brenthaven/accounts/accountdb.h"
#include "brenthaven/handler/pass.h"
#include "brenthaven/spool/keys.h"
#include "brenthaven/spool/log.h"
#include "brenthaven/text/base.h"

// A pass:
//   1. expand the accounts, and what they lead to, into deliveries by agent and into work for other modules;
//   2. write the copies for archives;
//   3. write one control for each agent, the last on the message's own files if nothing else is to be done with it;
//   4. report names that are no accounts;
//   5. hand the message to the next module that has work with it, or remove it.

namespace {

constexpr char kProcessMail[] = "ProcessMail";

// The pending entries that no earlier pass has handed on, sorted, each once.
SStringList Remaining(SStringList pending, SStringList const &done) {
  pending.Sort(SString::StrCmp);
  pending.Unique();
  SStringSet const finished(done);
  SStringList remaining;
  for (SString const &entry : pending)
    if (!finished.Contains(entry)) remaining.Push(entry);
  return remaining;
}

SString FirstWord(SString const &entry) { return entry.SplitExact(" ", 2).Get(0); }

}  // namespace

SAccountHandlerModule::Pass::Pass(SControl const &control)
    : function(control.Get(kKeyFunction).Get(0)),
      queue(control.Get(kKeyAccountTo)),
      seen(control.Get(kKeyAccountToDone)),
      modules(control.Get(kKeyModuleTo)),
      channels(control.Get(kKeyChannelTo)),
      managers(control.Get(kKeyManagerTo)),
      archived(control.Get(kKeyArchiveToDone)) {
  for (SString const &entry : control.Get(kKeyDeliverTo)) {
    SStringList const parts = entry.SplitExact(" ", 2);
    agents[parts.Get(0)].Push(parts.Get(1));
  }
}

SAccountHandlerModule::SAccountHandlerModule() : SModule(kModuleAccountHandler) { _mailbox.ShareBarrier(*this); }

SAccountHandlerModule::~SAccountHandlerModule() = default;

unsigned int SAccountHandlerModule::LoadEnv() { return _mailbox.LoadEnv(); }

unsigned int SAccountHandlerModule::ProcessMail() {
  _waits = false;
  Pass pass(GetControl());
  bool const hasWork = pass.queue.Length() > 0 || pass.managers.Length() > 0 || pass.modules.Length() > 0 ||
                       pass.channels.Length() > 0 || pass.agents.Keys().Length() > 0;
  if (!hasWork) return _Fail("MissingAccountOrUserTo");
  bool const readable = _Expand(pass);
  // Without a postmaster his mail has nowhere to go, not even as an error report, which would be for him: it stays in
  // control/ as it came until there is one.
  _waits = pass.stopped;
  if (_waits) return 1;
  if (readable) {
    _WriteBack(pass);
    if (_Finish(pass)) return 1;
  }
  _PutBack(pass);
  return 0;
}

unsigned int SAccountHandlerModule::_Finish(Pass &pass) {
  if (!_Archive(pass) || !_Deliver(pass)) return 0;
  if (pass.unknown.Length() > 0) {
    if (!WriteUnknownAccts(pass.unknown)) return 0;
    pass.written = pass.reported = true;
  }
  bool handled = false;
  if (!_HandOn(pass, handled)) return 0;
  return handled || pass.reused ? 1 : _RemoveIncoming();
}

// Copies that an earlier pass has written are left out.
bool SAccountHandlerModule::_Archive(Pass &pass) {
  if (pass.archive.Keys().Length() == 0) return true;
  SStringSet const done(pass.archived);
  auto const record = [](SString const &target, SString const &entry) { return target + " " + entry; };
  SNamedStringList open(1, 0);
  for (SString const &target : pass.archive.Keys())
    for (SString const &entry : pass.archive.Get(target))
      if (!done.Contains(record(target, entry))) open[target].Push(entry);
  SNamedStringList left(open);
  bool const written = WriteSMTPDeliver(&left) != 0;
  for (SString const &target : open.Keys())
    if (left.Get(target).Length() == 0)
      for (SString const &entry : open.Get(target)) pass.archived.Push(record(target, entry));
  pass.written = written;
  return written;
}

bool SAccountHandlerModule::_Deliver(Pass &pass) {
  bool const nothingElse = pass.unknown.Length() == 0 && pass.modules.Length() == 0 && pass.channels.Length() == 0 &&
                           pass.managers.Length() == 0;
  SStringSet done(GetControl().Get(kKeyDeliverToDone));
  SStringList agents = pass.agents.Keys();
  while (agents.Length() > 0) {
    SString const agent = agents.Shift();
    SStringList accounts = pass.agents.Get(agent);
    accounts.Sort(SString::StrCmp);
    accounts.Unique();
    SStringList list;
    for (SString const &account : accounts) {
      SString const entry = agent + " " + account;
      if (done.Add(entry)) list.Push(entry);
    }
    // An agent whose entries are all done is called all the same, with an empty list: it gets a control that names
    // nobody, and reports that as an error.
    bool const last = nothingElse && agents.Length() == 0;
    if (!WriteDeliver(agent, list, last)) return false;
    pass.written = true;
    pass.reused = last;
  }
  return true;
}

// Only the first entry that remains is handed on; the module that gets the message sends it back for the rest. A list
// whose entries are all done ends the pass there and then, and the message with it, even when another list has entries
// left. handled: the message has gone to another module.
bool SAccountHandlerModule::_HandOn(Pass &pass, bool &handled) {
  SControl &control = GetControl();
  if (pass.modules.Length() > 0) return _HandToModule(pass, handled);
  if (pass.channels.Length() > 0) {
    SStringList const remaining = Remaining(pass.channels, control.Get(kKeyChannelToDone));
    if (remaining.Length() == 0) {
      control.Delete(kKeyChannelTo);
      _LogLeft({}, pass.managers);
      return true;
    }
    control[kKeyChannelTo] = remaining;  // the next router must not route what an earlier one has recorded
    handled = true;
    return WriteHandler(FirstWord(remaining.Get(0)) + "-Router") != 0;
  }
  if (pass.managers.Length() > 0) {
    SStringList const remaining = Remaining(pass.managers, control.Get(kKeyManagerToDone));
    if (remaining.Length() == 0) {
      control.Delete(kKeyManagerTo);
      return true;
    }
    handled = true;
    return WriteHandler(remaining.Get(0)) != 0;
  }
  if (!pass.accountFound || pass.written) return true;
  handled = true;
  return _Fail("MissingDelivery") != 0;
}

bool SAccountHandlerModule::_HandToModule(Pass &pass, bool &handled) {
  SControl &control = GetControl();
  SStringList const remaining = Remaining(pass.modules, control.Get(kKeyModuleToDone));
  if (remaining.Length() == 0) {
    control.Delete(kKeyModuleTo);
    _LogLeft(pass.channels, pass.managers);
    return true;
  }
  handled = true;
  SString const handler = FirstWord(remaining.Get(0));
  if (handler != GetModuleName()) return WriteHandler(handler) != 0;
  return ProcessError(control, "InvalidHandlerDelivery", kProcessMail, "Handler Delivery Loop") != 0;
}

// What goes with a message that ends before all of its lists are served: nobody gets it, so the log at least says whom.
void SAccountHandlerModule::_LogLeft(SStringList const &channels, SStringList const &managers) {
  SStringList left = Remaining(channels, GetControl().Get(kKeyChannelToDone));
  left.Push(Remaining(managers, GetControl().Get(kKeyManagerToDone)));
  if (left.Length() == 0) return;
  WriteLogLine(LogFileDate() + ":" + GetModuleName() + ":Not handed on:" + GetControl().GetFilename() + ":" +
               left.Join(","));
}

unsigned int SAccountHandlerModule::_RemoveIncoming() {
  if (!CommitBarrier()) return 0;
  SString const name = GetControl().GetFilename();
  if (!GetControl().RemoveMessage())
    (void)ProcessError("RemoveFail", "ProcessAddresses", "Unable to Delete Message: " + name);
  return 1;
}

// The message itself becomes the report. A report that can't be written leaves the message to the next pass.
unsigned int SAccountHandlerModule::_Fail(char const *error) {
  return ProcessError(GetControl(), error, kProcessMail, SString(""));
}

// After a pass that failed: the names that it took are to be expanded again, but for those that are reported as
// unknown. What it delivered and archived stays recorded.
void SAccountHandlerModule::_PutBack(Pass const &pass) {
  SControl &control = GetControl();
  SStringSet const reported(pass.reported ? pass.unknown : SStringList());
  SStringSet open;
  SStringList again;
  for (SStringList const &names : {control.Get(kKeyAccountTo), pass.taken})
    for (SString const &name : names)
      if (!reported.Contains(name) && open.Add(name)) again.Push(name);
  SStringList done;
  for (SString const &name : control.Get(kKeyAccountToDone))
    if (!open.Contains(name)) done.Push(name);
  control[kKeyAccountTo] = again;
  control[kKeyAccountToDone] = done;
  control[kKeyArchiveToDone] = pass.archived;
  for (char const *key : {kKeyAccountTo, kKeyAccountToDone, kKeyArchiveToDone})
    if (control.Get(key).Length() == 0) control.Delete(key);
  control[kKeyFunction] = pass.function;
}
