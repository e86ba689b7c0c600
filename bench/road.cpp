// The road of a message, end to end: from the control file in control/ to the stored files in the mailboxes.
//
//   one process   router objects one after another in this process, as a serving router works: what the code itself
//   costs dispatcher    all messages announced at once to a dispatcher with its module programs: what the system
//   delivers inject        the sendmail name run for one message after another, with the dispatcher at work beside it
//
// Each with syncing as it is by default and with none. Messages have 4 KiB of text and go to 1 or 20 of 50 accounts.
// The instance is a directory of its own, made before the clock starts and removed at the end. CPU is user and system
// time: of this process, or of the dispatcher with all the modules that it started, their starts included.
#include <fcntl.h>
#include <getopt.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "brenthaven/accounts/accountdb.h"
#include "brenthaven/platform/barrier.h"
#include "brenthaven/platform/environment.h"
#include "brenthaven/router/smtprouter.h"
#include "brenthaven/spool/accept.h"
#include "brenthaven/spool/instance.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr int kAccounts = 50;
constexpr int kMany = 20;  // recipients of a message to many
constexpr int kTextBytes = 4096;
constexpr int kStopCode = 1;
constexpr std::chrono::milliseconds kLook{2};  // between two looks at control/
constexpr std::chrono::seconds kPatience{120};

struct Options {
  int messages = 250;
  std::string directory = fs::temp_directory_path();
  std::string only;  // one of the three measurements
};

[[noreturn]] void Stop(std::string const &why) {
  fprintf(stderr, "bench_road: %s\n", why.c_str());
  exit(kStopCode);
}

double Milliseconds(struct rusage const &usage) {
  auto const of = [](struct timeval const &time) {
    return 1e3 * static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e3;
  };
  return of(usage.ru_utime) + of(usage.ru_stime);
}

double OwnMilliseconds() {
  struct rusage usage = {};
  getrusage(RUSAGE_SELF, &usage);
  return Milliseconds(usage);
}

double SecondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

// The directory of the build: this program lies in bench/ below it.
std::string BuildDirectory() { return fs::read_symlink("/proc/self/exe").parent_path().parent_path(); }

// A started program; its standard error goes where ours goes.
pid_t Start(std::string const &path, std::vector<std::string> words, std::string const &input = "/dev/null") {
  std::vector<char *> argv;
  argv.reserve(words.size() + 1);
  for (std::string &word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, input.c_str(), O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t pid = 0;
  int const error = posix_spawn(&pid, path.c_str(), &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) Stop("cannot start " + path + ": " + strerror(error));
  return pid;
}

// Waits for its end, and gives the CPU milliseconds of it and of all the children that it waited for.
double Finish(pid_t pid) {
  int status = 0;
  struct rusage usage = {};
  if (wait4(pid, &status, 0, &usage) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0)
    Stop("a program that was started has failed; its reason is in the log");
  return Milliseconds(usage);
}

// Only the frame of a module: it names the messages that are made here.
class Sender : public SModule {
public:
  Sender() : SModule("Bench") {}
  unsigned int ProcessMail() override { return 1; }
};

SString AddressOf(int number) { return SString("user") + SString(number % kAccounts) + "@example.org"; }

std::string MessageHeader() {
  return "From: Ann <ann@example.org>\r\nTo: users@example.org\r\nSubject: Minutes of the meeting\r\n"
         "Date: Tue, 4 Mar 2003 09:05:00 +0100\r\nMessage-ID: <minutes@example.org>\r\nMIME-Version: 1.0\r\n"
         "Content-Type: text/plain; charset=us-ascii\r\n";
}

std::string MessageText() {
  std::string text;
  while (text.size() < kTextBytes) text += "What was said at the meeting of the fourth of March, line by line.\r\n";
  text.resize(kTextBytes - 2);
  return text + "\r\n";
}

// The instance of one run of this program, with its log beside it.
class Instance {
public:
  explicit Instance(std::string const &directory) : _root(directory + "/road-XXXXXX") {
    if (mkdtemp(_root.data()) == nullptr) Stop("cannot make a directory in " + directory);
    _log = open((_root + "/log").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0660);
    _terminal = dup(STDERR_FILENO);
    if (_log < 0 || _terminal < 0) Stop("cannot write " + _root + "/log");
    Finish(Start(BuildDirectory() + "/bin/brenthaven",
                 {"brenthaven", "--root", _root, "init", "--domain", "example.org", "--host", "mail.example.org"}));
    LoadInstanceEnvironment(SString(_root));
    PutEnv("SpoolSync", "no");
    SAccountDBMod accounts;
    for (int i = 0; i < kAccounts; ++i) {
      SAccountMod account;
      if (!accounts.ModifyAccount(SString("user") + SString(i), &account) ||
          !account.Set("SMTP-Address", SStringList(AddressOf(i))) ||
          !account.Set("Local-Delivery", SStringList("Mailbox")))
        Stop("cannot make the accounts");
    }
  }
  ~Instance() {
    std::error_code ignored;  // what is left lies in a directory of its own
    fs::remove_all(_root, ignored);
  }
  Instance(Instance const &) = delete;
  Instance &operator=(Instance const &) = delete;

  // The modules log each message; that goes to the log while something is measured.
  void LogToFile() const { (void)dup2(_log, STDERR_FILENO); }
  void LogToTerminal() const { (void)dup2(_terminal, STDERR_FILENO); }

  // Messages in the spool, for the accounts in turn, unannounced: their control files wait in control/staged.
  std::vector<std::string> Stage(int messages, int recipients) const {
    PutEnv("SpoolSync", "no");
    for (char const *name : {"DispatchSocket", "DispatchKey"}) unsetenv(name);
    fs::create_directories(_root + "/control/staged");
    std::string const text = MessageText();
    Sender sender;
    std::vector<std::string> names;
    for (int i = 0; i < messages; ++i) {
      SAcceptance message(sender);
      message.SetSender("ann@example.org");
      for (int r = 0; r < recipients; ++r) message.AddRecipient(AddressOf(i * recipients + r));
      message.SetHeader(SString(MessageHeader()));
      message.AddBody(text.data(), text.size());
      if (message.Commit() != SAcceptResult::kOk) Stop("cannot make the messages");
      names.emplace_back(message.GetName().View());
      fs::rename(ControlFile(names.back()), Staged(names.back()));
    }
    return names;
  }
  void Release(std::string const &name) const { fs::rename(Staged(name), ControlFile(name)); }

  bool HasControlFiles() const {
    std::error_code vanished;
    return std::any_of(fs::directory_iterator(_root + "/control"), fs::directory_iterator(),
                       [&](fs::directory_entry const &entry) { return entry.is_regular_file(vanished); });
  }
  // Stops the program unless that many copies are stored and the spool is empty; then removes them. The mailboxes stay
  // as they are in use, with their size records.
  void TakeStored(int copies) const {
    std::vector<fs::path> files;
    for (fs::directory_entry const &entry : fs::recursive_directory_iterator(_root + "/mailboxes"))
      if (entry.is_regular_file() && entry.path().filename().string()[0] != '_') files.push_back(entry.path());
    if (static_cast<int>(files.size()) != copies || HasControlFiles() || !fs::is_empty(_root + "/messages") ||
        !fs::is_empty(_root + "/deferred"))
      Stop("stored " + std::to_string(files.size()) + " copies in place of " + std::to_string(copies));
    for (fs::path const &file : files) fs::remove(file);
  }

  pid_t StartDispatcher() const {
    pid_t const pid = Start(BuildDirectory() + "/libexec/brenthaven/Dispatcher", {"Dispatcher"});
    Clock::time_point const start = Clock::now();
    while (!LoadDispatcherAddress(SString(_root))) {
      if (Clock::now() - start > kPatience) Stop("the dispatcher does not start");
      std::this_thread::sleep_for(kLook);
    }
    return pid;
  }
  void AwaitEmptyControl() const {
    Clock::time_point const start = Clock::now();
    while (HasControlFiles()) {
      if (Clock::now() - start > kPatience) Stop("messages are left in control/");
      std::this_thread::sleep_for(kLook);
    }
  }
  std::string const &Root() const { return _root; }

private:
  std::string ControlFile(std::string const &name) const { return _root + "/control/" + name + "-Control"; }
  std::string Staged(std::string const &name) const { return _root + "/control/staged/" + name + "-Control"; }

  std::string _root;
  int _log = -1;
  int _terminal = -1;
};

double StopDispatcher(pid_t pid) {
  (void)kill(pid, SIGTERM);
  return Finish(pid);
}

// One line of the result. A negative number of syncs: they happened in other processes, and are not known.
void Print(char const *way, char const *sync, int recipients, int messages, double seconds, double cpu, double syncs) {
  double const deliveries = static_cast<double>(messages) * recipients;
  char count[32] = "-";
  if (syncs >= 0) snprintf(count, sizeof count, "%.2f", syncs / deliveries);
  printf("%-12s %-5s %10d %9d %13.0f %15.3f %15s\n", way, sync, recipients, messages, deliveries / seconds,
         cpu / deliveries, count);
  fflush(stdout);
}

// Gives the seconds that it took.
double RouteAll(Instance const &instance, std::vector<std::string> const &names) {
  char const *const argv[] = {"SMTP-Router", "Serve", nullptr};
  instance.LogToFile();
  Clock::time_point const start = Clock::now();
  for (std::string const &name : names)
    if (SSMTPRouterModule().MainForMessage(argv, SString(name)) != kModuleDone) Stop("the router refused a message");
  double const seconds = SecondsSince(start);
  instance.LogToTerminal();
  return seconds;
}

std::vector<std::string> StageAndRelease(Instance const &instance, int messages, int recipients) {
  std::vector<std::string> names = instance.Stage(messages, recipients);
  for (std::string const &name : names) instance.Release(name);
  return names;
}

// The first message for each account makes its mailbox, which is no part of what is measured.
void MakeMailboxes(Instance const &instance) {
  (void)RouteAll(instance, StageAndRelease(instance, kAccounts, 1));
  instance.TakeStored(kAccounts);
}

void RunInOneProcess(Instance const &instance, char const *sync, int messages, int recipients) {
  std::vector<std::string> const names = StageAndRelease(instance, messages, recipients);
  PutEnv("SpoolSync", sync);
  unsigned long const syncsBefore = SSyncBarrier::SyncCount();
  double const cpuBefore = OwnMilliseconds();
  double const seconds = RouteAll(instance, names);
  double const cpu = OwnMilliseconds() - cpuBefore;
  instance.TakeStored(messages * recipients);
  Print("one process", sync, recipients, messages, seconds, cpu,
        static_cast<double>(SSyncBarrier::SyncCount() - syncsBefore));
}

void RunThroughDispatcher(Instance const &instance, char const *sync, int messages, int recipients) {
  std::vector<std::string> const names = instance.Stage(messages, recipients);
  PutEnv("SpoolSync", sync);
  instance.LogToFile();
  pid_t const dispatcher = instance.StartDispatcher();
  Clock::time_point const start = Clock::now();
  for (std::string const &name : names) {
    SControl control((SString(name)));
    instance.Release(name);
    if (!control.Read() || !control.Notify()) Stop("cannot announce a message");
  }
  instance.AwaitEmptyControl();
  double const seconds = SecondsSince(start);
  double const cpu = StopDispatcher(dispatcher);
  instance.LogToTerminal();
  instance.TakeStored(messages * recipients);
  Print("dispatcher", sync, recipients, messages, seconds, cpu, -1);
}

// CPU is that of the sendmail processes alone; the rate is that of injection, whatever is still under way at its end.
void RunInjection(Instance const &instance, char const *sync, int messages) {
  std::string const input = instance.Root() + "/message";
  FILE *const file = fopen(input.c_str(), "w");
  if (file == nullptr || fputs((MessageHeader() + "\r\n" + MessageText()).c_str(), file) < 0 || fclose(file) != 0)
    Stop("cannot write " + input);
  PutEnv("SpoolSync", sync);
  instance.LogToFile();
  pid_t const dispatcher = instance.StartDispatcher();
  double cpu = 0;
  Clock::time_point const start = Clock::now();
  for (int i = 0; i < messages; ++i)
    cpu += Finish(Start(BuildDirectory() + "/bin/brenthaven",
                        {"sendmail", "-i", "-f", "ann@example.org", std::string(AddressOf(i).View())}, input));
  double const seconds = SecondsSince(start);
  instance.AwaitEmptyControl();
  (void)StopDispatcher(dispatcher);
  instance.LogToTerminal();
  instance.TakeStored(messages);
  Print("inject", sync, 1, messages, seconds, cpu, -1);
}

bool ReadOptions(int argc, char **argv, Options &options) {
  for (int option; (option = getopt(argc, argv, "n:d:o:")) != -1;) switch (option) {
      case 'n':
        options.messages = atoi(optarg);
        break;
      case 'd':
        options.directory = optarg;
        break;
      case 'o':
        options.only = optarg;
        break;
      default:
        return false;
    }
  return optind == argc && options.messages > 0;
}

}  // namespace

int main(int argc, char **argv) {
  Options options;
  if (!ReadOptions(argc, argv, options)) {
    fprintf(stderr,
            "usage: bench_road [-n MESSAGES] [-d DIRECTORY] [-o process|dispatcher|inject]\n"
            "  -n  messages to one recipient in each measurement, default 250; to %d recipients a tenth of it\n"
            "  -d  where the scratch instance is made, default the directory for temporary files\n"
            "  -o  only this measurement\n",
            kMany);
    return 64;
  }
  Instance const instance(options.directory);
  MakeMailboxes(instance);
  auto const wanted = [&](char const *name) { return options.only.empty() || options.only == name; };
  int const fewer = std::max(options.messages / 10, 1);
  printf("%-12s %-5s %10s %9s %13s %15s %15s\n", "way", "sync", "recipients", "messages", "deliveries/s",
         "CPU ms/delivery", "syncs/delivery");
  for (char const *sync : {"auto", "no"}) {
    if (wanted("process")) {
      RunInOneProcess(instance, sync, options.messages, 1);
      RunInOneProcess(instance, sync, fewer, kMany);
    }
    if (wanted("dispatcher")) {
      RunThroughDispatcher(instance, sync, options.messages, 1);
      RunThroughDispatcher(instance, sync, fewer, kMany);
    }
    if (wanted("inject")) RunInjection(instance, sync, options.messages);
  }
  return 0;
}
