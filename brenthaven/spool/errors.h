// brenthaven/spool/errors.h - error reports from code that has no module at hand.
//
// As SModule's members of the same names, with two differences: the origin is always the environment's ModuleName, ":"
// and the location, whether or not the location has a ":" of its own; and the new control files count their names by
// themselves. 1 when the error control was written, else 0.
#pragma once
#include "brenthaven/spool/control.h"
#include "brenthaven/text/sstringlist.h"

// Redirects the given control to "Error-Handler".
unsigned int ProcessError(SControl &control, SString const &error, SString const &location, SStringList const &text);
// Makes a new control. A non-empty module stands in place of ModuleName.
unsigned int ProcessError(SString const &error, SString const &location, SStringList const &text,
                          SString const &module);
// Reports that a report failed; a control that the error handler had a hand in only gets a line on standard error.
void ProcessNotifyError(SControl const &control, SString const &error, SString const &location,
                        SStringList const &text);
