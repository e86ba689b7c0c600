// tests/crash/calls.h - every call to the system that the code under test makes.
//
// A program that links calls.cpp has functions of its own for open, write, rename, fsync and the like. They stand in
// front of the C library's for all code in the process: ours, SQLite's and the B-tree engine's. What goes through them
// is counted, and one call can be singled out to end the process or to fail; what they do to files below one directory
// can be recorded. witness.h sees the same calls from outside, which shows that none goes around them.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// What shall happen to which call, by its number from 1 on.
struct SCallPlan {
  enum class Act { kNothing, kKill, kFail };
  Act act = Act::kNothing;
  long at = 0;
  int error = 0;         // kFail: becomes errno; kShortWrite: one byte less is written, without an error
  bool onwards = false;  // kFail: and every later call that can fail in this way

  static constexpr int kShortWrite = -1;
};

// One operation on a file or directory, with what a file system needs to know to do it again.
struct SFileOperation {
  enum class Kind : std::uint8_t {
    kMeet,       // a file that was there before is opened: from here on it has a number
    kCreate,     // a new file under a path
    kUnnamed,    // a new file without a name
    kWrite,      // bytes at an offset
    kSize,       // cut or extended
    kLink,       // a further name
    kRename,     // path to target
    kUnlink,     //
    kMkdir,      //
    kRmdir,      //
    kFlushFile,  // fsync and fdatasync of a file
    kFlushDirectory,
    kFlushAll,  // syncfs
    kNote,      // the code under test has reported a success
  };
  Kind kind = Kind::kNote;
  std::uint32_t file = 0;    // its number
  std::uint64_t offset = 0;  // kWrite; kSize: the new size; kNote: the number of the success
  std::string path, target;  // below the directory, without a "/" in front
  std::string bytes;
};

// Memory that a process and its children share, so that the counts of a killed child remain.
struct SCallBoard {
  static constexpr size_t kMaxTrace = 1 << 17;
  static constexpr size_t kMaxRecord = 64UL << 20;
  static constexpr size_t kMaxText = 4096;

  struct Traced {
    char const *name;  // points into the program, which is the same in every child
    bool changes;      // whether the call alters what is stored or sent
    unsigned errors;   // bits of the rows of kErrors that it can give
    char path[60];     // the end of the path it was called with; "" for a descriptor
  };

  static SCallBoard &Make();  // one a program; aborts when there is no memory
  void Clear();
  void Restart(std::uint64_t reported);  // another run of a step, in front of which these successes had been reported
  void Say(std::string const &text);     // appended to `text` as far as there is room
  long TracedCalls() const;              // those of the calls that `trace` has room for

  long calls;           // made so far under a plan
  std::uint64_t notes;  // bit n: success number n was reported
  size_t recorded;      // bytes in `record`
  std::uint32_t nextFile;
  bool acted;  // the plan's call was reached
  char text[kMaxText];
  Traced trace[kMaxTrace];
  unsigned char record[kMaxRecord];
};

// The errors that a call can be made to give, and their names.
struct SCallError {
  int error;
  char const *name;
};
inline constexpr size_t kCallErrors = 8;
extern SCallError const kErrors[kCallErrors];

namespace calls {

// From here to the end of the process, or to Stop, calls count. With a directory, an absolute path without "/" at the
// end, what is done below it is recorded.
void Watch(SCallBoard &board, SCallPlan const &plan, std::string const &recordBelow = "");
void Stop();
// A success that has been reported to somebody: 0 to 63.
void Note(unsigned number);

std::vector<SFileOperation> Recorded(SCallBoard const &board);

// While it lives, calls are neither counted nor recorded: what a test itself does in the middle of the code under test.
class Aside {
public:
  Aside();
  Aside(Aside const &) = delete;
  Aside &operator=(Aside const &) = delete;
  ~Aside();

private:
  bool _watching;
  int _error;
};

}  // namespace calls
