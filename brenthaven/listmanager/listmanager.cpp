#include "brenthaven/listmanager/listmanager.h"

#include <ctime>
#include <vector>

#include "brenthaven/accounts/accountdb.h"
#include "brenthaven/accounts/attributes.h"
#include "brenthaven/listmanager/commands.h"
#include "brenthaven/listmanager/reply.h"
#include "brenthaven/listmanager/requesttext.h"
#include "brenthaven/listmanager/runner.h"
#include "brenthaven/lists/sbouncefilter.h"
#include "brenthaven/lists/slistkey.h"
#include "brenthaven/platform/files.h"
#include "brenthaven/spool/keys.h"
#include "brenthaven/spool/log.h"
#include "brenthaven/text/base.h"
#include "brenthaven/text/sstringset.h"

// A pass, for each account of ours that the message came to:
//   1. leave mail alone that no person has sent;
//   2. carry out the commands of subject and body, but for those that an earlier pass has done;
//   3. when none of them has to be tried again, answer, and count the account as done.
// Then the message goes back to the account handler if others want it, else away.

namespace {

// "INDEX RESULT" for each command that an earlier pass has carried out: its place among those that change something,
// and what came of it. Kept until the account is done.
constexpr char kKeyListOutcome[] = "List-Outcome!";
constexpr char kKeyAutoSubmitted[] = "Auto-Submitted:";

// One request while it is carried out.
class Request {
public:
  Request(SListCommandRunner &runner, SStringList const &recorded, bool mayRetry)
      : _runner(runner), _recorded(recorded), _mayRetry(mayRetry) {}

  // A subject that is a command comes first. People write on below one, so that other text then only ends the reading.
  void Read(SRequestText const &text) {
    SListCommand command;
    bool const fromSubject =
        ParseListCommand(text.subject, command) == SListParse::kCommand && command.verb != SListVerb::kEnd;
    if (fromSubject) _Take(text.subject, command);
    for (SString const &line : text.lines) {
      SListParse const parsed = ParseListCommand(line, command);
      if (fromSubject && parsed != SListParse::kCommand) break;
      if (parsed == SListParse::kCommand && command.verb == SListVerb::kEnd) break;
      if (_unknown == SListManagerModule::kMostUnknown || _commands == SListManagerModule::kMostCommands) {
        _Note("", kOutcomeTooMany);
        break;
      }
      if (parsed == SListParse::kCommand)
        _Take(line, command);
      else
        _Refuse(command, parsed);
    }
    if (outcomes.empty()) _Take("", SListCommand());  // help
  }

  std::vector<SListOutcome> outcomes;
  SStringList done;            // the record of what was carried out
  bool mustBeRetried = false;  // a command failed for now

private:
  void _Note(SString const &shown, char const *key) {
    SListOutcome outcome;
    outcome.shown = shown;
    outcome.key = key;
    outcomes.push_back(outcome);
  }

  void _Refuse(SListCommand const &command, SListParse parsed) {
    if (parsed == SListParse::kUnknown) ++_unknown;
    _Note(command.shown, parsed == SListParse::kUnknown ? kOutcomeUnknown : kOutcomeMalformed);
  }

  // The same line twice, as in a subject and a body, is one command.
  void _Take(SString const &line, SListCommand const &command) {
    if (!_seen.Add(line)) return;
    ++_commands;
    SListOutcome outcome;
    if (IsListChange(command.verb))
      _Change(command, outcome);
    else
      (void)_runner.Run(command, outcome);  // the outcome has all there is to say
    outcomes.push_back(outcome);
  }

  void _Change(SListCommand const &command, SListOutcome &outcome) {
    SString const index = MakeSString(_changes++);
    for (SString const &record : _recorded)
      if (record.HasPrefix(index + " ")) {
        done.Push(record);
        return _runner.Recall(command, static_cast<int>(record.SplitExact(" ").Get(1).AsLong()), outcome);
      }
    int const result = _runner.Run(command, outcome);
    if (result == kListTempFail && _mayRetry)
      mustBeRetried = true;
    else if (result != 0)
      done.Push(index + " " + MakeSString(result));
  }

  SListCommandRunner &_runner;
  SStringList _recorded;
  bool _mayRetry;
  SStringSet _seen;
  int _unknown = 0;
  int _commands = 0;
  int _changes = 0;
};

SStringList Remaining(SControl const &control, char const *pending, char const *done) {
  SStringSet const finished(control.Get(done));
  SStringList remaining;
  for (SString const &entry : control.Get(pending))
    if (!finished.Contains(entry)) remaining.Push(entry);
  return remaining;
}

// An hour's share of answers to one address, beside its share of keys.
SKeyMailAnswer MayAnswer(S821Address const &address) {
  return RecordKeyMail("answers to " + BareAddress(address), time(nullptr));
}

}  // namespace

SListManagerModule::SListManagerModule() : SModule(kModuleListManager) {}

SListManagerModule::~SListManagerModule() = default;

void SListManagerModule::_Log(SString const &text) const {
  WriteLogLine(LogFileDate() + ":" + GetModuleName() + ":" + text);
}

unsigned int SListManagerModule::LoadEnv() {
  if (GetEnv("FormSigKey").Length() > 0) return 1;
  _Log("ERROR:FormSigKey is not set: without a secret anybody could make keys. brenthaven init makes one");
  return 0;
}

unsigned int SListManagerModule::ProcessMail() {
  SControl &control = GetControl();
  for (SString const &entry : Remaining(control, kKeyModuleTo, kKeyModuleToDone)) {
    SStringList const words = entry.SplitExact(" ", 2);
    if (!(words.Get(0) == GetModuleName()) || control.Get(kKeyModuleToDone).Contains(entry)) continue;
    if (!_Serve(words.Get(1))) return 0;
    control.Delete(kKeyListOutcome);
    control[kKeyModuleToDone].Push(entry);
  }
  return _Finish();
}

// False: the message waits for a further pass, with what was done in its control.
bool SListManagerModule::_Serve(SString const &uid) {
  SControl &control = GetControl();
  SAccountBase::ClearReadFailed();
  SAccount account;
  SHeader header(control.GetFilename());
  SMessageContent body;
  bool const exists = SAccountDB().GetAccountInfo(uid, &account);
  bool const readable = (header.Read() || !FileExists(header.GetHeaderFilename())) &&
                        (control.ReadBody(body) || !FileExists(control.GetBodyFilename()));
  S821Address const poster = control.GetPoster(&header);
  if (SAccountBase::ReadFailed() || !readable) {
    _Log("ERROR:Couldn't read the request " + control.GetFilename());
    return false;
  }
  if (!exists || _IsAutomatic(header, poster)) {
    _Log("Not answered: " + control.GetFilename() + " from " + BareAddress(poster));
    return true;
  }

  return _CarryOut(account, header, body.GetText(), poster);
}

bool SListManagerModule::_CarryOut(SAccount const &account, SHeader const &header, SString const &body,
                                   S821Address const &poster) {
  SControl &control = GetControl();
  SListCommandRunner runner(*this, poster, SListDB().FindList(account.GetString(kAttrManagerListName)));
  double const age = FileAge(header.GetHeaderFilename());
  Request request(runner, control.Get(kKeyListOutcome), age >= 0 && age < kRetryDays);
  request.Read(ReadRequestText(header, body));
  if (request.done.Length() > 0) control[kKeyListOutcome] = request.done;
  if (request.mustBeRetried) return false;

  for (SListOutcome const &outcome : request.outcomes)
    if (IsLogging()) _Log("Request:" + BareAddress(poster) + ":" + outcome.shown + ":" + outcome.key);
  switch (runner.IsProven() ? SKeyMailAnswer::kMail : MayAnswer(poster)) {
    case SKeyMailAnswer::kMail:
      return SendListAnswer(*this, header, {poster, account.GetPrimaryAddress(), request.outcomes});
    case SKeyMailAnswer::kTooMany:
      _Log("Too many requests from " + BareAddress(poster) + ": not answered");
      return true;
    case SKeyMailAnswer::kFailed:
      break;
  }
  _Log("ERROR:Couldn't record the answer to " + BareAddress(poster));
  return false;
}

bool SListManagerModule::_IsAutomatic(SHeader const &header, S821Address const &poster) {
  S821Address const sender(GetControl().Get(kKeyUserFrom).Get(0));
  if (!sender.IsValid() || !poster.IsValid() || NoReply(poster, header) || NoReply(sender, header)) return true;
  SString const submitted = LowerCase(header.Get(kKeyAutoSubmitted).Get(0));
  if (submitted.Length() > 0 && !submitted.HasPrefix("no")) return true;
  SAccount account;
  return SAccountDB().GetAccountInfo(SAccountDB().GetAccountUID(poster), &account) && account.IsListAcct();
}

unsigned int SListManagerModule::_Finish() {
  SControl &control = GetControl();
  bool const forModules = Remaining(control, kKeyModuleTo, kKeyModuleToDone).Length() > 0;
  bool const forOthers = Remaining(control, kKeyChannelTo, kKeyChannelToDone).Length() > 0 ||
                         Remaining(control, kKeyManagerTo, kKeyManagerToDone).Length() > 0;
  if (!forModules) control.Delete(kKeyModuleTo);  // the handler drops a message whose list of modules is all done
  if (forModules || forOthers) {
    control[kKeyFunction] = kModuleAccountHandler;
    if (HandOver(control)) return 1;
    control[kKeyFunction] = GetModuleName();
    return 0;
  }
  if (!CommitBarrier()) return 0;
  SString const name = control.GetFilename();
  if (!control.RemoveMessage()) _Log("ERROR:Couldn't remove the request " + name);
  return 1;
}
