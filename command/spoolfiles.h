// command/spoolfiles.h - the control files of a spool, wherever they stand, and the modules that work on them.
#pragma once
#include <ctime>
#include <string>
#include <vector>

struct SpoolFile {
  std::string name;   // message name
  std::string path;   // of the control file
  std::string place;  // one of the words below, or "deferred:MODULE" with "/HOST" behind it
  time_t since;       // when the control file was last written
};
inline constexpr char kPlaceWaiting[] = "waiting";  // in control/: a module works on it or will be started
inline constexpr char kPlaceHeld[] = "held";        // in control/held: until somebody releases it
inline constexpr char kPlaceFailed[] = "failed";    // in control/failed: its module gave up on it

// Whether a place is one where a module holds messages for a person to decide (spool/returned.h): no walk takes them.
bool IsHoldingPlace(std::string const &place);

// All control files below the root, oldest first.
std::vector<SpoolFile> FindSpoolFiles(std::string const &root);

// Runs a module executable with one word as its argument and waits for its end: its exit code, 128 and the number for a
// signal, -1 when there is no such module.
int RunModuleProgram(std::string const &module, std::string const &word);
