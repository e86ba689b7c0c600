// dispatcher/process.h - one running module process and how it is started.
#pragma once
#include <sys/types.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "dispatcher/jobqueue.h"

// How a module process is used.
enum class ProcessKind {
  kOneShot,  // "MessageFile" NAME: one message, its exit code is the answer
  kServe,    // "Serve": a name a line on its standard input, a code a line on its standard output
  kWalk,     // "ProcessQueue": walks the module's deferred queue
};

// Owns the two pipe ends of a serving process; the process itself is reaped by the dispatcher.
class ModuleProcess {
public:
  // Starts executable `path` as module `function`, with `environment` (NAME=VALUE) and, for a single message, its
  // name. posix_spawn does not copy this process, so its size costs nothing. Null with errno when it can't be started.
  static std::unique_ptr<ModuleProcess> Start(ProcessKind kind, std::string const &path, std::string const &function,
                                              std::string const &message, std::vector<std::string> environment);
  ~ModuleProcess();
  ModuleProcess(ModuleProcess const &) = delete;
  ModuleProcess &operator=(ModuleProcess const &) = delete;

  bool Give(Job &job);  // hands a name to an idle serving process; false when its pipe is closed
  // Reads what a serving process has written. True when the answer to the job in hand is complete: code has it.
  bool ReadAnswer(int &code);
  void Retire();  // closes its standard input: it ends after the message in hand
  bool Retired() const { return _input < 0; }

  ProcessKind kind = ProcessKind::kOneShot;
  pid_t pid = -1;
  std::string function;
  Job *job = nullptr;            // in hand; null while idle, and for a walk
  Clock::time_point since = {};  // start of the message in hand, or of idleness
  unsigned served = 0;           // answers so far
  int Output() const { return _output; }

private:
  ModuleProcess() = default;
  int _input = -1;   // its standard input
  int _output = -1;  // its standard output
  std::string _answer;
};
