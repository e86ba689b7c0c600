// brenthaven/errorhandler/errorrecord.h - reading an error record: a control for "Error-Handler", and what it says.
#pragma once
#include "brenthaven/spool/control.h"
#include "brenthaven/spool/returned.h"
#include "brenthaven/text/sstring.h"
#include "brenthaven/text/sstringlist.h"

// Whether a record has the files of a message. Absent is not unreadable: a message whose files could not be looked at
// must not be taken for none.
enum class SRecordFiles {
  kMessage,     // header and body
  kNone,        // not both: an error of a module by itself, or what is left of a message
  kUnreadable,  // could not be looked at
};
SRecordFiles FilesOf(SControl const &record);

// What stands in parentheses at the end of Error:, such as "UnknownAccounts"; empty when nothing does.
SString ErrorNameOf(SControl const &record);

// The addresses, user@host, that a record is about: its open recipients or, when there are none, the accounts that are
// done, which the module that failed had taken up. An account is named by its address, or by its UID in this domain.
// False when accounts could not be read.
bool FailedRecipients(SControl const &record, SStringList &addresses);

// What the sender of a message is told: a sentence, the record's own lines, the recipients where those do not name
// them, and by its subject which message it was. delayed: the message goes on; else it does not.
SReturnReasons ReasonsFor(SControl &record, SStringList const &recipients, bool delayed);

// What a person is told of an error that is returned to nobody: origin, numbers with their texts, and lines. In
// ISO-2022-JP.
SString TextForPostmaster(SControl const &record);
