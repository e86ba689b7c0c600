// brenthaven/exploder/progress.h - what the passes over one posting have done, as its control file records it. Private
// to the list exploder.
//
// One field, "List-Posting!", with one value: the stage, a blank, and where in it the work stands.
//
//   hold TEXT        to be held for the owners, with the text of that name; they have not been asked
//   asked TEXT       they have
//   accepted         to be sent, nothing is sent yet
//   mailbox UID      sent to all mailboxes up to this account, in byte order
//   account UID      to all mailboxes, and to the accounts of other kinds up to this one
//   remote ADDRESS   to all readers here, and to those elsewhere up to this one, in order of host and address
//
// A posting counts as known (its Message-ID, the limits of the day) from the write of its first stage on: whoever
// records a stage does it before the list's state is committed, so that a crash in between forgets the state's counts
// and never the posting.
#pragma once
#include "brenthaven/spool/control.h"
#include "brenthaven/text/sstring.h"
#include "brenthaven/text/sstringlist.h"

inline constexpr char kKeyListPostingDone[] = "List-Posting!";
inline constexpr char kKeyListDigest[] = "List-Digest:";  // "VOLUME NUMBER": the message is a digest of its list
inline constexpr char kKeyApproved[] = "Approved:";       // "yes": an owner has let the posting through

inline constexpr char kStageHold[] = "hold";
inline constexpr char kStageAsked[] = "asked";
inline constexpr char kStageAccepted[] = "accepted";
inline constexpr char kStageMailbox[] = "mailbox";
inline constexpr char kStageAccount[] = "account";
inline constexpr char kStageRemote[] = "remote";

struct SProgress {
  SString stage;   // empty: no pass has come so far
  SString detail;  // what stands behind it

  explicit SProgress(SControl const &control) {
    SStringList const words = control.Get(kKeyListPostingDone).Get(0).SplitExact(" ", 2);
    stage = words.Get(0);
    detail = words.Get(1);
  }
  bool IsModeration() const { return stage == kStageHold || stage == kStageAsked; }

  static void Set(SControl &control, SString const &stage, SString const &detail) {
    control[kKeyListPostingDone] = detail.Length() > 0 ? stage + " " + detail : stage;
  }
};
