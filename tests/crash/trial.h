// tests/crash/trial.h - one story, tried again and again with something going wrong each time.
#pragma once
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tests/crash/calls.h"
#include "tests/crash/disk.h"
#include "tests/crash/judge.h"
#include "tests/crash/site.h"
#include "tests/crash/smalldisk.h"
#include "tests/crash/witness.h"

// What was tried.
struct SCounts {
  long kills = 0;          // processes killed in front of a call
  long recoveryKills = 0;  // the same, of a recovery
  long states = 0;         // trees that a power cut may leave
  long strictStates = 0;   // those of them that only a file system without order allows
  long failures = 0;       // calls that were made to fail
  long fullDisks = 0;      // processes that found the disk full
  long allocations = 0;    // allocations that were made to fail
  long cramped = 0;        // processes with little address space
  long flushes = 0;        // flushing operations left out
  long needless = 0;       // those of them that nothing depended on: a finding
  long witnessed = 0;      // changes and flushes that the kernel saw
  long steps = 0;          // of the story, done with nothing going wrong
};
struct SCountRow {
  char const *what;
  long SCounts::*count;
};
inline constexpr SCountRow kCounts[] = {
    {"kills", &SCounts::kills},
    {"kills of a recovery", &SCounts::recoveryKills},
    {"states", &SCounts::states},
    {"of them without order", &SCounts::strictStates},
    {"failed calls", &SCounts::failures},
    {"full disks", &SCounts::fullDisks},
    {"refused allocations", &SCounts::allocations},
    {"small address spaces", &SCounts::cramped},
    {"flushes left out", &SCounts::flushes},
    {"of them needless", &SCounts::needless},
    {"changes witnessed", &SCounts::witnessed},
    {"steps", &SCounts::steps},
};

struct STally {
  SCounts counts;
  bool isPossible = true;  // false: this build or machine can't do it
  SVerdict verdict;
};

class STrial {
public:
  STrial(Site &site, SScenario const &scenario, bool isLong, bool isVerbose);

  // Each returns what it found. The story itself, with nothing going wrong, comes first with all of them.
  STally GoWell();           // no more than that
  STally KillEverywhere();   // each process of the story ends in front of each of its calls
  STally CutPower();         // at each moment, in all ways that the disk may then look
  STally FailCalls();        // each call fails in each way that it can
  STally FillDisk();         // the disk has room for so many pages or files and no more
  STally FailAllocations();  // each allocation fails, or the address space is too small
  STally LeaveFlushesOut();  // each flush is taken away, and must be missed
  STally CallWitness();      // nothing goes wrong; calls that go around calls.cpp are found

private:
  struct Stage {  // a step of the story, as it goes when nothing goes wrong
    SDiskImage before;
    std::uint64_t notesBefore, notesAfter;
    std::vector<SCallBoard::Traced> trace;
  };

  void _Rehearse();
  int _RunChild(std::function<void()> const &body, SWitness *witness = nullptr);
  void _GoBackTo(size_t step);
  int _RunStep(size_t step, SCallPlan const &plan, bool record = false);
  SVerdict _Settle(std::uint64_t notes, bool callsFailed = false);
  SVerdict _JudgeAfter(std::string const &what, std::uint64_t notes);
  void _Blame(SVerdict &verdict, std::string const &what) const;
  void _KillRecovery(STally &tally, std::string const &what, std::uint64_t notes);
  void _FailCall(STally &tally, size_t step, long call, size_t error, bool onwards);
  int _RunStarved(size_t step, long at, bool onwards);
  void _RunCramped(STally &tally, size_t step, long room);
  void _RunShortOfDisk(STally &tally, SSmallDisk &disk, size_t step, long pages, long files);
  SPowerCut::Effort _Effort() const;

  Site &_site;
  SScenario const &_scenario;
  bool _isLong, _isVerbose;
  std::vector<Stage> _stages;
  std::vector<SFileOperation> _operations;
  STally _rehearsal;
};
