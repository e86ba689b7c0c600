// tests/crash/judge.h - what became of all mail that was accepted, as it can be read from the files.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "tests/crash/disk.h"
#include "tests/crash/site.h"

struct SVerdict {
  long lost = 0;                  // recipients who have neither the message nor an error record
  long partial = 0;               // messages that are there in part, for a reader or for another host
  long stranded = 0;              // files that nothing will ever look at again
  long wrong = 0;                 // anything else that must not be: a damaged store, a valid recipient called unknown
  long duplicates = 0;            // copies beyond the first
  std::vector<std::string> what;  // a line for each but the duplicates

  bool IsGood() const { return lost + partial + stranded + wrong == 0; }
  void Add(SVerdict const &other);
};

// A tree at rest, after all that could run has run. The mails with a bit in notes were accepted; `said` is what the
// processes complained of. Where calls have failed an error report may stand for
// the message, and archives may miss a copy.
SVerdict Judge(SDiskImage const &tree, SScenario const &scenario, std::uint64_t notes, std::string const &said,
               bool callsFailed);
