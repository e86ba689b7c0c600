// The fan-out: one control for "SMTP-Deliver" a remote host.
//
// Copies are made in batches. A batch is committed by the write of the own control, which then records its entries in
// Channel-To!; until then its copies are known to nobody and can be taken back. Only then are they released, each to
// the dispatcher or, for a host that is served by a queue of its own, into the deferred directory of the delivery
// module.
#include <algorithm>
#include <vector>

#include "brenthaven/mailbox/diskspace.h"
#include "brenthaven/mailbox/mailboxpath.h"
#include "brenthaven/router/pass.h"
#include "brenthaven/spool/keys.h"
#include "brenthaven/text/base.h"

namespace {

constexpr int kBatch = 20;  // most copies between two writes of the own control
constexpr char kRelayReason[] = "Channeled Relay";

// QueueDomains of the environment, "host:buckets,host:buckets", as host to number of buckets. No number is one bucket.
SNamedValue QueueDomains() {
  SNamedValue buckets(1);
  SString const setting = GetEnv("QueueDomains");
  if (setting.Length() == 0) return buckets;
  for (SString const &item : setting.SplitExact(",")) {
    SStringList const parts = item.SplitExact(":");
    if (parts.Get(0).Length() > 0) buckets[parts.Get(0)] = static_cast<int>(std::max(1L, parts.Get(1).AsLong()));
  }
  return buckets;
}

// A control for another module, without the recipients that this one knows of.
SControl CopyFor(SControl const &own, char const *function) {
  SControl copy(own);
  for (char const *key : {kKeyChannelTo, kKeyChannelToDone, kKeyAccountToDone, kKeyDeliverToDone}) copy.Delete(key);
  copy[kKeyFunction] = function;
  return copy;
}

bool IsSourceRoute(SString const &key) { return key.Index(' ') >= 0; }

}  // namespace

// One fan-out: what its copies have in common, and the batch at hand.
struct SSMTPRouterModule::FanOut {
  FanOut(SControl const &own, SNamedStringList *table)
      : copy(CopyFor(own, kModuleSmtpDeliver)), hosts(*table), buckets(QueueDomains()) {
    batch.reserve(kBatch);
  }

  struct Copy {
    SControl control;
    SString key;
  };
  SControl copy;  // the template
  SNamedStringList &hosts;
  SNamedValue buckets;
  double size = 0;  // of one copy, by estimate
  std::vector<Copy> batch;
};

int SSMTPRouterModule::WriteSMTPDeliver(SNamedStringList *hosts, unsigned int archive) {
  SStringList keys = hosts->Keys();
  if (IsInLine() && keys.Length() > kBatch) return _PassFanOutOn(*hosts, keys);
  GetBarrier().Arm(GetControlDir());
  FanOut fan(GetControl(), hosts);
  fan.size = fan.copy.Text().Length() + GetControl().Get(kKeyMessageSize).Get(0).AsDouble();
  while (keys.Length() > 0) {
    SStringList const next = keys.Splice(0, std::min(keys.Length(), kBatch));
    if (!_WriteBatch(fan, next)) return 0;
    if (archive) GetControl()[kKeyArchiveTransferDone].Push(_logName);
    if (!_CommitBatch(fan)) return 0;
    _ReleaseBatch(fan);
  }
  return 1;
}

// Within another module's run a large fan-out would hold that module up: a control for the router's own process takes
// it.
int SSMTPRouterModule::_PassFanOutOn(SNamedStringList &hosts, SStringList const &keys) {
  SControl copy = CopyFor(GetControl(), kModuleSmtpRouter);
  copy.PutFilename(NewMessageID());
  SStringList &entries = copy[kKeyChannelTo];
  for (SString const &key : keys) entries.Push(hosts.Get(key));
  if (!GetControl().LinkMessage(copy.GetFilename()) || !HandOver(copy)) {
    (void)copy.RemoveMessage();  // as far as it was made
    return 0;
  }
  hosts.Reset();
  return 1;
}

int SSMTPRouterModule::_WriteBatch(FanOut &fan, SStringList const &keys) {
  double const needed = (keys.Length() + 1) * fan.size;
  if (GetRemainingUsableKB(GetControl().GetControlFilename(), needed) == 0) {
    if (IsInLine() && CommitBarrier()) (void)GetControl().Write();  // the frame does it elsewhere; the 0 says the rest
    return 0;
  }
  for (SString const &key : keys) {
    if (_WriteCopy(fan, key)) continue;
    _UndoBatch(fan);
    return 0;
  }
  return 1;
}

// Message files before the control: a crash between them leaves files that no module reads.
int SSMTPRouterModule::_WriteCopy(FanOut &fan, SString const &key) {
  fan.batch.push_back({fan.copy, key});
  SControl &copy = fan.batch.back().control;
  copy.PutFilename(NewMessageID());
  copy[kKeyHostTo] = IsSourceRoute(key) ? SString("") : key;
  if (fan.buckets.Get(key) >= 0) copy[kKeyDeferReason] = kRelayReason;
  copy[kKeyChannelTo] = fan.hosts.Get(key);
  return GetControl().LinkMessage(copy.GetFilename()) && copy.Write() ? 1 : 0;
}

void SSMTPRouterModule::_UndoBatch(FanOut &fan) {
  for (FanOut::Copy &made : fan.batch) (void)made.control.RemoveMessage();  // as far as it was made
  fan.batch.clear();
}

int SSMTPRouterModule::_CommitBatch(FanOut &fan) {
  SControl &own = GetControl();
  SStringList const before = own.Get(kKeyChannelToDone);
  for (FanOut::Copy const &made : fan.batch) own[kKeyChannelToDone].Push(fan.hosts.Get(made.key));
  // In line the control has lost what the module before this one has done, and that may not be on disk yet.
  if ((!IsInLine() || CommitBarrier()) && own.Write()) return 1;
  own[kKeyChannelToDone] = before;
  _UndoBatch(fan);
  return 0;
}

void SSMTPRouterModule::_ReleaseBatch(FanOut &fan) {
  for (FanOut::Copy &made : fan.batch) {
    int const buckets = fan.buckets.Get(made.key);
    if (buckets < 0 || !_DeferToQueue(made.control, made.key, buckets)) Announce(made.control);
    fan.hosts.Delete(made.key);
  }
  fan.batch.clear();
}

// A host with a queue of its own is served by the walks of that queue, spread over its buckets by message name.
bool SSMTPRouterModule::_DeferToQueue(SControl &copy, SString const &host, int buckets) {
  int const bucket = BucketHash(copy.GetFilename(), buckets);
  copy[kKeyHostTo] = host;
  copy.SetModuleName(kModuleSmtpDeliver);
  if (!copy.Defer(bucket)) return false;
  copy.PutFilename(GetDeferredDir() + kModuleSmtpDeliver + "/" + host + "," + MakeSString(bucket) + "/" +
                   copy.GetFilename() + kControlSuffix);
  Cover(copy);
  return true;
}
