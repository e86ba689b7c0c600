// brenthaven/errorhandler/errortable.h - what the names of errors mean to the people who are told of them.
#pragma once
#include "brenthaven/text/sstring.h"

struct SErrorMeaning {
  char const *name;    // as it stands in parentheses at the end of Error:
  char const *status;  // RFC 3463; class 4 is a delay, which is told while the message goes on
  char const *text;    // a sentence for the sender
  char const *action;  // what is done about it where no setting says otherwise: a kAction word (returned.h)

  bool IsDelay() const { return status[0] == '4'; }
};

// The meaning of an error; for a name that is not known that of a failure without further reason.
SErrorMeaning const &MeaningOf(SString const &errorName);
// The same when it was not a delay after all: class 5 in place of 4.
SErrorMeaning FinalMeaningOf(SString const &errorName);
