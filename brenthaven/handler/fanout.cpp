#include "brenthaven/handler/fanout.h"

#include <algorithm>

#include "brenthaven/handler/pass.h"
#include "brenthaven/mailbox/diskspace.h"
#include "brenthaven/mailbox/mailboxpath.h"
#include "brenthaven/platform/files.h"
#include "brenthaven/spool/keys.h"
#include "brenthaven/store/sdbfile.h"
#include "brenthaven/text/base.h"

namespace {

constexpr char kRelayReason[] = "Channeled Relay";
constexpr char kDefaultArchiveField[] = "X-BH-Archived:";
constexpr char kSmtpPort[] = "#25";

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

bool IsSourceRoute(SString const &key) { return key.Index(' ') >= 0; }

// A setting with or without angle brackets as an envelope sender.
SString SenderOf(SString const &setting) {
  std::string_view address = setting.View();
  if (address.ends_with('>')) address.remove_suffix(1);
  if (address.starts_with('<')) address.remove_prefix(1);
  return kChannelPrefix + ("<" + SString(address) + ">");
}

}  // namespace

SArchiveMark SArchiveMark::Of(SString const &module) {
  Sdbfile settings(module, 0, kProductWord);
  bool const isOpen = settings.Open("/Config", 0) != 0;
  auto const read = [&](char const *key) { return isOpen ? settings.Get(key).Get(0) : SString(); };
  SArchiveMark mark;
  SString const sender = read("Mail-From");
  mark.sender = SenderOf(sender.Length() > 0 ? sender : "Postmaster@" + GetEnv("HostName"));
  if (read("Archive-Header-Enabled") != "yes") return mark;
  mark.field = read("Archive-Header");
  if (mark.field.Length() == 0) mark.field = kDefaultArchiveField;
  if (mark.field[-1] != ':') mark.field += ':';
  return mark;
}

bool IsArchiveTarget(SString const &target) {
  constexpr std::string_view kForbidden(" \t\r\n/\\\0", 7);
  return target.Length() > 0 && target.View().find_first_of(kForbidden) == std::string_view::npos;
}

SString ArchiveTarget(SString const &target) {
  int const hash = target.Index('#');
  return hash >= 0 && hash < target.Length() - 1 ? target : target + kSmtpPort;
}

SControl CopyWithoutRecipients(SControl const &own, char const *function) {
  SControl copy(own);
  for (char const *key : {kKeyChannelTo, kKeyChannelToDone, kKeyAccountToDone, kKeyDeliverToDone, kKeyArchiveToDone})
    copy.Delete(key);
  copy[kKeyFunction] = function;
  return copy;
}

SFanOut::SFanOut(SModule &module, SNamedStringList &hosts)
    : _module(module),
      _hosts(hosts),
      _template(CopyWithoutRecipients(module.GetControl(), kModuleSmtpDeliver)),
      _buckets(QueueDomains()),
      _size(_template.Text().Length() + module.GetControl().Get(kKeyMessageSize).Get(0).AsDouble()) {
  _batch.reserve(kBatch);
}

SFanOut::Result SFanOut::Write(Commit const &commit) {
  _module.GetBarrier().Arm(_module.GetControlDir());
  if (_mark.sender.Length() > 0) _template[kKeyUserFrom] = _mark.sender;
  SStringList keys = _hosts.Keys();
  while (keys.Length() > 0) {
    Result const written = _WriteBatch(keys.Splice(0, std::min(keys.Length(), kBatch)));
    if (written != Result::kDone) return written;
    if (_isArchive)  // archived counts at once and for ever, so that the commit may flush these copies
      for (Copy const &made : _batch) _module.Cover(made.control);
    if (!commit(_BatchEntries())) {
      _TakeBack();
      return Result::kFailed;
    }
    _Release();
  }
  return Result::kDone;
}

SFanOut::Result SFanOut::_WriteBatch(SStringList const &keys) {
  if (GetRemainingUsableKB(_module.GetControl().GetControlFilename(), (keys.Length() + 1) * _size) == 0)
    return Result::kNoRoom;
  for (SString const &key : keys) {
    if (_WriteCopy(key)) continue;
    _TakeBack();
    return Result::kFailed;
  }
  return Result::kDone;
}

// Message files before the control: a crash between them leaves files that no module reads.
bool SFanOut::_WriteCopy(SString const &key) {
  _batch.push_back({_template, key});
  SControl &copy = _batch.back().control;
  copy.PutFilename(_module.NewMessageID());
  copy[kKeyHostTo] = IsSourceRoute(key) ? SString("") : key;
  if (_buckets.Get(key) >= 0) copy[kKeyDeferReason] = kRelayReason;
  copy[kKeyChannelTo] = _hosts.Get(key);
  return _module.GetControl().LinkMessage(copy.GetFilename()) && _MarkHeader(copy) && copy.Write();
}

// The copy's header becomes a file of its own, which replaces the link and so is on disk before a control names it.
bool SFanOut::_MarkHeader(SControl &copy) const {
  if (_mark.field.Length() == 0) return true;
  SHeader header;
  if (!copy.ReadHeader(&header) && FileSize(copy.GetHeaderFilename()) != 0) return false;  // it may be empty
  header[_mark.field] = GetEnv("HostName");
  return copy.WriteHeader(&header) != 0;
}

SStringList SFanOut::_BatchEntries() const {
  SStringList entries;
  for (Copy const &made : _batch) entries.Push(_hosts.Get(made.key));
  return entries;
}

void SFanOut::_TakeBack() {
  for (Copy &made : _batch) (void)made.control.RemoveMessage();  // as far as it was made
  _batch.clear();
}

void SFanOut::_Release() {
  for (Copy &made : _batch) {
    int const buckets = _buckets.Get(made.key);
    if (buckets < 0 || !_DeferToQueue(made.control, made.key, buckets)) _module.Announce(made.control);
    _hosts.Delete(made.key);
  }
  _batch.clear();
}

// A host with a queue of its own is served by the walks of that queue, spread over its buckets by message name.
bool SFanOut::_DeferToQueue(SControl &copy, SString const &host, int buckets) {
  int const bucket = BucketHash(copy.GetFilename(), buckets);
  copy[kKeyHostTo] = host;
  copy.SetModuleName(kModuleSmtpDeliver);
  if (!copy.Defer(bucket)) return false;
  copy.PutFilename(_module.GetDeferredDir() + kModuleSmtpDeliver + "/" + copy.GetHostDirectory(bucket) +
                   copy.GetFilename() + kControlSuffix);
  _module.Cover(copy);
  return true;
}
