#include "brenthaven/listmanager/held.h"

#include "brenthaven/lists/slistactions.h"
#include "brenthaven/lists/sliststate.h"
#include "brenthaven/spool/accept.h"

namespace {

struct Waiting {
  SString address;  // as it stands in the list's state; empty for none
  bool leaves = false;
  bool digest = false;
};

SString Find(SStringList const &requests, SString const &address) {
  for (SString const &request : requests)
    if (request.CompareNoCase(address)) return request;
  return SString();
}

// False when the list's state can't be read.
bool FindRequest(SString const &listUID, SString const &address, Waiting &waiting) {
  SListState state(listUID);
  if (!state.Read()) return false;
  struct {
    SStringList const &requests;
    bool leaves, digest;
  } const kinds[] = {{state.GetSubscribeRequests(0), false, false},
                     {state.GetSubscribeRequests(1), false, true},
                     {state.GetUnsubscribeRequests(), true, false}};
  for (auto const &kind : kinds)
    if (waiting.address.Length() == 0) waiting = {Find(kind.requests, address), kind.leaves, kind.digest};
  return true;
}

int DecideOnRequest(SModule &module, SString const &listUID, S821Address const &address, bool accept) {
  Waiting waiting;
  if (!FindRequest(listUID, BareAddress(address), waiting)) return kListTempFail;
  if (waiting.address.Length() == 0) return kListMsgNotFound;
  SListActions actions(&module, listUID, S821Address(waiting.address));
  if (!accept)
    return (waiting.leaves ? actions.RejectUnsubscription() : actions.RejectSubscription()) ? kListSuccess
                                                                                            : kListTempFail;
  actions.SetDigest(waiting.digest);
  actions.SetSendInfo(1, 1);
  return waiting.leaves ? actions.Unsubscribe(1) : actions.Subscribe(1);
}

}  // namespace

int DecideOnHeld(SModule &module, SString const &listUID, SString const &what, bool accept) {
  SListActions actions(&module, listUID, S821Address());
  int const result = actions.Moderate(what, accept);
  // A posting that is on its way counts as such, though no dispatcher could be told of it: a walk finds it.
  if (result == kListTempFail && actions.ForgetLost(what)) return kListSuccess;
  if (result != kListMsgNotFound || !IsMailAddress(what)) return result;
  return DecideOnRequest(module, listUID, S821Address(what), accept);
}
