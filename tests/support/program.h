// tests/support/program.h - runs a real program to its end: what went in, what came out, and what it took.
#pragma once
#include <spawn.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

struct ProgramRun {
  int code = -1;           // exit code; 128 and its number for a signal; -1 when it could not be started
  std::string out, err;    // standard output and standard error
  long peakKilobytes = 0;  // the most memory it held at once
};

// Bytes that a program reads or writes without a pipe, so that neither side ever waits for the other.
class MemoryFile {
public:
  explicit MemoryFile(std::string const &bytes = "") : _fd(memfd_create("stream", MFD_CLOEXEC)) {
    size_t done = 0;
    for (ssize_t got; done < bytes.size(); done += static_cast<size_t>(got))
      if ((got = pwrite(_fd, bytes.data() + done, bytes.size() - done, static_cast<off_t>(done))) <= 0) abort();
  }
  MemoryFile(MemoryFile const &) = delete;
  ~MemoryFile() { close(_fd); }
  int Get() const { return _fd; }
  std::string Bytes() const {
    std::string bytes(static_cast<size_t>(lseek(_fd, 0, SEEK_END)), '\0');
    if (pread(_fd, bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) abort();
    return bytes;
  }

private:
  int _fd;
};

// A program that runs, with the environment of this process. args[0] is the name that it sees itself called by.
class Program {
public:
  Program(std::string const &path, std::vector<std::string> args, std::string const &input = "") : _in(input) {
    std::vector<char *> argv;
    for (std::string &arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t streams;
    posix_spawn_file_actions_init(&streams);
    posix_spawn_file_actions_adddup2(&streams, _in.Get(), STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&streams, _out.Get(), STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&streams, _err.Get(), STDERR_FILENO);
    if (posix_spawn(&_pid, path.c_str(), &streams, nullptr, argv.data(), environ) != 0) _pid = -1;
    posix_spawn_file_actions_destroy(&streams);
  }
  ProgramRun Wait() {
    ProgramRun run;
    struct rusage used = {};
    int status = 0;
    if (_pid < 0 || wait4(_pid, &status, 0, &used) != _pid) return run;
    run.code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    run.out = _out.Bytes();
    run.err = _err.Bytes();
    run.peakKilobytes = used.ru_maxrss;
    return run;
  }

private:
  MemoryFile _in, _out, _err;
  pid_t _pid = -1;
};

inline ProgramRun RunProgram(std::string const &path, std::vector<std::string> const &args,
                             std::string const &input = "") {
  return Program(path, args, input).Wait();
}
