// brenthaven/accounts/accountstore.h - the account store and its settings, one of each in a process. Used by this
// folder.
#pragma once
#include "brenthaven/accounts/account.h"
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

// Tells whether accounts or settings could not be read since it was made. Where a read had failed before and nobody has
// cleared that yet, it can't tell, and says no.
class ReadWatch {
public:
  bool Failed() const { return _before == 0 && SAccountBase::ReadFailed() != 0; }

private:
  unsigned _before = SAccountBase::ReadFailed();
};

// The cursor on MTA-Accounts, made on first use and never destroyed.
Sdbfile &Settings();
// Moves that cursor to the module's key, 1 on success. A module that was not there before is looked for anew, so that a
// process that lives long, or has just made it, finds it.
int OpenSettings(int flags);
// The first value of a setting of MTA-Accounts, read now; undefined when it is absent.
SString Setting(char const *key);

}  // namespace accountstore
