#include "brenthaven/recovery/recovery.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "brenthaven/accounts/accountdb.h"
#include "brenthaven/accounts/check.h"
#include "brenthaven/accounts/repair.h"
#include "brenthaven/platform/barrier.h"
#include "brenthaven/platform/descriptor.h"
#include "brenthaven/platform/files.h"
#include "brenthaven/platform/sys.h"
#include "brenthaven/spool/control.h"
#include "brenthaven/spool/errors.h"
#include "brenthaven/spool/keys.h"
#include "brenthaven/text/base.h"

namespace {

constexpr std::string_view kNewSuffix = ".new";                    // of a list's state in the making
constexpr std::string_view kLockSuffix = ".lock";                  // of the lock that its maker holds
constexpr std::string_view kKeptInControl[] = {"failed", "held"};  // directories with a meaning of their own
constexpr int kDeepest = 3;                                        // deferred/MODULE/HOST
constexpr int kNameTries = 1000;

std::string Std(SString const &text) { return std::string(text.View()); }

bool EndsWith(std::string_view text, std::string_view end) { return text.ends_with(end); }

// One recovery. Its steps are the members in this order.
class Recovery {
public:
  explicit Recovery(SRecoveryScope const &scope)
      : _scope(scope), _root(Std(GetEnv("Brenthaven"))), _now(time(nullptr)) {}

  SRecoveryReport Run() {
    if (_scope.accounts) MendAccounts();
    RemoveTemporaries(_root + "/control", 1);
    if (_scope.wholeSpool) {
      RemoveTemporaries(_root + "/messages", 0);
      RemoveTemporaries(_root + "/deferred", kDeepest);
      RemoveListTemporaries(_root + "/listdata");
      RemoveListTemporaries(_root + "/List-Exploder/daily");
      LookAtQueues(_root + "/deferred", kDeepest);
    }
    EmptyStrayDirectories();
    LookAtControlFiles();
    if (_scope.wholeSpool) SetOrphansAside();
    return _report;
  }

private:
  struct Entry {
    std::string path;
    std::string name;
    struct stat info;
  };

  void MendAccounts();
  static bool AreAccountsSound();
  void RemoveTemporaries(std::string const &directory, int depth);
  void RemoveListTemporaries(std::string const &directory);
  void LookAtQueues(std::string const &directory, int depth);
  void EmptyStrayDirectories();
  void LookAtControlFiles();
  void LookAtMail(SControl &control, Entry const &file);
  static bool IsControlFile(Entry const &entry) {
    return S_ISREG(entry.info.st_mode) && EndsWith(entry.name, kControlSuffix);
  }
  static bool IsControl(SControl &control);
  static bool IsComplete(SControl &control);
  void SetGarbageAside(SControl &control, Entry const &file);
  bool IsReadable(std::string const &path);
  static bool IsMissing(SString const &path);
  void ReportHalf(SControl &control, Entry const &file, bool hasHeader);
  void SetOrphansAside();

  std::vector<Entry> Entries(std::string const &directory);
  void CollectNames(std::string const &directory, int depth, std::unordered_set<std::string> &names);
  bool IsQuiet(Entry const &entry, long atLeast = 0) const;
  bool IsUnwritten(Entry const &entry) const;
  bool Remove(Entry const &entry);
  bool MoveToLost(Entry const &entry);
  bool MoveToQueue(Entry const &entry, std::string const &function);
  bool Rename(std::string const &from, std::string const &directory, std::string const &name);
  void Log(std::string const &line) const {
    if (_scope.log) _scope.log(line);
  }
  void Failed(std::string const &what) {
    ++_report.failed;
    Log("FAILED:" + what + ": " + strerror(errno));
  }

  SRecoveryScope const &_scope;
  std::string _root;
  time_t _now;
  SRecoveryReport _report;
  bool _isListed = true;  // every directory could be read to its end
};

void Recovery::MendAccounts() {
  if (!FileExists(SString(_root + "/config/BTAccounts.a")) && !FileExists(SString(_root + "/config/BTAccounts.j")))
    return;  // there are none, and none are to be made
  if (AreAccountsSound()) return;
  if (RepairAccountIndex().done && AreAccountsSound()) {
    ++_report.repaired;
    return Log("REPAIRED:BTAccounts.i");
  }
  _report.accountsFailed = true;
  Log("FAILED:accounts: see brenthaven account check");
}

bool Recovery::AreAccountsSound() {
  SAccountBase::ClearReadFailed();
  SAccountBase::ClearWriteFailed();
  { SAccountDBMod const section; }  // brings in what the journal says is decided
  SAccountCheck const check = CheckAccountFiles([](SString const &) {});
  return (SAccountBase::ReadFailed() | SAccountBase::WriteFailed()) == 0 && !check.readFailed && check.faults == 0;
}

// What a process was writing when it ended: its own copy of a file that stands complete under another name, or of one
// that was never finished.
void Recovery::RemoveTemporaries(std::string const &directory, int depth) {
  for (Entry const &entry : Entries(directory)) {
    if (S_ISDIR(entry.info.st_mode)) {
      if (depth > 0) RemoveTemporaries(entry.path, depth - 1);
    } else if (EndsWith(entry.name, kTempSuffix) && IsUnwritten(entry)) {
      (void)Remove(entry);
    }
  }
}

// A list's lock tells whether somebody is still writing its state.
void Recovery::RemoveListTemporaries(std::string const &directory) {
  for (Entry const &entry : Entries(directory)) {
    if (!S_ISREG(entry.info.st_mode) || !EndsWith(entry.name, kNewSuffix) || !IsUnwritten(entry)) continue;
    std::string const lock = entry.path.substr(0, entry.path.size() - kNewSuffix.size()).append(kLockSuffix);
    SDescriptor const file(sys::Open(lock.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW));
    if (file.IsOpen() && sys::Lock(file.Get(), F_WRLCK, 0, 1, false) == 0) (void)Remove(entry);
  }
}

// After a power cut a queue may hold what no walk can ever bring to an end: a file without its text, or one whose
// message is not there. The latter go to control/, where it is decided what becomes of them.
void Recovery::LookAtQueues(std::string const &directory, int depth) {
  for (Entry const &entry : Entries(directory)) {
    if (S_ISDIR(entry.info.st_mode) && depth > 0) LookAtQueues(entry.path, depth - 1);
    if (!IsControlFile(entry) || !IsQuiet(entry)) continue;
    SControl control((SString(entry.path)));
    if (!IsControl(control))
      SetGarbageAside(control, entry);
    else if (FileExists(SString(_root + "/control/" + entry.name)))
      _report.lost += MoveToLost(entry);  // on its way from one to the other: either is the whole record
    else if (!IsComplete(control))
      (void)Rename(entry.path, _root + "/control", entry.name);
  }
}

// A directory in control/ came there by a rename that was meant for a file in it. Its files go back to the queues.
void Recovery::EmptyStrayDirectories() {
  for (Entry const &entry : Entries(_root + "/control")) {
    bool const isKept =
        std::find(std::begin(kKeptInControl), std::end(kKeptInControl), entry.name) != std::end(kKeptInControl);
    if (!S_ISDIR(entry.info.st_mode) || isKept) continue;
    for (Entry const &file : Entries(entry.path)) {
      if (!S_ISREG(file.info.st_mode) || !IsQuiet(file)) continue;
      SControl control((SString(file.path)));
      std::string const function = control.Read() != 0 ? Std(control.Get(kKeyFunction).Get(0)) : "";
      if (function.empty() ? MoveToLost(file) : MoveToQueue(file, function)) ++_report.returned;
    }
    (void)sys::Rmdir(entry.path.c_str());  // goes when it is empty
  }
}

void Recovery::LookAtControlFiles() {
  for (Entry const &file : Entries(_root + "/control")) {
    if (!IsControlFile(file) || !IsQuiet(file)) continue;
    std::string const name = file.name.substr(0, file.name.size() - strlen(kControlSuffix));
    if (_scope.isBusy && _scope.isBusy(name)) continue;
    SControl control((SString(name)));
    if (!IsControl(control)) {
      SetGarbageAside(control, file);
    } else if (control.Get(kKeyControlType).Get(0) == kTypeRequest) {
      (void)Remove(file);
    } else {
      LookAtMail(control, file);
    }
  }
}

void Recovery::LookAtMail(SControl &control, Entry const &file) {
  if (!IsComplete(control)) {
    bool const hasHeader = !IsMissing(control.GetHeaderFilename());
    if (hasHeader || !IsMissing(control.GetBodyFilename())) return ReportHalf(control, file, hasHeader);
    if (MoveToLost(file)) ++_report.lost;  // the message is gone, delivered or lost; the control alone can do nothing
    return;
  }
  if (!_scope.requeue) return;
  if (control.Notify() != 0 || MoveToQueue(file, Std(control.Get(kKeyFunction).Get(0)))) {
    ++_report.requeued;
    Log("REQUEUED:" + file.name);
  }
}

bool Recovery::IsControl(SControl &control) {
  return control.Read() != 0 && control.Get(kKeyFunction).Get(0).Length() > 0;
}

// Whether the message is there. A record of an error needs none.
bool Recovery::IsComplete(SControl &control) {
  bool const hasHeader = !IsMissing(control.GetHeaderFilename());
  bool const hasBody = !IsMissing(control.GetBodyFilename());
  bool const isMail = control.Get(kKeyControlType).Get(0) == kTypeMail;
  return control.Get(kKeyFunction).Get(0) == kModuleErrorHandler || (hasHeader == hasBody && (hasHeader || !isMail));
}

void Recovery::SetGarbageAside(SControl &control, Entry const &file) {
  bool const isGarbage = IsReadable(file.path) && !IsControl(control);  // a look that failed is taken once more
  if (isGarbage && MoveToLost(file)) ++_report.lost;
}

// Whether the bytes of a file could be had: if not, nothing can be said of them.
bool Recovery::IsReadable(std::string const &path) {
  SDescriptor const file(sys::Open(path.c_str(), sys::kReadOwn));
  char byte;
  if (file.IsOpen() && sys::Pread(file.Get(), &byte, 1, 0) >= 0) return true;
  if (errno != ENOENT) Failed("cannot read " + path);
  return false;
}

bool Recovery::IsMissing(SString const &path) {
  struct stat info;
  return sys::Lstat(path, &info) != 0 && errno == ENOENT;
}

// The half that is there is kept: whoever works on the record removes what it belongs to.
void Recovery::ReportHalf(SControl &control, Entry const &file, bool hasHeader) {
  SString const half = hasHeader ? control.GetHeaderFilename() : control.GetBodyFilename();
  SString const missing = hasHeader ? control.GetBodyFilename() : control.GetHeaderFilename();
  errno = ENOENT;
  if (ProcessError(control, "MessageIncomplete", "Recovery", {"File: " + missing, "The rest is in lost/"}) == 0)
    return Failed("cannot report " + file.path);
  (void)MoveToLost({Std(half), Std(BaseName(half)), {}});
  ++_report.reported;
  Log("REPORTED:" + file.name + ":lacks " + Std(missing));
}

void Recovery::SetOrphansAside() {
  std::unordered_set<std::string> names;
  _isListed = true;
  CollectNames(_root + "/control", 1, names);
  CollectNames(_root + "/deferred", kDeepest, names);
  CollectNames(_root + "/List-Exploder", 2, names);
  CollectNames(_root + "/control", 1, names);  // what came back from a queue meanwhile
  if (!_isListed) return;                      // what is not seen may be there
  for (Entry const &entry : Entries(_root + "/messages")) {
    if (!S_ISREG(entry.info.st_mode) || !IsQuiet(entry, kOrphanSeconds)) continue;
    std::string name = entry.name;
    for (std::string_view const suffix : {kHeaderSuffix, kBodySuffix})
      if (EndsWith(name, suffix)) name.erase(name.size() - suffix.size());
    if (!names.contains(name) && MoveToLost(entry)) ++_report.orphans;
  }
}

// What stands in a directory; nothing for one that is not there.
std::vector<Recovery::Entry> Recovery::Entries(std::string const &directory) {
  std::vector<Entry> entries;
  DIR *const dir = sys::OpenDir(directory.c_str());
  if (dir == nullptr) {
    if (errno != ENOENT) {
      _isListed = false;
      Failed("cannot read " + directory);
    }
    return entries;
  }
  while (struct dirent const *found = sys::ReadDir(dir)) {
    Entry entry{directory + "/" + found->d_name, found->d_name, {}};
    if (entry.name == "." || entry.name == "..") continue;
    if (sys::Lstat(entry.path.c_str(), &entry.info) == 0)
      entries.push_back(std::move(entry));
    else if (errno != ENOENT)
      _isListed = false;
  }
  if (errno != 0) _isListed = false;
  (void)sys::CloseDir(dir);
  return entries;
}

// Message names of the control files in a directory and below it.
void Recovery::CollectNames(std::string const &directory, int depth, std::unordered_set<std::string> &names) {
  for (Entry const &entry : Entries(directory)) {
    if (S_ISDIR(entry.info.st_mode) && depth > 0) CollectNames(entry.path, depth - 1, names);
    if (EndsWith(entry.name, kControlSuffix))
      names.insert(entry.name.substr(0, entry.name.size() - strlen(kControlSuffix)));
  }
}

// Without a time everything counts, whatever the clocks of the file system say.
bool Recovery::IsQuiet(Entry const &entry, long atLeast) const {
  long const quiet = std::max(_scope.quietSeconds, atLeast);
  // A rename moves the change time, so that what was only just put there counts as young.
  return quiet <= 0 || _now - std::max(entry.info.st_mtime, entry.info.st_ctime) >= quiet;
}

// For a file that nobody renames but its writer.
bool Recovery::IsUnwritten(Entry const &entry) const {
  return _scope.quietSeconds <= 0 || _now - entry.info.st_mtime >= _scope.quietSeconds;
}

bool Recovery::Remove(Entry const &entry) {
  if (sys::Unlink(entry.path.c_str()) != 0) {
    if (errno != ENOENT) Failed("cannot remove " + entry.path);
    return false;
  }
  ++_report.removed;
  Log("REMOVED:" + entry.path);
  return true;
}

bool Recovery::MoveToLost(Entry const &entry) {
  if (!Rename(entry.path, _root + "/lost", entry.name)) return false;
  Log("LOST:" + entry.path);
  return true;
}

bool Recovery::MoveToQueue(Entry const &entry, std::string const &function) {
  bool const isName = function.find('/') == std::string::npos && function.front() != '.';
  std::string const directory = _root + "/deferred";
  struct stat info;
  bool const isTaken = sys::Lstat((directory + "/" + function + "/" + entry.name).c_str(), &info) == 0;
  if (!isName || isTaken) return MoveToLost(entry);
  if (!Rename(entry.path, directory + "/" + function, entry.name)) return false;
  Log("DEFERRED:" + entry.path);
  return true;
}

// Moves a file into a directory, which is made where it is missing, under a name that is free there.
bool Recovery::Rename(std::string const &from, std::string const &directory, std::string const &name) {
  SSyncBarrier barrier;  // a directory that was just made is there for sure before something moves into it
  barrier.AddParentOf(directory.c_str());
  if (MakeDir(SString(directory), 0770) == 0 || !barrier.Commit()) {
    Failed("cannot make " + directory);
    return false;
  }
  for (int tries = 0; tries < kNameTries; ++tries) {
    std::string target = directory;
    target.append("/").append(name);
    if (tries > 0) target.append(".").append(std::to_string(tries));
    struct stat info;
    if (sys::Lstat(target.c_str(), &info) == 0) continue;
    if (sys::Rename(from.c_str(), target.c_str()) == 0) return true;
    if (errno == ENOENT) return false;  // went on its way meanwhile
    break;
  }
  Failed("cannot move " + from + " to " + directory);
  return false;
}

}  // namespace

SRecoveryReport RecoverSpool(SRecoveryScope const &scope) { return Recovery(scope).Run(); }
