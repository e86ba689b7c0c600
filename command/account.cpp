// brenthaven account: accounts and their attributes.
#include <sysexits.h>

#include <array>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>

#include "brenthaven/accounts/accountdb.h"
#include "brenthaven/accounts/attributes.h"
#include "brenthaven/accounts/safeuid.h"
#include "brenthaven/accounts/special.h"
#include "brenthaven/spool/accept.h"
#include "command/account.h"

namespace {

using Json = nlohmann::ordered_json;

struct AccountOptions {
  std::string uid;
  std::string attribute;
  std::string name;
  std::vector<std::string> values;
  std::vector<std::string> addresses;
  bool json = false;
};

constexpr std::array kSecrets = {kAttrPassword, kAttrRawPassword, kAttrProgDelPassword};

bool IsSecret(SString const &attribute) {
  for (SAttributeNumber const secret : kSecrets)
    if (attribute.View() == attributes::kTable[secret].name) return true;
  return false;
}

bool IsAttribute(std::string const &name) {
  for (attributes::Row const &row : attributes::kTable)
    if (row.name == name && row.number != kAttrType) return true;
  return false;
}

bool CheckAttribute(Command &command, std::string const &name) {
  if (IsAttribute(name)) return true;
  Fail(command, EX_DATAERR, "no such attribute: " + name);
  return false;
}

std::string WhyNotSet(std::string const &uid, std::string const &attribute) {
  return "cannot set " + attribute + " of " + uid +
         ": the value belongs to another account, or the files cannot be written";
}

void SetAttribute(Command &command, AccountOptions const &options) {
  if (!EnterInstance(command) || !CheckAttribute(command, options.attribute)) return;
  if (!IsSafeUID(SString(options.uid))) return Fail(command, EX_DATAERR, "no name for an account: " + options.uid);
  SAccountDBMod accounts;
  SAccountMod account;
  if (!accounts.ModifyAccount(SString(options.uid), &account))
    return Fail(command, EX_CANTCREAT, "cannot make the account " + options.uid);
  if (!account.Set(SString(options.attribute), ToList(options.values)))
    Fail(command, EX_CANTCREAT, WhyNotSet(options.uid, options.attribute));
}

// What a new account begins with: the attributes of the template, and a mailbox.
bool FillAccount(SAccountMod &account, AccountOptions const &options, std::string &missing) {
  SAccount model;
  if (SAccountDB().GetAccountInfo(kDefaultUID, &model))
    for (SString const &name : model.Values()) {
      missing = ToStd(name);
      if (!IsSecret(name) && !account.Set(name, model.Get(name))) return false;
    }
  struct {
    int attribute;
    SStringList values;
  } const rows[] = {
      {kAttrName, SStringList(SString(options.name.empty() ? options.uid : options.name))},
      {kAttrSmtpAddress, ToList(options.addresses)},
      {kAttrPopAddress, SStringList(SString(options.uid))},
      {kAttrLocalDelivery, SStringList("Mailbox")},
  };
  for (auto const &row : rows) {
    missing = attributes::kTable[row.attribute].name;
    if (row.values.Length() > 0 && !account.Set(row.attribute, row.values)) return false;
  }
  return true;
}

void AddAccountWithMailbox(Command &command, AccountOptions options) {
  if (!EnterInstance(command)) return;
  for (std::string &address : options.addresses) {
    if (!IsMailAddress(SString(address))) return Fail(command, EX_DATAERR, "not an address: " + address);
  }
  SAccountDBMod accounts;
  if (options.uid.empty()) options.uid = ToStd(GenerateAccountUID(SString(options.name)));
  if (!IsSafeUID(SString(options.uid))) return Fail(command, EX_DATAERR, "no name for an account: " + options.uid);
  if (accounts.GetAccountInfo(SString(options.uid), nullptr))
    return Fail(command, EX_CANTCREAT, "the account exists already: " + options.uid);
  int const limit = accounts.GetUserLimit();
  if (limit > 0 && accounts.LocalUserCount() >= limit)
    return Fail(command, EX_NOPERM,
                "the limit of " + std::to_string(limit) + " users is reached (MTA-Accounts//UserLimit)");
  std::string missing;
  bool good;
  {
    SAccountMod account;
    if (!accounts.ModifyAccount(SString(options.uid), &account))
      return Fail(command, EX_CANTCREAT, "cannot make the account " + options.uid);
    good = FillAccount(account, options, missing);
  }
  if (good) {
    printf("%s\n", options.uid.c_str());
    return;
  }
  (void)accounts.DeleteAccount(SString(options.uid));  // half an account would take mail that it cannot deliver
  Fail(command, EX_CANTCREAT, WhyNotSet(options.uid, missing));
}

void GetAttribute(Command &command, AccountOptions const &options) {
  SAccount account;
  if (!EnterInstance(command) || !CheckAttribute(command, options.attribute)) return;
  if (IsSecret(SString(options.attribute))) return Fail(command, EX_NOPERM, "passwords are not shown");
  if (!FindAccount(command, options.uid, account)) return;
  for (SString const &value : account.Get(SString(options.attribute))) printf("%s\n", static_cast<char const *>(value));
}

Json Describe(SAccount const &account) {
  Json attributes = Json::object();
  for (SString const &name : account.Values()) {
    Json &values = attributes[ToStd(name)] = Json::array();
    if (IsSecret(name))
      values.push_back("(hidden)");
    else
      for (SString const &value : account.Get(name)) values.push_back(ToStd(value));
  }
  return attributes;
}

std::string Dump(Json const &json) { return json.dump(2, ' ', false, Json::error_handler_t::replace); }

void ShowAccount(Command &command, AccountOptions const &options) {
  SAccount account;
  if (!EnterInstance(command) || !FindAccount(command, options.uid, account)) return;
  Json const attributes = Describe(account);
  if (options.json) {
    puts(Dump(attributes).c_str());
    return;
  }
  for (auto const &[name, values] : attributes.items())
    for (auto const &value : values) printf("%s: %s\n", name.c_str(), value.get<std::string>().c_str());
}

void PrintUIDs(SStringList const &uids, bool json) {
  Json all = Json::array();
  for (SString const &uid : uids) {
    if (json)
      all.push_back(ToStd(uid));
    else
      printf("%s\n", static_cast<char const *>(uid));
  }
  if (json) puts(Dump(all).c_str());
}

void ListAccounts(Command &command, AccountOptions const &options) {
  if (!EnterInstance(command)) return;
  SStringList const uids = SAccountDB().AccountUIDList();
  if (SAccountBase::ReadFailed()) return Fail(command, EX_IOERR, "the account files cannot be read");
  PrintUIDs(uids, options.json);
}

void FindAccounts(Command &command, AccountOptions const &options) {
  if (!EnterInstance(command) || !CheckAttribute(command, options.attribute)) return;
  for (attributes::Row const &row : attributes::kTable)
    if (row.name == options.attribute && row.flags == 0)
      return Fail(command, EX_DATAERR, "accounts can't be found by " + options.attribute + ": it is not indexed");
  SStringList const uids = SAccountDB().IndexLookup(SString(options.attribute), SString(options.values[0]));
  if (SAccountBase::ReadFailed()) return Fail(command, EX_IOERR, "the account files cannot be read");
  PrintUIDs(uids, options.json);
  if (uids.Length() == 0)
    Fail(command, EX_NOUSER, "no account has " + options.values[0] + " as its " + options.attribute);
}

// Runs one change on an account that must exist.
template <typename Change>
void ChangeAccount(Command &command, AccountOptions const &options, Change const &change) {
  if (!EnterInstance(command)) return;
  SAccountDBMod accounts;
  SAccountMod account;
  SAccount present;
  if (!FindAccount(command, options.uid, present)) return;
  if (!accounts.ModifyAccount(SString(options.uid), &account) || !change(account))
    Fail(command, EX_CANTCREAT, "cannot change the account " + options.uid);
}

void DeleteAccount(Command &command, AccountOptions const &options) {
  SAccount account;
  if (!EnterInstance(command) || !FindAccount(command, options.uid, account)) return;
  if (!SAccountDBMod().DeleteAccount(SString(options.uid)))
    Fail(command, EX_CANTCREAT, "cannot delete the account " + options.uid);
}

void BackupAccounts(Command &command) {
  if (!EnterInstance(command)) return;
  (void)SAccountDB().BackupDB("", "");  // always 1: what went wrong stands on standard error
  printf("%s/config/BTAccounts.a.backup and .i.backup\n", command.root.c_str());
}

}  // namespace

bool FindAccount(Command &command, std::string const &uid, SAccount &account) {
  if (SAccountDB().GetAccountInfo(SString(uid), &account)) return true;
  if (SAccountBase::ReadFailed())
    Fail(command, EX_IOERR, "the account files cannot be read");
  else
    Fail(command, EX_NOUSER, "no such account: " + uid);
  return false;
}

void AddAccount(CLI::App &app, Command &command) {
  auto const options = std::make_shared<AccountOptions>();
  CLI::App *const account = app.add_subcommand("account", "accounts and their attributes");
  account->require_subcommand(1);
  auto const add = [&](char const *name, char const *help, auto run) {
    CLI::App *const sub = account->add_subcommand(name, help);
    sub->callback([&command, options, run] { run(command, *options); });
    return sub;
  };
  auto const withUID = [&](CLI::App *sub) {
    sub->add_option("UID", options->uid, "the account")->required();
    return sub;
  };
  auto const withJson = [&](CLI::App *sub) { sub->add_flag("--json", options->json, "print JSON"); };

  CLI::App *sub =
      withUID(add("set", "set all values of an attribute; makes the account when it is missing", SetAttribute));
  sub->add_option("ATTRIBUTE", options->attribute)->required();
  sub->add_option("VALUE", options->values)->required();

  sub = add("add", "make an account with a mailbox", AddAccountWithMailbox);
  sub->add_option("UID", options->uid, "made from the name when it is left out");
  sub->add_option("--address", options->addresses, "mail addresses, local@domain")->required();
  sub->add_option("--name", options->name, "the person's name");

  sub = withUID(add("get", "print the values of an attribute", GetAttribute));
  sub->add_option("ATTRIBUTE", options->attribute)->required();

  withJson(withUID(add("show", "print all attributes", ShowAccount)));
  withJson(add("list", "print the UIDs of all accounts", ListAccounts));

  sub = add("find", "print the UIDs of the accounts that hold a value", FindAccounts);
  sub->add_option("ATTRIBUTE", options->attribute)->required();
  sub->add_option("VALUE", options->values)->required()->expected(1);
  withJson(sub);

  withUID(add("lock", "keep an account from being used", [](Command &c, AccountOptions const &o) {
    ChangeAccount(c, o, [](SAccountMod &changed) { return changed.Lock(); });
  }));
  withUID(add("unlock", "let an account be used again", [](Command &c, AccountOptions const &o) {
    ChangeAccount(c, o, [](SAccountMod &changed) { return changed.IsLocked() ? changed.Unlock() : 1; });
  }));
  withUID(add("delete", "delete an account and what other accounts say of it", DeleteAccount));
  AddAccountCheck(*account, command);
  add("backup", "copy both account files, in step", [](Command &c, AccountOptions const &) { BackupAccounts(c); });
  AddAccountPassword(*account, command);
  AddAccountSearch(*account, command);
}
