// brenthaven/mailbox/maillog.h - log lines of mailbox delivery.
#pragma once
#include "brenthaven/text/sstring.h"

// Agent of the entries that mailbox delivery takes, and part of the messages' names in its log.
inline constexpr char kMailboxAgent[] = "Mailbox";

// One line on the standard error stream: LogFileDate, ":", process id, ":" and the fields, in a single write. As in all
// log lines no name can make a line of its own (platform/logtext.h).
void WriteMailLog(SString const &fields);
// Bytes of a number of kilobytes, fractions cut off; 0 for what is no number above 0.
long long KilobytesToBytes(SString const &kilobytes);
