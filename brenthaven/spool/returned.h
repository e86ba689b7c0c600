// brenthaven/spool/returned.h - what becomes of a message that may not go on: it is dropped, returned to its sender
// with an explanation, held for a person, and let go on by that person.
//
// Two callers: the router's sideline judge, for a message that breaks a rule, and the error handler, for a message that
// could not be delivered. `control` is the module's current control or one whose files stand as its own do.
#pragma once
#include <vector>

#include "brenthaven/spool/control.h"
#include "brenthaven/spool/module.h"
#include "brenthaven/text/sstring.h"
#include "brenthaven/text/sstringlist.h"

// The words by which settings name the three actions. They are compared exactly.
inline constexpr char kActionDelete[] = "Delete";
inline constexpr char kActionReturn[] = "return";
inline constexpr char kActionHold[] = "hold";

// Where held messages wait, below deferred/. No module has such a name, so that no queue walk takes them. The name also
// stands in the Trace: of a message that was held there, by which its holder knows it again.
inline constexpr char kSidelinePlace[] = "Sideline";  // held by the router's judge
inline constexpr char kHeldPlace[] = "Held";          // held by the error handler

// What became of one recipient, for the machine-readable part of a delivery report (RFC 3464).
struct SRecipientStatus {
  SString recipient;   // user@host, without brackets
  SString action;      // "failed" or "delayed"
  SString status;      // RFC 3463: "5.1.1"
  SString diagnostic;  // one line for people; may be empty
};

struct SReturnReasons {
  SStringList lines;                         // for people, in the first part of the report; any bytes
  std::vector<SRecipientStatus> recipients;  // empty: multipart/mixed without a machine-readable part
};

enum class SReturned {
  kSent,    // the report is durably in the spool
  kNobody,  // nothing was written: the message is itself a report, so that its return would never end; it is logged
  kFailed,  // a file could not be read or written; nothing of the report is left, error says why
};

// Builds the returned-mail message about `message`, a control of the module whose files stand, and hands it to the
// account handler. Neither the message's files nor its control are changed. error, never null, takes location, error
// name and "File: " + path for ProcessError.
//
// It goes to the envelope sender; with Error-List-UID: to the owner of that list, or "Postmaster@" + domain when the
// list has none; where the sender is null or broken, to the account "Postmaster". The parts: the reasons; with
// recipients a message/delivery-status, the whole then being a multipart/report; the message as message/rfc822, or its
// header as text/rfc822-headers when both are larger than ReturnMaxKbytes.
//
// A report with recipients has the null sender, as RFC 3464 section 2 asks, the other kind Postmaster's address. Both
// carry Error-Msg-Type:, by which a report is never itself reported on.
//
// From the environment at each call: HostName, DomainName; ReturnMaxKbytes (64 when unset or no number); SuppressPM
// "yes" leaves out the lines that ask to write to the postmaster; ReplyToNoHost "yes" has Reply-To: name the domain in
// place of the host.
SReturned ReturnMessage(SModule &module, SControl &message, SReturnReasons const &reasons, SStringList *error);

// Whether a message is a report of ours: it says so, or the error handler made it and another module has had it since.
bool IsReport(SControl const &control);

// Whether a message was at a place (one of the above, or "Error-Handler") and some module has had it after that: a
// person or the error handler let it go on, and it failed again.
bool CameBack(SControl const &control, char const *place);

// Commits the pass, then removes control, header and body. 1 when the control is gone; a file that stayed is told on
// the log as "Remove failed for Message file (NAME)". 0: the control stands as it was, which is logged too.
unsigned int DropMessage(SModule &module, SControl &control);

// Makes the control an error record with the origin "MODULE:location", as SModule::ProcessError does, but leaves it in
// memory. errno and the socket layer's last error are taken as they are at the call.
void MarkAsError(SModule const &module, SControl &control, SString const &error, SString const &location,
                 SStringList const &text);

// Writes the control, which MarkAsError or another module has made an error record, and then moves it to deferred/PLACE
// until somebody releases or removes it. 1 when it lies there. 0 when it could not be written or moved: it is then in
// control/ as it was, or as the record that the error handler will take up.
unsigned int HoldMessage(SModule &module, SControl &control, char const *place);

// Turns a message that was held as an error record back into mail for the module that failed on it, in memory: the
// error fields go, what is to be done counts as not done, and where nothing is left to do, the accounts already done
// are to be done again (deliveries stay recorded). False, with the control as it was, when it is no such record: not
// mail, not for the error handler, or without the name of a module that failed.
bool ResumeMessage(SControl &control);
