// tests/platform/callhook.h - counts the calls of the file layer, and fails or ends the process at one of them.
#pragma once
#include <unistd.h>

#include <cerrno>
#include <map>
#include <string>

#include "brenthaven/platform/sys.h"

// While it lives, each call of the file layer is counted by name. One call can be singled out, by a name ("" for any)
// and a number from 1: it fails with an error, or ends the process as a crash would.
class SCallHook {
public:
  static constexpr int kCrash = -1;  // as the error
  static constexpr int kCrashCode = 77;

  SCallHook() { sys::SetHook(_Call, this); }
  SCallHook(std::string const &name, int number, int error) : _name(name), _number(number), _error(error) {
    sys::SetHook(_Call, this);
  }
  SCallHook(SCallHook const &) = delete;
  SCallHook &operator=(SCallHook const &) = delete;
  ~SCallHook() { sys::SetHook(nullptr, nullptr); }

  int Count(std::string const &name) const { return _counts.contains(name) ? _counts.at(name) : 0; }
  int Total() const { return _total; }

private:
  static int _Call(sys::CallInfo const &call, void *context) {
    auto *hook = static_cast<SCallHook *>(context);
    ++hook->_counts[call.name];
    ++hook->_total;
    if (hook->_number == 0 || (!hook->_name.empty() && hook->_name != call.name)) return 0;
    if (--hook->_number > 0) return 0;
    if (hook->_error == kCrash) _exit(kCrashCode);
    return hook->_error;
  }

  std::string _name;
  int _number = 0;
  int _error = 0;
  std::map<std::string, int> _counts;
  int _total = 0;
};
