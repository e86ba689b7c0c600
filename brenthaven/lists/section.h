// brenthaven/lists/section.h - the locks under which one subscription changes. Private to this folder.
#pragma once
#include <memory>

#include "brenthaven/accounts/accountdb.h"
#include "brenthaven/lists/slistactions.h"
#include "brenthaven/lists/sliststate.h"

// The write lock on the accounts for its whole life, and the list's state from ReadState on: always in this order. In a
// batch both are the batch's, which writes the state at its own time.
struct SListActions::Section {
  Section(SString const &listUID, SListBatch *batch)
      : _listUID(listUID), _batch(batch != nullptr && batch->_listUID == listUID ? batch : nullptr) {}

  SListState *ReadState();  // null when it can't be read
  bool CommitState();       // true when the state is on disk, or the batch's business
  int CountSubscribers();
  void NoteSubscribers(int more);  // what CountSubscribers is to count besides

  SAccountDBMod accounts;

private:
  SString _listUID;
  SListBatch *_batch;
  std::unique_ptr<SListState> _own;
};
