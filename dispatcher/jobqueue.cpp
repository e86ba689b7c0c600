#include "dispatcher/jobqueue.h"

void JobQueue::Add(std::string const &name, std::string const &function, int priority, bool fromScan) {
  auto &slot = _jobs[name];
  if (slot == nullptr) {
    slot = std::make_unique<Job>();
    slot->name = name;
    slot->function = function;
    slot->priority = priority;
    slot->fromScan = fromScan;
    _Enqueue(*slot);
    return;
  }
  Job &job = *slot;
  bool const same = job.function == function && job.priority == priority;
  switch (job.state) {
    case Job::State::kWaiting:
      if (same) return;  // told twice: it keeps its place
      _Unqueue(job);
      break;
    case Job::State::kDelayed:
      _delayed.erase({job.due, &job});
      break;
    case Job::State::kRunning:
      job.again = true;
      break;
  }
  job.function = function;
  job.priority = priority;
  if (job.state != Job::State::kRunning) _Enqueue(job);
}

void JobQueue::Requeue(Job &job) {
  job.again = false;
  _Enqueue(job);
}

void JobQueue::Delay(Job &job, Clock::time_point due) {
  job.again = false;
  job.state = Job::State::kDelayed;
  job.due = due;
  _delayed.insert({due, &job});
}

bool JobQueue::Finish(Job &job) {
  if (job.again) {
    job.failures = 0;
    Requeue(job);
    return true;
  }
  _jobs.erase(std::string(job.name));  // a copy: the key given to erase must outlive the job that holds it
  return false;
}

void JobQueue::WakeDue(Clock::time_point now) {
  while (!_delayed.empty() && _delayed.begin()->first <= now) {
    Job &job = *_delayed.begin()->second;
    _delayed.erase(_delayed.begin());
    _Enqueue(job);
  }
}

size_t JobQueue::WaitingFor(std::string const &function) const {
  auto const line = _lines.find(function);
  return line == _lines.end() ? 0 : line->second.size();
}

Clock::time_point JobQueue::NextDue() const {
  return _delayed.empty() ? Clock::time_point::max() : _delayed.begin()->first;
}

void JobQueue::_Enqueue(Job &job) {
  job.state = Job::State::kWaiting;
  job.order = _nextOrder++;
  _lines[job.function].emplace(std::pair(job.priority, job.order), &job);
  ++_waiting;
}

void JobQueue::_Unqueue(Job &job) {
  auto const line = _lines.find(job.function);
  line->second.erase({job.priority, job.order});
  if (line->second.empty()) _lines.erase(line);
  --_waiting;
}
