#include "tests/crash/trial.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <span>
#include <string_view>

#include "brenthaven/accounts/check.h"
#include "brenthaven/mailbox/mailboxdeliver.h"
#include "brenthaven/platform/registry.h"
#include "brenthaven/recovery/recovery.h"
#include "tests/crash/memory.h"

namespace {

constexpr int kNoWitness = 125;              // code of a process that could not be followed
constexpr unsigned kPatience = 120;          // seconds until a process counts as hanging
constexpr long kSecondKillEvery = 20;        // of so many states, one has its recovery killed too
constexpr size_t kStatesShort = 300;         // of a power cut, in the short form
constexpr long kFailShort = 4;               // of so many calls one is made to fail, in the short form
constexpr long kRoomForPassing = 8;          // pages, or files, that a step may need and give back
constexpr long kRoomStride = 3;              // between two sizes of a disk, in the short form
constexpr long kAllocationsAll = 5000;       // up to here each allocation fails in turn
constexpr long kAllocationsStride = 17;      // and behind it each so-and-so-many
constexpr long kMostAddressSpace = 1 << 21;  // bytes that a step gets at most, where it may not have all
constexpr long kSpaceStep = 1 << 14;
constexpr long kSpaceStepShort = 1 << 18;

std::string Described(int status) {
  return WIFSIGNALED(status) ? "signal " + std::to_string(WTERMSIG(status))
                             : "code " + std::to_string(WEXITSTATUS(status));
}

// A process that meets an error ends by itself; one that is refused memory may also give up by abort.
void BlameSignal(SVerdict &verdict, int status, bool mayAbort = false) {
  if (!WIFSIGNALED(status) || (mayAbort && WTERMSIG(status) == SIGABRT)) return;
  ++verdict.wrong;
  verdict.what.push_back("ended with " + Described(status));
}

// What this process has mapped by now, in bytes.
rlim_t AddressSpace() {
  std::ifstream file("/proc/self/statm");
  rlim_t pages = 0;
  if (!(file >> pages)) abort();
  return pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE));
}

bool IsFlush(std::string_view call) { return call == "fsync" || call == "fdatasync" || call == "syncfs"; }

// What was counted in the process itself of what a witness sees from outside.
std::vector<std::string> ChangesIn(SCallBoard const &board) {
  std::vector<std::string> changes;
  for (SCallBoard::Traced const &traced : std::span(board.trace, static_cast<size_t>(board.TracedCalls())))
    if (traced.changes || IsFlush(traced.name)) changes.emplace_back(traced.name);
  return changes;
}

// "" when both are the same.
std::string DifferenceOf(std::vector<std::string> const &outside, std::vector<std::string> const &inside) {
  auto const [seen, counted] = std::ranges::mismatch(outside, inside);
  if (seen == outside.end() && counted == inside.end()) return "";
  return "change " + std::to_string(seen - outside.begin() + 1) + " is " + (seen == outside.end() ? "none" : *seen) +
         " for the kernel and " + (counted == inside.end() ? "none" : *counted) + " inside";
}

}  // namespace

STrial::STrial(Site &site, SScenario const &scenario, bool isLong, bool isVerbose)
    : _site(site), _scenario(scenario), _isLong(isLong), _isVerbose(isVerbose) {
  _Rehearse();
}

// The wait status of a child that runs the body and ends.
int STrial::_RunChild(std::function<void()> const &body, SWitness *witness) {
  (void)fflush(nullptr);
  pid_t const pid = fork();
  if (pid < 0) abort();
  if (pid == 0) {
    if (!_isVerbose && dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDERR_FILENO) < 0) _exit(126);
    (void)alarm(kPatience);
    _site.Enter();
    if (witness != nullptr && !SWitness::Begin()) _exit(kNoWitness);
    body();
    calls::Stop();
    _exit(0);
  }
  if (witness != nullptr) return witness->Follow(pid);
  int status = 0;
  if (waitpid(pid, &status, 0) != pid) abort();
  return status;
}

// The tree and the counts as they are in front of a step.
void STrial::_GoBackTo(size_t step) {
  _stages[step].before.Put(_site.Root());
  _site.Board().Restart(_stages[step].notesBefore);
}

int STrial::_RunStep(size_t step, SCallPlan const &plan, bool record) {
  return _RunChild([&] {
    calls::Watch(_site.Board(), plan, record ? _site.Root() : "");
    _scenario.steps[step](_site);
  });
}

// The story as it goes when nothing goes wrong, with the tree in front of each step.
void STrial::_Rehearse() {
  SCallBoard &board = _site.Board();
  _site.Install().Put(_site.Root());
  if (int const status = _RunChild([&] { _scenario.prepare(_site); }); status != 0) abort();
  for (size_t step = 0; step < _scenario.steps.size(); ++step) {
    Stage stage{SDiskImage::Take(_site.Root()), board.notes, 0, {}};
    if (step == 0) {
      board.Clear();
      stage.notesBefore = 0;
    }
    board.calls = 0;
    if (_RunStep(step, {}, true) != 0) abort();
    stage.notesAfter = board.notes;
    stage.trace.assign(board.trace, board.trace + board.TracedCalls());
    _stages.push_back(std::move(stage));
  }
  _operations = calls::Recorded(board);
  _rehearsal.verdict = _JudgeAfter("with nothing going wrong", board.notes);
  for (size_t mail = 0; mail < _scenario.mails.size(); ++mail)
    if ((board.notes >> mail & 1) == 0) {
      ++_rehearsal.verdict.wrong;
      _rehearsal.verdict.what.push_back("not accepted with nothing going wrong: " + _scenario.mails[mail].subject);
    }
}

// Recovery, then all that can run runs to its end, then judgement.
SVerdict STrial::_Settle(std::uint64_t notes, bool callsFailed) {
  SCallBoard &board = _site.Board();
  board.text[0] = '\0';
  int const status = _RunChild([&] {
    SRecoveryReport const report = RecoverSpool({});
    if (report.failed > 0 || report.accountsFailed) _site.Problem("recovery failed");
    if (report.repaired > 0) _site.Problem("the accounts did not agree");
    _scenario.mend(_site);
    _site.Drain();
    _scenario.check(_site, notes);
    (void)CheckAccountFiles([&](SString const &fault) { _site.Problem("accounts: " + std::string(fault.View())); });
    if (std::string fault; RegCheckStore(fault) != ERROR_SUCCESS) _site.Problem("settings: " + fault);
    SMailboxDeliverModule mailboxes;
    if (mailboxes.LoadEnv()) mailboxes.ComputeSizes();
  });
  if (status != 0) board.Say("what ran afterwards ended with " + Described(status));
  return Judge(SDiskImage::Take(_site.Root()), _scenario, notes, board.text, callsFailed);
}

void STrial::_Blame(SVerdict &verdict, std::string const &what) const {
  for (std::string &line : verdict.what) line.insert(0, std::string(_scenario.name) + ", " + what + ": ");
}

SVerdict STrial::_JudgeAfter(std::string const &what, std::uint64_t notes) {
  SVerdict verdict = _Settle(notes);
  _Blame(verdict, what);
  return verdict;
}

STally STrial::GoWell() {
  STally tally = _rehearsal;
  tally.counts.steps = static_cast<long>(_stages.size());
  return tally;
}

STally STrial::KillEverywhere() {
  STally tally = _rehearsal;
  for (size_t step = 0; step < _stages.size(); ++step) {
    Stage const &stage = _stages[step];
    for (long call = 1; call <= static_cast<long>(stage.trace.size()); ++call) {
      // Between two calls that change something the disk stays the same.
      if (!_isLong && !stage.trace[call - 1].changes) continue;
      _GoBackTo(step);
      (void)_RunStep(step, {SCallPlan::Act::kKill, call, 0, false});
      std::uint64_t const notes = _site.Board().notes;
      std::string const what = "step " + std::to_string(step) + " killed at call " + std::to_string(call) + ", " +
                               stage.trace[call - 1].name;
      tally.counts.kills += _site.Board().acted;  // a run may make a call less than the one before
      if (tally.counts.kills % kSecondKillEvery == 0) _KillRecovery(tally, what, notes);
      tally.verdict.Add(_JudgeAfter(what, notes));
    }
  }
  return tally;
}

// Recovery of the tree as it stands is itself killed everywhere. The tree is the same afterwards.
void STrial::_KillRecovery(STally &tally, std::string const &what, std::uint64_t notes) {
  SDiskImage const tree = SDiskImage::Take(_site.Root());
  SCallBoard &board = _site.Board();
  auto const recover = [&](SCallPlan const &plan) {
    tree.Put(_site.Root());
    board.Restart(notes);
    (void)_RunChild([&] {
      calls::Watch(board, plan);
      (void)RecoverSpool({});
    });
  };
  recover({});
  std::vector<SCallBoard::Traced> const trace(board.trace, board.trace + board.TracedCalls());
  for (long call = 1; call <= static_cast<long>(trace.size()); ++call) {
    if (!trace[call - 1].changes) continue;
    recover({SCallPlan::Act::kKill, call, 0, false});
    tally.counts.recoveryKills += board.acted;
    tally.verdict.Add(_JudgeAfter(what + ", and recovery at its call " + std::to_string(call), notes));
  }
  tree.Put(_site.Root());
}

SPowerCut::Effort STrial::_Effort() const {
  SPowerCut::Effort effort;
  if (_isLong) {
    effort.wholeChoice = 10;
    effort.randomChoices = 200;
  } else {
    effort.mostStates = kStatesShort;
  }
  return effort;
}

STally STrial::CutPower() {
  STally tally = _rehearsal;
  SPowerCut power(_stages.front().before, _operations);
  for (size_t i = 0; _isVerbose && i < _operations.size(); ++i) printf("%s\n", power.Described(i).c_str());
  (void)power.Enumerate(_Effort(), [&](SDiskImage const &tree, std::uint64_t notes) {
    tree.Put(_site.Root());
    tally.verdict.Add(_JudgeAfter("power cut " + power.Where(), notes));
    return true;
  });
  tally.counts.states = power.States();
  tally.counts.strictStates = power.StrictStates();
  return tally;
}

// Without one flush there must be a state in which something is lost: otherwise nothing is gained by it.
STally STrial::LeaveFlushesOut() {
  STally tally = _rehearsal;
  SPowerCut power(_stages.front().before, _operations);
  for (size_t i = 0; i < _operations.size(); ++i) {
    SFileOperation::Kind const kind = _operations[i].kind;
    if (kind != SFileOperation::Kind::kFlushFile && kind != SFileOperation::Kind::kFlushDirectory &&
        kind != SFileOperation::Kind::kFlushAll)
      continue;
    SPowerCut::Effort effort;
    effort.withoutFlush = static_cast<long>(i);
    ++tally.counts.flushes;
    bool const isNeedless = power.Enumerate(effort, [&](SDiskImage const &tree, std::uint64_t notes) {
      tree.Put(_site.Root());
      return _Settle(notes).IsGood();
    });
    if (!isNeedless) continue;
    ++tally.counts.needless;
    printf("  %s: nothing depends on %s\n", _scenario.name, power.Described(i).c_str());
  }
  return tally;
}

void STrial::_FailCall(STally &tally, size_t step, long call, size_t error, bool onwards) {
  Stage const &stage = _stages[step];
  _GoBackTo(step);
  int const status = _RunStep(step, {SCallPlan::Act::kFail, call, kErrors[error].error, onwards});
  std::uint64_t const notes = _site.Board().notes;
  std::string const what = "step " + std::to_string(step) + ", call " + std::to_string(call) + ", " +
                           stage.trace[call - 1].name + " " + stage.trace[call - 1].path + " gives " +
                           kErrors[error].name + (onwards ? " from there on" : "");
  tally.counts.failures += _site.Board().acted;
  SVerdict verdict = _Settle(notes, true);
  BlameSignal(verdict, status);
  bool const isInvisible = kErrors[error].error == EINTR || kErrors[error].error == SCallPlan::kShortWrite;
  if (isInvisible && !onwards && notes != stage.notesAfter) {
    ++verdict.wrong;
    verdict.what.push_back("a call that only has to be made again was taken as a failure");
  }
  _Blame(verdict, what);
  tally.verdict.Add(verdict);
}

STally STrial::FailCalls() {
  STally tally = _rehearsal;
  long seen = 0;
  for (size_t step = 0; step < _stages.size(); ++step)
    for (long call = 1; call <= static_cast<long>(_stages[step].trace.size()); ++call) {
      SCallBoard::Traced const &traced = _stages[step].trace[call - 1];
      std::vector<size_t> possible;
      for (size_t error = 0; error < kCallErrors; ++error)
        if ((traced.errors >> error & 1) != 0) possible.push_back(error);
      if (possible.empty()) continue;
      if (!_isLong) {  // one way a call, and a disk that stays full
        if (++seen % kFailShort != 0) continue;
        _FailCall(tally, step, call, possible[static_cast<size_t>(seen / kFailShort) % possible.size()], false);
        if (traced.changes && (traced.errors & 1) != 0) _FailCall(tally, step, call, 0, true);
        continue;
      }
      for (size_t const error : possible) {
        _FailCall(tally, step, call, error, false);
        // A call that is interrupted for ever never ends, and is not meant to.
        if (kErrors[error].error != EINTR && kErrors[error].error != SCallPlan::kShortWrite)
          _FailCall(tally, step, call, error, true);
      }
    }
  return tally;
}

void STrial::_RunShortOfDisk(STally &tally, SSmallDisk &disk, size_t step, long pages, long files) {
  disk.LeaveAll();
  _GoBackTo(step);
  disk.Leave(pages, files);
  int const status = _RunStep(step, {});
  disk.LeaveAll();
  ++tally.counts.fullDisks;
  SVerdict verdict = _Settle(_site.Board().notes, true);
  BlameSignal(verdict, status);
  _Blame(verdict, "step " + std::to_string(step) + " with room for " + std::to_string(pages) + " pages and " +
                      std::to_string(files) + " files");
  tally.verdict.Add(verdict);
}

// What a step needs at most is not known, since it also removes files; what it leaves, and some more, comes near it.
STally STrial::FillDisk() {
  STally tally = _rehearsal;
  SSmallDisk disk(std::filesystem::path(_site.Root()).parent_path());
  tally.isPossible = disk.IsMounted();
  if (!tally.isPossible) return tally;
  for (size_t step = 0; step < _stages.size(); ++step) {
    _stages[step].before.Put(_site.Root());
    long const pages = disk.UsedPages(), files = disk.UsedFiles();
    (void)_RunStep(step, {});
    long const mostPages = std::max(0L, disk.UsedPages() - pages) + kRoomForPassing;
    long const mostFiles = std::max(0L, disk.UsedFiles() - files) + kRoomForPassing;
    long const stride = _isLong ? 1 : kRoomStride;
    for (long left = 0; left < mostPages; left += stride) _RunShortOfDisk(tally, disk, step, left, SSmallDisk::kAll);
    for (long left = 0; left < mostFiles; left += stride) _RunShortOfDisk(tally, disk, step, SSmallDisk::kAll, left);
  }
  return tally;
}

// The wait status of a step with allocation number `at` refused, or none for 0. The board has how many there were, when
// it came to its end.
int STrial::_RunStarved(size_t step, long at, bool onwards) {
  SCallBoard &board = _site.Board();
  _GoBackTo(step);
  return _RunChild([&] {
    calls::Watch(board, {});
    memory::Watch(at, onwards);
    _scenario.steps[step](_site);
    board.calls = memory::Count();
  });
}

// One run of a step in an address space that can grow by so many bytes.
void STrial::_RunCramped(STally &tally, size_t step, long room) {
  _GoBackTo(step);
  int const status = _RunChild([&] {
    struct rlimit const limit = {AddressSpace() + static_cast<rlim_t>(room), RLIM_INFINITY};
    if (setrlimit(RLIMIT_AS, &limit) != 0) abort();
    calls::Watch(_site.Board(), {});
    _scenario.steps[step](_site);
  });
  ++tally.counts.cramped;
  SVerdict verdict = _Settle(_site.Board().notes, true);
  BlameSignal(verdict, status, true);
  _Blame(verdict, "step " + std::to_string(step) + " with " + std::to_string(room) + " bytes of address space more");
  tally.verdict.Add(verdict);
}

STally STrial::FailAllocations() {
  STally tally = _rehearsal;
  tally.isPossible = memory::IsSupported();
  if (!tally.isPossible) return tally;
  for (size_t step = 0; step < _stages.size(); ++step) {
    (void)_RunStarved(step, 0, false);
    long const count = _site.Board().calls;
    for (bool const onwards : {false, true})
      for (long at = 1; at <= count; at += _isLong && at < kAllocationsAll ? 1 : kAllocationsStride) {
        int const status = _RunStarved(step, at, onwards);
        ++tally.counts.allocations;
        SVerdict verdict = _Settle(_site.Board().notes, true);
        BlameSignal(verdict, status, true);
        _Blame(verdict, "step " + std::to_string(step) + ", allocation " + std::to_string(at) +
                            (onwards ? " and all behind it" : "") + " refused");
        tally.verdict.Add(verdict);
      }
    for (long room = 0; room < kMostAddressSpace; room += _isLong ? kSpaceStep : kSpaceStepShort)
      _RunCramped(tally, step, room);
  }
  return tally;
}

// Each step once more, with the same calls counted from inside and from outside.
STally STrial::CallWitness() {
  STally tally = _rehearsal;
  for (size_t step = 0; step < _stages.size(); ++step) {
    _GoBackTo(step);
    SWitness witness;
    int const status = _RunChild(
        [&] {
          calls::Watch(_site.Board(), {});
          _scenario.steps[step](_site);
        },
        &witness);
    tally.isPossible = status != kNoWitness << 8;
    if (!tally.isPossible) return tally;
    tally.counts.witnessed += static_cast<long>(witness.Seen().size());
    SVerdict verdict;
    if (status != 0) verdict.what.push_back("ended with " + Described(status));
    if (std::string const difference = DifferenceOf(witness.Seen(), ChangesIn(_site.Board())); !difference.empty())
      verdict.what.push_back(difference);
    verdict.wrong = static_cast<long>(verdict.what.size());
    _Blame(verdict, "step " + std::to_string(step));
    tally.verdict.Add(verdict);
  }
  return tally;
}
