// dispatcher/dispatcher.h - starts the module that each control file asks for.
//
// One process, one thread, one loop over: the notification socket, signals, the answers of serving modules, and timers.
// All that it knows can be rebuilt from the spool, so that nothing is lost with it: a notification is only a hint that
// a scan of control/ would have found as well.
#pragma once
#include <sys/types.h>

#include <memory>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "dispatcher/jobqueue.h"
#include "dispatcher/process.h"
#include "dispatcher/settings.h"

class Dispatcher {
public:
  // `root` is the value of Brenthaven without a trailing "/", `modules` the directory of the module executables.
  Dispatcher(std::string root, std::string modules);
  ~Dispatcher();
  Dispatcher(Dispatcher const &) = delete;
  Dispatcher &operator=(Dispatcher const &) = delete;

  // Takes the root's lock, binds the socket and publishes port and key in run/dispatcher (0640). 0, or a code of
  // sysexits.h after a line on standard error: 75 when another dispatcher holds the root, 78 when others than its user
  // and group can write in it, 71 for other failures.
  int Start();
  // Runs until SIGTERM or SIGINT, and then until the running modules have ended or StopTimeout is over.
  void Run();

private:
  struct Parked;

  // start and settings
  int _TakeLock();
  int _OpenSocket();
  int _OpenSignals();
  int _PublishAddress();
  void _LoadSettings();

  // the loop
  int _PollTimeout() const;
  void _WaitForEvents();
  void _ReadNotifications();
  void _ReadSignals();
  void _RunTimers();
  void _StopStarting();

  // processes
  void _StartJobs();
  bool _CanRun(std::string const &function) const;
  void _StartJob(Job &job);
  void _StartWalk();
  ModuleProcess *_IdleFor(std::string const &function) const;
  bool _HasRoom() const;
  void _RetireIdle(Clock::time_point longerThan);
  void _ReapChildren();
  void _ProcessEnded(ModuleProcess &process, int status);
  void _RunEnded(ModuleProcess &process, int code, int signal);
  void _CouldNotStart(Job &job);

  // outcomes of one run
  void _Retry(Job &job, bool counts);
  void _Redirect(Job &job, std::string const &wrongFunction);
  void _Done(Job &job);
  bool _ReportCrash(Job &job, int signal);
  void _MoveToFailed(Job &job);
  void _Park(std::string const &name, std::string const &function);

  // the spool
  void _ScanControl();
  void _ScanOne(std::string const &name, long long changed);
  void _Recover(bool wholeSpool);
  void _PlanWalks();
  bool _IsInstalled(std::string const &function) const;
  bool _IsGone(Job const &job) const;
  std::string _ControlPath(std::string const &name) const;

  void _Log(std::string const &text) const;

  std::string _root;
  std::string _modules;
  Settings _settings = {};
  std::vector<std::string> _environment;  // for every module; ModuleName and MessageFile are added for each
  std::string _key;
  int _port = 0;
  int _lock = -1;
  int _socket = -1;
  int _signals = -1;

  JobQueue _jobs;
  std::vector<std::unique_ptr<ModuleProcess>> _processes;
  std::unordered_set<std::string> _oneShot;         // functions whose module does not know the word "Serve"
  std::unordered_map<std::string, Parked> _parked;  // files in control/ that are left alone until they change
  std::unordered_set<std::string> _missingModules;  // already logged as not installed
  std::vector<std::string> _walks;                  // functions whose deferred queue is to be walked

  bool _stopping = false;
  Clock::time_point _stopBy = {};
  bool _firstScan = true;  // what lies in control/ at the start was left by a dispatcher that is gone
  Clock::time_point _nextScan = {};
  Clock::time_point _nextWalk = {};
  Clock::time_point _nextRecovery = {};
  unsigned _dropped = 0;  // the socket's count of datagrams that found no room
  unsigned long _badDatagrams = 0;
  Clock::time_point _badLogged = {};
};
