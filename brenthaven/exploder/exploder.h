// brenthaven/exploder/exploder.h - the module "List-Exploder": takes the postings of mailing lists to their readers.
#pragma once
#include <ctime>

#include "brenthaven/accounts/account.h"
#include "brenthaven/address/address821.h"
#include "brenthaven/lists/slist.h"
#include "brenthaven/lists/sliststate.h"
#include "brenthaven/spool/header.h"
#include "brenthaven/spool/module.h"
#include "brenthaven/text/sstring.h"
#include "brenthaven/text/sstringlist.h"

struct SDecision;
struct SPosting;
struct SReturnPath;

// A message comes from the account handler with "Module-To: List-Exploder UID", by the Handler-Delivery of account UID.
// What the account is decides:
//
//   a list              a posting: refused, dropped as a duplicate or a loop, held for the owners, handed to the list's
//                       manager, or sent on (decision.h has the rules)
//   the owners' account of a list (its Linked-Owner-Account)
//                       a bounce that names a subscriber is counted, all else goes to the owners, unless the account
//                       reaches them by attributes of its own
//   any other           the catch-all account of the bounce domain: a return path that we made names its subscriber
//                       (returnpath.h), whose bounces are counted
//
// A message that is for several lists, or for others too, is split first: one message for each list, and the rest goes
// back to the handler. So a message that is worked on here is one list's, and what its passes have done stands in one
// field of its control (progress.h): a repeated pass goes on where the recorded one ended.
//
// What is sent on are new messages, one for 512 mailboxes, 512 accounts of other kinds, or 20 remote hosts, which share
// one header and one body on disk. Digest readers get what was collected since the last digest when the list's schedule
// says so; the walks of this module's queue look for it.
class SListExploderModule : public SModule {
public:
  SListExploderModule();
  ~SListExploderModule() override;

  // Reads "/Config" of the module's settings. 0 when it can't be opened, and without FormSigKey in the environment: the
  // keys in what is sent out would be anybody's.
  unsigned int LoadEnv() override;
  // Non-zero when the message is finished with. 0 when something could not be read or written: the control then says
  // what was done, and the caller writes and defers it.
  unsigned int ProcessMail() override;
  // Postings that were deferred, then the digests that are due.
  void ProcessQueue() override;

  // Makes a message of its own from the collected postings of each list whose digest is due at that time (digest.h).
  void SendDueDigests(time_t now);

private:
  unsigned int _Split(SStringList const &entries);
  bool _SplitOff(SString const &entry);
  unsigned int _HandBack();

  // By what the account is that the message came through.
  unsigned int _Serve(SString const &uid);
  unsigned int _ServePosting(SList const &list, SHeader &header);
  unsigned int _ServeOwners(SAccount const &account, SList const &list, SHeader &header);
  unsigned int _ServeReturnPaths(SHeader &header);

  SDecision _Decide(SList const &list, SHeader &header);
  SDecision _DecideAndRecord(SPosting const &posting);
  bool _TakeIn(SPosting const &posting, SListState &state, SDecision const &decision);
  unsigned int _Distribute(SList const &list, SHeader const &header);
  unsigned int _Moderate(SList const &list, SHeader &header);
  bool _AskOwners(SList const &list, SHeader &header, SString const &text);
  unsigned int _Refuse(SList const &list, SHeader &header, SDecision const &decision);
  unsigned int _HandTo(SStringList const &uids);
  unsigned int _CountReturned(SReturnPath const &path, SHeader &header);
  unsigned int _Drop(SString const &why);
  bool _Record(char const *stage, SString const &detail);
  S821Address _Sender() { return S821Address(GetControl().Get("User-From:").Get(0)); }
  void _Log(SString const &text) const;
};
