#include "brenthaven/router/smtprouter.h"

#include <cerrno>

#include "brenthaven/platform/files.h"
#include "brenthaven/router/pass.h"
#include "brenthaven/router/settings.h"
#include "brenthaven/spool/keys.h"
#include "brenthaven/text/base.h"

namespace {

constexpr int kDefaultHops = 35;
constexpr int kFewestHops = 2;
constexpr int kMostHops = 50;
// Mail with fewer hops than this may have entered the system here.
constexpr int kHopsOfRelayedMail = 2;

}  // namespace

SSMTPRouterModule::SSMTPRouterModule() : SModule(kModuleSmtpRouter) { _handler.ShareBarrier(*this); }

SSMTPRouterModule::~SSMTPRouterModule() = default;

// Host directories first: each that is empty afterwards goes, and with it, at the end, the directory above.
void SSMTPRouterModule::ProcessQueue() {
  _queuePass = 1;
  for (SString const &path : ReadDir(GetDeferredDir() + GetModuleName()))
    if (IsDirectory(path)) ProcessDeferredDir(path);
  SModule::ProcessQueue();
}

unsigned int SSMTPRouterModule::LoadEnv() {
  _logName = GetModuleName();
  Sdbfile::ClearReadFailed();
  Sdbfile db(GetModuleName(), 0, kProductWord);
  if (!_LoadConfig(db) || !_LoadErrorActions(db)) return 0;
  LoadSMTPRewriteTable(db);
  if (!_fastRoutesWritten) return 0;
  if (!_LoadRewriteDomains(db) || Sdbfile::ReadFailed()) return 0;  // half a routing table would misroute
  (void)_handler.LoadEnv();  // mail for other hosts is routed even where no mailbox can be served
  return 1;
}

bool SSMTPRouterModule::_LoadConfig(Sdbfile &db) {
  if (!db.Open("/Config", 0)) return false;
  SNamedStringList const config = ReadSection(db);
  _maximumHops = ReadCount(config, "MaximumMTAHops");
  if (_maximumHops < kFewestHops || _maximumHops > kMostHops) _maximumHops = kDefaultHops;
  _foreignPercent = config.Get("ForeignPercentAddr").Get(0) == "yes";
  _canonicalize = config.Get("Canonicalize").Get(0) != "no";  // "No" leaves it on
  _fastRoutePath = GetEnv("FastMRT");
  _sideline.Load(config);
  SString badLine;
  if (_judge.InitFilters(config.Get("SideLineDetailFilters"), &badLine)) return true;
  LogRouterLine(_logName, "sideline judge init filter failed: " + badLine);
  return false;
}

bool SSMTPRouterModule::_LoadErrorActions(Sdbfile &db) {
  if (!db.Open("/Error-Actions", 0)) return false;
  _sidelineAction.Load(db.Get("SideLine"));
  return true;
}

bool SSMTPRouterModule::_LoadRewriteDomains(Sdbfile &db) {
  if (!db.Open("/", 0)) return false;
  _rewriteDomains.Reset();
  for (SString const &line : db.Get("RewriteDomains")) {
    SStringList const parts = line.SplitExact(":", 2);
    _rewriteDomains[LowerCase(parts.Get(0))] = parts.Get(1);
  }
  return true;
}

unsigned int SSMTPRouterModule::ProcessMail() {
  SControl &own = GetControl();
  SString reason;
  if (!_judge.Judge(own, _sideline, reason)) return _judge.Sideline(*this, _sidelineAction, reason);
  long const hops = own.Get(kKeyMtaHops).Get(0).AsLong();
  if (hops > _maximumHops)
    return _FailMail("MaxMTAHopCountExceeded", "ProcessMail", "Maximum Hops: " + MakeSString(_maximumHops));
  if (own.Get(kKeyHostFrom).Get(0).Split(' ').Get(0).Length() == 0)
    return _FailMail("MissingHostFrom", "ProcessMail", "");
  bool const enteredHere = hops < kHopsOfRelayedMail && own.GetTraceCount() == 0;
  unsigned int result = 0;
  if (enteredHere && !_PrepareSender(result)) return result;
  return ProcessAddresses();
}

// The message becomes the report of what is wrong with it. No call has failed, so errno has no part in that.
unsigned int SSMTPRouterModule::_FailMail(char const *error, char const *location, SString const &text) {
  errno = 0;
  return ProcessError(GetControl(), error, location, SStringList(text));
}

// Canonical sender, and the header that goes with it. False when the message ends here, with result.
bool SSMTPRouterModule::_PrepareSender(unsigned int &result) {
  SControl &own = GetControl();
  SString const from = own.Get(kKeyUserFrom).Get(0);
  if (from == kNullSender) return true;  // this form alone: "SMTP <>" is a broken sender
  S821Address sender(from);
  if (sender.Address().Length() < kShortestAddress) {
    result = _FailMail("InvalidUserFrom", "ProcessMail", "");
    return false;
  }
  if (_canonicalize) {
    sender.Domain() = GetHostAddrPart(sender, 0);
    own[kKeyUserFrom] = kChannelWord + sender.Get();  // no blank here; readers of the field take both forms
  }
  sender.Domain() = GetHostAddrPart(sender, 1);
  HeaderStep const step = _CompleteHeader(sender);
  if (step != HeaderStep::kDone) result = step == HeaderStep::kUnreadable ? _FailHeader() : _WaitAsItCame();
  return step == HeaderStep::kDone;
}

// The message goes to the queue without a trace of this pass: with one its header would never be completed. In line it
// is the caller who lets it wait.
unsigned int SSMTPRouterModule::_WaitAsItCame() { return !IsInLine() && GetControl().Defer() ? 1 : 0; }
