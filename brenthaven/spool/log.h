// brenthaven/spool/log.h - the log stream: the standard error of the process.
#pragma once
#include "brenthaven/text/sstring.h"

// As it is, in a single write, so that lines of several processes keep whole.
void WriteLog(SString const &text);
// One line, its end added. Control bytes come out as "?", so that a name or an address can't make a line of its own.
void WriteLogLine(SString const &line);
