// brenthaven/spool/log.h - the log stream: the standard error of the process.
#pragma once
#include "brenthaven/text/sstring.h"

// As it is, in a single write, so that lines of several processes keep whole.
void WriteLog(SString const &text);
// One line, its end added, as platform/logtext.h has it.
void WriteLogLine(SString const &line);
