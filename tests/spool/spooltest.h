// tests/spool/spooltest.h - what the spool's tests share: a module that does what a test says, a dispatcher's ear, and
// system calls that fail or are counted.
#pragma once
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "brenthaven/platform/sys.h"
#include "brenthaven/spool/module.h"
#include "brenthaven/text/base.h"
#include "tests/support/scratch.h"

// SString as gtest and std::string know it.
inline std::string Str(SString const &text) { return std::string(text.View()); }
inline std::vector<std::string> Strs(SStringList const &list) {
  std::vector<std::string> texts;
  for (SString const &text : list) texts.push_back(Str(text));
  return texts;
}

// A module whose work is told by the test.
class ProbeModule : public SModule {
public:
  explicit ProbeModule(char const *name = "Probe") : SModule(name) {}
  unsigned int ProcessMail() override { return onMail ? onMail() : 1; }
  void ProcessRequest(SRequest &request) override {
    if (onRequest) onRequest(request);
  }
  unsigned int LoadEnv() override { return loads; }

  std::function<unsigned int()> onMail;
  std::function<void(SRequest &)> onRequest;
  unsigned int loads = 1;
};

// A UDP socket in the dispatcher's place; the environment points at it.
class DispatcherEar {
public:
  DispatcherEar() : _fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (bind(_fd, reinterpret_cast<sockaddr *>(&address), length) != 0 ||
        getsockname(_fd, reinterpret_cast<sockaddr *>(&address), &length) != 0)
      abort();
    setenv("DispatchSocket", std::to_string(ntohs(address.sin_port)).c_str(), 1);
    setenv("DispatchKey", "key", 1);
  }
  ~DispatcherEar() { close(_fd); }

  // The next datagram, which is either here (loopback delivers at once) or, with a wait, awaited; "" if none.
  std::string Next(int waitMilliseconds = 0) const {
    pollfd ready = {_fd, POLLIN, 0};
    if (poll(&ready, 1, waitMilliseconds) <= 0) return "";
    char datagram[4096];
    ssize_t const length = recv(_fd, datagram, sizeof datagram, 0);
    return length < 0 ? "" : std::string(datagram, static_cast<size_t>(length));
  }

private:
  int _fd;
};

// While it lives, every system call of the library is counted by name, and the one that a test picks fails.
class CallWatch {
public:
  CallWatch() { sys::SetHook(&CallWatch::_Hook, this); }
  ~CallWatch() { sys::SetHook(nullptr, nullptr); }
  CallWatch(CallWatch const &) = delete;
  CallWatch &operator=(CallWatch const &) = delete;

  // The n-th call from now on, counted from 1, of this name (or of any) fails with the error.
  void FailNth(int n, int error, std::string name = "") {
    _failAt = n;
    _error = error;
    _name = std::move(name);
    _counted = 0;
    calls.clear();
  }
  bool Failed() const { return _failAt > 0 && _counted >= _failAt; }
  int Count(std::string const &name) const {
    int count = 0;
    for (std::string const &call : calls) count += call.starts_with(name + " ");
    return count;
  }
  // Position of the first call that begins so, such as "fsync" or "rename /tmp/..."; -1 if there was none.
  int Place(std::string const &start) const {
    for (size_t i = 0; i < calls.size(); ++i)
      if (calls[i].starts_with(start)) return static_cast<int>(i);
    return -1;
  }

  std::vector<std::string> calls;  // "name path"

private:
  static int _Hook(sys::CallInfo const &call, void *context) {
    auto *const watch = static_cast<CallWatch *>(context);
    watch->calls.push_back(std::string(call.name) + " " + call.path);
    if (!watch->_name.empty() && watch->_name != call.name) return 0;
    return ++watch->_counted == watch->_failAt ? watch->_error : 0;
  }

  int _failAt = 0;
  int _error = 0;
  int _counted = 0;
  std::string _name;
};

class SpoolTest : public ScratchSpool {
protected:
  // A control file for a module, with further lines, each ended by CR LF.
  void PutControl(std::string const &name, std::string const &module, std::string const &lines = "") const {
    PutFile("control/" + name + "-Control", ControlText(module, lines));
  }
  static std::string ControlText(std::string const &module, std::string const &lines = "") {
    return "Function: " + module + "\r\nControl-Type: Mail\r\nPriority: 1\r\n" + lines;
  }
  void PutMessage(std::string const &name) const {
    PutFile("messages/" + name + "-Header", "Subject: hello\r\n");
    PutFile("messages/" + name + "-Body", "body of " + name + "\r\n");
  }
  // Every file below the root by its relative path, to see that nothing was left or lost.
  std::vector<std::string> Files() const {
    std::vector<std::string> files;
    for (auto const &entry : std::filesystem::recursive_directory_iterator(root))
      if (!entry.is_directory()) files.push_back(entry.path().lexically_relative(root));
    std::sort(files.begin(), files.end());
    return files;
  }
};
