// brenthaven list: mailing lists.
#include <sysexits.h>

#include <cstdio>
#include <memory>

#include "brenthaven/lists/slistactions.h"
#include "command/listcommand.h"

namespace {

struct ResultRow {
  int result;
  int code;
  char const *text;
};
constexpr ResultRow kResults[] = {
    {kListApprovalRequired, EX_TEMPFAIL, "the owners were asked"},
    {kListAuthenticationRequired, EX_TEMPFAIL, "a key was mailed"},
    {kListRequestDenied, EX_NOPERM, "the list does not allow it"},
    {kListAlreadySubscribed, EX_DATAERR, "is on the list already"},
    {kListNoSuchList, EX_NOUSER, "no such list"},
    {kListNotSubscribed, EX_NOUSER, "is not on the list"},
    {kListTempFail, EX_TEMPFAIL, "a file could not be read, locked or written"},
    {kListMsgNotFound, EX_NOINPUT, "nothing like that waits"},
    {kListOverLimit, EX_NOPERM, "the list has as many subscribers as it may have"},
    {kListInvalidAddress, EX_DATAERR, "not an address that could be on a list"},
    {kListNoLocalAccount, EX_NOUSER, "no account here has the address"},
    {kListLocked, EX_NOPERM, "the list is locked"},
    {kListCircularSubscription, EX_DATAERR, "a list can't be on itself"},
};

}  // namespace

bool EnterList(Command &command, std::string const &name, SList &list) {
  if (!EnterInstance(command)) return false;
  SListDB lists;
  if (lists.GetByUID(lists.FindList(SString(name)), &list, 0)) return true;
  if (SAccountBase::ReadFailed())
    Fail(command, EX_IOERR, "the account files cannot be read");
  else
    Fail(command, EX_NOUSER, "no such list: " + name);
  return false;
}

void FailResult(Command &command, int result, std::string const &about) {
  for (ResultRow const &row : kResults)
    if (row.result == result) return Fail(command, row.code, about + ": " + row.text);
  Fail(command, EX_SOFTWARE, about + ": " + ToStd(SListActions::GetErrorKey(result)));
}

void PrintJson(ListJson const &json) { puts(json.dump(2, ' ', false, ListJson::error_handler_t::replace).c_str()); }

void AddList(CLI::App &app, Command &command) {
  auto const options = std::make_shared<ListOptions>();
  CLI::App *const list = app.add_subcommand("list", "mailing lists");
  list->require_subcommand(1);
  auto const add = [&](char const *name, char const *help, void (*run)(Command &, ListOptions const &)) {
    CLI::App *const sub = list->add_subcommand(name, help);
    sub->callback([&command, options, run] { run(command, *options); });
    return sub;
  };
  auto const withName = [&](CLI::App *sub) {
    sub->add_option("NAME", options->name, "the list")->required();
    return sub;
  };
  auto const withJson = [&](CLI::App *sub) {
    sub->add_flag("--json", options->json, "print JSON");
    return sub;
  };
  auto const withAddresses = [&](CLI::App *sub) {
    sub->add_option("ADDRESS", options->words, "subscribers' addresses");
    sub->add_option("--file", options->file, "a file of addresses, one a line; - for standard input");
    sub->add_flag("--notify", options->notify, "send them the list's text for this");
    return sub;
  };

  CLI::App *sub = withName(add("create", "make a list, with the accounts of its manager and its owners", CreateList));
  sub->add_option("--owner", options->owners, "account that owns it: UID or address")
      ->required()
      ->allow_extra_args(false);
  sub->add_option("--domain", options->domain, "mail domain of its addresses (default: DomainName)");
  sub->add_option("--info", options->info, "one line about it");

  sub = withJson(add("show", "the settings of a list, or all lists", ShowLists));
  sub->add_option("NAME", options->name, "the list");

  sub = withName(add("set", "set all values of an attribute of a list; without a value remove it", SetListAttribute));
  sub->add_option("ATTRIBUTE", options->attribute)->required();
  sub->add_option("VALUE", options->words);

  withName(add("delete", "delete a list, what waits for its owners, and its subscriptions", DeleteList));
  withJson(withName(add("members", "print who is on a list", PrintMembers)));

  sub = withAddresses(withName(add("subscribe", "put addresses on a list, past its policy", SubscribeMembers)));
  sub->add_flag("--digest", options->digest, "deliver many postings in one mail");
  withAddresses(withName(add("unsubscribe", "take addresses off a list, past its policy", UnsubscribeMembers)));

  sub = withName(add("import-members", "put the addresses of a file on a list", SubscribeMembers));
  sub->add_option("FILE", options->file, "one address a line; - for standard input")->required();
  sub->add_flag("--digest", options->digest, "deliver many postings in one mail");

  sub = withJson(withName(add("held", "what waits for the owners, or the text of one posting", PrintHeld)));
  sub->add_option("ID", options->id, "of a posting");
  auto const withHeld = [&](CLI::App *held) {
    held->add_option("WHAT", options->words, "id of a posting, or address of a subscriber")->required();
  };
  withHeld(withName(add("approve", "let through what waits", ApproveHeld)));
  withHeld(withName(add("reject", "turn down what waits", RejectHeld)));
  sub = withName(add("edit", "replace the text of a posting that waits, from standard input or by $EDITOR", EditHeld));
  sub->add_option("ID", options->id, "of a posting")->required();

  sub = withJson(withName(add("stats", "what a list has counted", PrintStats)));
  sub->add_flag("--clear", options->clear, "then start from nothing");
  sub = withJson(withName(add("bounces", "subscribers whose mail comes back, and how often", PrintBounces)));
  sub->add_option("--reset", options->reset, "address whose count starts from nothing");
}
