// brenthaven/mailbox/diskspace.h - whether the disk can take what is about to be written.
#pragma once
#include "brenthaven/text/sstring.h"

// Kilobytes that may still be written to the file system of path once `needed` bytes are on it and MinFreeDiskSpaceKB
// (environment; 50 when absent or not above 0) stay free. 0 means: do not write. That is also the answer when nothing
// of path exists, and when a due warning could not be recorded.
//
// path need not exist: the nearest directory above it is asked. Below ten times the space that must stay free plus
// 100 KiB, a warning goes to the operator at most once in 86400 seconds, whichever process sees it first: an error
// control with the origin "Dispatch:DiskLimits (LowDiskSpaceWarning)". The time of the last one stands in
// <Brenthaven>/.LastSpaceWarning as decimal seconds.
unsigned long GetRemainingUsableKB(SString const &path, double needed);
