// brenthaven/regex/program.h - runs of a compiled expression over texts; SRegex is the face of it.
#pragma once
#include <string_view>
#include <vector>

#include "brenthaven/regex/automaton.h"
#include "brenthaven/regex/sregex.h"

// All ways through the automaton are followed at once, byte by byte, so that a run takes at most the number of its steps
// for each byte, and never looks at a byte twice. Among the matches the one that starts first wins, and of those the
// longest. The groups are those of the most eager way to it: earlier alternatives and longer repetitions first.
class SRegexProgram {
public:
  static constexpr int kMaxSlots = 10;  // that a run fills: the whole match and nine groups

  SRegexProgram(std::string_view expression, bool ignoreCase) : _automaton(expression, ignoreCase) {}

  int Status() const { return _automaton.error; }
  int Groups() const { return _automaton.groups; }
  // The match at or after start. Slots of groups that took no part, and all of them when there is no match, read -1.
  bool Run(std::string_view text, size_t start, match_info (&slots)[kMaxSlots]) const;

private:
  class Simulation;
  // Memory of a run, kept for the next one. One object serves one run at a time.
  struct Threads {
    std::vector<int> steps;   // where each way stands, the most eager first
    std::vector<int> places;  // its slots, all of one way together
    std::vector<int> member;  // for each step, where in the list it stands, if it does
  };
  struct Memory {
    Threads now;
    Threads next;
    std::vector<int> work;
  };

  bool _RunBytes(std::string_view text, size_t start, match_info &match) const;

  SAutomaton _automaton;
  mutable Memory _memory;
};
