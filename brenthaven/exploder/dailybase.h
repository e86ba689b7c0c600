// brenthaven/exploder/dailybase.h - where a list's counts stood when the day began.
//
// The list's state has totals that an administrator clears; what counts against the limits of a day is their growth
// since its first posting. That base is the file List-Exploder/daily/UID below the root, three integers in the encoding
// of SPickleFile: the day as YYYYMMDD in local time, total messages, total kilobytes. It is written once a day. Losing
// it costs no more than the limits of one day.
#pragma once
#include <ctime>

#include "brenthaven/lists/sliststate.h"
#include "brenthaven/text/sstring.h"

struct SDailyCounts {
  int messages = 0;
  int kbytes = 0;
};

// What the list has sent today, from its state, which the caller has read and in which this posting is not yet counted.
SDailyCounts CountsOfToday(SString const &listUID, SListState const &state, time_t now);
