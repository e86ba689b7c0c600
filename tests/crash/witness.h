// tests/crash/witness.h - what a process asks of the kernel, seen from outside.
//
// The functions of calls.cpp see what goes through them. Code that goes around them, by a call to the kernel that they
// do not know or from inside a library, is only seen by a witness, which follows the process with ptrace(2) as strace
// does.
#pragma once
#include <sys/types.h>

#include <string>
#include <vector>

class SWitness {
public:
  // In the process that is to be followed, a child of the one that calls Follow. False where the kernel forbids it, and
  // in a build with a sanitizer, which asks the kernel for things of its own.
  static bool Begin();
  // Follows the child until it ends and gives its wait status.
  int Follow(pid_t child);

  // The calls since Begin that change a file, a directory or what is on its way to another process, or flush it, in
  // order and under the names that calls.cpp counts them by. A call that calls.cpp does not know has its own name.
  std::vector<std::string> const &Seen() const { return _seen; }

private:
  std::vector<std::string> _seen;
};
