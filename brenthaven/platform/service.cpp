#include "brenthaven/platform/service.h"

#include <systemd/sd-bus.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <thread>

#include "brenthaven/platform/sharedlibrary.h"
#include "brenthaven/text/base.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr char kManagerName[] = "org.freedesktop.systemd1";
constexpr char kManagerPath[] = "/org/freedesktop/systemd1";
constexpr char kManagerInterface[] = "org.freedesktop.systemd1.Manager";
constexpr char kUnitInterface[] = "org.freedesktop.systemd1.Unit";
constexpr char kUnitSuffix[] = ".service";
constexpr char kReplaceJobs[] = "replace";  // a request takes the place of one that is under way
constexpr seconds kAnswerTime{10};

// What is used of the client library.
struct SBusLibrary {
  SSharedLibrary library{"libsystemd.so.0"};
  decltype(&sd_bus_open_system) openSystem = Find<decltype(sd_bus_open_system)>("sd_bus_open_system");
  decltype(&sd_bus_is_ready) isReady = Find<decltype(sd_bus_is_ready)>("sd_bus_is_ready");
  decltype(&sd_bus_process) process = Find<decltype(sd_bus_process)>("sd_bus_process");
  decltype(&sd_bus_wait) wait = Find<decltype(sd_bus_wait)>("sd_bus_wait");
  decltype(&sd_bus_set_method_call_timeout) setCallTimeout =
      Find<decltype(sd_bus_set_method_call_timeout)>("sd_bus_set_method_call_timeout");
  decltype(&sd_bus_call_method) callMethod = Find<decltype(sd_bus_call_method)>("sd_bus_call_method");
  decltype(&sd_bus_get_property_string) getString =
      Find<decltype(sd_bus_get_property_string)>("sd_bus_get_property_string");
  decltype(&sd_bus_message_read) read = Find<decltype(sd_bus_message_read)>("sd_bus_message_read");
  decltype(&sd_bus_message_unref) unref = Find<decltype(sd_bus_message_unref)>("sd_bus_message_unref");
  decltype(&sd_bus_flush_close_unref) close = Find<decltype(sd_bus_flush_close_unref)>("sd_bus_flush_close_unref");

  template <class Function>
  Function *Find(char const *name) const {
    return library.Find<Function>(name);
  }
  bool IsWhole() const {
    return openSystem && isReady && process && wait && setCallTimeout && callMethod && getString && read && unref &&
           close;
  }
};

SBusLibrary const &Library() {
  static SBusLibrary const library;
  return library;
}

enum class UnitState { kUnknown, kStopped, kRunning, kOnTheWay };

// One unit of the service manager, over a connection of its own that ends with the scope.
class SUnit {
public:
  // `time` is for the connection, and again for each answer.
  SUnit(SString const &name, microseconds time) : _name(name) {
    if (name.Index('\0') >= 0 || !Library().IsWhole() || Library().openSystem(&_bus) < 0) return;
    if (!_Connect(time) || Library().setCallTimeout(_bus, static_cast<uint64_t>(time.count())) < 0) return;
    _Load();
  }
  SUnit(SUnit const &) = delete;
  SUnit &operator=(SUnit const &) = delete;
  ~SUnit() {
    if (_bus != nullptr) Library().close(_bus);
  }

  UnitState State() const {
    SString const loaded = _Property("LoadState");
    if (loaded != "loaded" && loaded != "masked") return UnitState::kUnknown;
    SString const active = _Property("ActiveState");
    if (active == "active" || active == "reloading") return UnitState::kRunning;
    if (active == "inactive" || active == "failed") return UnitState::kStopped;
    return active.Length() > 0 ? UnitState::kOnTheWay : UnitState::kUnknown;
  }
  bool Start() { return _Call("StartUnit", "ss", _name, kReplaceJobs) != nullptr; }
  bool Stop() { return _Call("StopUnit", "ss", _name, kReplaceJobs) != nullptr; }

private:
  struct Unref {
    void operator()(sd_bus_message *message) const { Library().unref(message); }
  };
  using Reply = std::unique_ptr<sd_bus_message, Unref>;

  // Until the bus has taken this process in: a call by itself would wait for that without end.
  bool _Connect(microseconds time) {
    Clock::time_point const end = Clock::now() + time;
    while (Library().isReady(_bus) == 0) {
      int const done = Library().process(_bus, nullptr);
      if (done > 0) continue;
      auto const left = std::chrono::duration_cast<microseconds>(end - Clock::now());
      if (done < 0 || left.count() <= 0 || Library().wait(_bus, static_cast<uint64_t>(left.count())) <= 0) return false;
    }
    return Library().isReady(_bus) > 0;
  }

  // Unlike a look-up among the units that are loaded, this also finds one that has not run since the machine started.
  void _Load() {
    Reply const reply = _Call("LoadUnit", "s", _name);
    char const *path = nullptr;
    if (reply != nullptr && Library().read(reply.get(), "o", &path) > 0) _path = path;
  }

  template <class... Texts>
  Reply _Call(char const *member, char const *types, Texts const &...texts) const {
    sd_bus_message *reply = nullptr;
    int const result = Library().callMethod(_bus, kManagerName, kManagerPath, kManagerInterface, member, nullptr,
                                            &reply, types, static_cast<char const *>(texts)...);
    return Reply(result >= 0 ? reply : nullptr);
  }

  // Undefined when it could not be read.
  SString _Property(char const *property) const {
    char *value = nullptr;
    if (_path.Length() == 0 ||
        Library().getString(_bus, kManagerName, _path, kUnitInterface, property, nullptr, &value) < 0)
      return SString();
    std::unique_ptr<char, decltype(&free)> const owned(value, free);
    return SString(value);
  }

  SString _name;
  sd_bus *_bus = nullptr;
  SString _path;  // of the unit on the bus; empty when it could not be loaded
};

// A text as part of a unit's name: "/" becomes "-", and what may not stand there its number, "\x2d" for "-".
SString Escaped(SString const &text) {
  constexpr char kDigits[] = "0123456789abcdef";
  SString escaped("");
  for (char const c : text.View()) {
    auto const byte = static_cast<unsigned char>(c);
    bool const isPlain = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == ':' ||
                         c == '_' || (c == '.' && escaped.Length() > 0);
    if (c == '/')
      escaped += '-';
    else if (isPlain)
      escaped += c;
    else
      ((escaped += "\\x") += kDigits[byte >> 4]) += kDigits[byte & 0xf];
  }
  return escaped;
}

SString UnitName(SString const &service, SString const &argument) {
  SString const name = BaseName(service, kUnitSuffix);
  return (argument.Length() > 0 ? name + "@" + Escaped(argument) : name) + kUnitSuffix;
}

// How long the manager may take for an answer.
microseconds AnswerTime(unsigned wait, int limit) {
  return wait != 0 ? std::min(kAnswerTime, seconds(std::max(limit, 1))) : kAnswerTime;
}

// Looks at the unit until it is in the state that is waited for. A look that fails counts as "not yet": a manager that
// starts itself anew is away for a moment.
int WaitFor(UnitState wanted, SUnit const &unit, int limit) {
  int const step = std::max(limit, 0);
  Clock::time_point const end = Clock::now() + seconds(step);
  do {
    if (unit.State() == wanted) return kServiceDone;
    std::this_thread::sleep_for(milliseconds(step));
  } while (Clock::now() < end);
  return kServiceFailed;
}

int StartUnit(SString const &name, unsigned wait, int limit) {
  SUnit unit(name, AnswerTime(wait, limit));
  UnitState const state = unit.State();
  if (state == UnitState::kRunning) return kServiceAlreadyRunning;
  if (state == UnitState::kUnknown || !unit.Start()) return kServiceFailed;
  return wait != 0 ? WaitFor(UnitState::kRunning, unit, limit) : kServiceDone;
}

int StopUnit(SString const &name, unsigned wait, int limit) {
  SUnit unit(name, AnswerTime(wait, limit));
  if (unit.State() == UnitState::kUnknown || !unit.Stop()) return kServiceFailed;
  return wait != 0 ? WaitFor(UnitState::kStopped, unit, limit) : kServiceDone;
}

}  // namespace

int ServiceStart(SString &service, SString &argument, unsigned wait, int limit) {
  return StartUnit(UnitName(service, argument), wait, limit);
}

int GetServiceStatus(SString &service, unsigned, int) {
  switch (SUnit(UnitName(service, SString()), kAnswerTime).State()) {
    case UnitState::kUnknown:
      return kServiceStatusUnknown;
    case UnitState::kRunning:
      return kServiceRunning;
    case UnitState::kStopped:
    case UnitState::kOnTheWay:
      break;
  }
  return kServiceNotRunning;
}

int StopService(SString &service, unsigned wait, int limit) {
  return StopUnit(UnitName(service, SString()), wait, limit);
}

int RestartService(SString &service, SString &argument, unsigned wait, int limit) {
  SString const name = UnitName(service, argument);
  (void)StopUnit(name, wait, limit);  // a service that does not run, or won't stop, is for the start to judge
  return StartUnit(name, wait, limit);
}
