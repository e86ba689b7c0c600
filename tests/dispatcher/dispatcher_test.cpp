#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sysexits.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <thread>

#include "brenthaven/store/sdbfile.h"
#include "brenthaven/text/sstringlist.h"
#include "tests/support/scratch.h"

namespace {

// Polls a condition until it holds; false when it does not within a time that only a hanging dispatcher needs.
bool Eventually(std::function<bool()> const &holds) {
  auto const end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (!holds()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

class DispatcherTest : public ScratchSpool {
protected:
  DispatcherTest() {
    std::filesystem::create_directory(Path("modules"));
    for (char const *name : {"Test-Module", "Plain-Module"})
      std::filesystem::copy_file(TEST_MODULE, Path("modules/" + std::string(name)));
    PutFile("config/environment", "SpoolSync=no\n");
  }
  ~DispatcherTest() override {
    if (pid > 0) Stop(SIGKILL);
  }

  void Set(char const *key, char const *value) {
    Sdbfile store("Dispatcher", 1, "Brenthaven");
    ASSERT_TRUE(store.Open("/Config", 1));
    ASSERT_TRUE(store.Set(key, SStringList(value)));
  }
  pid_t Spawn() {
    pid_t const child = fork();
    if (child == 0) {
      if (freopen(Path("log").c_str(), "a", stderr) == nullptr) _exit(1);
      execl(DISPATCHER_PROGRAM, "Dispatcher", "--root", root.c_str(), "--modules", Path("modules").c_str(), nullptr);
      _exit(1);
    }
    return child;
  }
  void StartDispatcher() {
    std::filesystem::remove(Path("run/dispatcher"));
    pid = Spawn();
    ASSERT_TRUE(Eventually([&] { return Exists("run/dispatcher"); }));
    std::istringstream text(FileBytes("run/dispatcher"));
    std::string socketLine, keyLine;
    std::getline(text, socketLine);
    std::getline(text, keyLine);
    port = std::stoi(socketLine.substr(socketLine.find('=') + 1));
    key = keyLine.substr(keyLine.find('=') + 1);
  }
  int Stop(int signal) {
    kill(pid, signal);
    int status = 0;
    waitpid(pid, &status, 0);
    pid = -1;
    return status;
  }
  void PutControl(std::string const &name, std::string const &function = "Test-Module") {
    PutFile("control/" + name + "-Control", "Function: " + function + "\r\nControl-Type: Mail\r\nPriority: 1\r\n");
  }
  void Send(std::string const &datagram) {
    int const fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    struct sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(port));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sendto(fd, datagram.data(), datagram.size(), 0, reinterpret_cast<struct sockaddr *>(&to), sizeof to);
    close(fd);
  }
  void Tell(std::string const &name, char const *priority = "1", std::string const &function = "Test-Module") {
    Send(name + "\n" + key + "\n" + function + "\nMail\n" + priority);
  }
  bool HasRun(std::string const &line) {
    return ("\n" + FileBytes("runs")).find("\n" + line + "\n") != std::string::npos;
  }
  int CountRuns(std::string const &line) {
    std::istringstream text(FileBytes("runs"));
    int count = 0;
    for (std::string each; std::getline(text, each);) count += each == line;
    return count;
  }
  bool Logged(std::string const &text) { return FileBytes("log").find(text) != std::string::npos; }

  pid_t pid = -1;
  int port = 0;
  std::string key;
};

TEST_F(DispatcherTest, GoodNotificationRunsTheModuleAndAWrongKeyNever) {
  setenv("MessageFile", "/etc/passwd", 1);  // what the dispatcher was started with is not for its modules
  setenv("ModuleName", "Other", 1);
  StartDispatcher();
  for (char const *name : {"good", "bad"}) PutControl(name);
  Send("bad\n0123456789abcdef0123456789abcdef\nTest-Module\nMail\n1");
  Send("bad\n" + key + "\n../modules/Test-Module\nMail\n1");
  Tell("good");
  EXPECT_TRUE(Eventually([&] { return HasRun("end good") && Logged("END:Test-Module:good:0:"); }));
  EXPECT_TRUE(Logged("REFUSED:")) << "the bad ones came first";
  EXPECT_FALSE(HasRun("run bad"));
  struct stat info;
  ASSERT_EQ(stat(Path("run/dispatcher").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0640u) << "the key is not for everybody";
}

TEST_F(DispatcherTest, WhatLiesInControlIsStartedAgain) {
  PutControl("left");
  PutFile("control/torn-Control", "no fields here");
  PutFile("control/old-Control.temp", "half");
  std::filesystem::last_write_time(Path("control/old-Control.temp"),
                                   std::filesystem::file_time_type::clock::now() - std::chrono::hours(1));
  StartDispatcher();
  EXPECT_TRUE(Eventually([&] { return HasRun("end left"); }));
  EXPECT_TRUE(Eventually([&] { return Logged("WAIT::torn:names no module"); }));
  EXPECT_TRUE(Exists("control/torn-Control")) << "never deleted";
  EXPECT_FALSE(Exists("control/old-Control.temp"));
}

TEST_F(DispatcherTest, FileThatCouldNotBeReadIsLookedAtAgain) {
  for (char const *key : {"ScanInterval", "QueueInterval"}) Set(key, "1");
  PutFile("control/torn-Control", "no fields here");
  StartDispatcher();
  EXPECT_TRUE(Eventually([&] {
    std::string const log = FileBytes("log"), line = "WAIT::torn:names no module";
    return log.find(line) != log.rfind(line);
  }));
}

TEST_F(DispatcherTest, BurstLosesNoMessage) {
  Set("ScanInterval", "1");
  StartDispatcher();
  for (int i = 0; i < 10000; ++i) PutControl("m" + std::to_string(i));
  for (int i = 0; i < 10000; ++i) Tell("m" + std::to_string(i));
  EXPECT_TRUE(Eventually([&] { return CountIn("control") == 0; }));
  EXPECT_EQ(CountRuns("run m4711"), 1);
}

TEST_F(DispatcherTest, ModuleThatDoesNotServeGetsOneProcessAMessage) {
  StartDispatcher();
  for (int i = 0; i < 40; ++i) PutControl("m" + std::to_string(i), "Plain-Module");
  for (int i = 0; i < 40; ++i) Tell("m" + std::to_string(i), "1", "Plain-Module");
  EXPECT_TRUE(Eventually([&] { return CountIn("control") == 0; }));
  EXPECT_FALSE(Exists("control/failed"));
}

// What comes in one piece with an answer must not hide it.
TEST_F(DispatcherTest, AnswerIsFoundBehindWhatAModuleSaysBesides) {
  Set("MaxModules", "1");
  StartDispatcher();
  for (int i = 0; i < 40; ++i) PutControl("chatter" + std::to_string(i));
  for (int i = 0; i < 40; ++i) Tell("chatter" + std::to_string(i));
  EXPECT_TRUE(Eventually([&] { return Logged("END:Test-Module:chatter39:0:"); }));
}

TEST_F(DispatcherTest, UrgentMessageOvertakesAndOneFileNeverRunsTwiceAtOnce) {
  Set("MaxModules", "1");
  StartDispatcher();
  for (char const *name : {"hold", "late", "soon"}) PutControl(name);
  Tell("hold");
  ASSERT_TRUE(Eventually([&] { return HasRun("run hold"); }));
  for (int i = 0; i < 50; ++i) Tell("hold");
  Tell("late", "3");
  Tell("soon", "1");
  PutFile("go", "");
  ASSERT_TRUE(Eventually([&] { return HasRun("end late"); }));
  std::string const runs = FileBytes("runs");
  EXPECT_LT(runs.find("run soon"), runs.find("run late"));
  EXPECT_LE(CountRuns("run hold"), 2);
}

TEST_F(DispatcherTest, CrashingMessageMovesToFailedAndIsNeverDeleted) {
  Set("RetryLimit", "3");
  Set("RetryDelay", "0");
  StartDispatcher();
  for (char const *name : {"crash", "unreadable", "good"}) PutControl(name);
  Tell("crash");
  Tell("unreadable");
  EXPECT_TRUE(Eventually(
      [&] { return Exists("control/failed/crash-Control") && Exists("control/failed/unreadable-Control"); }));
  EXPECT_EQ(CountRuns("run crash"), 3);
  EXPECT_TRUE(Logged("END:Test-Module:crash:signal 6:"));
  EXPECT_TRUE(Logged("FAILED:Test-Module:unreadable:"));
  Tell("good");
  EXPECT_TRUE(Eventually([&] { return HasRun("end good"); }));
}

// Not with the limit of runs, which is for what a later run may manage.
TEST_F(DispatcherTest, MessageThatCrashesItsModuleThriceIsTheErrorHandlers) {
  Set("RetryDelay", "0");
  std::filesystem::copy_file(TEST_MODULE, Path("modules/Error-Handler"));
  StartDispatcher();
  PutControl("crash-hold");
  PutControl("crash-record", "Error-Handler");
  Tell("crash-hold");
  Tell("crash-record", "1", "Error-Handler");
  EXPECT_TRUE(Eventually([&] { return Logged("FAILED:Test-Module:crash-hold:reported after 3 crashes"); }));
  // The copy of the test's module dies of the record as well, which then has nowhere else to go.
  EXPECT_TRUE(Eventually(
      [&] { return Exists("control/failed/crash-hold-Control") && Exists("control/failed/crash-record-Control"); }));
  EXPECT_EQ(CountRuns("run crash-hold"), 3 + 5);
  EXPECT_EQ(CountRuns("run crash-record"), 5);
  std::string const record = FileBytes("control/failed/crash-hold-Control");
  for (char const *line : {"Function: Error-Handler\r\n", "Error: Test-Module:Run (ModuleDied)\r\n",
                           "Error-Text: Aborted, time after time\r\n", "Trace: Dispatcher\r\n"})
    EXPECT_NE(record.find(line), std::string::npos) << line << record;
}

TEST_F(DispatcherTest, CrashUnderLoadCostsOnlyItsOwnMessage) {
  Set("RetryLimit", "2");
  Set("RetryDelay", "0");
  StartDispatcher();
  for (int i = 0; i < 200; ++i) PutControl((i % 50 == 7 ? "crash" : "m") + std::to_string(i));
  for (int i = 0; i < 200; ++i) Tell((i % 50 == 7 ? "crash" : "m") + std::to_string(i));
  EXPECT_TRUE(Eventually([&] { return CountIn("control") == 1 && CountIn("control/failed") == 4; }));
  for (int i = 0; i < 200; ++i)
    if (i % 50 != 7) {
      EXPECT_EQ(CountRuns("end m" + std::to_string(i)), 1) << i;
    }
}

TEST_F(DispatcherTest, PortOfTheEnvironmentFileIsUsed) {
  int const probe = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);  // finds a port that is free now
  struct sockaddr_in address = {};
  socklen_t length = sizeof address;
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(bind(probe, reinterpret_cast<struct sockaddr *>(&address), length), 0);
  ASSERT_EQ(getsockname(probe, reinterpret_cast<struct sockaddr *>(&address), &length), 0);
  close(probe);
  PutFile("config/environment", "SpoolSync=no\nDispatchSocket=" + std::to_string(ntohs(address.sin_port)) + "\n");
  StartDispatcher();
  EXPECT_EQ(port, ntohs(address.sin_port));
}

TEST_F(DispatcherTest, SettingsAreReadAgainOnHangUp) {
  Set("MaxModules", "many");
  StartDispatcher();
  EXPECT_TRUE(Eventually([&] { return Logged("ERROR:MaxModules is no number from 1 to 1000: many"); }));
  Set("MaxModules", "1");
  for (char const *name : {"hold", "waits"}) PutControl(name);
  kill(pid, SIGHUP);
  ASSERT_TRUE(Eventually([&] { return Logged("SETTINGS"); }));
  Tell("hold");
  ASSERT_TRUE(Eventually([&] { return HasRun("run hold"); }));
  Tell("waits");
  PutFile("go", "");
  ASSERT_TRUE(Eventually([&] { return HasRun("end waits"); }));
  std::string const runs = FileBytes("runs");
  EXPECT_LT(runs.find("end hold"), runs.find("run waits"));
}

TEST_F(DispatcherTest, RootThatStrangersCanWriteInIsRefused) {
  ASSERT_EQ(chmod(root.c_str(), 0777), 0);
  int status = 0;
  ASSERT_GT(waitpid(Spawn(), &status, 0), 0);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), EX_CONFIG);
  EXPECT_TRUE(Logged("others can write in " + root));
}

TEST_F(DispatcherTest, SecondDispatcherOnOneRootRefusesToStart) {
  StartDispatcher();
  int status = 0;
  ASSERT_GT(waitpid(Spawn(), &status, 0), 0);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), EX_TEMPFAIL);
}

TEST_F(DispatcherTest, StopLetsTheRunningModuleFinishAndStartsNoOther) {
  Set("MaxModules", "1");
  StartDispatcher();
  for (char const *name : {"hold", "next"}) PutControl(name);
  Tell("hold");
  ASSERT_TRUE(Eventually([&] { return HasRun("run hold"); }));
  Tell("next");
  kill(pid, SIGTERM);
  PutFile("go", "");
  int const status = Stop(0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_TRUE(HasRun("end hold"));
  EXPECT_FALSE(HasRun("run next"));
  EXPECT_TRUE(Exists("control/next-Control"));
  EXPECT_FALSE(Exists("run/dispatcher"));
}

TEST_F(DispatcherTest, DeferredQueueIsWalked) {
  PutFile("deferred/Test-Module/d-Control", "");
  PutFile("deferred/Not-Installed/d-Control", "");
  Set("QueueInterval", "1");
  StartDispatcher();
  EXPECT_TRUE(Eventually([&] { return CountRuns("walk") >= 2; }));
  EXPECT_TRUE(Logged("END:Test-Module:ProcessQueue:0"));
}

}  // namespace
