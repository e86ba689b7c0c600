// brenthaven/listmanager/runner.h - commands carried out for whoever sent them.
#pragma once
#include "brenthaven/address/address821.h"
#include "brenthaven/listmanager/commands.h"
#include "brenthaven/lists/slist.h"
#include "brenthaven/lists/slistactions.h"
#include "brenthaven/spool/module.h"
#include "brenthaven/text/sstring.h"
#include "brenthaven/text/sstringlist.h"

// What became of one line of a request.
struct SListOutcome {
  SString shown;       // the line
  SString key;         // word for the outcome: that of an SListResult, or one of those below
  SString verb;        // "Subscribe"; empty for a line that is no command
  SString subscriber;  // the address that the command is about, for people to read
  SString list;        // the list as the command named it, likewise; else by its name
  SList found;         // the list itself, if there is one
  SStringList lines;   // what was asked for, below the text
};

// Outcomes besides those of requests.
inline constexpr char kOutcomeUnknown[] = "UnknownCommand";
inline constexpr char kOutcomeMalformed[] = "BadSyntax";
inline constexpr char kOutcomeTooMany[] = "TooManyCommands";  // the rest of the message was not read

class SListCommandRunner {
public:
  // The requester is who gets the answer; listUID is the list that a command means which names none, or empty.
  SListCommandRunner(SModule &module, S821Address const &requester, SString const &listUID);

  // Carries it out: an SListResult, or 0 for one without a list where it needs one. The outcome is filled in.
  int Run(SListCommand const &command, SListOutcome &outcome);
  // Fills in the outcome of a command that was carried out earlier.
  void Recall(SListCommand const &command, int result, SListOutcome &outcome);
  // Whether some command came with a key or password that was right: the requester is who the mail says.
  bool IsProven() const { return _isProven; }

private:
  int _Request(SListCommand const &command, SListOutcome &outcome);
  int _Decide(SListCommand const &command, SListOutcome &outcome);
  int _ListAll(SListOutcome &outcome);
  int _ListOwn(SListOutcome &outcome);
  int _ListInfo(SListOutcome &outcome);
  int _ListSubscribers(SListCommand const &command, SListOutcome &outcome);
  void _Describe(SListCommand const &command, SListOutcome &outcome);

  SModule &_module;
  S821Address _requester;
  SString _listUID;
  bool _isProven = false;
};

// Whether a command changes something, so that it must not be carried out twice.
bool IsListChange(SListVerb verb);
