// brenthaven/spool/module.h - the frame of a module: it starts the module, reads a control file, calls what the module
// does with it, and defers what is not done.
#pragma once
#include <memory>

#include "brenthaven/platform/barrier.h"
#include "brenthaven/spool/control.h"
#include "brenthaven/spool/request.h"
#include "brenthaven/text/sstringlist.h"

// What ProcessMessageName and Main return, and a module's process ends with.
enum SModuleCode {
  kModuleDone = 0,             // processed, deferred or handed over; or environment verified, or queue walked
  kModuleNoEnvironment = 101,  // LoadEnv gave 0, or others than user and group can write in the root
  kModuleNotMine = 102,        // Function: names another module
  kModuleUnknownType = 103,    // Control-Type: is neither "Mail" nor "Request", nor for TakeErrors "Error"
  kModuleUnreadable = 105,     // the control file could not be read
};

// Base of every module. One object works on one message after another; everything is found through the environment.
//
// Durability. The incoming control file is the only durable record of a message. A pass is one call of ProcessMail,
// with the modules that it runs in line. While it lasts, what it makes is collected in one barrier, and CommitBarrier
// puts it on disk: each module calls it before it removes its control file (RemoveMessage), shortens it (Write) or
// hands it over (HandOver and ProcessError do it themselves). Notices of new control files leave with the commit, so
// that no other module takes a file that is not yet safe.
class SModule {
public:
  explicit SModule(SString const &moduleName);
  SModule(SModule const &) = delete;
  SModule &operator=(SModule const &) = delete;
  virtual ~SModule();

  // Walks the module's deferred directory, top level only.
  virtual void ProcessQueue();
  // Works on GetControl(). Non-zero when the message needs nothing more from the frame; 0 to have the frame write the
  // control as it now stands and defer it (not in line: there the caller acts on the 0).
  virtual unsigned int ProcessMail() = 0;
  virtual void ProcessRequest(SRequest &request);
  virtual unsigned int LoadEnv();  // reads the settings; 0 refuses to start

  // The whole run, in a process that it guards (platform/environment.h), by the words in the null-terminated argument
  // vector: "VerifyEnvironment" stops after LoadEnv, "ProcessQueue" walks the queue, "MessageFile" takes the last
  // argument as the message's name in place of the environment's MessageFile. The words may stand anywhere; the first
  // of them in this order decides.
  int Main(char const *const *argv);
  // The run for one message, as Main with "MessageFile" and this name, whatever other words argv holds.
  int MainForMessage(char const *const *argv, SString const &name);
  // One control file, by message name or path: a SModuleCode.
  int ProcessMessageName(SString const &name);
  // Processes a control that is in memory, without a file and without the dispatcher. The caller acts on a 0: nothing
  // is written or deferred here.
  unsigned int ProcessMailControl(SControl &control);
  // Takes every regular file of a deferred directory into control/ by rename, which one walker wins, processes it, and
  // drops the directory if it is empty then. A file that is for another module is announced to the dispatcher.
  void ProcessDeferredDir(SString const &dir);

  // A name unique in the spool, which is also the text of the Message-ID, such as
  // "20261124161000123.AAA4711@mail.example.org".
  SString NewMessageID();

  // Failures that need a person become a control file for "Error-Handler", which is announced; 1 when it was written.
  // With a control the failed message itself is redirected, with all its fields; without one a new control is made.
  // location is a short word for the code that failed (this module's name is put in front unless it holds a ":"), error
  // a short word for what went wrong. errno and the socket layer's last error are taken as they are at the call.
  unsigned int ProcessError(SControl &control, SString const &error, SString const &location, SStringList const &text);
  unsigned int ProcessError(SString const &error, SString const &location, SStringList const &text);
  // The same with errno's text as a further line.
  unsigned int ProcessSysError(SControl &control, SString const &error, SString const &location,
                               SStringList const &text);
  unsigned int ProcessSysError(SString const &error, SString const &location, SStringList const &text);
  // Reports that a report failed. A control that the error handler had a hand in only gets a line on standard error.
  void ProcessNotifyError(SControl const &control, SString const &error, SString const &location,
                          SStringList const &text);

  SString const &GetBrenthaven() const { return _brenthaven; }  // with a trailing "/", as all directories here
  SString const &GetModuleName() const { return _moduleName; }
  SString const &GetMessageDir() const { return _messageDir; }
  SString const &GetControlDir() const { return _controlDir; }
  SString const &GetDeferredDir() const { return _deferredDir; }
  SString const &GetMailboxDir() const { return _mailboxDir; }
  SString const &GetHostName() const { return _hostName; }
  SString const &GetDomainName() const { return _domainName; }
  unsigned int IsLogging() const { return _logging; }
  unsigned int IsInLine() const { return _inLine; }  // set by the first ProcessMailControl, for good
  void SetLogging(unsigned int logging) { _logging = logging; }
  SControl &GetControl() { return _control; }
  SStringList const &GetArguments() const { return _arguments; }

  // The barrier of the present pass: a module adds the files and directories that it makes.
  SSyncBarrier &GetBarrier();
  // Puts on disk all that the pass has made so far, then sends the notices that waited for it. 1 when all is safe (at
  // no cost when there is nothing); 0 with errno is final: the module gives its failure and keeps its control.
  unsigned int CommitBarrier();
  // For a module held by another that calls its ProcessMailControl: barrier and notices are the owner's from now on.
  // The owner must outlive this module.
  void ShareBarrier(SModule &owner);
  // Adds a new control file to the barrier: the file, its directory, and its message's files under that name. Files
  // that are links of a message that was accepted are on disk already and only need their names flushed.
  void Cover(SControl const &control);
  // Writes a control for the module that its Function: names and announces it; 1 when written. A new control joins the
  // barrier with its message files and is announced by the next CommitBarrier. One that has the name and file of the
  // current control is the incoming record itself, changing hands: the barrier is committed before it is replaced, and
  // it is announced at once. Outside a pass both are on disk and announced when this returns.
  unsigned int HandOver(SControl &control);
  // The second half of it, for a new control file that was written already: it joins the barrier with its message files
  // and is announced by the next CommitBarrier.
  void Announce(SControl const &written);

protected:
  // Called once by the constructor of the one module that answers errors: "Error" controls are mail to it.
  void TakeErrors() { _takesErrors = 1; }

private:
  class PassScope;   // one pass, from start to its last notice
  struct PassState;  // what a pass has made and not yet committed
  PassState &_State();
  void _SendNotices();
  void _EndPass();
  int _Start(char const *const *argv);
  void _DeferControl();
  SString _Origin(SString const &location) const;

  SControl _control;
  SStringList _arguments;
  SString _brenthaven;
  SString _moduleName;
  SString _domainName;
  SString _messageDir;
  SString _controlDir;
  SString _deferredDir;
  SString _hostName;
  SString _mailboxDir;
  SString _nameInfix;  // stands in message names behind the date; empty
  unsigned int _logging;
  unsigned int _inLine;
  unsigned int _takesErrors;
  SModule *_owner;  // whose pass this module works in; null for its own
  std::unique_ptr<PassState> _pass;
};
