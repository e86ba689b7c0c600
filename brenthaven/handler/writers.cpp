// What a pass writes: a control for each delivery agent, one for unknown accounts, and the hand-over to another module.
#include <errno.h>

#include "brenthaven/accounts/safeuid.h"
#include "brenthaven/handler/fanout.h"
#include "brenthaven/handler/pass.h"
#include "brenthaven/spool/keys.h"
#include "brenthaven/text/base.h"

namespace {

constexpr char kMailboxAgent[] = "Mailbox";
constexpr char kWriteUnknownAcct[] = "WriteUnknownAcct";
constexpr long kDefaultDirectDelivery = 3;  // recipients
constexpr long kDefaultDirectKbytes = 102400;

long Setting(char const *name, long whenUnset) {
  long const value = GetEnv(name).AsLong();
  return value != 0 ? value : whenUnset;
}

// Small enough to be delivered in this process. Message-Size: is taken as the number that it is.
bool IsSmall(SControl const &control, int entries) {
  double const size = control.Get(kKeyMessageSize).Get(0).AsDouble();
  return entries <= Setting("MaxDirectDelivery", kDefaultDirectDelivery) &&
         (entries + 1) * size < static_cast<double>(Setting("MaxDirectKbytes", kDefaultDirectKbytes));
}

}  // namespace

unsigned int SAccountHandlerModule::WriteDeliver(SString agent, SStringList const &list, unsigned int last) {
  if (!IsSafeUID(agent)) return 0;  // it becomes part of a file name, and names a program
  SControl &own = GetControl();
  SControl copy = own;
  for (char const *key : {kKeyAccountTo, kKeyAccountToDone, kKeyManagerTo, kKeyManagerToDone, kKeyChannelTo,
                          kKeyChannelToDone, kKeyModuleTo, kKeyModuleToDone, kKeyDeliverTo, kKeyArchiveToDone})
    copy.Delete(key);
  copy[kKeyFunction] = agent + kDeliverSuffix;
  if (list.Length() > 0) copy[kKeyDeliverTo] = list;
  if (!last) {
    int const earlier = own.GetTraceCount();
    // An earlier pass over this message may have left a copy that still waits under the name.
    copy.PutFreeFilename(own.GetFilename() + (earlier > 0 ? "." + MakeSString(earlier) : SString()) + "-" + agent);
    if (!own.LinkMessage(copy.GetFilename())) return 0;
  }
  bool const here = agent == kMailboxAgent && IsSmall(own, list.Length());
  if (!(here ? _DeliverHere(copy) : HandOver(copy))) {
    if (!last) (void)copy.RemoveMessage();  // as far as it was made
    return 0;
  }
  if (list.Length() > 0) own[kKeyDeliverToDone].Push(list);
  return 1;
}

// A delivery that could not save its control has stored messages all the same: those are done.
unsigned int SAccountHandlerModule::_DeliverHere(SControl &copy) {
  if (_mailbox.ProcessMailControl(copy)) return 1;
  if (_mailbox.Delivered().Length() > 0) GetControl()[kKeyDeliverToDone].Push(_mailbox.Delivered());
  return 0;
}

unsigned int SAccountHandlerModule::WriteHandler(SString const &module) {
  GetControl()[kKeyFunction] = module;
  return module == kModuleSmtpRouter ? _HandToRouter() : HandOver(GetControl());
}

unsigned int SAccountHandlerModule::WriteUnknownAccts(SStringList const &accounts) {
  SControl &own = GetControl();
  SControl copy = own;
  for (char const *key : {kKeyDeliverTo, kKeyModuleTo, kKeyChannelTo, kKeyManagerTo}) copy.Delete(key);
  copy[kKeyAccountTo] = accounts;
  copy.PutFreeFilename(own.GetFilename() + "-Unknown");
  if (!own.LinkMessage(copy.GetFilename())) {
    (void)ProcessError(
        "LinkFail", kWriteUnknownAcct,
        SStringList{"Original Message: " + own.GetFilename(), "Destination Message: " + copy.GetFilename()});
    return 0;
  }
  errno = 0;  // that nobody has the name is no failure of the system
  if (!ProcessError(copy, "UnknownAccounts", kWriteUnknownAcct, accounts)) {
    (void)copy.RemoveMessage();  // as far as it was made
    return 0;
  }
  own[kKeyAccountToDone].Push(accounts);  // a second time: the expansion has recorded them already
  return 1;
}

// The own control is not written here: on disk it must name its accounts until what they get is made.
int SAccountHandlerModule::WriteSMTPDeliver(SNamedStringList *hosts) {
  SFanOut fan(*this, *hosts);
  fan.MarkAsArchive(SArchiveMark::Of(GetModuleName()));
  SFanOut::Result const result = fan.Write([this](SStringList const &entries) {
    GetControl()[kKeyChannelToDone].Push(entries);
    return true;
  });
  return result == SFanOut::Result::kDone ? 1 : 0;
}
