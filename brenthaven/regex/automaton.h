// brenthaven/regex/automaton.h - a POSIX extended regular expression as a small program of steps.
//
// A match follows the program from its first step; kSplit goes on at two places, the preferred one first. Targets are
// relative to the step itself, so that what a bound repeats is copied as it is.
#pragma once
#include <bitset>
#include <string>
#include <string_view>
#include <vector>

using SByteSet = std::bitset<256>;

struct SStep {
  enum Kind : unsigned char {
    kByte,       // the byte value
    kSet,        // a byte of sets[value]
    kAny,        // any byte
    kSplit,      // goes on at first and at second
    kJump,       // goes on at first
    kSave,       // notes the place: 2 * group for the start of a group, one more for its end
    kBegin,      // only at the start of the text
    kEnd,        // only at its end
    kWordBegin,  // only where a word begins
    kWordEnd,
    kMatch,  // the end of the program
  };
  Kind kind;
  int value = 0;
  int first = 1;
  int second = 0;
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
  kTooLarge = 12,  // more than kMaxSteps once the bounds are multiplied out
  kBadRepetition = 13,
  kEmpty = 14,
};
char const *RegexErrorText(int error);

// What POSIX leaves undefined: a repetition of nothing or of a repetition is refused ("*", "a**"); a backslash before
// any byte means that byte, digits too, so that there are no back references; "{" without a digit behind it is a byte;
// an empty alternative matches nothing. Collating elements are single bytes.
struct SAutomaton {
  static constexpr size_t kMaxSteps = 20000;

  SAutomaton(std::string_view expression, bool ignoreCase);

  int error = kRegexOk;
  std::vector<SStep> steps;
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
