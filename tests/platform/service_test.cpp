#include "brenthaven/platform/service.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/scratch.h"

namespace {

// A bus of the test's own, at a socket in its directory.
class PrivateBus {
public:
  explicit PrivateBus(std::string const &directory) : address("unix:path=" + directory + "/bus") {
    std::string const config = directory + "/bus.conf";
    std::ofstream(config)
        << "<busconfig><type>session</type><listen>" << address
        << "</listen><auth>EXTERNAL</auth><policy context=\"default\"><allow user=\"*\"/><allow "
           "own=\"*\"/><allow send_destination=\"*\"/><allow eavesdrop=\"true\"/></policy></busconfig>";
    int ready[2];
    if (pipe(ready) != 0) abort();
    std::string program = "dbus-daemon", from = "--config-file=" + config, print = "--print-address=3",
                stay = "--nofork";
    char *const argv[] = {program.data(), from.data(), stay.data(), print.data(), nullptr};
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addclose(&files, ready[0]);
    posix_spawn_file_actions_adddup2(&files, ready[1], 3);
    if (posix_spawnp(&_pid, program.c_str(), &files, nullptr, argv, environ) != 0) _pid = -1;
    posix_spawn_file_actions_destroy(&files);
    close(ready[1]);
    char line[200];  // the daemon prints its address when it listens
    runs = _pid > 0 && read(ready[0], line, sizeof line) > 0;
    close(ready[0]);
  }
  PrivateBus(PrivateBus const &) = delete;
  ~PrivateBus() {
    if (_pid <= 0) return;
    kill(_pid, SIGTERM);
    (void)waitpid(_pid, nullptr, 0);
  }

  std::string const address;
  bool runs = false;

private:
  pid_t _pid = -1;
};

struct FakeUnit {
  std::string loadState = "loaded";
  std::string activeState = "inactive";
  int looksOnTheWay = 0;  // how often the state reads as on the way after a request; below 0: for ever
  bool refuses = false;   // every request
  std::string target = {};
};

// The service manager as its callers see it: a thread that answers on the bus under the manager's name.
class MockManager {
public:
  MockManager(std::string const &address, std::map<std::string, FakeUnit> units) : _units(std::move(units)) {
    if (pipe(_stop) != 0 || sd_bus_new(&_bus) < 0 || sd_bus_set_address(_bus, address.c_str()) < 0 ||
        sd_bus_set_bus_client(_bus, 1) < 0 || sd_bus_start(_bus) < 0 ||
        sd_bus_request_name(_bus, "org.freedesktop.systemd1", 0) < 0 ||
        sd_bus_add_filter(_bus, nullptr, &MockManager::Take, this) < 0)
      abort();
    _thread = std::thread([this] { Serve(); });
  }
  MockManager(MockManager const &) = delete;
  ~MockManager() { Stop(); }

  // The calls that came, each with the unit that it named.
  std::vector<std::string> Stop() {
    if (_thread.joinable()) {
      close(_stop[1]);
      _thread.join();
      close(_stop[0]);
      sd_bus_flush_close_unref(_bus);
    }
    return _calls;
  }

  std::atomic<bool> isSilent = false;  // takes calls and answers none

private:
  static constexpr char kPathStem[] = "/org/freedesktop/systemd1/unit/u";

  void Serve() {
    for (;;) {
      while (sd_bus_process(_bus, nullptr) > 0) continue;
      sd_bus_flush(_bus);
      struct pollfd entries[] = {{sd_bus_get_fd(_bus), POLLIN, 0}, {_stop[0], POLLIN, 0}};
      if (poll(entries, 2, -1) < 0 || entries[1].revents != 0) return;
    }
  }

  static int Take(sd_bus_message *message, void *self, sd_bus_error *) {
    return static_cast<MockManager *>(self)->Answer(message);
  }

  int Answer(sd_bus_message *message) {
    if (sd_bus_message_is_method_call(message, nullptr, nullptr) <= 0) return 0;
    std::string const member = sd_bus_message_get_member(message);
    if (isSilent) return 1;
    if (member == "Get") return AnswerProperty(message);
    char const *name = nullptr;
    if (sd_bus_message_read(message, "s", &name) < 0) abort();
    _calls.push_back(member + " " + name);
    if (member == "LoadUnit") {
      auto const at = _units.try_emplace(name, FakeUnit{"not-found"}).first;
      return sd_bus_reply_method_return(message, "o",
                                        (kPathStem + std::to_string(std::distance(_units.begin(), at))).c_str());
    }
    FakeUnit &unit = _units.at(name);
    if (unit.refuses)
      return sd_bus_reply_method_errorf(message, "org.freedesktop.systemd1.UnitMasked", "Unit is masked.");
    unit.target = member == "StartUnit" ? "active" : "inactive";
    return sd_bus_reply_method_return(message, "o", "/org/freedesktop/systemd1/job/1");
  }

  int AnswerProperty(sd_bus_message *message) {
    char const *interface = nullptr, *property = nullptr;
    if (sd_bus_message_read(message, "ss", &interface, &property) < 0) abort();
    std::string const path = sd_bus_message_get_path(message);
    FakeUnit &unit = std::next(_units.begin(), std::stoi(path.substr(strlen(kPathStem))))->second;
    if (std::string(property) == "LoadState")
      return sd_bus_reply_method_return(message, "v", "s", unit.loadState.c_str());
    bool const isOnTheWay = !unit.target.empty() && unit.looksOnTheWay != 0;
    if (isOnTheWay && unit.looksOnTheWay > 0) --unit.looksOnTheWay;
    if (!isOnTheWay && !unit.target.empty()) unit.activeState = std::exchange(unit.target, "");
    std::string const state = !isOnTheWay ? unit.activeState : unit.target == "active" ? "activating" : "deactivating";
    return sd_bus_reply_method_return(message, "v", "s", state.c_str());
  }

  std::map<std::string, FakeUnit> _units;
  std::vector<std::string> _calls;
  sd_bus *_bus = nullptr;
  int _stop[2];
  std::thread _thread;
};

using Calls = std::vector<std::string>;

int Start(char const *name, unsigned wait, int limit, char const *argument = "") {
  SString service = name, text = argument;
  return ServiceStart(service, text, wait, limit);
}
int Stop(char const *name, unsigned wait, int limit) {
  SString service = name;
  return StopService(service, wait, limit);
}
int Status(char const *name) {
  SString service = name;
  return GetServiceStatus(service, 0, 0);
}
int Restart(char const *name, unsigned wait, int limit, char const *argument = "") {
  SString service = name, text = argument;
  return RestartService(service, text, wait, limit);
}

}  // namespace

class ServiceTest : public ScratchSpool {
protected:
  ServiceTest() : bus(root) { setenv("DBUS_SYSTEM_BUS_ADDRESS", bus.address.c_str(), 1); }
  void SetUp() override { ASSERT_TRUE(bus.runs) << "no dbus-daemon"; }

  PrivateBus bus;
};

TEST_F(ServiceTest, StatusOfEveryState) {
  MockManager manager(bus.address, {{"run.service", {"loaded", "active"}},
                                    {"reload.service", {"loaded", "reloading"}},
                                    {"stop.service", {"loaded", "inactive"}},
                                    {"fail.service", {"loaded", "failed"}},
                                    {"begin.service", {"loaded", "activating"}},
                                    {"mask.service", {"masked", "inactive"}},
                                    {"broken.service", {"bad-setting", "inactive"}}});
  struct Case {
    char const *name;
    int status;
  };
  for (Case const &c :
       {Case{"run", kServiceRunning}, Case{"/usr/lib/run", kServiceRunning}, Case{"run.service", kServiceRunning},
        Case{"reload", kServiceRunning}, Case{"stop", kServiceNotRunning}, Case{"fail", kServiceNotRunning},
        Case{"begin", kServiceNotRunning}, Case{"mask", kServiceNotRunning}, Case{"broken", kServiceStatusUnknown},
        Case{"nobody", kServiceStatusUnknown}, Case{"", -1}})
    EXPECT_EQ(Status(c.name), c.status) << c.name;
  SString withNul("run\0", 4), notText("\xff\xfe");
  EXPECT_EQ(GetServiceStatus(withNul, 0, 0), kServiceStatusUnknown) << "is not the service whose name it begins with";
  EXPECT_EQ(GetServiceStatus(notText, 0, 0), kServiceStatusUnknown) << "can't stand on the bus";
}

TEST_F(ServiceTest, StartRequestsAndWaits) {
  MockManager manager(bus.address, {{"run.service", {"loaded", "active"}},
                                    {"quick.service", {}},
                                    {"slow.service", {"loaded", "failed", 5}},
                                    {"stuck.service", {"loaded", "inactive", -1}},
                                    {"mask.service", {"masked", "inactive", 0, true}}});
  EXPECT_EQ(Start("run", 1, 1), kServiceAlreadyRunning);
  EXPECT_EQ(Start("quick", 1, 1), kServiceDone);
  EXPECT_EQ(Start("slow", 1, 10), kServiceDone);
  EXPECT_EQ(Status("slow"), kServiceRunning) << "the result came when it ran, not before";
  EXPECT_EQ(Start("stuck", 0, 1), kServiceDone) << "without wait the request is all";
  EXPECT_EQ(Start("stuck", 1, 1), kServiceFailed) << "not running in time";
  EXPECT_EQ(Start("stuck", 1, 0), kServiceFailed) << "no time at all";
  EXPECT_EQ(Start("stuck", 1, -5), kServiceFailed);
  EXPECT_EQ(Start("mask", 1, 1), kServiceFailed);
  EXPECT_EQ(Start("nobody", 1, 1), kServiceFailed);
}

TEST_F(ServiceTest, StopRequestsAndWaits) {
  MockManager manager(bus.address, {{"run.service", {"loaded", "active", 3}},
                                    {"stop.service", {}},
                                    {"stuck.service", {"loaded", "active", -1}},
                                    {"refuse.service", {"loaded", "active", 0, true}}});
  EXPECT_EQ(Stop("/x/run", 1, 10), kServiceDone);
  EXPECT_EQ(Status("run"), kServiceNotRunning);
  EXPECT_EQ(Stop("stop", 1, 1), kServiceDone);
  EXPECT_EQ(Stop("stuck", 0, 1), kServiceDone);
  EXPECT_EQ(Stop("stuck", 1, 1), kServiceFailed);
  EXPECT_EQ(Stop("refuse", 0, 1), kServiceFailed);
  EXPECT_EQ(Stop("nobody", 0, 1), kServiceFailed);
}

TEST_F(ServiceTest, RestartStopsAndStartsTheInstanceNamedByTheArgument) {
  MockManager manager(bus.address, {{"mail@a\\x2db-c_1.2.service", {"loaded", "active", 2}}, {"stop.service", {}}});
  EXPECT_EQ(Restart("mail", 1, 10, "a-b/c_1.2"), kServiceDone);
  EXPECT_EQ(Restart("stop", 1, 10), kServiceDone) << "one that did not run is started all the same";
  EXPECT_EQ(Restart("nobody", 1, 10), kServiceFailed);
  Calls requests;
  for (std::string const &call : manager.Stop())
    if (!call.starts_with("LoadUnit")) requests.push_back(call);
  EXPECT_EQ(requests, (Calls{"StopUnit mail@a\\x2db-c_1.2.service", "StartUnit mail@a\\x2db-c_1.2.service",
                             "StopUnit stop.service", "StartUnit stop.service"}));
}

TEST_F(ServiceTest, SilentManagerIsGivenUp) {
  MockManager manager(bus.address, {{"run.service", {"loaded", "active"}}});
  manager.isSilent = true;
  EXPECT_EQ(Start("run", 1, 1), kServiceFailed);
  EXPECT_EQ(Stop("run", 1, 1), kServiceFailed);
}

// Limits of an hour, so that a wait would be the end of the test.
TEST_F(ServiceTest, NobodyToAskIsAFailureAtOnce) {
  for (std::string const &address : {bus.address, "unix:path=" + root + "/nothing", std::string("nonsense")}) {
    setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
    EXPECT_EQ(Start("/usr/lib/SMTP-Router", 1, 3600), kServiceFailed) << address;
    EXPECT_EQ(Status("SMTP-Router"), kServiceStatusUnknown) << address;
    EXPECT_EQ(Stop("SMTP-Router", 1, 3600), kServiceFailed) << address;
    EXPECT_EQ(Restart("SMTP-Router", 1, 3600), kServiceFailed) << address;
  }
}
