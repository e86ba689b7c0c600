// tests/store/process.h - a second process for tests of locks and of what one process sees of another.
#pragma once
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <functional>
#include <string>

// A forked child that runs a body and ends with its result. Both sides can Tell and Hear one-byte signals.
class Peer {
public:
  explicit Peer(std::function<int(Peer &)> const &body) {
    int down[2], up[2];
    if (pipe(down) != 0 || pipe(up) != 0) abort();
    _pid = fork();
    if (_pid < 0) abort();
    _in = _pid == 0 ? down[0] : up[0];
    _out = _pid == 0 ? up[1] : down[1];
    close(_pid == 0 ? down[1] : up[1]);
    close(_pid == 0 ? up[0] : down[0]);
    if (_pid == 0) _exit(body(*this));
  }
  Peer(Peer const &) = delete;
  ~Peer() {
    if (_pid > 0) (void)Result();
    close(_in);
    close(_out);
  }

  void Tell() { EXPECT_EQ(write(_out, "!", 1), 1); }
  bool Hear() {
    char c;
    return read(_in, &c, 1) == 1;
  }
  // Waits until the child sleeps in a system call: on a lock, or in Hear.
  void WaitUntilBlocked() const {
    for (char state = 0; state != 'S' && state != 'Z';) {
      std::ifstream stat("/proc/" + std::to_string(_pid) + "/stat");
      std::string text;
      std::getline(stat, text);
      size_t const name = text.rfind(')');
      state = name == std::string::npos ? 'Z' : text[name + 2];
    }
  }
  void Kill() { kill(_pid, SIGKILL); }
  // The child's result, or minus the signal that ended it.
  int Result() {
    int status = 0;
    if (_pid <= 0 || waitpid(_pid, &status, 0) != _pid) return -1000;
    _pid = 0;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }

private:
  pid_t _pid;
  int _in;
  int _out;
};
