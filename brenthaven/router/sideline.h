// brenthaven/router/sideline.h - the texts of the sideline judge, and its lines on the log stream. Private to the
// router.
#pragma once
#include "brenthaven/router/judge.h"

// Lines beside those of the rules, by the numbers that follow theirs. They are always logged.
enum SSidelineEvent {
  kSidelineHeaderError = kSidelineRules,  // the header can't be read
  kSidelineBodyError,                     // the body of a message that was to be returned can't be read
  kSidelineHoldError,                     // a message could not be held
  kSidelineReturnError,                   // a return could not be written
  kSidelineDeleted,
  kSidelineReturned,
  kSidelineCodes,  // how many rules and events there are
};

// What the sender and the record of a held message are told.
char const *SidelineReason(SSidelineRule rule);

// Writes one line, "date:module:text(  ) detail", for a rule or an event. errno stays: it may be about to be reported.
void LogSideline(SString const &module, int code, SString const &detail);
