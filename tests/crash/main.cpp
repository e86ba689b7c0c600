// tests/crash/main.cpp - shows that nothing is lost: crash [--long] [--verbose] [--jobs N] WAY... [STORY...]
//
// Ways: kill, power, fail, memory, flush, full, witness, well; without one kill, power and fail. Stories: by name;
// without one all of them. Each pair is a job of its own. Ends with a line of totals, and with 1 when anything was
// found.
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "tests/crash/memory.h"
#include "tests/crash/trial.h"

namespace {

struct WayRow {
  char const *name;
  STally (STrial::*run)();
};
constexpr WayRow kWays[] = {
    {"kill", &STrial::KillEverywhere},    {"power", &STrial::CutPower},
    {"fail", &STrial::FailCalls},         {"full", &STrial::FillDisk},
    {"memory", &STrial::FailAllocations}, {"flush", &STrial::LeaveFlushesOut},
    {"witness", &STrial::CallWitness},    {"well", &STrial::GoWell},
};
constexpr size_t kUsualWays = 3;

struct Options {
  bool isLong = false, isVerbose = false;
  long jobs = sysconf(_SC_NPROCESSORS_ONLN);
  std::vector<WayRow const *> ways;
  std::vector<SScenario const *> stories;
};

// What a job leaves for the parent: numbers alone.
struct Numbers {
  SCounts counts;
  long lost, partial, stranded, wrong, duplicates;
  bool isPossible, isDone;
};

Numbers NumbersOf(STally const &tally) {
  SVerdict const &verdict = tally.verdict;
  return {tally.counts,  verdict.lost,       verdict.partial,  verdict.stranded,
          verdict.wrong, verdict.duplicates, tally.isPossible, true};
}

// A job that tried nothing has shown nothing.
bool IsGood(Numbers const &n) {
  bool const hasTried = std::ranges::any_of(kCounts, [&](SCountRow const &row) { return n.counts.*row.count > 0; });
  return n.isDone && (hasTried || !n.isPossible) && n.lost + n.partial + n.stranded + n.wrong + n.counts.needless == 0;
}

constexpr size_t kFindingsTold = 12;

int RunJob(Options const &options, WayRow const &way, SScenario const &story, Numbers &numbers) {
  auto const start = std::chrono::steady_clock::now();
  SCallBoard &board = SCallBoard::Make();
  Site site(board);
  STrial trial(site, story, options.isLong, options.isVerbose);
  STally const tally = (trial.*way.run)();
  numbers = NumbersOf(tally);
  double const seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  std::string out = std::string(way.name) + " " + story.name + ":";
  for (SCountRow const &row : kCounts)
    if (numbers.counts.*row.count > 0)
      out.append(" ").append(std::to_string(numbers.counts.*row.count)).append(" ").append(row.what).append(",");
  if (!numbers.isPossible) out += " not possible with this build on this machine,";
  char line[256];
  (void)snprintf(line, sizeof line, " %ld lost, %ld partial, %ld stranded, %ld wrong, %ld duplicates, %.1f s\n",
                 numbers.lost, numbers.partial, numbers.stranded, numbers.wrong, numbers.duplicates, seconds);
  out += line;
  std::vector<std::string> what = tally.verdict.what;
  (void)std::stable_partition(what.begin(), what.end(),
                              [](std::string const &finding) { return finding.find(": lost: ") != std::string::npos; });
  for (size_t i = 0; i < std::min(what.size(), kFindingsTold); ++i) out += "  " + what[i] + "\n";
  if (what.size() > kFindingsTold) out += "  and " + std::to_string(what.size() - kFindingsTold) + " more\n";
  (void)fwrite(out.data(), 1, out.size(), stdout);
  (void)fflush(stdout);
  return IsGood(numbers) ? 0 : 1;
}

bool ReadOptions(int argc, char **argv, Options &options) {
  for (int i = 1; i < argc; ++i) {
    std::string const word = argv[i];
    auto const way = std::ranges::find_if(kWays, [&](WayRow const &row) { return word == row.name; });
    auto const story =
        std::ranges::find_if(AllScenarios(), [&](SScenario const &scenario) { return word == scenario.name; });
    if (word == "--long")
      options.isLong = true;
    else if (word == "--verbose")
      options.isVerbose = true;
    else if (word == "--jobs" && i + 1 < argc)
      options.jobs = std::max(1L, strtol(argv[++i], nullptr, 10));
    else if (way != std::end(kWays))
      options.ways.push_back(way);
    else if (story != AllScenarios().end())
      options.stories.push_back(&*story);
    else
      return false;
  }
  if (options.ways.empty())
    for (size_t i = 0; i < kUsualWays; ++i) options.ways.push_back(&kWays[i]);
  if (options.stories.empty())
    for (SScenario const &scenario : AllScenarios()) options.stories.push_back(&scenario);
  return true;
}

}  // namespace

int main(int argc, char **argv) {
  Options options;
  if (!ReadOptions(argc, argv, options)) {
    (void)fprintf(stderr, "usage: %s [--long] [--verbose] [--jobs N] [WAY...] [STORY...]\n", argv[0]);
    return 64;
  }
  size_t const count = options.ways.size() * options.stories.size();
  void *const memory =
      mmap(nullptr, count * sizeof(Numbers), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) return 71;
  auto *const numbers = static_cast<Numbers *>(memory);
  long running = 0;
  for (size_t job = 0; job < count; ++job) {
    for (; running >= options.jobs; --running) (void)wait(nullptr);
    pid_t const pid = fork();
    if (pid < 0) return 71;
    if (pid == 0)
      exit(RunJob(options, *options.ways[job / options.stories.size()], *options.stories[job % options.stories.size()],
                  numbers[job]));
    ++running;
  }
  for (; running > 0; --running) (void)wait(nullptr);
  Numbers sum = {};
  bool isGood = true;
  for (size_t job = 0; job < count; ++job) {
    Numbers const &n = numbers[job];
    isGood = isGood && IsGood(n);
    for (SCountRow const &row : kCounts) sum.counts.*row.count += n.counts.*row.count;
    sum.lost += n.lost;
    sum.partial += n.partial;
    sum.stranded += n.stranded;
    if (!n.isDone)
      printf("a job did not end: %s %s\n", options.ways[job / options.stories.size()]->name,
             options.stories[job % options.stories.size()]->name);
  }
  printf("%ld kill points, %ld power-cut states, %ld failed calls: %ld lost, %ld partial, %ld stranded\n",
         sum.counts.kills + sum.counts.recoveryKills, sum.counts.states,
         sum.counts.failures + sum.counts.fullDisks + sum.counts.allocations + sum.counts.cramped, sum.lost,
         sum.partial, sum.stranded);
  return isGood ? 0 : 1;
}
