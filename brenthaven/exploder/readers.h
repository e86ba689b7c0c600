// brenthaven/exploder/readers.h - who gets a list's mail, by the way that it takes.
#pragma once
#include <vector>

#include "brenthaven/lists/slist.h"
#include "brenthaven/text/sstring.h"

enum class SReaderKind { kImmediate, kDigest };

struct SRemoteReader {
  SString host;     // in lower case
  SString address;  // local@domain
};

// Each sorted, so that a place in it can be told by the last reader served. All are linear in the number of readers,
// with some 100 bytes for each.
struct SListReaders {
  std::vector<SString> mailboxes;      // UIDs whose mail goes to a mailbox here and nowhere else
  std::vector<SString> accounts;       // UIDs of all others with an account here: forwarders, lists, other agents
  std::vector<SRemoteReader> remotes;  // by host, then by address

  // Replaces what it holds. The readers of All-Mailboxes are all accounts with a mailbox, each by its mailbox alone.
  // False when accounts could not be read.
  bool Read(SList const &list, SReaderKind kind);

  // What is left behind the last reader served, in the order mailboxes, accounts, remotes.
  void DropMailboxesTo(SString const &uid);
  void DropAccountsTo(SString const &uid);
  void DropRemotesTo(SString const &address);
};
