// brenthaven/listmanager/listmanager.h - the module "List-Manager": requests about mailing lists that come by mail.
#pragma once
#include "brenthaven/accounts/account.h"
#include "brenthaven/address/address821.h"
#include "brenthaven/spool/header.h"
#include "brenthaven/spool/module.h"
#include "brenthaven/text/sstring.h"

inline constexpr char kModuleListManager[] = "List-Manager";

// A message comes from the account handler with "Module-To: List-Manager UID", by the Handler-Delivery of account UID.
// That is the account of a list's manager, whose Manager-List-Name is the list's UID (LISTNAME-request@), or one for
// all lists (list.manager@, majordomo@). The commands of the subject and the body (commands.h) are carried out one
// after the other, and one answer tells the outcome of each.
//
// Dropped without an answer, and without effect, so that no two programs talk to each other and no vacation program
// confirms a request: mail with a null or broken sender, from an address for which NoReply holds, with
// "Auto-Submitted:" other than "no", and from a list or one of its accounts, which is our own. An address is answered
// at most kKeyMailsPerHour times an hour, unless a key or password shows that the mail is its own.
//
// The message stays until all effects and the answer are durable. A pass that is repeated after a crash finds people
// subscribed already, and says so. Where a command fails for now (TempFail), the message is deferred with the outcomes
// of the others in its control, in the field "List-Outcome!", and those are not carried out again; after kRetryDays the
// failure is the outcome.
class SListManagerModule : public SModule {
public:
  static constexpr int kMostUnknown = 5;    // unknown lines, after which reading stops
  static constexpr int kMostCommands = 50;  // of one message: it may ask for mail to as many addresses
  static constexpr double kRetryDays = 1.0;

  SListManagerModule();
  ~SListManagerModule() override;

  // 0, with a line in the log, without FormSigKey in the environment: the keys would be anybody's.
  unsigned int LoadEnv() override;
  // 1 when the message is done, or back with the account handler, which has more to do with it. 0 when something could
  // not be read or written, or is to be tried again; the caller writes and defers the control.
  unsigned int ProcessMail() override;

private:
  bool _Serve(SString const &uid);
  bool _CarryOut(SAccount const &account, SHeader const &header, SString const &body, S821Address const &poster);
  bool _IsAutomatic(SHeader const &header, S821Address const &poster);
  unsigned int _Finish();
  void _Log(SString const &text) const;
};
