// tests/road/road_fixture.h - a whole instance: the real programs, a dispatcher, and what lies in the mailboxes.
#pragma once
#include <signal.h>
#include <sys/wait.h>

#include <chrono>
#include <functional>
#include <thread>

#include "brenthaven/mailbox/mailboxpath.h"
#include "tests/command/command_fixture.h"

// Polls a condition until it holds; false when it does not within a time that only a hanging program needs.
inline bool Eventually(std::function<bool()> const &holds) {
  auto const end = std::chrono::steady_clock::now() + std::chrono::seconds(90);
  while (!holds()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

class RoadTest : public CommandTest {
protected:
  RoadTest() {
    Init();
    for (std::string const uid : {"ann", "bob"}) Good({"account", "add", uid, "--address", uid + "@example.org"});
  }
  ~RoadTest() override {
    if (_dispatcher <= 0) return;
    kill(_dispatcher, SIGTERM);
    waitpid(_dispatcher, nullptr, 0);
  }

  void StartDispatcher() {
    _dispatcher = fork();
    if (_dispatcher == 0) {
      if (freopen(Path("log").c_str(), "a", stderr) == nullptr) _exit(1);
      execl(MODULES "/Dispatcher", "Dispatcher", "--root", root.c_str(), nullptr);
      _exit(1);
    }
    ASSERT_TRUE(Eventually([&] { return Exists("run/dispatcher"); }));
  }
  // One run of the router, as the dispatcher starts it.
  ProgramRun RunRouter(std::string const &name) const {
    setenv("ModuleName", "SMTP-Router", 1);
    setenv("MessageFile", name.c_str(), 1);
    return RunProgram(MODULES "/SMTP-Router", {"SMTP-Router", "MessageFile", name});
  }

  // A message for the router, with its files.
  void PutMessage(std::string const &directory, std::string const &name, std::string const &recipient,
                  std::string const &body) const {
    PutFile(directory + "/" + name + "-Control",
            "Function: SMTP-Router\r\nControl-Type: Mail\r\nPriority: 1\r\nUser-From: SMTP <sender@far.example>\r\n"
            "Host-From: far.example [192.0.2.7]\r\nChannel-To: SMTP " +
                recipient + "\r\n");
    PutFile("messages/" + name + "-Header", "Subject: test\r\n");
    PutFile("messages/" + name + "-Body", body);
  }

  std::string InboxOf(std::string const &uid) const {
    return "mailboxes/" + std::string(GetMailboxSubpath(SString(uid)).View()) + "/in";
  }
  // The stored messages of an account, in order of their names.
  Words StoredFor(std::string const &uid) const {
    Words stored;
    if (std::filesystem::is_directory(Path(InboxOf(uid))))
      for (std::string const &name : NamesIn(InboxOf(uid)))
        if (isdigit(static_cast<unsigned char>(name[0]))) stored.push_back(FileBytes(InboxOf(uid) + "/" + name));
    return stored;
  }
  // The modules that the controls in control/ are for, in order.
  Words Functions() const {
    Words functions;
    for (std::string const &name : NamesIn("control")) {
      std::string const text = FileBytes("control/" + name);
      if (text.rfind("Function: ", 0) == 0) functions.push_back(text.substr(10, text.find('\r') - 10));
    }
    std::sort(functions.begin(), functions.end());
    return functions;
  }
  // Where the control of a message lies: in control/, or below deferred/ under its name or that of a copy; "" when it
  // is gone.
  std::string ControlOf(std::string const &name) const {
    if (Exists("control/" + name + "-Control")) return "control/" + name + "-Control";
    for (auto const &entry : std::filesystem::recursive_directory_iterator(Path("deferred")))
      if (entry.path().filename().string().rfind(name + "-", 0) == 0)
        return entry.path().string().substr(root.size() + 1);
    return "";
  }

private:
  pid_t _dispatcher = -1;
};
