// brenthaven init: an instance's tree, environment, settings and special accounts. What exists already is kept.
#include <sysexits.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <system_error>

#include "brenthaven/accounts/accountdb.h"
#include "brenthaven/accounts/attributes.h"
#include "brenthaven/accounts/special.h"
#include "brenthaven/lists/listtexts.h"
#include "brenthaven/platform/barrier.h"
#include "brenthaven/platform/files.h"
#include "brenthaven/platform/sys.h"
#include "brenthaven/spool/instance.h"
#include "brenthaven/store/sdbfile.h"
#include "brenthaven/text/base.h"
#include "command/command.h"

namespace {

struct InitOptions {
  std::string domain;
  std::string host;
};

constexpr char const *kDirectories[] = {
    "messages", "control",  "control/failed",         "deferred",    "config", "mailboxes",
    "run",      "listdata", "List-Exploder/approval", "List-Manager"};

// The sections that the modules open when they start; one that is missing would keep its module from starting.
struct SectionRow {
  char const *module;
  char const *section;
};
constexpr SectionRow kSections[] = {
    {"SMTP-Router", "/Config"},     {"SMTP-Router", "/Error-Actions"},   {"Account-Handler", "/Config"},
    {"Mailbox-Deliver", "/Config"}, {"Mailbox-Deliver", "/Messages"},    {"Dispatcher", "/Config"},
    {"List-Exploder", "/Config"},   {"List-Manager", "/Config"},         {"List-Manager", "/Log"},
    {"List-Manager", "/Messages"},  {"Error-Handler", "/Error-Actions"}, {"SMTP-Router", "/Directory"},
    {"LDAP-Reference", "/Config"},
};

// Texts that an installation starts with, in English; an administrator changes them with `config set`.
struct TextRow {
  char const *module;
  char const *section;
  char const *key;
  char const *text;
};
constexpr TextRow kTexts[] = {
    {"Mailbox-Deliver", "/Messages", "OverQuotaMessage",
     "From: Mail Administrator <<+++PostMasterAccount+++>>\r\n"
     "Date: <+++SendingDate+++>\r\n"
     "Subject: Your mailbox is full\r\n"
     "MIME-Version: 1.0\r\n"
     "Content-Type: text/plain; charset=us-ascii\r\n"
     "\r\n"
     "A message of <+++MessageSize+++> bytes could not be stored: of your quota of\r\n"
     "<+++Quota+++> bytes only <+++SpaceLeft+++> bytes are left. The sender has been told.\r\n"
     "Please remove messages that you no longer need.\r\n"},
    {"Mailbox-Deliver", "/Messages", "NearQuotaMessage",
     "From: Mail Administrator <<+++PostMasterAccount+++>>\r\n"
     "Date: <+++SendingDate+++>\r\n"
     "Subject: Your mailbox is nearly full\r\n"
     "MIME-Version: 1.0\r\n"
     "Content-Type: text/plain; charset=us-ascii\r\n"
     "\r\n"
     "Of your quota of <+++Quota+++> bytes only <+++SpaceLeft+++> bytes are left.\r\n"
     "Please remove messages that you no longer need.\r\n"},
};

std::string EnvironmentText(InitOptions const &options) {
  return "# Environment of every program of this instance: NAME=VALUE.\n"
         "HostName=" +
         options.host +
         "\n"
         "DomainName=" +
         options.domain +
         "\n"
         "# Log lines of the modules on standard error.\n"
         "Log=yes\n"
         "# A name server's answer must come from where the question went.\n"
         "DnsStrict=yes\n"
         "# Recipients of one message that are delivered to in the router's own process.\n"
         "MaxDirectDelivery=512\n";
}

constexpr char kSecretName[] = "\nFormSigKey=";
constexpr int kSecretLength = 32;  // hexadecimal digits

// The secret of the keys that confirm list requests.
std::string SecretText() {
  std::string text = "# Secret of the keys by which addresses confirm requests to mailing lists.";
  text += kSecretName;
  for (int i = 0; i < kSecretLength; ++i) text += "0123456789abcdef"[RandomInt(16)];
  return text + "\n";
}

bool MakeTree(Command &command) {
  for (char const *name : kDirectories)
    if (!MakeDir(SString(command.root) + "/" + name, 0770)) {
      Fail(command, EX_CANTCREAT, "cannot make " + command.root + "/" + name + ": " + ToStd(GetErrorString(-1)));
      return false;
    }
  return true;
}

bool WriteEnvironment(Command &command, InitOptions const &options) {
  SString const path = SString(command.root) + "/config/environment";
  SString const before = FileExists(path) ? MapFileRead(path) : SString(EnvironmentText(options));
  if (!before.Defined()) {
    Fail(command, EX_NOINPUT, "cannot read " + ToStd(path) + ": " + ToStd(GetErrorString(-1)));
    return false;
  }
  if (("\n" + before).Index(kSecretName) >= 0) return true;
  std::string const gap = before.Length() > 0 && before[-1] != '\n' ? "\n" : "";
  SString const temp = path + ".temp";
  (void)RemoveFile(temp);  // left by a run that died
  SSyncBarrier barrier;
  barrier.AddFile(temp);
  if (MapFileWrite(temp, before + SString(gap + SecretText())) && barrier.Commit() && Rename(temp, path)) return true;
  Fail(command, EX_CANTCREAT, "cannot write " + ToStd(path) + ": " + ToStd(GetErrorString(-1)));
  return false;
}

// Gives a setting its text unless it has one.
bool WriteText(TextRow const &row) {
  Sdbfile store(row.module, 1, kProductWord);
  return store.Open(row.section, 1) && (store.Get(row.key).Length() > 0 || store.Set(row.key, SStringList(row.text)));
}

bool WriteSettings(Command &command, InitOptions const &options) {
  bool good = true;
  for (SectionRow const &row : kSections) {
    Sdbfile store(row.module, 1, kProductWord);
    good = store.Open(row.section, 1) != 0 && good;
  }
  for (TextRow const &row : kTexts) good = WriteText(row) && good;
  for (listtexts::Row const &row : listtexts::kTable)
    good = WriteText({"List-Manager", "/Messages", row.key, row.text}) && good;
  Sdbfile accounts("MTA-Accounts", 1, kProductWord);
  if (accounts.Open("/", 1) && !accounts.Get("LocalMailDomains").Contains(SString(options.domain))) {
    SStringList domains = accounts.Get("LocalMailDomains");
    domains.Push(SString(options.domain));
    good = accounts.Set("LocalMailDomains", domains) != 0 && good;
  }
  good = accounts.Open("/SMTP-Address", 1) && accounts.Open("Aliases", 1) && good;
  if (!good) Fail(command, EX_CANTCREAT, "cannot write the settings in " + command.root + "/config");
  return good;
}

// The account that gets what nobody else can: mail for it lies in its own mailbox until somebody forwards it.
bool MakePostmaster(InitOptions const &options) {
  SAccountDBMod accounts;
  if (accounts.GetAccountInfo(kPostmasterUID, nullptr)) return true;
  SAccountMod postmaster;
  return accounts.ModifyAccount(kPostmasterUID, &postmaster) && postmaster.Set("Name", SStringList("Postmaster")) &&
         postmaster.Set("SMTP-Address", SStringList(SString("Postmaster@") + SString(options.domain))) &&
         postmaster.Set("POP-Address", SStringList("postmaster")) &&
         postmaster.Set("Local-Delivery", SStringList("Mailbox"));
}

void RunInit(Command &command, InitOptions options) {
  if (command.root.empty()) return Fail(command, EX_USAGE, "no instance named: give --root DIR or set Brenthaven");
  if (command.root.front() != '/') {
    std::error_code error;
    command.root = (std::filesystem::current_path(error) / command.root).string();
    if (error) return Fail(command, EX_OSERR, "the present directory cannot be found: " + error.message());
  }
  while (command.root.size() > 1 && command.root.back() == '/') command.root.pop_back();
  for (std::string *name : {&options.domain, &options.host})
    if (name->find_first_of(" \t\r\n@/\\\"'<>") != std::string::npos || name->empty())
      return Fail(command, EX_DATAERR, "not the name of a domain or host: " + *name);
  options.domain = ToStd(LowerCase(SString(options.domain)));
  options.host = ToStd(LowerCase(SString(options.host)));
  if (!IsGuardedRoot(SString(command.root)))
    return Fail(command, EX_CONFIG, ToStd(UnguardedRootText(SString(command.root))) + "; narrow its mode: chmod o-w");
  if (!MakeTree(command) || !WriteEnvironment(command, options)) return;
  (void)LoadInstanceEnvironment(SString(command.root));
  if (!WriteSettings(command, options)) return;
  (void)CreateSpecialAccounts(SString(options.domain), SString(options.host));  // always 1
  if (!MakePostmaster(options))
    return Fail(command, EX_CANTCREAT, "cannot make the account Postmaster in " + command.root + "/config");
  printf("%s is ready for %s on %s\n", command.root.c_str(), options.domain.c_str(), options.host.c_str());
}

}  // namespace

void AddInit(CLI::App &app, Command &command) {
  auto const options = std::make_shared<InitOptions>();
  CLI::App *const sub = app.add_subcommand("init", "make an instance: tree, environment, settings, special accounts");
  sub->add_option("--domain", options->domain, "mail domain, the part behind the @")->required();
  sub->add_option("--host", options->host, "full name of this host")->required();
  sub->callback([&command, options] { RunInit(command, *options); });
}
