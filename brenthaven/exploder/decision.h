// brenthaven/exploder/decision.h - what becomes of a posting.
//
// In this order, the first that applies:
//
//   "Approved: yes" in the control, which only an owner's answer sets              sent
//   the list's own List-Id: in the header                                          dropped, a loop
//   a bounce (SBounceFilter)                                                       dropped, perhaps counted
//   List-Request-Detection "yes" and a request                                     handed to the list's manager
//   List-Locked "yes" and the poster is not in List-Approved-Posters               refused
//   a Message-ID among the last 50                                                 dropped, a duplicate
//   not in List-Approved-Posters, and the policy refuses or wants approval         refused, held
//   larger than List-Max-Message-Kbytes, or more than List-Max-Messages-Per-Day
//     or List-Max-Kbytes-Per-Day allow; 0 is no limit                              what List-Limit-Policy says
//   otherwise                                                                      sent
//
// The policy is List-Posting-Policy, rules of an SAccountPattern with the actions "allow", "deny", "deny-notify",
// "approval" and "require-auth" (which is "approval" here, as a posting brings no key); without one it is
// List-Subscriber-Posting-Policy or List-Nonsubscriber-Posting-Policy: "closed", "closed-notify", "moderated", and any
// other word or none lets through. List-Limit-Policy has the same words; without one the posting is held. The "-notify"
// forms tell the owners as well.
#pragma once
#include "brenthaven/address/address821.h"
#include "brenthaven/lists/slist.h"
#include "brenthaven/lists/sliststate.h"
#include "brenthaven/spool/control.h"
#include "brenthaven/spool/header.h"
#include "brenthaven/text/sstring.h"

enum class SVerdict { kSend, kHold, kRefuse, kDrop, kRedirect, kRetry };

struct SDecision {
  SVerdict verdict = SVerdict::kSend;
  SString why;              // for people and the log; empty for kSend
  char const *status = "";  // of a refused posting, RFC 3463
  char const *text = "";    // of listtexts.h, which the owners get with it; empty: they are not told
};

// What the rules ask about a posting.
struct SPosting {
  SList const &list;
  SControl &control;
  SHeader &header;
  S821Address poster;  // SControl::GetPoster
  int kbytes = 0;      // header and body, rounded up
};

// The rules from the lock on. The state is read by the caller, and left with the posting's id and counts in it for
// kSend and kHold, to be committed then and only then.
SDecision DecideByRules(SPosting const &posting, SListState &state);

// The parts of it that stand by themselves.
bool IsApprovedPoster(SList const &list, S821Address const &poster);
SString PolicyAction(SList const &list, S821Address const &poster);  // "allow", "deny", "deny-notify" or "approval"
bool IsLoop(SList const &list, SHeader const &header);
