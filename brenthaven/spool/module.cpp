#include "brenthaven/spool/module.h"

#include <sys/stat.h>

#include <cerrno>

#include "brenthaven/platform/environment.h"
#include "brenthaven/platform/nativepath.h"
#include "brenthaven/platform/sys.h"
#include "brenthaven/spool/instance.h"
#include "brenthaven/spool/keys.h"
#include "brenthaven/spool/log.h"
#include "brenthaven/spool/notice.h"
#include "brenthaven/spool/report.h"
#include "brenthaven/text/base.h"

// The life of one message: ProcessMessageName reads its control and opens a pass; ProcessMail works, in this module and
// in those it holds; what was made is committed before the control goes, shrinks or changes hands; what is not done is
// written back and deferred. The pass ends with its last notices.

namespace {

int g_next_name = 1;   // message names, all modules of the process together
int g_next_error = 1;  // names of error controls, likewise

constexpr char kVerifyWord[] = "VerifyEnvironment";
constexpr char kQueueWord[] = "ProcessQueue";
constexpr char kMessageWord[] = "MessageFile";

SString WithSlash(SString const &path) { return path[-1] == '/' ? path : path + "/"; }

SString NameLetters(int number) {
  constexpr int kLetters = 26;
  SString letters;
  for (int power : {kLetters * kLetters * kLetters, kLetters * kLetters, kLetters, 1}) {
    char const letter = static_cast<char>('A' + number / power % kLetters);
    bool const leading = power == kLetters * kLetters * kLetters;
    if (!leading || letter != 'A') letters += letter;  // the fourth letter, in front, is only there when it counts
  }
  return letters;
}

// Looks at a path without following a link. errno stays: nothing here is a failure.
bool LookAt(SString const &path, struct stat &info) {
  int const error = errno;
  bool const there = sys::Lstat(SNativePath(path), &info) == 0;
  errno = error;
  return there;
}

bool IsRegularFile(SString const &path) {
  struct stat info;
  return LookAt(path, info) && S_ISREG(info.st_mode);
}

}  // namespace

struct SModule::PassState {
  SSyncBarrier barrier;
  SStringList notices;  // of new control files, to be sent once those are on disk
  int depth = 0;        // calls of ProcessMail within one another
  bool failed = false;  // a commit of this pass has failed
};

class SModule::PassScope {
public:
  explicit PassScope(SModule &module) : _module(module) {
    if (_module._State().depth++ > 0) return;
    _module._State().failed = false;
    errno = 0;  // an error report of this message must not tell of an earlier one's failure
    SetSocketErrorNo(0);
  }
  PassScope(PassScope const &) = delete;
  PassScope &operator=(PassScope const &) = delete;
  ~PassScope() {
    if (--_module._State().depth == 0) _module._EndPass();
  }

private:
  SModule &_module;
};

SModule::SModule(SString const &moduleName)
    : _brenthaven(WithSlash(GetEnv("Brenthaven"))),
      _moduleName(moduleName),
      _domainName(GetEnv("DomainName")),
      _messageDir(_brenthaven + "messages/"),
      _controlDir(_brenthaven + "control/"),
      _deferredDir(_brenthaven + "deferred/"),
      _hostName(GetEnv("HostName")),
      _mailboxDir(WithSlash(GetEnv("MailboxDir"))),
      _logging(0),
      _inLine(0),
      _takesErrors(0),
      _owner(nullptr) {
  _control.SetModule(this);
}

SModule::~SModule() = default;

void SModule::ProcessQueue() { ProcessDeferredDir(_deferredDir + _moduleName); }

void SModule::ProcessRequest(SRequest &) {}

unsigned int SModule::LoadEnv() { return 1; }

int SModule::_Start(char const *const *argv) {
  SetNewHandler();
  GuardProcess();
  _arguments.Reset();
  for (; argv != nullptr && *argv != nullptr; ++argv) _arguments.Push(*argv);
  _logging = GetEnv("Log") == "yes";
  if (!IsGuardedRoot(_brenthaven)) {
    WriteLogLine(LogFileDate() + ":" + _moduleName + ":ERROR:" + UnguardedRootText(_brenthaven));
    return kModuleNoEnvironment;
  }
  return LoadEnv() ? kModuleDone : kModuleNoEnvironment;
}

int SModule::Main(char const *const *argv) {
  if (int const code = _Start(argv); code != kModuleDone) return code;
  if (_arguments.Contains(kVerifyWord)) return kModuleDone;
  if (_arguments.Contains(kQueueWord)) {
    ProcessQueue();
    return kModuleDone;
  }
  return ProcessMessageName(_arguments.Contains(kMessageWord) ? _arguments.Get(-1) : GetEnv(kMessageWord));
}

int SModule::MainForMessage(char const *const *argv, SString const &name) {
  int const code = _Start(argv);
  return code == kModuleDone ? ProcessMessageName(name) : code;
}

int SModule::ProcessMessageName(SString const &name) {
  PassScope const pass(*this);
  _control.SetModule(this);  // an earlier message of a walk may have left another name, or its writers
  _control.SetHeaderBodyData(nullptr, nullptr);
  _control.PutFilename(name);
  if (!_control.Read()) return kModuleUnreadable;
  if (_control.Get(kKeyFunction).Get(0) != _moduleName) return kModuleNotMine;
  SString const type = _control.Get(kKeyControlType).Get(0);
  if (type == kTypeMail || (_takesErrors && type == kTypeError)) {
    if (_logging) WriteLogLine(LogFileDate() + ":" + _moduleName + ":" + _control.GetFilename());
    if (!ProcessMail()) _DeferControl();
    return kModuleDone;
  }
  if (type == kTypeRequest) {
    SRequest request(_control);
    ProcessRequest(request);
    return kModuleDone;
  }
  return kModuleUnknownType;
}

// Both failures are silent: the file then stays in control/, as it was, for the dispatcher's next look.
void SModule::_DeferControl() {
  // The fields may say that recipients are done. If what was made for them is not safe, the old text stays: the pass is
  // then repeated, which may send a copy twice but loses none.
  if (CommitBarrier()) (void)_control.Write();
  (void)_control.Defer();
}

unsigned int SModule::ProcessMailControl(SControl &control) {
  PassScope const pass(*this);
  _control = control;
  _inLine = 1;
  _control.AddTrace();  // in the sender's name still: the hand-over counts as the sender's commit
  _control.SetModule(this);
  return ProcessMail();
}

void SModule::ProcessDeferredDir(SString const &dir) {
  for (SString const &path : ReadDir(dir)) {
    if (!IsRegularFile(path)) continue;
    if (!Rename(path, _controlDir + BaseName(path))) continue;  // another walker was faster
    int const code = ProcessMessageName(BaseName(path, kControlSuffix));
    if (code == kModuleNotMine) (void)_control.Notify();  // untold, it waits for the dispatcher's next look at control/
  }
  (void)RemoveDir(dir);  // refused while messages are in it, deferred again during this walk; the next walk takes them
}

SString SModule::NewMessageID() {
  SString const letters = NameLetters(g_next_name++ - 1);
  return MessageIdDate() + _nameInfix + "." + letters + ProcessIdString() + "@" + _hostName;
}

SString SModule::_Origin(SString const &location) const {
  return location.Index(':') >= 0 ? location : _moduleName + ":" + location;
}

unsigned int SModule::ProcessError(SControl &control, SString const &error, SString const &location,
                                   SStringList const &text) {
  SErrorNumbers const numbers;
  FillErrorReport(control, numbers, error, _Origin(location), text);
  return HandOver(control);
}

unsigned int SModule::ProcessError(SString const &error, SString const &location, SStringList const &text) {
  SErrorNumbers const numbers;
  SControl control = NewErrorControl(g_next_error);
  FillNewErrorReport(control, numbers, error, _Origin(location), text);
  return HandOver(control);
}

unsigned int SModule::ProcessSysError(SControl &control, SString const &error, SString const &location,
                                      SStringList const &text) {
  int const number = GetErrorNo();
  SStringList lines = text;
  lines.Push(GetErrorString(number));
  errno = number;
  return ProcessError(control, error, location, lines);
}

unsigned int SModule::ProcessSysError(SString const &error, SString const &location, SStringList const &text) {
  int const number = GetErrorNo();
  SStringList lines = text;
  lines.Push(GetErrorString(number));
  errno = number;
  return ProcessError(error, location, lines);
}

void SModule::ProcessNotifyError(SControl const &control, SString const &error, SString const &location,
                                 SStringList const &text) {
  SErrorNumbers const numbers;
  if (IsLoggedInstead(control, text)) return;
  SControl report = NewErrorControl(g_next_error);
  FillNewErrorReport(report, numbers, error, _Origin(location), text);
  if (HandOver(report)) return;
  WriteLog(report.Text() + "\n");
  (void)report.Notify();
}

SModule::PassState &SModule::_State() {
  SModule *module = this;
  while (module->_owner != nullptr) module = module->_owner;
  if (module->_pass == nullptr) module->_pass = std::make_unique<PassState>();
  return *module->_pass;
}

SSyncBarrier &SModule::GetBarrier() { return _State().barrier; }

unsigned int SModule::CommitBarrier() {
  PassState &state = _State();
  if (state.failed || !state.barrier.Commit()) {
    state.failed = true;  // what a failed flush lost, a later one does not bring back
    return 0;
  }
  _SendNotices();
  return 1;
}

void SModule::ShareBarrier(SModule &owner) { _owner = &owner; }

void SModule::Cover(SControl const &control) {
  SSyncBarrier &barrier = GetBarrier();
  for (SString const &path : {control.GetHeaderFilename(), control.GetBodyFilename()}) {
    struct stat info;
    if (!LookAt(path, info)) continue;  // reports and requests have no message files
    if (info.st_nlink == 1) barrier.AddFile(SNativePath(path));
    barrier.AddParentOf(SNativePath(path));
  }
  SNativePath const path(control.GetControlFilename());
  barrier.AddFile(path);
  barrier.AddParentOf(path);
}

unsigned int SModule::HandOver(SControl &control) {
  PassScope const pass(*this);  // outside a pass this is one of its own, which ends with the commit and the notice
  struct stat info;
  bool const isIncoming = control.GetFilename() == _control.GetFilename() && LookAt(control.GetControlFilename(), info);
  if (isIncoming) {
    if (!CommitBarrier() || !control.Write()) return 0;
    (void)control.Notify();  // untold, it waits for the dispatcher's next look at control/
    return 1;
  }
  GetBarrier().Arm(SNativePath(_controlDir));
  if (!control.Write()) return 0;
  Announce(control);
  return 1;
}

void SModule::Announce(SControl const &written) {
  Cover(written);
  if (SString const notice = ComposeNotice(written); notice.Defined()) _State().notices.Push(notice);
}

void SModule::_SendNotices() {
  SStringList &notices = _State().notices;
  for (SString const &notice : notices) (void)SendNotice(notice);  // a walk finds what the dispatcher was not told of
  notices.Undef();
}

// What is left here protects nothing that was dropped: a module commits before it drops. A failure has no one to go to.
void SModule::_EndPass() {
  (void)GetBarrier().Commit();
  _SendNotices();
}
