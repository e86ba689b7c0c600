// brenthaven trace: what the router would do with an address, and why. Nothing is sent and the spool is not touched.
#include <sysexits.h>

#include <cstdio>
#include <memory>

#include "brenthaven/router/smtprouter.h"
#include "brenthaven/spool/keys.h"
#include "command/command.h"

namespace {

struct TraceOptions {
  std::vector<std::string> addresses;
  std::string sender;
};

class PrintingObserver : public SRouteObserver {
public:
  void Note(SString const &entry, SRouteStep step, SString const &detail) override {
    if (entry != _last) printf("%s\n", static_cast<char const *>(entry));
    _last = entry;
    printf("    %-16s %s\n", RouteStepName(step), static_cast<char const *>(detail));
    refused = refused || step == SRouteStep::kUnknown || step == SRouteStep::kBadAddress ||
              step == SRouteStep::kPercentRefused;
  }
  bool refused = false;

private:
  SString _last;
};

SString Bracketed(std::string const &address) {
  return SString(!address.empty() && address.front() == '<' ? address : "<" + address + ">");
}

}  // namespace

int ExplainAddresses(Command &command, std::vector<std::string> const &addresses, std::string const &sender) {
  SSMTPRouterModule router;
  if (!router.LoadEnv()) {
    Fail(command, EX_CONFIG, "the settings of SMTP-Router cannot be opened");
    return command.code;
  }
  SControl &control = router.GetControl();  // of a message that is nowhere but in memory
  control[kKeyUserFrom] = sender.empty() ? SString(kNullSender) : kChannelPrefix + Bracketed(sender);
  control[kKeyRawMailFrom] = Bracketed(sender);
  SStringList entries;
  for (std::string const &address : addresses) {
    control[kKeyRawRcptTo].Push(Bracketed(address));
    entries.Push(kChannelPrefix + Bracketed(address));
  }
  PrintingObserver observer;
  if (!router.Explain(entries, observer))
    Fail(command, EX_TEMPFAIL, "accounts, aliases or settings cannot be read");
  else if (observer.refused)
    command.code = EX_NOUSER;
  return command.code;
}

void AddTrace(CLI::App &app, Command &command) {
  auto const options = std::make_shared<TraceOptions>();
  CLI::App *const trace = app.add_subcommand("trace", "what would become of mail for an address, and why");
  trace->add_option("ADDRESS", options->addresses)->required();
  trace->add_option("--from", options->sender, "envelope sender; none without it");
  trace->callback([&command, options] {
    if (EnterInstance(command)) (void)ExplainAddresses(command, options->addresses, options->sender);
  });
}
