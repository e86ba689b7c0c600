// tests/history/history.h - processes that read and write one store while some of the writers are killed, and what they
// all saw of it.
//
// BRENTHAVEN_HISTORY_READS is the number of reads of each test, by default a few thousand; from 100,000 on writers are
// also killed from outside, at moments that only the clock knows. BRENTHAVEN_HISTORY_SEED repeats a run's choices.
#pragma once
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <new>
#include <random>
#include <set>
#include <string>

#include "tests/platform/callhook.h"

inline long FromEnvironment(char const *name, long otherwise) {
  char const *value = getenv(name);
  return value != nullptr && *value != '\0' ? atol(value) : otherwise;
}

// One counter as its writers know it: a section that is under way may count or not, one that ended well must.
struct SCounterLog {
  std::atomic<long> begun{0};
  std::atomic<long> ended{0};
};

// Memory that all the processes share, and the parent's loop over them.
class SHistory {
public:
  static constexpr int kCounters = 4;
  static constexpr int kReaders = 2;
  static constexpr int kWriters = 3;
  static constexpr long kLongRun = 100000;  // reads

  SHistory() : _shared(new (Map()) Shared) {}
  SHistory(SHistory const &) = delete;
  ~SHistory() { munmap(_shared, sizeof *_shared); }

  SCounterLog &Log(int counter) { return _shared->logs[counter]; }
  bool IsOver() const { return _shared->isOver; }
  long Sections() const {
    long sections = 0;
    for (SCounterLog const &log : _shared->logs) sections += log.ended;
    return sections;
  }
  int Kills() const { return _kills; }
  char const *FaultText() const { return _shared->fault; }

  // For readers, outside of any lock: whether to read once more. Every few reads they let a writer go first, who would
  // else wait for the moment when no reader holds the lock.
  bool TakeRead() {
    if (++_readsInARow >= kReadsInARow) {
      _readsInARow = 0;
      struct timespec const moment = {0, 100000};
      for (long const before = Sections(); Sections() == before && !IsOver();) nanosleep(&moment, nullptr);
    }
    return _shared->readsLeft.fetch_sub(1) > 0 && !IsOver();
  }
  // What was seen and must not be; the first one of all processes is kept, and ends the run. Always false.
  [[gnu::format(printf, 2, 3)]] bool Fault(char const *format, ...) {
    if (_shared->hasFault.exchange(true)) return false;
    va_list arguments;
    va_start(arguments, format);
    (void)vsnprintf(_shared->fault, sizeof _shared->fault, format, arguments);
    va_end(arguments);
    _shared->isOver = true;
    return false;
  }

  using Body = std::function<void(std::mt19937 &random)>;
  // Readers go on while TakeRead says so, writers until IsOver. A writer ends as by a crash at one of its first calls
  // of the file layer, and another one takes its place.
  void Run(long reads, Body const &writer, Body const &reader) {
    bool const isLong = reads >= kLongRun;
    _shared->readsLeft = reads;
    std::mt19937 random(static_cast<unsigned>(FromEnvironment("BRENTHAVEN_HISTORY_SEED", 1)));
    sigset_t child, before;
    sigemptyset(&child);
    sigaddset(&child, SIGCHLD);
    sigprocmask(SIG_BLOCK, &child, &before);
    for (int i = 0; i < kReaders; ++i) _readers.insert(_Start(reader, static_cast<unsigned>(random()), 0));
    for (int i = 0; i < kWriters; ++i) _StartWriter(writer, random);
    while (!_readers.empty() || !_writers.empty()) {
      struct timespec const patience = {isLong ? 0 : 5, isLong ? static_cast<long>(random() % 20000000) : 0};
      if (sigtimedwait(&child, nullptr, &patience) < 0 && isLong && !_writers.empty())
        kill(*std::next(_writers.begin(), static_cast<long>(random() % _writers.size())), SIGKILL);
      int status = 0;
      for (pid_t pid; (pid = waitpid(-1, &status, WNOHANG)) > 0;) _Ended(pid, status, writer, random);
    }
    sigprocmask(SIG_SETMASK, &before, nullptr);
    EXPECT_FALSE(_shared->hasFault) << _shared->fault;
    for (SCounterLog const &log : _shared->logs) EXPECT_LE(log.begun - log.ended, _kills);
    printf("%ld reads, %ld sections, %d writers killed\n", reads, Sections(), _kills);
  }

private:
  static constexpr int kReadsInARow = 10;
  static constexpr int kLongestLife = 700;  // calls; a section takes some 50

  struct Shared {
    std::atomic<long> readsLeft{0};
    std::atomic<bool> isOver{false};
    std::atomic<bool> hasFault{false};
    SCounterLog logs[kCounters];
    char fault[1000] = {};
  };

  static void *Map() {
    void *const area = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (area == MAP_FAILED) abort();
    return area;
  }

  pid_t _Start(Body const &body, unsigned seed, int crashAt) {
    fflush(nullptr);
    pid_t const pid = fork();
    if (pid < 0) abort();
    if (pid > 0) return pid;
    std::mt19937 random(seed);
    SCallHook hook("", crashAt, SCallHook::kCrash);
    body(random);
    _exit(0);
  }
  void _StartWriter(Body const &writer, std::mt19937 &random) {
    auto const seed = static_cast<unsigned>(random());
    _writers.insert(_Start(writer, seed, 1 + static_cast<int>(random() % kLongestLife)));
  }
  void _Ended(pid_t pid, int status, Body const &writer, std::mt19937 &random) {
    bool const isWriter = _writers.erase(pid) > 0;
    bool const isKilled = (WIFEXITED(status) && WEXITSTATUS(status) == SCallHook::kCrashCode) ||
                          (WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    _readers.erase(pid);
    if (isWriter && isKilled) ++_kills;
    if (!isKilled && (!WIFEXITED(status) || WEXITSTATUS(status) != 0)) Fault("a process ended with status %x", status);
    if (_readers.empty()) _shared->isOver = true;
    if (isWriter && !IsOver()) _StartWriter(writer, random);
  }

  Shared *_shared;
  std::set<pid_t> _readers;
  std::set<pid_t> _writers;
  int _kills = 0;
  int _readsInARow = 0;  // of this process
};
