// brenthaven/recovery/recovery.h - puts a spool in order after a crash or a power cut.
//
// A crash leaves files that nobody will look at again: a control file whose datagram was lost, half-written temporary
// files, a message that lost its control file. Recovery brings back into the flow what is complete, reports what is
// not, and sets aside what it can't make sense of: nothing that may be mail is ever deleted. It may itself be ended
// anywhere and run again.
#pragma once
#include <functional>
#include <string>

#include "brenthaven/text/sstring.h"

struct SRecoveryScope {
  // Only what has not changed for so long is touched, seconds: 0 when no module, submitter or dispatcher is at work.
  long quietSeconds = 0;
  // Whether control files with all they need are handed on: to the dispatcher when one can be told, else to the
  // deferred queue of their module. A dispatcher, which scans for them itself, leaves this off.
  bool requeue = true;
  bool wholeSpool = true;  // false: control/ alone, for a look that is taken often
  // Finish a change of accounts that was under way, as whoever opens them does, and make their index anew where it does
  // not follow from the accounts.
  bool accounts = true;
  std::function<bool(std::string const &name)> isBusy = nullptr;  // messages that are being worked on
  std::function<void(std::string const &line)> log = nullptr;     // one line for each thing done
};

struct SRecoveryReport {
  int requeued = 0;             // control files handed on
  int reported = 0;             // messages without header or body, made an error record
  int lost = 0;                 // files moved to lost/: unreadable control files, and those without a message
  int orphans = 0;              // header and body files that no control file names, moved to lost/ as well
  int removed = 0;              // half-written files and unanswered requests
  int returned = 0;             // control files that stood in a directory in control/, put back into a queue
  int repaired = 0;             // account files made anew: the index
  int failed = 0;               // things that could not be done; the log says which
  bool accountsFailed = false;  // the accounts can't all be read or written

  int Total() const { return requeued + reported + lost + orphans + removed + returned + repaired; }
  bool IsClean() const { return Total() == 0 && failed == 0 && !accountsFailed; }
};

// The spool below the environment's Brenthaven.
SRecoveryReport RecoverSpool(SRecoveryScope const &scope);

inline constexpr long kOrphanSeconds = 3600;  // a message in the making has no control file yet
