// brenthaven/listmanager/commands.h - the commands that people send to a list manager, one a line.
//
//   subscribe [digest] [LIST] [ADDRESS]         join a list
//   unsubscribe [digest] [LIST] [ADDRESS]       leave it
//   confirm KEY [subscribe|unsubscribe ...]     one of the two, with the key that was mailed; a dated key tells which
//   approve PASSWORD COMMAND                    subscribe, unsubscribe, accept, reject or who, for an owner
//   accept WHAT [LIST], reject WHAT [LIST]      what waits for the owners: a posting's id, or a subscriber's address
//   which, lists, info [LIST], who [LIST], help, end
//
// Words are separated by blanks; one in double quotes may hold some. The first word counts in any case of its letters.
// Arguments come in any order: one with "@" is the address, "digest" is itself, another the list.
#pragma once
#include "brenthaven/text/sstring.h"

enum class SListVerb { kSubscribe, kUnsubscribe, kAccept, kReject, kWhich, kLists, kInfo, kWho, kHelp, kEnd };

struct SListCommand {
  SListVerb verb = SListVerb::kHelp;
  bool digest = false;
  SString list;      // UID or name; empty for the one that the mail was sent to
  SString address;   // empty for the requester's own
  SString what;      // of accept and reject
  SString key;       // the command is the confirmation of an earlier one
  SString password;  // the command is an owner's
  // The line for people to read: printable ASCII, no password, not longer than kMaxShownCommand.
  SString shown;
};

inline constexpr int kMaxShownCommand = 200;

enum class SListParse {
  kCommand,
  kMalformed,  // begins with a command's word, but the rest makes no sense
  kUnknown,    // anything else, a line with control characters among it
};

// One line without its line end. Of the command only `shown` is set unless the result is kCommand.
SListParse ParseListCommand(SString const &line, SListCommand &command);

// "Subscribe", as keys of texts begin.
char const *ListVerbName(SListVerb verb);

// Any bytes as one line that may stand in a mail: what is not printable ASCII becomes "?", and a long one is cut.
SString ShownText(SString const &text);
