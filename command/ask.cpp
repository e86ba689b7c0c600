// brenthaven ask: whose an address is, by the word of the running router. Nothing is sent.
#include <sysexits.h>

#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>

#include "brenthaven/platform/sys.h"
#include "brenthaven/spool/keys.h"
#include "brenthaven/spool/request.h"
#include "brenthaven/text/base.h"
#include "command/command.h"

namespace {

constexpr double kUsualWait = 30;     // seconds; a router may ask two directories, of which each has ten
constexpr double kLongestWait = 600;  // the dispatcher takes an older request for one that nobody waits for

struct AskOptions {
  std::string address;
  double timeout = kUsualWait;
  bool json = false;
};

// Puts the question and waits. False, after a Fail, without an answer.
bool Ask(Command &command, AskOptions const &options, SRequest &request) {
  if (GetEnv("DispatchSocket").Length() == 0) {
    Fail(command, EX_TEMPFAIL, "no dispatcher runs for " + command.root);
    return false;
  }
  if (sys::Access(SString(command.root + "/control"), W_OK) != 0) {
    Fail(command, EX_NOPERM, "a request can't be written to " + command.root + "/control");
    return false;
  }
  request[kKeyAddress] = SString(std::string_view(options.address));
  if (request.Ask(kModuleSmtpRouter, options.timeout) && request.IsAnswered()) return true;
  Fail(command, EX_TEMPFAIL, std::string(kModuleSmtpRouter) + " gave no answer; is its dispatcher at work?");
  return false;
}

void PrintJson(SString const &address, SStringList const &accounts, SStringList const &channels) {
  auto const array = [](SStringList const &texts) {
    nlohmann::json values = nlohmann::json::array();
    for (SString const &text : texts) values.push_back(ToStd(text));
    return values;
  };
  nlohmann::ordered_json answer;
  answer["address"] = ToStd(address);
  answer["accounts"] = array(accounts);
  answer["channels"] = array(channels);
  printf("%s\n", answer.dump(2, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
}

void AskAddress(Command &command, AskOptions const &options) {
  SRequest request;
  if (!EnterInstance(command) || !Ask(command, options, request)) return;
  SString const address = request.Get(kKeyAddressDone).Get(0);
  if (address.Length() == 0) return Fail(command, EX_DATAERR, "not an address: " + options.address);

  SStringList const accounts = request.Get(kKeyAccountTo);
  SStringList const channels = request.Get(kKeyChannelTo);
  bool const isKnown = accounts.Length() + channels.Length() > 0;
  if (!isKnown && request.Get(kKeyError).Length() > 0)
    return Fail(command, EX_TEMPFAIL, "the router could not read its accounts or settings");
  if (!isKnown) command.code = EX_NOUSER;
  if (options.json) return PrintJson(address, accounts, channels);
  for (SString const &uid : accounts) printf("%s\n", static_cast<char const *>(uid));
  for (SString const &channel : channels) printf("%s\n", static_cast<char const *>(channel));
  if (!isKnown) printf("unknown\n");
}

}  // namespace

void AddAsk(CLI::App &app, Command &command) {
  auto const options = std::make_shared<AskOptions>();
  CLI::App *const ask = app.add_subcommand("ask", "ask the running router whose an address is");
  ask->add_option("ADDRESS", options->address)->required();
  ask->add_option("--timeout", options->timeout, "seconds to wait for the answer; 30 without it")
      ->check(CLI::Range(0.0, kLongestWait));
  ask->add_flag("--json", options->json, "print JSON");
  ask->callback([&command, options] { AskAddress(command, *options); });
}
