// brenthaven/spool/report.h - what the error reports of modules and of free code have in common. Private to the spool.
#pragma once
#include "brenthaven/spool/control.h"
#include "brenthaven/text/base.h"

// What the failed call left behind. Taken first thing on entry, before anything else can change it.
struct SErrorNumbers {
  int system = GetErrorNo();
  int socket = GetSocketErrorNo();
};

// Makes the control a report for "Error-Handler"; numbers that are 0 are left out.
void FillErrorReport(SControl &control, SErrorNumbers const &numbers, SString const &error, SString const &origin,
                     SStringList const &text);
// The same for a new control, which gets its type and priority in front.
void FillNewErrorReport(SControl &control, SErrorNumbers const &numbers, SString const &error, SString const &origin,
                        SStringList const &text);
// A control for a new report: its name is date, process and the counter, which goes up by one. A report that has that
// name already, by the other counter in the same millisecond, keeps its file.
SControl NewErrorControl(int &counter);
// 1 when the error handler had a hand in the control, so that a report on it would never end: the text is then on the
// log stream and nothing else is to be done.
int IsLoggedInstead(SControl const &control, SStringList const &text);
