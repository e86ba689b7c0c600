// brenthaven alias: addresses that stand for lists of other addresses.
#include <sysexits.h>

#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>

#include "brenthaven/accounts/alias.h"
#include "brenthaven/address/address821.h"
#include "brenthaven/spool/accept.h"
#include "command/command.h"

namespace {

struct AliasOptions {
  std::string address;
  std::vector<std::string> targets;
  bool json = false;
};

// An address as the alias table and the channel entries have it, "<local@domain>"; invalid when the text is none.
S821Address ParseAddress(std::string const &text) {
  SString bracketed = SString(std::string_view(text));
  if (!bracketed.HasPrefix("<")) bracketed = "<" + bracketed + ">";
  return S821Address(bracketed);
}

bool CheckAddress(Command &command, std::string const &text) {
  if (IsMailAddress(SString(text))) return true;
  Fail(command, EX_DATAERR, "not an address: " + text);
  return false;
}

void SetAlias(Command &command, AliasOptions const &options) {
  if (!EnterInstance(command) || !CheckAddress(command, options.address)) return;
  SStringList entries;
  for (std::string const &target : options.targets) {
    if (!CheckAddress(command, target)) return;
    entries.Push("SMTP " + ParseAddress(target).Get());
  }
  if (!SAliasDBMod().AddChannelAliases(ParseAddress(options.address), entries))
    Fail(command, EX_CANTCREAT, "cannot store the alias " + options.address);
}

void DeleteAlias(Command &command, AliasOptions const &options) {
  if (!EnterInstance(command) || !CheckAddress(command, options.address)) return;
  if (!SAliasDBMod().DeleteChannelAliases(ParseAddress(options.address)))
    Fail(command, EX_NOUSER, "no such alias: " + options.address);
}

void ListAliases(Command &command, AliasOptions const &options) {
  if (!EnterInstance(command)) return;
  nlohmann::ordered_json all = nlohmann::ordered_json::object();
  SAliasDB aliases;
  for (SString const &address : aliases.GetAliases()) {
    SStringList const targets = aliases.GetChannelAliases(S821Address(address));
    if (!options.json) {
      printf("%s:\n", address.AsPtr());
      for (SString const &target : targets) printf("    %s\n", static_cast<char const *>(target));
      continue;
    }
    for (SString const &target : targets) all[ToStd(address)].push_back(ToStd(target));
  }
  if (SAliasDB::ReadFailed()) return Fail(command, EX_IOERR, "the alias table cannot be read");
  if (options.json) puts(all.dump(2, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
}

}  // namespace

void AddAlias(CLI::App &app, Command &command) {
  auto const options = std::make_shared<AliasOptions>();
  CLI::App *const alias = app.add_subcommand("alias", "addresses that stand for other addresses");
  alias->require_subcommand(1);
  CLI::App *const set = alias->add_subcommand("set", "make an alias, or replace what it stands for");
  set->add_option("ADDRESS", options->address)->required();
  set->add_option("TARGET", options->targets, "addresses that get its mail")->required();
  set->callback([&command, options] { SetAlias(command, *options); });
  CLI::App *const list = alias->add_subcommand("list", "all aliases");
  list->add_flag("--json", options->json, "print JSON");
  list->callback([&command, options] { ListAliases(command, *options); });
  CLI::App *const remove = alias->add_subcommand("delete", "remove an alias");
  remove->add_option("ADDRESS", options->address)->required();
  remove->callback([&command, options] { DeleteAlias(command, *options); });
}
