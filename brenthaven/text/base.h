// brenthaven/text/base.h - the few operations that strings, spool and modules need of the system from the start.
//
// Results are 1 for success and 0 for failure, with errno left as the failing call set it. Paths take "/" and "\"
// alike; one with a NUL byte names nothing.
#pragma once
#include "brenthaven/text/sstring.h"
#include "brenthaven/text/sstringlist.h"

// Files.
int RemoveFile(SString const &path);                 // 0 for a directory, which is left alone
int Rename(SString const &from, SString const &to);  // replaces an existing target; 0 when from is a directory
int RemoveDir(SString const &path);                  // an empty directory; one trailing slash is dropped
SStringList ReadDir(SString const &path);            // full paths, in the system's order; undefined on failure
SString MapFileRead(SString const &path);            // the whole file; undefined on failure
// The same for a file that only the system itself makes: a symbolic link in its place is refused (ELOOP).
SString MapOwnFileRead(SString const &path);
// Makes a new file, mode 0660 whatever the umask, that holds data. An existing file is left alone and gives 0; after a
// failure no file is left.
int MapFileWrite(SString const &path, SString const &data);

// What follows the last "/", less the suffix if it ends in it. "\" is no separator here.
SString BaseName(SString const &path);
SString BaseName(SString const &path, SString const &suffix);
SString BaseName(char const *path, SString const &suffix);
SStringList BaseName(SStringList const &paths, SString const &suffix);

// Dates.
SString LogFileDate();    // local time and zone, "YYYYMMDDHHMMSS+HHMM"
SString MessageIdDate();  // UTC to the millisecond, "YYYYMMDDHHMMSSmmm"

// Process.
SString GetEnv(char const *name);  // empty when unset
SString GetEnv(SString const &name);
SString ProcessIdString();
int RandomInt(int limit);  // uniform in 0 to limit - 1, not guessable; 0 when limit is below 1

// Errors. The socket error is kept apart from errno: it is set only by a failed socket call of the library, through
// SetSocketErrorNo, and is 0 until then. In the text functions -1 means the last error.
int GetErrorNo();
int GetSocketErrorNo();
void SetSocketErrorNo(int error);
SString GetErrorString(int error);
SString GetSocketErrorString(int error);

// A failed allocation ends the process, with a line on the error stream and the exit code that has the dispatcher try
// the message again.
void NewHandler();
void SetNewHandler();
