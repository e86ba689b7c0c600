// brenthaven/platform/secretfile.h - files that hold passwords.
#pragma once
#include <sys/stat.h>

// Whether nobody but the owner and the group of a file can read or write it. Where others can: false with EPERM, and a
// line on the error stream that says how to mend it, one for each path and process. Programs refuse such a file rather
// than go on with it: a copy that was put back under a usual umask would tell every user of the host all passwords, and
// nothing else would say so.
bool IsClosedToOthers(char const *path, struct stat const &info);
