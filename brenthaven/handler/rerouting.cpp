// The way back from an account to the router: mail for an account's "Channel-Delivery" addresses.
#include "brenthaven/handler/accounthandler.h"
#include "brenthaven/router/smtprouter.h"
#include "brenthaven/spool/keys.h"
#include "brenthaven/text/sstringset.h"

namespace {
// Accounts that forward to one another by address nest routers and handlers. Beyond this the message goes on by file.
constexpr int kMostNested = 8;
}  // namespace

unsigned int SAccountHandlerModule::_HandToRouter() {
  SControl &control = GetControl();
  if (control.GetTraceCount() >= kMostNested) return HandOver(control);
  SSMTPRouterModule router;
  router.ShareBarrier(*this);
  if (!router.LoadEnv()) return 0;
  SStringList const given = control.Get(kKeyChannelTo);
  if (router.ProcessMailControl(control)) return 1;
  // What it has sent and delivered is known to its control alone. An entry that is no longer on its list left in other
  // words, as the addresses of an alias: the next expansion must not bring it back.
  control = router.GetControl();
  control.AddTrace();
  control.SetModule(this);
  SStringSet known(control.Get(kKeyChannelTo));
  known.AddAll(control.Get(kKeyChannelToDone));
  for (SString const &entry : given)
    if (known.Add(entry)) control[kKeyChannelToDone].Push(entry);
  return 0;
}
