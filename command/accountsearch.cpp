// brenthaven account search: users, lists and subscribers by a key with wildcards.
#include <sysexits.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>

#include "brenthaven/accounts/attributes.h"
#include "brenthaven/lists/accountsearch.h"
#include "brenthaven/lists/slist.h"
#include "command/command.h"

namespace {

constexpr char kPrimaryAddress[] = "SMTP-Primary-Address";

struct SearchOptions {
  std::string key;
  std::string attribute = "SMTP-Address";
  std::string list;
  int kind = SAccountSearch::kUsers;
  int first = 1;
  int last = 10000;
  bool json = false;
};

std::map<std::string, int> const kKinds = {{"users", SAccountSearch::kUsers},
                                           {"lists", SAccountSearch::kLists},
                                           {"subscribers", SAccountSearch::kSubscribers}};

bool IsIndexed(std::string const &attribute) {
  return attribute == kPrimaryAddress ||
         std::any_of(std::begin(attributes::kTable), std::end(attributes::kTable), [&](attributes::Row const &row) {
           return row.name == attribute && row.number != kAttrType && row.flags != 0;
         });
}

// False, after a Fail, for what can have no result.
bool CheckOptions(Command &command, SearchOptions const &options) {
  bool const isOfList = options.kind == SAccountSearch::kSubscribers;
  if (isOfList != !options.list.empty())
    Fail(command, EX_USAGE, "--list and --kind subscribers go together");
  else if (options.last < options.first)
    Fail(command, EX_USAGE, "--last is below --first");
  else if (!IsIndexed(options.attribute))
    Fail(command, EX_DATAERR, "accounts can't be found by " + options.attribute + ": it is no indexed attribute");
  else if (isOfList && SListDB().FindList(SString(options.list)).Length() == 0)
    Fail(command, EX_NOUSER, "no such list: " + options.list);
  return !command.failed;
}

void Print(SAccountSearch const &search, bool asJson) {
  nlohmann::ordered_json found = nlohmann::ordered_json::array();
  auto name = search.GetNames().begin();
  for (SString const &uid : search.GetUIDs()) {
    if (asJson)
      found.push_back({{"uid", ToStd(uid)}, {"name", ToStd(*name)}});
    else
      printf("%s\t%s\n", static_cast<char const *>(uid), OneLine(ToStd(*name)).c_str());
    ++name;
  }
  if (!asJson) return;
  nlohmann::ordered_json const result = {{"hits", search.GetHits()}, {"found", found}};
  printf("%s\n", result.dump(2, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
}

void SearchAccounts(Command &command, SearchOptions const &options) {
  if (!EnterInstance(command) || !CheckOptions(command, options)) return;
  SAccountSearch search;
  search.SetKind(options.kind);
  search.SetList(SString(options.list));
  search.SetSearchAttribute(SString(options.attribute));
  search.SetRange(options.first, options.last);
  search.SetKey(SString(std::string_view(options.key)));
  search.KeySearch();
  if (SAccountBase::ReadFailed()) return Fail(command, EX_IOERR, "the account files cannot be read");
  Print(search, options.json);
  if (search.GetHits() == 0) Fail(command, EX_NOUSER, "nothing matches " + options.key);
}

}  // namespace

void AddAccountSearch(CLI::App &account, Command &command) {
  auto const options = std::make_shared<SearchOptions>();
  CLI::App *const search = account.add_subcommand("search", "print UIDs and values by a key with wildcards (*)");
  search->add_option("KEY", options->key)->required();
  search->add_option("--attribute", options->attribute, "whose values the key is compared with");
  search->add_option("--kind", options->kind, "users, lists or subscribers")
      ->transform(CLI::CheckedTransformer(kKinds));
  search->add_option("--list", options->list, "the list whose subscribers are wanted");
  search->add_option("--first", options->first, "the first hit wanted, from 1")->check(CLI::PositiveNumber);
  search->add_option("--last", options->last, "the last one")->check(CLI::PositiveNumber);
  search->add_flag("--json", options->json, "print JSON");
  search->callback([&command, options] { SearchAccounts(command, *options); });
}
