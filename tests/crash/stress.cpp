// tests/crash/stress.cpp - a busy installation, with its processes killed all the time: stress [--seconds N] [--seed N]
//
// A real dispatcher with the real modules; four programs that submit mail, two that change accounts, three that read
// them, one that changes a list, and walks of the queues beside the dispatcher's own. Every 50 to 200 ms one process is
// killed: one of those, a module, or the dispatcher. In the end everything that was accepted must be there. Ends with a
// line of totals, and with 1 when something is not.
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "brenthaven/accounts/accountdb.h"
#include "brenthaven/accounts/check.h"
#include "brenthaven/listmanager/listmanager.h"
#include "brenthaven/lists/slistactions.h"
#include "brenthaven/recovery/recovery.h"
#include "brenthaven/spool/instance.h"
#include "tests/crash/site.h"

namespace {

constexpr unsigned kMostMails = 1 << 20;
constexpr unsigned kUsers = 10;
constexpr unsigned kRemoteEvery = 20;                   // of so many mails one also goes to another host
constexpr unsigned kSecondEvery = 3;                    // and of so many, one goes to a second user
constexpr auto kPause = std::chrono::milliseconds(10);  // of a submitting program between two mails
constexpr auto kQuiet = std::chrono::seconds(60);       // longest wait for the queues to run empty in the end
constexpr int kShortestLife = 50, kLongestLife = 200;   // milliseconds between two kills

// What all processes share.
struct Ledger {
  std::atomic<unsigned> next;
  std::atomic<unsigned> falseAbsences;  // an account that is always there was told to be none
  std::atomic<unsigned> reads;
  std::atomic<unsigned char> accepted[kMostMails];
};

std::string User(unsigned number) { return "user" + std::to_string(number % kUsers); }

SMail MailOf(unsigned number) {
  SMail mail{"stress-" + std::to_string(number), "sender@far.example", {}, {}, 200 + number % 7 * 700};
  std::set<std::string> users = {User(number)};
  if (number % kSecondEvery == 0) users.insert(User(number * 7 + 3));
  for (std::string const &user : users) {
    mail.recipients.push_back(user + "@example.org");
    mail.fates.push_back({SFate::Kind::kStored, user});
  }
  if (number % kRemoteEvery == 0) {
    mail.recipients.push_back("x@host.example");
    mail.fates.push_back({SFate::Kind::kSent, "x@host.example"});
  }
  return mail;
}

// One kind of process; `work` is done again and again until the process is killed.
struct Role {
  char const *name;
  int count;
  void (*work)(Site &, Ledger &, unsigned &step);
};

void SubmitOne(Site &, Ledger &ledger, unsigned &) {
  unsigned const number = ledger.next++;
  if (number >= kMostMails) (void)pause();
  if (Site::Submit(MailOf(number))) ledger.accepted[number] = 1;
  std::this_thread::sleep_for(kPause);
}
void ChangeOne(Site &, Ledger &, unsigned &step) {
  SString const uid = "person" + MakeSString(static_cast<int>(step++ % 50));
  {
    SAccountDBMod store;
    SAccountMod account;
    if (step % 5 == 0)
      (void)store.DeleteAccount(uid);
    else if (store.ModifyAccount(uid, &account))
      (void)account.Set("SMTP-Address",
                        {uid + "@example.org", uid + MakeSString(static_cast<int>(step)) + "@x.example"});
  }
  std::this_thread::sleep_for(kPause);
}
void ReadAll(Site &, Ledger &ledger, unsigned &) {
  for (unsigned i = 0; i < kUsers; ++i) {
    SAccountBase::ClearReadFailed();
    SString const uid = SAccountDB().GetAccountUID(S821Address(SString("<" + User(i) + "@example.org>")));
    ++ledger.reads;
    if (uid != SString(User(i)) && !SAccountBase::ReadFailed()) ++ledger.falseAbsences;
  }
  std::this_thread::sleep_for(kPause);
}
void ChangeList(Site &, Ledger &, unsigned &step) {
  setenv("ModuleName", "List-Manager", 1);
  SListManagerModule module;
  SListActions actions(&module, "news", S821Address(SString(User(step / 2) + "@example.org")));
  (void)(step++ % 2 == 0 ? actions.Subscribe(1) : actions.Unsubscribe(1));
  std::this_thread::sleep_for(kPause);
}
void WalkQueues(Site &site, Ledger &, unsigned &) {
  site.Walk();
  std::this_thread::sleep_for(kPause);
}

constexpr Role kRoles[] = {{"submitter", 4, SubmitOne},
                           {"account writer", 2, ChangeOne},
                           {"account reader", 3, ReadAll},
                           {"list writer", 1, ChangeList},
                           {"queue walker", 3, WalkQueues}};

class Stress {
public:
  Stress(Site &site, Ledger &ledger, unsigned seed) : _site(site), _ledger(ledger), _random(seed) {}

  void Prepare() {
    _site.Install().Put(_site.Root());
    for (unsigned i = 0; i < kUsers; ++i) {
      _site.Command({"account", "add", User(i), "--address", User(i) + "@example.org"});
      _site.Command({"account", "set", User(i), "Mailbox-Quota", {"100000000"}});
    }
    _site.Command({"list", "create", "news", "--owner", "ann"});
  }
  void Run(std::chrono::seconds duration) {
    _StartDispatcher();
    for (Role const &role : kRoles)
      for (int i = 0; i < role.count; ++i) _Start(role);
    auto const end = std::chrono::steady_clock::now() + duration;
    while (std::chrono::steady_clock::now() < end) {
      std::this_thread::sleep_for(std::chrono::milliseconds(
          kShortestLife + static_cast<int>(_random() % static_cast<unsigned>(kLongestLife - kShortestLife))));
      _KillOne();
    }
    for (auto const &[pid, role] : _workers) _Kill(pid);
    _workers.clear();
  }
  // Lets the queues run empty, ends the dispatcher, and brings to an end what then still stands.
  void Settle() {
    auto const end = std::chrono::steady_clock::now() + kQuiet;
    while (_IsBusy() && std::chrono::steady_clock::now() < end)
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    (void)kill(_dispatcher, SIGTERM);
    (void)waitpid(_dispatcher, nullptr, 0);
    pid_t const pid = fork();
    if (pid == 0) {
      _site.Enter();
      (void)RecoverSpool({});
      _site.Drain();
      (void)CheckAccountFiles([&](SString const &fault) { _site.Problem("accounts: " + std::string(fault.View())); });
      _exit(0);
    }
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid || status != 0) _site.Problem("what ran in the end failed");
  }
  int Report() {
    SDiskImage const tree = SDiskImage::Take(_site.Root());
    _Collect(tree);
    unsigned const count = std::min<unsigned>(_ledger.next, kMostMails);
    long accepted = 0, lost = 0, duplicates = 0;
    for (unsigned number = 0; number < count; ++number) {
      if (_ledger.accepted[number] == 0) continue;
      ++accepted;
      SMail const mail = MailOf(number);
      for (SFate const &fate : mail.fates) {
        long const found = _found[mail.subject + " " + fate.whom];
        duplicates += std::max(0L, found - 1);
        if (found > 0) continue;
        ++lost;
        printf("lost: %s for %s\n", mail.subject.c_str(), fate.whom.c_str());
      }
    }
    printf("%s", _site.Board().text);
    printf(
        "%ld messages accepted, %ld kills (%ld of the dispatcher), %u reads: %ld lost, %ld partial, %ld stranded, "
        "%u false absences, %ld duplicates\n",
        accepted, _kills, _dispatcherKills, _ledger.reads.load(), lost, _partial, _stranded,
        _ledger.falseAbsences.load(), duplicates);
    bool const isGood = lost + _partial + _stranded == 0 && _ledger.falseAbsences == 0 && _site.Board().text[0] == '\0';
    return isGood && accepted > 0 && _kills > 0 ? 0 : 1;
  }

private:
  void _StartDispatcher() {
    (void)fflush(nullptr);
    _dispatcher = fork();
    if (_dispatcher != 0) return;
    if (dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDERR_FILENO) < 0) _exit(126);
    execl(DISPATCHER, "Dispatcher", "--root", _site.Root().c_str(), nullptr);
    _exit(127);
  }
  void _Start(Role const &role) {
    (void)fflush(nullptr);
    auto const seed = static_cast<unsigned>(_random());
    pid_t const pid = fork();
    if (pid < 0) abort();
    if (pid == 0) {
      if (dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDERR_FILENO) < 0) _exit(126);
      _site.Enter();
      for (unsigned step = seed % 1000;;) {
        (void)LoadDispatcherAddress(SString(_site.Root()));
        role.work(_site, _ledger, step);
      }
    }
    _workers[pid] = &role;
  }
  static void _Kill(pid_t pid) {
    (void)kill(pid, SIGKILL);
    (void)waitpid(pid, nullptr, 0);
  }
  void _KillOne() {
    ++_kills;
    std::vector<pid_t> const modules = _ChildrenOf(_dispatcher);
    auto const choice = static_cast<unsigned>(_random() % 40);
    if (choice == 0) {
      ++_dispatcherKills;
      _Kill(_dispatcher);
      _StartDispatcher();
    } else if (choice < 25 && !modules.empty()) {
      (void)kill(modules[_random() % modules.size()], SIGKILL);
    } else {
      auto worker = _workers.begin();
      std::advance(worker, _random() % _workers.size());
      Role const &role = *worker->second;
      _Kill(worker->first);
      _workers.erase(worker);
      _Start(role);
    }
  }
  static std::vector<pid_t> _ChildrenOf(pid_t parent) {
    std::vector<pid_t> children;
    std::error_code ignored;
    for (auto const &entry : std::filesystem::directory_iterator("/proc", ignored)) {
      std::ifstream file(entry.path() / "stat");
      std::string text;
      std::getline(file, text);
      size_t const name = text.rfind(')');
      if (name == std::string::npos) continue;
      long of = 0;
      char state = 0;
      if (sscanf(text.c_str() + name + 1, " %c %ld", &state, &of) == 2 && of == parent && state != 'Z')
        children.push_back(static_cast<pid_t>(strtol(text.c_str(), nullptr, 10)));
    }
    return children;
  }
  bool _IsBusy() const {
    std::error_code ignored;
    for (auto const &entry : std::filesystem::directory_iterator(_site.Root() + "/control", ignored)) {
      std::ifstream file(entry.path());
      std::string line;
      if (std::getline(file, line) && line != "Function: SMTP-Deliver\r") return true;
    }
    return false;
  }
  // Counts what is there, by mail and recipient.
  void _Collect(SDiskImage const &tree) {
    for (auto const &[path, node] : tree.files) {
      if (path.starts_with("mailboxes/") && std::isdigit(static_cast<unsigned char>(path[path.rfind('/') + 1])) != 0)
        _CollectStored(path, node->bytes);
      if (path.starts_with("control/") && path.ends_with("-Control")) _CollectControl(tree, path, node->bytes);
      if (path.starts_with("deferred/") && path.ends_with("-Control")) _Strand(path);
      if (!path.starts_with("config/") && (path.ends_with(".temp") || path.ends_with(".new"))) _Strand(path);
    }
  }
  static std::string SubjectOf(std::string const &header) {
    size_t const at = header.find("\r\nSubject: ");
    return at == std::string::npos ? "" : header.substr(at + 11, header.find('\r', at + 2) - at - 11);
  }
  void _CollectStored(std::string const &path, std::string const &bytes) {
    size_t const end = bytes.find("\r\n\r\n");
    if (end == std::string::npos) return _Part(path);
    std::string const subject = SubjectOf("\r\n" + bytes.substr(0, end + 2));
    if (!subject.starts_with("stress-")) return;
    SMail const mail = MailOf(static_cast<unsigned>(strtoul(subject.c_str() + 7, nullptr, 10)));
    if (bytes.substr(end + 4) != mail.Body()) return _Part(path);
    std::string const folder = path.substr(0, path.rfind("/in/"));
    ++_found[subject + " " + folder.substr(folder.rfind('/') + 1)];
  }
  void _CollectControl(SDiskImage const &tree, std::string const &path, std::string const &text) {
    if (text.find("Function: SMTP-Deliver\r\n") == std::string::npos) return _Strand(path);
    std::string const name = path.substr(8, path.size() - 8 - std::string("-Control").size());
    auto const header = tree.files.find("messages/" + name + "-Header"),
               body = tree.files.find("messages/" + name + "-Body");
    if (header == tree.files.end() || body == tree.files.end()) return _Part(path);
    std::string const subject = SubjectOf("\r\n" + header->second->bytes);
    if (!subject.starts_with("stress-")) return;
    SMail const mail = MailOf(static_cast<unsigned>(strtoul(subject.c_str() + 7, nullptr, 10)));
    if (body->second->bytes != mail.Body()) return _Part(path);
    ++_found[subject + " x@host.example"];
  }
  void _Strand(std::string const &path) {
    ++_stranded;
    printf("stranded: %s\n", path.c_str());
  }
  void _Part(std::string const &path) {
    ++_partial;
    printf("in part: %s\n", path.c_str());
  }

  Site &_site;
  Ledger &_ledger;
  std::mt19937 _random;
  std::map<pid_t, Role const *> _workers;
  pid_t _dispatcher = -1;
  long _kills = 0, _dispatcherKills = 0, _partial = 0, _stranded = 0;
  std::map<std::string, long> _found;
};

}  // namespace

int main(int argc, char **argv) {
  long seconds = 10;
  unsigned seed = 1;
  for (int i = 1; i + 1 < argc; i += 2) {
    if (strcmp(argv[i], "--seconds") == 0) seconds = strtol(argv[i + 1], nullptr, 10);
    if (strcmp(argv[i], "--seed") == 0) seed = static_cast<unsigned>(strtoul(argv[i + 1], nullptr, 10));
  }
  void *const memory =
      mmap(nullptr, sizeof(Ledger), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (memory == MAP_FAILED) return 71;
  Ledger &ledger = *static_cast<Ledger *>(memory);
  Site site(SCallBoard::Make());
  Stress stress(site, ledger, seed);
  stress.Prepare();
  stress.Run(std::chrono::seconds(seconds));
  stress.Settle();
  return stress.Report();
}
