// brenthaven doctor: checks an instance, says what it would mend, and mends it with --fix.
#include <sysexits.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <memory>

#include "brenthaven/accounts/accountdb.h"
#include "brenthaven/accounts/attributes.h"
#include "brenthaven/accounts/check.h"
#include "brenthaven/accounts/special.h"
#include "brenthaven/handler/fanout.h"
#include "brenthaven/platform/files.h"
#include "brenthaven/platform/registry.h"
#include "brenthaven/platform/sys.h"
#include "brenthaven/router/archive.h"
#include "brenthaven/router/filter.h"
#include "brenthaven/router/routetable.h"
#include "brenthaven/spool/control.h"
#include "brenthaven/spool/keys.h"
#include "brenthaven/store/sdbfile.h"
#include "brenthaven/text/base.h"
#include "command/command.h"
#include "command/spoolfiles.h"

namespace {

constexpr time_t kStaleSeconds = 600;  // a younger file may still be written by somebody

// One run: what was found, and whether it is mended.
class Doctor {
public:
  Doctor(Command &command, bool fix) : _command(command), _root(command.root), _fix(fix) {}
  void Run() {
    _CheckTree();
    _CheckEnvironment();
    _CheckModules();
    _CheckRouting();
    _CheckAccounts();
    _CheckArchives();
    _CheckTemporaries();
    _CheckQueue();
    _CheckMessages();
    if (_open > 0)
      Fail(_command, EX_DATAERR, std::to_string(_open) + (_open == 1 ? " fault" : " faults"));
    else
      puts(_mended > 0 ? "all mended" : "all well");
  }

private:
  void _CheckTree();
  void _CheckEnvironment();
  void _CheckModules();
  void _CheckRouting();
  void _CheckAccounts();
  void _CheckArchives();
  void _CheckTemporaries();
  void _CheckQueue();
  void _CheckMessages();
  void _Found(std::string const &fault, std::string const &cure = "", std::function<bool()> const &mend = nullptr);
  void _CheckMode(std::string const &path, mode_t allowed);

  Command &_command;
  std::string _root;
  bool _fix;
  int _open = 0;
  int _mended = 0;
};

void Doctor::_Found(std::string const &fault, std::string const &cure, std::function<bool()> const &mend) {
  if (mend != nullptr && _fix && mend()) {
    printf("mended: %s: %s\n", fault.c_str(), cure.c_str());
    ++_mended;
    return;
  }
  printf("fault: %s%s\n", fault.c_str(),
         mend == nullptr ? ""
         : _fix          ? (" (cannot " + cure + ")").c_str()
                         : (" (--fix would " + cure + ")").c_str());
  ++_open;
}

void Doctor::_CheckMode(std::string const &path, mode_t allowed) {
  struct stat info;
  if (sys::Lstat(path.c_str(), &info) != 0 || (info.st_mode & 0777 & ~allowed) == 0) return;
  mode_t const mode = info.st_mode & allowed;
  _Found(path + " is open to others", "narrow its mode", [path, mode] { return sys::Chmod(path.c_str(), mode) == 0; });
}

void Doctor::_CheckTree() {
  for (char const *name : {"messages", "control", "control/failed", "deferred", "config", "mailboxes", "run"}) {
    std::string const path = _root + "/" + name;
    if (!IsDirectory(SString(path)))
      _Found(path + " is missing", "make it", [path] { return MakeDir(SString(path), 0770) != 0; });
    else if (sys::Access(path.c_str(), R_OK | W_OK | X_OK) != 0)
      _Found(path + " cannot be written by this user");
    _CheckMode(path, 0770);
  }
  for (char const *name : {"config/registry.sqlite", "config/BTAccounts.a", "config/BTAccounts.i",
                           "config/BTAccounts.j", "config/environment"})
    _CheckMode(_root + "/" + name, 0660);
  std::string fault;
  if (RegCheckStore(fault) != ERROR_SUCCESS) _Found(_root + "/config/registry.sqlite: " + OneLine(fault));
  double const free = FreeDiskSpace(SString(_root));
  if (free >= 0 && free < 10 * 1024 * 1024) _Found("less than 10 MiB are free under " + _root);
}

void Doctor::_CheckEnvironment() {
  for (char const *name : {"HostName", "DomainName"})
    if (GetEnv(name).Length() == 0) _Found(std::string(name) + " has no value in config/environment");
  if (!FileExists(SString(_root + "/config/environment")))
    _Found("config/environment is missing; make it with: brenthaven init");
}

void Doctor::_CheckModules() {
  for (char const *module :
       {"SMTP-Router", "Account-Handler", "Mailbox-Deliver", "Error-Handler", "List-Exploder", "List-Manager"}) {
    int const code = RunModuleProgram(module, "VerifyEnvironment");
    if (code < 0)
      _Found(std::string(module) + " is not installed");
    else if (code != 0)
      _Found(std::string(module) + " refuses its environment with " + std::to_string(code));
  }
}

// Lines of the router's settings that it passes over, and those for which it refuses to start.
void Doctor::_CheckRouting() {
  Sdbfile settings(kModuleSmtpRouter, 0, kProductWord);
  if (settings.Open("/", 0))
    for (SString const &fault : SRouteTable::Faults(settings.GetLong("RoutingTable")))
      _Found("RoutingTable: " + ToStd(fault));
  if (!settings.Open("/Config", 0)) return;
  for (SString const &rule : settings.Get("Archive-Rule"))
    if (SString const fault = SArchiveRule(rule).Fault(); fault.Length() > 0)
      _Found("Archive-Rule: " + ToStd(rule) + " " + ToStd(fault));
  SString badLine;
  if (SHeaderFilter::Of(settings.Get("SideLineDetailFilters"), &badLine) == nullptr)
    _Found("SideLineDetailFilters: " + ToStd(badLine) + " is no filter line");
}

void Doctor::_CheckAccounts() {
  SAccountCheck const check = CheckAccountFiles([this](SString const &fault) { _Found("accounts: " + ToStd(fault)); });
  if (check.readFailed || SAccountBase::ReadFailed())
    _Found("the account files or their settings cannot be read");
  else if (check.attributes == 0)
    _Found("there are no accounts");
  else if (!SAccountDB().GetAccountInfo(kPostmasterUID, nullptr))
    _Found("there is no account Postmaster");
}

// What accounts say of their archive, where that is looked at.
void Doctor::_CheckArchives() {
  Sdbfile settings(kModuleAccountHandler, 0, kProductWord);
  if (!settings.Open("/Config", 0) || settings.Get("Archive-Enabled").Get(0) != "yes") return;
  SAccountDB accounts;
  for (SString const &uid : accounts.AccountUIDList()) {
    SAccount account;
    if (!accounts.GetAccountInfo(uid, &account)) continue;
    SString const target = account.GetString(kAttrArchiveRule);
    if (target.Length() > 0 && !IsArchiveTarget(target))
      _Found("Archive-Rule of the account " + ToStd(uid) + " names no host: " + ToStd(target));
  }
}

void Doctor::_CheckTemporaries() {
  for (char const *directory : {"control", "messages", "config"})
    for (SString const &path : ReadDir(SString(_root + "/" + directory))) {
      double const days = FileAge(path);
      if (!std::string_view(path.View()).ends_with(kTempSuffix) || days * 86400 < kStaleSeconds) continue;
      _Found(ToStd(path) + " was left half written", "remove it", [path] { return RemoveFile(path) != 0; });
    }
}

void Doctor::_CheckQueue() {
  for (SpoolFile const &file : FindSpoolFiles(_root)) {
    if (time(nullptr) - file.since < kStaleSeconds) continue;
    SControl control((SString(file.path)));
    if (control.Read() == 0 || control.Get(kKeyFunction).Length() == 0) {
      if (FileExists(SString(file.path))) _Found(file.path + " cannot be read as a control file");
      continue;
    }
    if (file.place == kPlaceFailed)
      _Found(file.name + " failed too often; see: brenthaven queue show, release, remove");
    if (control.Get(kKeyControlType).Get(0) == kTypeMail)
      for (char const *suffix : {kHeaderSuffix, kBodySuffix}) {
        std::string const path = _root + "/messages/" + file.name + suffix;
        if (!FileExists(SString(path))) _Found(path + " is missing: its control file waits for it");
      }
  }
}

// Header and body files that no control file names. They are kept for a day: a message in the making has none yet.
void Doctor::_CheckMessages() {
  constexpr double kDays = 1;
  std::vector<std::string> names;
  for (SpoolFile const &file : FindSpoolFiles(_root)) names.push_back(file.name);
  std::sort(names.begin(), names.end());
  for (SString const &path : ReadDir(SString(_root + "/messages"))) {
    if (FileAge(path) < kDays) continue;
    std::string name = ToStd(BaseName(path));
    for (std::string_view const suffix : {kHeaderSuffix, kBodySuffix})
      if (name.ends_with(suffix)) name.erase(name.size() - suffix.size());
    if (!std::binary_search(names.begin(), names.end(), name))
      _Found(ToStd(path) + " belongs to no control file", "move it to lost/", [this, path] {
        SString const lost(_root + "/lost");
        return MakeDir(lost, 0770) && Rename(path, lost + "/" + BaseName(path));
      });
  }
}

}  // namespace

void AddDoctor(CLI::App &app, Command &command) {
  auto const fix = std::make_shared<bool>(false);
  CLI::App *const doctor = app.add_subcommand("doctor", "check tree, permissions, settings, accounts and left-overs");
  doctor->add_flag("--fix", *fix, "mend what can be mended");
  doctor->callback([&command, fix] {
    if (EnterInstance(command)) Doctor(command, *fix).Run();
  });
}
