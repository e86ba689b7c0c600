// brenthaven/regex/program.h - runs of a compiled expression over texts; SRegex is the face of it.
#pragma once
#include <string_view>
#include <vector>

#include "brenthaven/regex/automaton.h"
#include "brenthaven/regex/sregex.h"

// All ways through the automaton are followed at once, byte by byte, so that a run looks at each edge at most once for
// a byte, and never goes back. Among the matches the one that starts first wins, and of those the longest. The groups
// are those of the most eager way to it: earlier alternatives and longer repetitions first.
class SRegexProgram {
public:
  static constexpr int kMaxSlots = SAutomaton::kMarkedGroups;

  SRegexProgram(std::string_view expression, bool ignoreCase) : _automaton(expression, ignoreCase) {}

  int Status() const { return _automaton.error; }
  int Groups() const { return _automaton.groups; }
  // The match at or after start. Slots of groups that took no part, and all of them when there is no match, read -1.
  bool Run(std::string_view text, size_t start, match_info (&slots)[kMaxSlots]) const;

private:
  class Simulation;
  // The ways that are open at one byte, the most eager first: the state of each, which takes the byte, and its slots.
  struct Ways {
    int count = 0;
    std::vector<int> states;
    std::vector<int> slots;
  };
  // Memory of a run, kept for the next one: an object serves one run at a time.
  struct Memory {
    Ways now;
    Ways next;
    std::vector<unsigned long> seen;  // for each state, the stamp of the byte for which it was last opened
    unsigned long stamp = 0;
  };

  bool _RunBytes(std::string_view text, size_t start, match_info &match) const;

  SAutomaton _automaton;
  mutable Memory _memory;
};
