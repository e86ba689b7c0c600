// brenthaven/spool/serve.h - the main function of a module executable.
#pragma once
#include <functional>
#include <memory>

#include "brenthaven/spool/module.h"

using SModuleFactory = std::function<std::unique_ptr<SModule>()>;

// One run of a module executable: its exit code. Without the word "Serve" among the arguments one module object runs
// SModule::Main. With it the process takes message after message: names on standard input, one a line, each processed
// by a module object of its own with its settings loaded afresh, as Main does with "MessageFile" and the name, and
// answered with the code in decimal on a line of standard output, until the input ends. A name that is empty, holds a
// control byte or is longer than kMaxMessageName is answered with 105, untouched.
int RunModule(char const *const *argv, SModuleFactory const &make);

inline constexpr int kMaxMessageName = 4096;  // bytes; a path may stand for a name

template <class Module>
int RunModule(int, char const *const *argv) {
  return RunModule(argv, [] { return std::unique_ptr<SModule>(std::make_unique<Module>()); });
}

// The loop of "Serve" on two open descriptors, which stay open. Gives 0 at the end of the input, 1 when reading or
// answering failed.
int ServeMessages(int input, int output, char const *const *argv, SModuleFactory const &make);
