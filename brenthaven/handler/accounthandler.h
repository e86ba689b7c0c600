// brenthaven/handler/accounthandler.h - the module "Account-Handler": from accounts to deliveries.
#pragma once
#include "brenthaven/accounts/account.h"
#include "brenthaven/mailbox/mailboxdeliver.h"
#include "brenthaven/spool/module.h"
#include "brenthaven/text/sstring.h"
#include "brenthaven/text/sstringlist.h"

// Expands the accounts of a message's "Account-To:" by their attributes into deliveries, writes copies for the archives
// that accounts name and one control file for each delivery agent ("<agent>-Deliver"), reports names that are no
// accounts, and hands what is for a handler module, a channel or a list manager on to the next module. It runs as a
// queue module of its own, and by value inside the router, which calls ProcessMailControl in the same process. Small
// deliveries to mailboxes run in this process too, by the SMailboxDeliverModule that it holds.
class SAccountHandlerModule : public SModule {
public:
  SAccountHandlerModule();
  ~SAccountHandlerModule() override;

  // Loads the settings of the mailbox module that it holds, and gives its result.
  unsigned int LoadEnv() override;

  // One pass over the current control. 1: the message is finished with, which includes handed on and filed as an error.
  // 0: something could not be written or read. The control in memory is then as the next pass needs it, with its
  // "Function:" as it came: accounts that this pass expanded stand in "Account-To:" again, and what was delivered
  // stands in "Deliver-To!", from where the next pass leaves it out. The caller writes and defers it.
  unsigned int ProcessMail() override;
  // Whether the last ProcessMail gave 1 and left the message as it was: it is for a postmaster who has no account.
  bool Waits() const { return _waits; }

private:
  struct Pass;  // what one pass knows; see pass.h

  // expansion.cpp
  bool _Expand(Pass &pass);
  void _ExpandAccount(Pass &pass, SString const &name, SAccount const &account);
  void _ExpandIndirectly(Pass &pass, SString const &name, SString const &entry);
  void _ArchiveAccount(Pass &pass, SAccount const &account);
  bool _IsArchiving(Pass &pass);
  void _WriteBack(Pass const &pass);

  // accounthandler.cpp
  unsigned int _Finish(Pass &pass);
  bool _Archive(Pass &pass);
  bool _Deliver(Pass &pass);
  bool _HandOn(Pass &pass, bool &handled);
  bool _HandToModule(Pass &pass, bool &handled);
  void _LogLeft(SStringList const &channels, SStringList const &managers);
  unsigned int _RemoveIncoming();
  void _PutBack(Pass const &pass);
  unsigned int _Fail(char const *error);

  // writers.cpp: 1 on success, 0 with nothing left behind.
  unsigned int WriteDeliver(SString agent, SStringList const &list, unsigned int last);
  unsigned int WriteHandler(SString const &module);
  unsigned int WriteUnknownAccts(SStringList const &accounts);
  int WriteSMTPDeliver(SNamedStringList *hosts);
  unsigned int _DeliverHere(SControl &copy);

  unsigned int _HandToRouter();  // rerouting.cpp: the one place where a handler runs a router

  SMailboxDeliverModule _mailbox;
  bool _waits = false;
};
