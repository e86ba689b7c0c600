// brenthaven/accounts/accountstore.h - the account store and its settings, one of each in a process. Used by this
// folder.
#pragma once
#include "brenthaven/store/sdbfile.h"
#include "brenthaven/store/sobjectdb.h"
#include "brenthaven/text/sstring.h"

namespace accountstore {

inline constexpr int kAccountType = 1;  // the type of every object in the store

// The objects, made on first use; the files are opened when something is read or written.
SObjectDB &Objects();

_Attribute const *Table();  // the attributes as the store knows them

// The write section of the process; nests.
void LockWrite();
void UnlockWrite();
// Other files from the end of this write section on: its lock is one of the old files. An empty stem: BTAccounts.
// again.
void PointAt(SString const &stem);

// The cursor on MTA-Accounts, made on first use and never destroyed.
Sdbfile &Settings();
// Moves that cursor to the module's key, 1 on success. A module that was not there before is looked for anew, so that a
// process that lives long, or has just made it, finds it.
int OpenSettings(int flags);

}  // namespace accountstore
