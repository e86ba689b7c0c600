// brenthaven/exploder/distribution.h - one posting or digest on its way to all readers of a list.
#pragma once
#include <vector>

#include "brenthaven/exploder/listheaders.h"
#include "brenthaven/exploder/readers.h"
#include "brenthaven/lists/slist.h"
#include "brenthaven/spool/control.h"
#include "brenthaven/spool/header.h"
#include "brenthaven/spool/module.h"

// Writes the new messages that carry it: for at most kBatch mailboxes ("Mailbox-Deliver"), kBatch accounts of other
// kinds ("Account-Handler"), or kHosts remote hosts ("SMTP-Router"). They share one header and one body by hard links.
// Where each remote reader has a return path of his own (List-VERP), he has a message of his own too, and where the
// unsubscription URL is each reader's own, every reader has.
//
// Messages are written in groups. A group is durable, and then recorded in the posting's control, before its messages
// are announced; until then they can be taken back. So a pass that fails leaves what earlier groups have sent recorded,
// and nothing unrecorded sent; after a crash at most one group goes out again.
class SDistribution {
public:
  static constexpr int kBatch = 512;
  static constexpr int kHosts = 20;
  static constexpr int kRemoteBatch = 1000;    // most readers of one remote message, however few their hosts
  static constexpr size_t kGroup = 20;         // most messages to many between two records
  static constexpr size_t kSingleGroup = 256;  // the same of messages to one reader each

  // The module's current control is the posting's; header is the one that the readers get. All are borrowed.
  SDistribution(SModule &module, SList const &list, SHeader const &header);
  SDistribution(SDistribution const &) = delete;
  SDistribution &operator=(SDistribution const &) = delete;
  ~SDistribution();

  // True when all readers have it; the control in memory records what was sent in either case. The caller then drops
  // the message, or defers it.
  bool Run();

private:
  struct Batch;

  void _ReadSettings();
  bool _ReadReaders();
  bool _MakeBase();
  bool _SendHere(std::vector<SString> const &uids, char const *stage);
  bool _SendAway();
  bool _Write(Batch const &batch);
  bool _WriteFiles(SControl const &copy, Batch const &batch);
  bool _WriteControls();
  bool _EndGroup(bool isLast);
  void _UndoGroup();
  SString _URLFor(SString const &subscriber) const;
  size_t _MostInGroup(bool isSingle) const { return isSingle ? kSingleGroup : kGroup; }

  SModule &_module;
  SControl &_own;
  SList const &_list;
  SHeader const &_header;
  SListNames const _names;
  SUnsubscribeURL _url;
  bool _hasReturnPaths = false;
  SString _returnDomain;
  SString _secret;
  SListReaders _readers;
  SControl _template;  // of the new messages
  SControl _base;      // names the header and body that they share; it is no control file of its own
  bool _isBaseSafe = false;
  std::vector<SControl> _group;
  SString _stage;  // of the last reader in the group
  SString _last;
};
