// brenthaven/errorhandler/errorhandler.h - the module "Error-Handler": tells people of what failed.
//
// Its controls are error records, of type "Error" or, where a message itself was redirected, "Mail". By the action that
// section "/Error-Actions" of its settings names for the error (a key for each name; the judge's records are held
// without one):
//
//   return  an error on a message becomes a delivery report to its envelope sender (spool/returned.h), then the message
//           goes. An error that only delays it is reported once, and the message waits in the queue of the module that
//           failed. An error on no message, or on what is left of one, is told to the account "Postmaster" by mail.
//   hold    the message waits in deferred/Held until somebody releases or removes it; when it comes back after that, it
//           is returned. Errors on no message can't be held.
//   Delete  nobody is told.
//
// Mail to the module's own address, which has no Error:, goes to Postmaster as it is.
//
// No report leads to another: what this module sends has the null sender and is marked, and an error on that is only
// logged; so is one on a message that this module made, by Trace:, whatever became of the mark. A record that fails
// here kMostPasses times in a row is held. A record goes only when the report on it is durable, and one whose report
// was sent but that could not be removed says so, so that it is not sent again.
#pragma once
#include "brenthaven/spool/module.h"
#include "brenthaven/text/named.h"

class SErrorHandlerModule : public SModule {
public:
  // Passes of this module over one record; the queue gives one each time that it is walked.
  static constexpr int kMostPasses = 1000;
  static constexpr int kReadPasses =
      5;  // over one whose message can't be read: Postmaster is told then, and it is held

  SErrorHandlerModule();
  unsigned int LoadEnv() override;
  unsigned int ProcessMail() override;

private:
  SString _ActionFor(SString const &error) const;
  unsigned int _Forward();
  unsigned int _Hold(char const *place);
  unsigned int _Return();
  unsigned int _TellPostmaster();
  bool _WriteToPostmaster();
  unsigned int _Remove();
  unsigned int _LetGoOn();
  void _Log(SString const &text);

  SNamedStringList _actions;  // by error name
};
