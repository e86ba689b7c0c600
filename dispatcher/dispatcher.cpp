#include "dispatcher/dispatcher.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/random.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <sysexits.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <ctime>

#include "brenthaven/platform/environment.h"
#include "brenthaven/platform/sys.h"
#include "brenthaven/recovery/recovery.h"
#include "brenthaven/spool/control.h"
#include "brenthaven/spool/instance.h"
#include "brenthaven/spool/keys.h"
#include "brenthaven/spool/log.h"
#include "brenthaven/spool/module.h"
#include "brenthaven/text/base.h"
#include "dispatcher/notification.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr int kReceiveBuffer = 8 << 20;         // bytes; a burst of 10,000 notifications fits
constexpr int kDatagramsAtOnce = 512;           // read before processes are looked after again
constexpr size_t kMaxDatagram = 1024;           // a longer one has no good fields
constexpr unsigned kServeDepth = 4;             // messages waiting for one module that make a serving process worth it
constexpr unsigned kMessagesPerProcess = 5000;  // a serving process is replaced then, so that no leak can grow
constexpr seconds kIdleLife{5};                 // of a serving process without work
constexpr seconds kSettleTime{5};               // a file in control/ that changed more recently may still be announced
constexpr seconds kLongestDelay{3600};          // of a run that is tried again
constexpr int kCrashLimit = 3;                  // crashes of its module until a message is taken out of the way
constexpr long kStaleSeconds = 600;             // what has not changed for so long and belongs to no job is left over
constexpr seconds kRecoveryInterval{300};       // between two looks for that in control/

// Codes that end a module run; see "Return codes" in docs/operations.md.
enum RunCode { kRunDone = 0, kNoSettings = 101, kWrongFunction = 102, kWrongType = 103, kUnreadable = 105 };

// Signals by which a process ends through its own fault, and so through the message in hand.
bool IsCrash(int signal) {
  constexpr int kFaults[] = {SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGSEGV, SIGSYS, SIGTRAP};
  return std::find(std::begin(kFaults), std::end(kFaults), signal) != std::end(kFaults);
}

// Only the frame of a module: it writes error records.
class ReportingModule : public SModule {
public:
  ReportingModule() : SModule("Dispatcher") {}
  unsigned int ProcessMail() override { return 1; }
};

void CloseIfOpen(int &fd) {
  if (fd >= 0) (void)close(fd);  // a socket, signal or lock descriptor: nothing to lose
  fd = -1;
}

long long NanosecondsOf(struct timespec const &time) { return time.tv_sec * 1000000000LL + time.tv_nsec; }

long long WallNanoseconds() {
  struct timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  return NanosecondsOf(now);
}

bool EndsWith(std::string_view text, std::string_view end) {
  return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

std::string RandomKey() {
  std::array<unsigned char, 16> bytes;
  size_t have = 0;
  while (have < bytes.size()) {
    ssize_t const got = getrandom(bytes.data() + have, bytes.size() - have, 0);
    if (got > 0) have += static_cast<size_t>(got);
    if (got < 0 && errno != EINTR) return {};
  }
  std::string key;
  for (unsigned char const byte : bytes)
    for (int const digit : {byte >> 4, byte & 15}) key += "0123456789abcdef"[digit];
  return key;
}

// Calls visit(name) for every entry of a directory but "." and "..". False when it can't be read.
template <typename Visit>
bool ForEachEntry(std::string const &directory, Visit const &visit) {
  DIR *const dir = sys::OpenDir(directory.c_str());
  if (dir == nullptr) return false;
  while (struct dirent const *entry = sys::ReadDir(dir)) {
    std::string const name = entry->d_name;
    if (name != "." && name != "..") visit(name);
  }
  (void)sys::CloseDir(dir);
  return true;
}

}  // namespace

// A file in control/ that no module is to be started for at present.
struct Dispatcher::Parked {
  std::string function;  // what the file names; no module's name when it could not be understood
  long long changed;     // its change time in nanoseconds; a file that changed since is looked at anew
  Clock::time_point until;
  bool seen;  // in the scan that is under way
};

Dispatcher::Dispatcher(std::string root, std::string modules) : _root(std::move(root)), _modules(std::move(modules)) {}

Dispatcher::~Dispatcher() {
  CloseIfOpen(_socket);
  CloseIfOpen(_signals);
  CloseIfOpen(_lock);
}

// ---- start and settings

int Dispatcher::Start() {
  GuardProcess();
  if (!IsGuardedRoot(SString(_root))) {
    fprintf(stderr, "Dispatcher: others can write in %s\n", _root.c_str());
    return EX_CONFIG;
  }
  int failure = _TakeLock();
  (void)LoadInstanceEnvironment(SString(_root));  // may name the port; an instance without the file has its defaults
  if (failure == 0) failure = _OpenSignals();
  if (failure == 0) failure = _OpenSocket();
  if (failure != 0) return failure;
  _key = RandomKey();
  _LoadSettings();
  _Recover(true);
  _ScanControl();  // before the first notification can come, so that what lies there is not found a second time
  _nextWalk = Clock::now() + seconds(2);
  failure = _PublishAddress();
  if (failure == 0) _Log("START:" + std::to_string(_port));
  return failure;
}

int Dispatcher::_TakeLock() {
  std::string const path = _root + "/run/dispatcher.lock";
  (void)sys::Mkdir((_root + "/run").c_str(), 0770);  // usually there; a real failure shows in the next line
  _lock = sys::Open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW, 0660);
  if (_lock < 0) {
    fprintf(stderr, "Dispatcher: cannot open %s: %s\n", path.c_str(), strerror(errno));
    return EX_OSERR;
  }
  if (sys::Lock(_lock, F_WRLCK, 0, 1, false) == 0) return 0;
  fprintf(stderr, "Dispatcher: another dispatcher runs on %s\n", _root.c_str());
  return EX_TEMPFAIL;
}

int Dispatcher::_OpenSignals() {
  sigset_t set;
  sigemptyset(&set);
  for (int const number : {SIGTERM, SIGINT, SIGHUP, SIGCHLD}) sigaddset(&set, number);
  if (sigprocmask(SIG_BLOCK, &set, nullptr) == 0 && signal(SIGPIPE, SIG_IGN) != SIG_ERR)
    _signals = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
  if (_signals >= 0) return 0;
  fprintf(stderr, "Dispatcher: cannot receive signals: %s\n", strerror(errno));
  return EX_OSERR;
}

int Dispatcher::_OpenSocket() {
  int const wanted = static_cast<int>(GetEnv("DispatchSocket").AsLong());
  struct sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(wanted > 0 && wanted < 65536 ? wanted : 0));
  socklen_t length = sizeof address;
  int const on = 1;
  _socket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (_socket >= 0 && bind(_socket, reinterpret_cast<struct sockaddr *>(&address), length) == 0 &&
      getsockname(_socket, reinterpret_cast<struct sockaddr *>(&address), &length) == 0 &&
      setsockopt(_socket, SOL_SOCKET, SO_RXQ_OVFL, &on, sizeof on) == 0) {
    // Past the system's limit where this process may, else as far as the limit goes. A small buffer is no failure:
    // what it drops, the scan finds.
    if (setsockopt(_socket, SOL_SOCKET, SO_RCVBUFFORCE, &kReceiveBuffer, sizeof kReceiveBuffer) != 0)
      (void)setsockopt(_socket, SOL_SOCKET, SO_RCVBUF, &kReceiveBuffer, sizeof kReceiveBuffer);
    _port = ntohs(address.sin_port);
    return 0;
  }
  fprintf(stderr, "Dispatcher: cannot listen on 127.0.0.1 port %d: %s\n", wanted, strerror(errno));
  return EX_OSERR;
}

int Dispatcher::_PublishAddress() {
  std::string const text = "DispatchSocket=" + std::to_string(_port) + "\nDispatchKey=" + _key + "\n";
  std::string const path = _root + "/run/dispatcher";
  std::string const temp = path + kTempSuffix;
  (void)sys::Unlink(temp.c_str());  // left by a dispatcher that died here
  int const fd = sys::Open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0640);
  bool good =
      !_key.empty() && fd >= 0 && sys::Fchmod(fd, 0640) == 0 && sys::WriteAll(fd, text.data(), text.size()) == 0;
  if (fd >= 0 && sys::Close(fd) != 0) good = false;
  if (good && sys::Rename(temp.c_str(), path.c_str()) == 0) return 0;
  fprintf(stderr, "Dispatcher: cannot write %s: %s\n", path.c_str(), strerror(errno));
  return EX_OSERR;
}

void Dispatcher::_LoadSettings() {
  (void)LoadInstanceEnvironment(SString(_root));
  PutEnv("DispatchSocket", SString(std::to_string(_port)));
  PutEnv("DispatchKey", SString(_key));
  _environment.clear();
  for (char **entry = environ; *entry != nullptr; ++entry) {
    std::string_view const text = *entry;
    if (text.rfind("ModuleName=", 0) != 0 && text.rfind("MessageFile=", 0) != 0) _environment.emplace_back(text);
  }
  std::vector<std::string> complaints;
  _settings = LoadSettings(complaints);
  for (std::string const &complaint : complaints) _Log("ERROR:" + complaint);
  _oneShot.clear();
  _parked.clear();
  _missingModules.clear();
}

// ---- the loop

void Dispatcher::Run() {
  while (!_stopping || !_processes.empty()) {
    _StartJobs();
    _WaitForEvents();
    _RunTimers();
    if (_stopping && Clock::now() >= _stopBy) break;
  }
  for (auto const &process : _processes)
    (void)kill(process->pid, SIGTERM);                     // its message is done again at the next start
  (void)sys::Unlink((_root + "/run/dispatcher").c_str());  // submitters then know that nobody listens
  _Log("STOP");
}

int Dispatcher::_PollTimeout() const {
  Clock::time_point next = _jobs.NextDue();
  if (!_stopping) next = std::min({next, _nextScan, _nextWalk, _nextRecovery});
  if (_stopping) next = std::min(next, _stopBy);
  for (auto const &process : _processes)
    if (process->kind == ProcessKind::kServe && process->job == nullptr)
      next = std::min(next, process->since + kIdleLife);
  auto const wait = std::chrono::ceil<milliseconds>(next - Clock::now()).count();
  return static_cast<int>(std::clamp<long long>(wait, 0, 60000));
}

void Dispatcher::_WaitForEvents() {
  std::vector<struct pollfd> fds = {{_socket, POLLIN, 0}, {_signals, POLLIN, 0}};
  std::vector<ModuleProcess *> serving;
  for (auto const &process : _processes)
    if (process->Output() >= 0) {
      fds.push_back({process->Output(), POLLIN, 0});
      serving.push_back(process.get());
    }
  if (poll(fds.data(), fds.size(), _PollTimeout()) <= 0) return;  // a time-out, or an interruption
  for (size_t i = 0; i < serving.size(); ++i) {
    int code = 0;
    if (fds[i + 2].revents != 0 && serving[i]->ReadAnswer(code)) _RunEnded(*serving[i], code, 0);
  }
  if (fds[0].revents != 0) _ReadNotifications();
  if (fds[1].revents != 0) _ReadSignals();
}

void Dispatcher::_ReadNotifications() {
  for (int i = 0; i < kDatagramsAtOnce; ++i) {
    char text[kMaxDatagram + 1];
    alignas(struct cmsghdr) char control[CMSG_SPACE(sizeof(unsigned))];
    struct iovec part = {text, sizeof text};
    struct msghdr message = {};
    message.msg_iov = &part, message.msg_iovlen = 1;
    message.msg_control = control, message.msg_controllen = sizeof control;
    ssize_t const length = recvmsg(_socket, &message, 0);
    if (length < 0) return;  // nothing more, or an error that the next poll shows again
    for (struct cmsghdr *note = CMSG_FIRSTHDR(&message); note != nullptr; note = CMSG_NXTHDR(&message, note))
      if (note->cmsg_level == SOL_SOCKET && note->cmsg_type == SO_RXQ_OVFL) {
        unsigned dropped = 0;
        memcpy(&dropped, CMSG_DATA(note), sizeof dropped);
        if (dropped != _dropped) _nextScan = std::min(_nextScan, Clock::now() + kSettleTime);
        _dropped = dropped;
      }
    Notification told;
    if (!ParseNotification({text, static_cast<size_t>(length)}, _key, told)) {
      ++_badDatagrams;
      continue;
    }
    if (_stopping) continue;  // the file lies in control/ for the next start
    _parked.erase(told.name);
    if (_IsInstalled(told.function))
      _jobs.Add(told.name, told.function, told.priority, false);
    else if (_missingModules.insert(told.function).second)
      _Log("WAIT:" + told.function + ":" + told.name + ":no such module in " + _modules);
  }
}

void Dispatcher::_ReadSignals() {
  struct signalfd_siginfo info;
  while (read(_signals, &info, sizeof info) == ssize_t{sizeof info}) switch (info.ssi_signo) {
      case SIGCHLD:
        _ReapChildren();
        break;
      case SIGHUP:
        _LoadSettings();
        _Log("SETTINGS");
        break;
      default:
        _StopStarting();
    }
}

void Dispatcher::_StopStarting() {
  if (_stopping) {  // told twice: now
    _stopBy = Clock::now();
    return;
  }
  _stopping = true;
  _stopBy = Clock::now() + seconds(_settings.stopTimeout);
  for (auto const &process : _processes) process->Retire();
}

void Dispatcher::_RunTimers() {
  Clock::time_point const now = Clock::now();
  if (_badDatagrams > 0 && now - _badLogged >= seconds(1)) {
    _Log("REFUSED:" + std::to_string(_badDatagrams) + " bad notifications");
    _badDatagrams = 0;
    _badLogged = now;
  }
  if (_stopping) return;
  _jobs.WakeDue(now);
  if (now >= _nextScan) _ScanControl();
  if (now >= _nextRecovery) _Recover(false);
  if (now >= _nextWalk) _PlanWalks();
}

// ---- processes

void Dispatcher::_StartJobs() {
  if (_stopping) return;
  // A walk takes the next free place: it is rare, and under load messages would never leave one.
  while (!_walks.empty() && _HasRoom()) _StartWalk();
  while (Job *const job = _jobs.Take([this](std::string const &function) { return _CanRun(function); }))
    _StartJob(*job);
  _RetireIdle(Clock::now() - kIdleLife);
}

bool Dispatcher::_CanRun(std::string const &function) const { return _HasRoom() || _IdleFor(function) != nullptr; }

ModuleProcess *Dispatcher::_IdleFor(std::string const &function) const {
  for (auto const &process : _processes)
    if (process->kind == ProcessKind::kServe && process->job == nullptr && !process->Retired() &&
        process->function == function)
      return process.get();
  return nullptr;
}

void Dispatcher::_StartJob(Job &job) {
  if (_IsGone(job)) return (void)_jobs.Finish(job);  // found by a scan and done before the word of it came
  while (ModuleProcess *const idle = _IdleFor(job.function)) {
    if (idle->Give(job)) return;
    idle->Retire();  // it has died; its end is on the way
  }
  if (!_HasRoom()) return _jobs.Requeue(job);
  std::string const path = _modules + "/" + job.function;
  bool const serve = _oneShot.count(job.function) == 0 && _jobs.WaitingFor(job.function) + 1 >= kServeDepth;
  auto process = ModuleProcess::Start(serve ? ProcessKind::kServe : ProcessKind::kOneShot, path, job.function, job.name,
                                      _environment);
  if (process == nullptr) return _CouldNotStart(job);
  if (!serve)
    process->job = &job;
  else if (!process->Give(job))
    _jobs.Requeue(job);  // it died at once, and counts as not serving when it is reaped
  _processes.push_back(std::move(process));
}

void Dispatcher::_CouldNotStart(Job &job) {
  _Log("ERROR:" + job.function + ":" + job.name + ":cannot start: " + strerror(errno));
  _Retry(job, false);
}

bool Dispatcher::_HasRoom() const { return _processes.size() < static_cast<size_t>(_settings.maxModules); }

void Dispatcher::_StartWalk() {
  std::string const function = _walks.back();
  _walks.pop_back();
  auto process = ModuleProcess::Start(ProcessKind::kWalk, _modules + "/" + function, function, "", _environment);
  if (process != nullptr) return _processes.push_back(std::move(process));
  _Log("ERROR:" + function + ":ProcessQueue:cannot start: " + strerror(errno));
}

void Dispatcher::_RetireIdle(Clock::time_point longerThan) {
  bool const full = !_HasRoom();
  for (auto const &process : _processes) {
    if (process->kind != ProcessKind::kServe || process->job != nullptr) continue;
    // A full house with work for other modules has no place for idlers.
    bool const inTheWay = full && (_jobs.Waiting() > 0 || !_walks.empty()) && _jobs.WaitingFor(process->function) == 0;
    if (inTheWay || process->since <= longerThan) process->Retire();
  }
}

void Dispatcher::_ReapChildren() {
  int status = 0;
  for (pid_t pid; (pid = waitpid(-1, &status, WNOHANG)) > 0;) {
    auto const found =
        std::find_if(_processes.begin(), _processes.end(), [pid](auto const &process) { return process->pid == pid; });
    if (found == _processes.end()) continue;
    std::unique_ptr<ModuleProcess> const ended = std::move(*found);
    _processes.erase(found);
    _ProcessEnded(*ended, status);
  }
}

void Dispatcher::_ProcessEnded(ModuleProcess &process, int status) {
  int const signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
  int code = WIFEXITED(status) ? WEXITSTATUS(status) : 0;
  if (process.kind == ProcessKind::kWalk) {
    _Log("END:" + process.function +
         ":ProcessQueue:" + (signal != 0 ? "signal " + std::to_string(signal) : std::to_string(code)));
    return;
  }
  if (process.kind == ProcessKind::kServe) {
    int answer = 0;
    if (process.job != nullptr && process.Output() >= 0 && process.ReadAnswer(answer)) {
      _RunEnded(process, answer, 0);  // the answer came with the end
      return;
    }
    if (signal == 0 && process.served == 0 && !process.Retired()) {
      _oneShot.insert(process.function);  // it ended instead of serving: from now on one process a message
      if (process.job != nullptr) _jobs.Requeue(*process.job);
      return;
    }
    if (signal == 0 && code == kRunDone) code = kUnreadable;  // ended without an answer to the message in hand
  }
  if (process.job != nullptr) _RunEnded(process, code, signal);
}

void Dispatcher::_RunEnded(ModuleProcess &process, int code, int signal) {
  if (process.job == nullptr) return;  // an answer to nothing
  Job &job = *process.job;
  auto const took = std::chrono::duration_cast<milliseconds>(Clock::now() - process.since).count();
  _Log("END:" + process.function + ":" + job.name + ":" +
       (signal != 0 ? "signal " + std::to_string(signal) : std::to_string(code)) + ":" + std::to_string(took) + " ms");
  process.job = nullptr;
  process.since = Clock::now();
  if (process.served >= kMessagesPerProcess) process.Retire();
  if (IsCrash(signal) && job.failures + 1 >= std::min(kCrashLimit, _settings.retryLimit) && _ReportCrash(job, signal))
    return;
  if (signal != 0) return _Retry(job, true);
  switch (code) {
    case kRunDone:
      return _Done(job);
    case kNoSettings:
      return _Retry(job, false);
    case kWrongFunction:
      return _Redirect(job, process.function);
    case kWrongType:
      _Park(job.name, process.function);
      (void)_jobs.Finish(job);
      return;
    default:
      return _Retry(job, true);
  }
}

// ---- outcomes of one run

void Dispatcher::_Done(Job &job) {
  std::string const name = job.name, function = job.function;
  bool const fromScan = job.fromScan;
  if (!_jobs.Finish(job) && fromScan)
    _Park(name, function);  // a file that its module leaves there is not run at each scan
}

void Dispatcher::_Retry(Job &job, bool counts) {
  if (_IsGone(job)) return (void)_jobs.Finish(job);  // nothing is left to do
  if (counts && ++job.failures >= _settings.retryLimit) return _MoveToFailed(job);
  auto const delay = seconds(_settings.retryDelay) * (1LL << std::clamp(job.failures - 1, 0, 12));
  _jobs.Delay(job, Clock::now() + std::min<Clock::duration>(delay, kLongestDelay));
}

// The file asks for another module than the one that was told; that one is started if it is installed.
void Dispatcher::_Redirect(Job &job, std::string const &wrongFunction) {
  std::string const name = job.name;
  bool const again = _jobs.Finish(job);
  if (again) return;
  SControl control((SString(name)));
  if (control.Read() == 0) return;
  std::string const function(control.Get(kKeyFunction).Get(0).View());
  int const priority = ParsePriority(control.Get(kKeyPriority).Get(0).View());
  if (function != wrongFunction && IsModuleName(function) && _IsInstalled(function))
    _jobs.Add(name, function, priority < 0 ? kLowestPriority : priority, true);
  else
    _Park(name, function);
}

// A message that its module can't survive becomes an error record, with which the error handler knows what to do. False
// when it can't: there is no error handler or it is the one that died, the file is no mail, or it can't be written.
bool Dispatcher::_ReportCrash(Job &job, int signal) {
  if (job.function == kModuleErrorHandler || !_IsInstalled(kModuleErrorHandler)) return false;
  ReportingModule reporter;
  SControl control;
  control.SetModule(&reporter);
  control.PutFilename(SString(job.name));
  if (control.Read() == 0 || control.Get(kKeyControlType).Get(0) != kTypeMail ||
      control.Get(kKeyFunction).Get(0) != SString(job.function))
    return false;
  errno = 0;  // no call has failed
  SetSocketErrorNo(0);
  if (!reporter.ProcessError(control, "ModuleDied", SString(job.function + ":Run"),
                             SString(std::string(strsignal(signal)) + ", time after time")))
    return false;
  _Log("FAILED:" + job.function + ":" + job.name + ":reported after " + std::to_string(job.failures + 1) + " crashes");
  _jobs.Add(job.name, kModuleErrorHandler, job.priority, false);  // for when this run is taken off
  (void)_jobs.Finish(job);
  return true;
}

void Dispatcher::_MoveToFailed(Job &job) {
  std::string const directory = _root + "/control/failed";
  std::string const target = directory + "/" + job.name + kControlSuffix;
  (void)sys::Mkdir(directory.c_str(), 0770);  // usually there; a real failure shows in the rename
  if (sys::Rename(_ControlPath(job.name).c_str(), target.c_str()) == 0) {
    _Log("FAILED:" + job.function + ":" + job.name + ":moved to control/failed after " + std::to_string(job.failures) +
         " runs");
  } else {
    _Log("ERROR:" + job.function + ":" + job.name + ":cannot move to control/failed: " + strerror(errno));
    _Park(job.name, job.function);
  }
  job.again = false;
  (void)_jobs.Finish(job);
}

void Dispatcher::_Park(std::string const &name, std::string const &function) {
  struct stat info;
  if (sys::Lstat(_ControlPath(name).c_str(), &info) != 0) return;
  _parked[name] = {function, NanosecondsOf(info.st_ctim), Clock::now() + seconds(_settings.queueInterval), true};
}

// ---- the spool

void Dispatcher::_ScanControl() {
  for (auto &entry : _parked) entry.second.seen = false;
  std::string const directory = _root + "/control/";
  bool const read = ForEachEntry(directory, [&](std::string const &file) {
    if (!EndsWith(file, kControlSuffix)) return;
    std::string const name = file.substr(0, file.size() - strlen(kControlSuffix));
    if (!IsMessageName(name) || _jobs.Knows(name)) return;
    struct stat info;
    if (sys::Lstat((directory + file).c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return;
    _ScanOne(name, NanosecondsOf(info.st_ctim));
  });
  if (!read) _Log("ERROR:cannot read " + directory + ": " + strerror(errno));
  for (auto entry = _parked.begin(); entry != _parked.end();)
    entry = entry->second.seen ? std::next(entry) : _parked.erase(entry);
  _nextScan = Clock::now() + seconds(_settings.scanInterval);
  _firstScan = false;
}

void Dispatcher::_ScanOne(std::string const &name, long long changed) {
  long long const age = WallNanoseconds() - changed;
  if (!_firstScan && age >= 0 && age < std::chrono::nanoseconds(kSettleTime).count()) return;
  // What a queue walk has renamed into control/ since it began is being worked on by that walk.
  for (auto const &process : _processes)
    if (process->kind == ProcessKind::kWalk && age < std::chrono::nanoseconds(Clock::now() - process->since).count())
      return;

  auto const known = _parked.find(name);
  if (known != _parked.end() && known->second.changed == changed) {
    known->second.seen = true;
    std::string const &function = known->second.function;
    if (Clock::now() < known->second.until || (IsModuleName(function) && !_IsInstalled(function))) return;
  }
  SControl control((SString(name)));
  std::string const function =
      control.Read() != 0 ? std::string(control.Get(kKeyFunction).Get(0).View()) : std::string();
  int const priority = ParsePriority(control.Get(kKeyPriority).Get(0).View());
  if (IsModuleName(function) && _IsInstalled(function)) {
    _jobs.Add(name, function, priority < 0 ? kLowestPriority : priority, true);
    return;
  }
  bool const isNamed = IsModuleName(function);
  if (!isNamed) _Log("WAIT::" + name + ":names no module");
  // It may be the reading that failed, so such a file is looked at again, but not at each scan.
  _parked[name] = {function, changed, isNamed ? Clock::time_point() : Clock::now() + seconds(_settings.queueInterval),
                   true};
}

// Looks after what a crash left behind. The scan of control/ starts what is whole.
void Dispatcher::_Recover(bool wholeSpool) {
  SRecoveryScope scope;
  scope.quietSeconds = kStaleSeconds;
  scope.wholeSpool = wholeSpool;
  scope.requeue = false;
  scope.accounts = false;
  scope.isBusy = [this](std::string const &name) { return _jobs.Knows(name); };
  scope.log = [this](std::string const &line) { _Log("RECOVER:" + line); };
  (void)RecoverSpool(scope);  // what failed is in the log, and is tried again
  _nextRecovery = Clock::now() + kRecoveryInterval;
}

void Dispatcher::_PlanWalks() {
  std::string const directory = _root + "/deferred/";
  (void)ForEachEntry(directory, [&](std::string const &function) {  // no directory, nothing deferred
    if (!IsModuleName(function) || !_IsInstalled(function)) return;
    bool const walking = std::any_of(_processes.begin(), _processes.end(), [&](auto const &process) {
      return process->kind == ProcessKind::kWalk && process->function == function;
    });
    if (!walking && std::find(_walks.begin(), _walks.end(), function) == _walks.end()) _walks.push_back(function);
  });
  // A tenth either way, so that walks of several hosts on one disk or name server do not fall together.
  int const interval = _settings.queueInterval * 1000;
  _nextWalk = Clock::now() + milliseconds(interval - interval / 10 + RandomInt(interval / 5 + 1));
}

bool Dispatcher::_IsInstalled(std::string const &function) const {
  struct stat info;
  std::string const path = _modules + "/" + function;
  return function != "Dispatcher" && sys::Lstat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) &&
         (info.st_mode & 0111) != 0;
}

bool Dispatcher::_IsGone(Job const &job) const {
  struct stat info;
  return sys::Lstat(_ControlPath(job.name).c_str(), &info) != 0 && errno == ENOENT;
}

std::string Dispatcher::_ControlPath(std::string const &name) const {
  return _root + "/control/" + name + kControlSuffix;
}

void Dispatcher::_Log(std::string const &text) const { WriteLogLine(LogFileDate() + ":Dispatcher:" + SString(text)); }
