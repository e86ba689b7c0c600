// brenthaven/regex/automaton.h - a POSIX extended regular expression as a table of states.
//
// A state stands for one byte or bracket of the expression, copies that a bound makes included, and takes one byte of
// the text. Its edges lead to all that can follow it, the most eager way first: earlier alternatives, longer
// repetitions. State 0 takes nothing and is where a match begins.
#pragma once
#include <bitset>
#include <string>
#include <string_view>
#include <vector>

using SByteSet = std::bitset<256>;

struct SEdge {
  enum Condition : unsigned { kAtBegin = 1, kAtEnd = 2, kAtWordBegin = 4, kAtWordEnd = 8 };
  static constexpr int kMatch = -1;

  int target;           // a state, or kMatch
  unsigned conditions;  // of the place between the two bytes; all must hold
  unsigned marks;       // slots that note this place: bit 2 * group for its start, the next one for its end
};

struct SState {
  int set;  // the bytes that it takes
  int firstEdge;
  int endEdge;
};

// What regcomp gives for an expression that it refuses, by its traditional numbers.
enum SRegexError {
  kRegexOk = 0,
  kBadCollation = 3,
  kBadClass = 4,
  kBadEscape = 5,
  kOpenBracket = 7,
  kOpenGroup = 8,
  kOpenBrace = 9,
  kBadBound = 10,
  kBadRange = 11,
  kTooLarge = 12,  // the limits below
  kBadRepetition = 13,
  kEmpty = 14,
};
char const *RegexErrorText(int error);

// What POSIX leaves undefined: a repetition of nothing or of a repetition is refused ("*", "a**"); a backslash before
// any byte means that byte, digits too, so that there are no back references; "{" without a digit behind it is a byte;
// an empty alternative matches nothing. Collating elements are single bytes.
struct SAutomaton {
  static constexpr size_t kMaxSteps = 20000;   // bytes, brackets and operators once the bounds are multiplied out
  static constexpr size_t kMaxEdges = 200000;  // and steps passed over to find them ten times as many
  static constexpr int kMarkedGroups = 10;     // the whole match and nine groups

  SAutomaton(std::string_view expression, bool ignoreCase);

  int error = kRegexOk;
  std::vector<SState> states;
  std::vector<SEdge> edges;
  std::vector<SByteSet> sets;
  int groups = 0;

  // What is known of every match.
  bool isAnchored = false;    // begins with "^": it begins at the start of the text
  bool canBeEmpty = false;    // then firstBytes says nothing
  SByteSet firstBytes;        // that it can begin with
  std::string prefix;         // that it begins with, behind the "^" if there is one
  bool isPlainBytes = false;  // the expression is "^" (isAnchored), prefix and "$" (isAtEnd), and nothing else
  bool isAtEnd = false;
};
