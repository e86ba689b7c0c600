// dispatcher/jobqueue.h - every control file that the dispatcher knows of, and which one is next.
#pragma once
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>

using Clock = std::chrono::steady_clock;

// One control file that a module is to be started for, is running for, or will be tried for again.
struct Job {
  enum class State { kWaiting, kRunning, kDelayed };
  std::string name;
  std::string function;
  int priority = 0;
  State state = State::kWaiting;
  std::uint64_t order = 0;     // of arrival; first come, first served within one priority
  bool again = false;          // told of once more while it ran: the run may have missed what it was told of
  bool fromScan = false;       // found in the directory, not announced
  int failures = 0;            // runs in a row that died or could not read the control file
  Clock::time_point due = {};  // when a delayed job waits again
};

// Holds one job a name, so that no two runs of one control file can overlap. Jobs are owned by the queue and stay at
// their address until Finish.
class JobQueue {
public:
  // A control file was announced or found. A job that waits or is delayed waits now, with the function told last; a
  // running one is put back into the queue at its end.
  void Add(std::string const &name, std::string const &function, int priority, bool fromScan);
  // Marks the next job running, or gives null. `runnable` says for a function whether a process could be had for it
  // now; functions that it refuses are passed over, so that a busy module does not hold up the others.
  template <typename Runnable>
  Job *Take(Runnable const &runnable);

  void Requeue(Job &job);  // a running job waits again, behind the others of its priority
  void Delay(Job &job, Clock::time_point due);
  // The run is over. The job is forgotten, or waits again if it was announced while it ran: true then.
  bool Finish(Job &job);
  void WakeDue(Clock::time_point now);

  bool Knows(std::string const &name) const { return _jobs.count(name) != 0; }
  size_t WaitingFor(std::string const &function) const;
  size_t Waiting() const { return _waiting; }
  size_t Size() const { return _jobs.size(); }
  // When the first delayed job is due; the clock's maximum when there is none.
  Clock::time_point NextDue() const;

private:
  // Waiting jobs of one function, by priority and order of arrival.
  using Line = std::map<std::pair<int, std::uint64_t>, Job *>;
  void _Enqueue(Job &job);
  void _Unqueue(Job &job);

  std::unordered_map<std::string, std::unique_ptr<Job>> _jobs;
  std::map<std::string, Line> _lines;  // few functions; a line that became empty is removed
  std::set<std::pair<Clock::time_point, Job *>> _delayed;
  size_t _waiting = 0;
  std::uint64_t _nextOrder = 0;
};

template <typename Runnable>
Job *JobQueue::Take(Runnable const &runnable) {
  Job *best = nullptr;
  for (auto const &[function, line] : _lines) {
    Job *const first = line.begin()->second;
    if (best != nullptr && std::pair(best->priority, best->order) < std::pair(first->priority, first->order)) continue;
    if (runnable(function)) best = first;
  }
  if (best == nullptr) return nullptr;
  _Unqueue(*best);
  best->state = Job::State::kRunning;
  return best;
}
