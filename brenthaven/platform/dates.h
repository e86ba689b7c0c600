// brenthaven/platform/dates.h - dates as mail and logs write them. Day and month names are never localised.
// LogFileDate and MessageIdDate stand in text/base.h.
#pragma once
#include "brenthaven/text/sstring.h"

// Now, in local time, in the form of RFC 822 section 5.1 with the four-digit year of RFC 1123 section 5.2.14:
// "Tue, 4 Mar 2003 09:05:00 +0100". The day is not padded, and the zone is that of LogFileDate. Undefined if formatting
// fails.
SString RFC822Date();

int DaysSince1970();  // whole days, UTC

// The date of a log line as one number of 14 digits, which compares by time: what stands before the first ":", read as
// a number. 0 for text.
long long ParseLogFileDate(SString &text);
