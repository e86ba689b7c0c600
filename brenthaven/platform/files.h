// brenthaven/platform/files.h - files, directories and locks by path. RemoveFile, Rename, RemoveDir, ReadDir,
// MapFileRead and MapFileWrite stand in text/base.h.
//
// Paths take "/" and "\" alike. Results are 1 for true or success and 0 otherwise unless a line says more; nothing is
// logged or thrown. Files are made with mode 0660 and directories with 0770 whatever the umask.
#pragma once
#include <cstdint>

#include "brenthaven/text/sstring.h"
#include "brenthaven/text/sstringlist.h"

// An open file as a handle: the descriptor in a pointer's clothes. -1 is the invalid handle, null is descriptor 0.
// NOLINTNEXTLINE(performance-no-int-to-ptr): what was no pointer is never used as one
inline void *HandleOf(int fd) { return reinterpret_cast<void *>(static_cast<intptr_t>(fd)); }
inline int DescriptorOf(void *handle) { return static_cast<int>(reinterpret_cast<intptr_t>(handle)); }

// Tests. Symbolic links are followed, so a dangling one does not exist. One trailing separator is ignored by
// IsDirectory.
int FileExists(SString const &path);
int IsRegular(SString const &path);  // exists and is no directory: a socket or a FIFO passes
int IsDirectory(SString const &path);
int IsReadable(SString const &path);  // can be opened now, and is no directory
int IsWriteable(SString const &path);
int IsExecutable(SString const &path);     // the same test as IsReadable: the execute bits are not looked at
long FileSize(SString const &path);        // bytes, without a need to read the file; -1 for a directory or a failure
double FileAge(SString const &path);       // days since the last write, fractions included; -1.0 as above
double FreeDiskSpace(SString const &dir);  // bytes that an ordinary user may still take; empty asks for "."; -1.0

SString RealPath(SString const &path);  // the path unchanged

// RemoveFile, and when a file that is there stays, the line date:ModuleName:ERROR:Couldn't remove file <path>:<error
// text> on the log stream. The result is that of RemoveFile.
unsigned RemoveFileLogged(SString const &path);

// Makes "to" an independent copy of "from": no link, in spite of the name, so that a later change of one leaves the
// other. An existing target is replaced by rename, never written into. A target that is a hard link of the source
// already is left alone, with success. 0 for a directory as the source.
int LinkFile(SString const &from, SString const &to);

int CloseFile(void *handle);

// Makes all missing levels, which are separated by "/" or "\"; empty levels count for nothing. 1 when path is a
// directory in the end, also when another process made it. The mode is ignored.
int MakeDir(SString const &path, unsigned long mode);
int Chdir(SString const &path);  // one trailing separator is ignored

// Result of DeleteAll.
enum DeleteAllCode {
  kDeleteAllDone = 0,
  kDeleteAllEmptyPath = 1,
  kDeleteAllLocked = 2,           // the lock file of the directory is held by someone else; nothing was touched
  kDeleteAllUnreadable = 4,       // no such directory, or no right to read it
  kDeleteAllFileFailed = 5,       // a file stayed; what came before it is gone
  kDeleteAllDirectoryFailed = 6,  // the same for a directory below
};

// Removes a directory with all in it. A file "__lock__" in a directory, here or below, is locked first, without
// waiting, and removed last. A symbolic link is removed and never followed, the given path included. Whether the
// emptied directory itself could be removed is not looked at: a file that somebody has added since keeps it, with 0.
int DeleteAll(SString const &path);

// All files below, as full paths, each directory replaced by its own files at its place. A symbolic link counts as a
// file, so that a link upwards is no endless tree. Undefined for a directory that can't be read; one below gives
// nothing.
SStringList ReadDirRecursive(SString const &path);

// Parts of a path at its last "/"; a backslash does not separate here. The path part is "." when nothing is before it,
// also for "/name".
SString PathFromFilename(SString path);
SString FileFromFilename(SString path);

// Locks. The mode is a set of bits: 1 waits for the lock, else it is refused at once; 2 shares, else it excludes.
//
// The range is length bytes from offset (everywhere in this system byte 0). These are locks of the open file
// (F_OFD_SETLK): two handles of one file exclude each other also within a process, and closing some other handle of the
// file releases nothing. The lock ends with UnlockFile or with the last close of the handle. They are advisory: a byte
// that is locked can still be read by who does not ask.
inline constexpr int kLockWait = 1;
inline constexpr int kLockShared = 2;
// The handle, or -1 with errno when the lock was refused. A shared lock needs a handle that can read, an exclusive one
// a handle that can write.
void *LockFile(void *handle, int mode, int offset, int length);
// Opens the file for reading and writing, makes it when it is missing, and locks it. -1 with the file closed on
// failure; a symbolic link is one. What is locked is the file that stands under the path when the lock is granted, not
// one removed meanwhile.
void *LockFile(SString const &path, int mode, int offset, int length);
int UnlockFile(void *handle, int offset, int length);
