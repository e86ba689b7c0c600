#include "tests/crash/site.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>

#include "brenthaven/accounts/accountdb.h"
#include "brenthaven/errorhandler/errorhandler.h"
#include "brenthaven/exploder/exploder.h"
#include "brenthaven/listmanager/listmanager.h"
#include "brenthaven/mailbox/mailboxdeliver.h"
#include "brenthaven/router/smtprouter.h"
#include "brenthaven/spool/accept.h"
#include "brenthaven/spool/instance.h"
#include "brenthaven/spool/keys.h"
#include "brenthaven/store/sdbfile.h"

namespace {

class SubmitModule : public SModule {
public:
  SubmitModule() : SModule("Submit") {}
  unsigned int ProcessMail() override { return 1; }
};

struct ModuleRow {
  char const *name;
  std::unique_ptr<SModule> (*make)();
};
template <class Module>
std::unique_ptr<SModule> Make() {
  return std::make_unique<Module>();
}
constexpr ModuleRow kModules[] = {
    {kModuleSmtpRouter, Make<SSMTPRouterModule>},         {kModuleAccountHandler, Make<SAccountHandlerModule>},
    {kModuleMailboxDeliver, Make<SMailboxDeliverModule>}, {kModuleErrorHandler, Make<SErrorHandlerModule>},
    {"List-Exploder", Make<SListExploderModule>},         {kModuleListManager, Make<SListManagerModule>},
};

void RunModule(std::string const &function, std::vector<char const *> words) {
  for (ModuleRow const &row : kModules) {
    if (function != row.name) continue;
    setenv("ModuleName", row.name, 1);
    words.insert(words.begin(), row.name);
    words.push_back(nullptr);
    (void)row.make()->Main(words.data());
  }
}

// The module that a control file is for; "" when it does not say.
std::string FunctionOf(std::string const &path) {
  std::ifstream file(path, std::ios::binary);
  for (std::string line; std::getline(file, line);)
    if (line.starts_with("Function: ") && line.ends_with('\r')) return line.substr(10, line.size() - 11);
  return "";
}

}  // namespace

std::string SMail::Header() const {
  return "From: " + sender + "\r\nSubject: " + subject + "\r\nDate: Tue, 24 Nov 2026 16:10:00 +0100\r\nMessage-ID: <" +
         subject + "@sent.example>\r\nX-Last: " + subject + "\r\n";
}

std::string SMail::Body() const {
  std::string body = "Begin of " + subject + "\r\n";
  for (int line = 0; body.size() < size; ++line)
    body.append("Line ").append(std::to_string(line)).append(" of ").append(subject).append("\r\n");
  return body + "End of " + subject + "\r\n";
}

Site::Site(SCallBoard &board) : _board(board) {
  char const *const told = getenv("BRENTHAVEN_CRASH_DIR");
  bool const hasMemory = access("/dev/shm", W_OK) == 0;
  std::string pattern = told != nullptr ? told
                        : hasMemory     ? "/dev/shm"
                                        : std::filesystem::temp_directory_path().string();
  pattern += "/brenthaven-crash-XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) abort();
  _top = pattern;
  _root = pattern + "/root";
}

Site::~Site() {
  std::error_code ignored;
  std::filesystem::remove_all(_top, ignored);
}

SDiskImage Site::Install() {
  std::filesystem::remove_all(_root);
  std::filesystem::create_directory(_root);
  Command({"init", "--domain", "example.org", "--host", "mail.example.org"});
  for (std::string const uid : {"ann", "bob", "cleo"})
    Command({"account", "add", uid, "--address", uid + "@example.org"});
  Command({"account", "set", "Postmaster", "Local-Delivery", "Mailbox"});
  return SDiskImage::Take(_root);
}

void Site::Command(std::vector<std::string> const &words) const {
  std::vector<std::string> all = {"brenthaven", "--root", _root};
  all.insert(all.end(), words.begin(), words.end());
  std::vector<char *> argv;
  for (std::string &word : all) argv.push_back(word.data());
  argv.push_back(nullptr);
  pid_t const pid = fork();
  if (pid == 0) {
    if (dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDOUT_FILENO) < 0) _exit(126);
    execv(COMMAND_PROGRAM, argv.data());
    _exit(127);
  }
  int status = 0;
  if (pid < 0 || waitpid(pid, &status, 0) != pid || status != 0) abort();
}

void Site::Enter() const {
  (void)LoadInstanceEnvironment(SString(_root));
  setenv("Log", "no", 1);
  setenv("SpoolSync", "auto", 1);
  setenv("DispatchSocket", "9", 1);  // nobody listens there: each notice is lost
  setenv("DispatchKey", "key", 1);
  setenv("FormSigKey", "swordfish", 1);
}

bool Site::Submit(SMail const &mail) {
  SubmitModule module;
  SAcceptance acceptance(module);
  (void)acceptance.SetSender(SString(mail.sender));
  for (std::string const &recipient : mail.recipients) (void)acceptance.AddRecipient(SString(recipient));
  (void)acceptance.SetHeader(SString(mail.Header()));
  acceptance.KeepRawEnvelope();
  std::string const body = mail.Body();
  (void)acceptance.AddBody(body.data(), body.size());
  return acceptance.Commit() == SAcceptResult::kOk;
}

std::vector<std::string> Site::_Waiting() const {
  calls::Aside const aside;
  std::vector<std::string> paths;
  for (auto const &entry : std::filesystem::directory_iterator(_root + "/control")) {
    if (!entry.is_regular_file() || entry.path().extension() == ".temp") continue;
    std::string const function = FunctionOf(entry.path().string());
    if (std::ranges::find(Modules(), function) != Modules().end()) paths.push_back(entry.path().string());
  }
  std::ranges::sort(paths);
  return paths;
}

void Site::Round() const {
  for (std::string const &path : _Waiting()) {
    std::string function, name;
    {
      calls::Aside const aside;
      function = FunctionOf(path);
      name = std::filesystem::path(path).filename().string();
    }
    name.resize(name.size() - std::min(name.size(), std::string("-Control").size()));
    RunModule(function, {"MessageFile", name.c_str()});
  }
}

void Site::Walk() const {
  for (ModuleRow const &row : kModules) {
    {
      calls::Aside const aside;
      if (!std::filesystem::exists(_root + "/deferred/" + row.name)) continue;
    }
    RunModule(row.name, {"ProcessQueue"});
  }
}

void Site::Drain() const {
  constexpr int kRounds = 12;  // a report about a message that failed is through in six
  for (int round = 0; round < kRounds; ++round) {
    bool isQueued = false;
    for (ModuleRow const &row : kModules)
      isQueued = isQueued || std::filesystem::exists(_root + "/deferred/" + row.name);
    if (!isQueued && _Waiting().empty()) return;
    Round();
    Walk();
  }
}

std::vector<std::string> const &Site::Modules() {
  static std::vector<std::string> const names = [] {
    std::vector<std::string> all;
    for (ModuleRow const &row : kModules) all.push_back(row.name);
    return all;
  }();
  return names;
}

void Site::Set(char const *module, char const *section, char const *key, std::vector<std::string> const &values) {
  SStringList list;
  for (std::string const &value : values) (void)list.Push(SString(value));
  Sdbfile settings(module, 1, kProductWord);
  if (!settings.Open(section, 1) || !settings.Set(key, list)) abort();
}

void Site::SetAccount(char const *uid, char const *attribute, std::vector<std::string> const &values) {
  SStringList list;
  for (std::string const &value : values) (void)list.Push(SString(value));
  SAccountDBMod store;
  SAccountMod account;
  if (!store.ModifyAccount(uid, &account) || !account.Set(attribute, list)) abort();
}
