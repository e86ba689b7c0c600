// brenthaven/lists/slistactions.h - one request about one list for one address: subscribe, confirm, leave, moderate.
#pragma once
#include <memory>

#include "brenthaven/accounts/accountdb.h"
#include "brenthaven/accounts/accountpattern.h"
#include "brenthaven/address/address821.h"
#include "brenthaven/lists/slist.h"
#include "brenthaven/lists/sliststate.h"
#include "brenthaven/spool/control.h"
#include "brenthaven/spool/header.h"
#include "brenthaven/spool/submitter.h"
#include "brenthaven/text/sstring.h"
#include "brenthaven/text/sstringlist.h"

class SModule;

// What became of a request. GetErrorKey gives each its word for texts and logs.
enum SListResult {
  kListSuccess = 1,
  kListApprovalRequired = 2,        // the owners were asked
  kListAuthenticationRequired = 3,  // a key went to the subscriber, who sends it back to confirm
  kListBadAuthKey = 4,              // a wrong key, one of another address or list, or one that is too old
  kListRequestDenied = 5,
  kListBadPassword = 6,
  kListAlreadySubscribed = 7,
  kListNoSuchList = 8,
  kListNotSubscribed = 9,
  kListTempFail = 10,  // a file could not be read, locked or written; nothing changed, and it may be tried again
  kListMsgNotFound = 11,
  kListOverLimit = 12,
  kListInvalidAddress = 13,
  kListNoLocalAccount = 14,  // an address in one of our domains that nobody has
  kListSubscriptionChanged = 15,
  kListLocked = 16,
  kListCircularSubscription = 17,
};

// One write section on the accounts and one state of the list for many requests about the same list, whose cost is then
// one flush of each for all of them. Held while it lives, and held off with it: every other process that writes
// accounts. So a bulk run makes one for a few hundred addresses at a time.
//
//   SListBatch batch("news");
//   for (...) { SListActions actions(module, "news", address); actions.SetBatch(&batch);
//   results.push(actions.Subscribe(1)); } if (!batch.Commit()) ...  // the accounts were changed; the list's counts
//   were not
class SListBatch {
public:
  explicit SListBatch(SString const &listUID);
  SListBatch(SListBatch const &) = delete;
  SListBatch &operator=(SListBatch const &) = delete;
  ~SListBatch();  // drops what was not committed of the state

  // Writes the state, if a request read it; 1 on success. The batch goes on with a fresh state.
  unsigned Commit();

private:
  friend class SListActions;
  SAccountDBMod _accounts;
  SString _listUID;
  std::unique_ptr<SListState> _state;
  int _subscribers = -1;  // counted by the first request that has a limit to keep; kept up by each from then on
};

// Every request answers with an SListResult and sends the mail that goes with it: keys to the subscriber, questions
// and notices to the owners. The flags set stay as they are from one request to the next. The environment's FormSigKey
// is the secret of the keys; modules that take requests from outside do not start without one.
class SListActions {
public:
  // The list by UID or List-Name; with an unknown one every request answers kListNoSuchList. The module names the new
  // messages and is borrowed; without one nothing can be mailed, which turns what depends on a mail into kListTempFail.
  SListActions(SModule *module, SString const &list, S821Address const &address);
  SListActions(SListActions const &) = delete;
  SListActions &operator=(SListActions const &) = delete;

  // The key that came with the request; trusted: somebody else has checked where it comes from, it is not compared, and
  // may be empty.
  void SetAuthKey(SString const &key, unsigned int trusted);
  void SetPassword(SString const &password) { _password = password; }  // of an owner, in place of policy and key
  void SetDigest(unsigned int digest) { _digest = digest; }            // delivery as digest, not one by one
  // Whether the subscriber gets the list's texts on entering and on leaving; both are off at first.
  void SetSendInfo(unsigned int welcome, unsigned int goodbye);
  // Who sent the request, for policies that ask whether it is the subscriber; without it, it is.
  void SetRequester(S821Address const &requester);
  void SetBatch(SListBatch *batch) { _batch = batch; }  // of the same list; borrowed, null for none

  SString GetAuthKey() const { return _authKey; }  // the one that was offered, or the one last mailed
  unsigned int GetDigest() const { return _digest; }
  SString const &GetListUID() const { return _listUID; }  // empty for an unknown list

  // bypass, forced: on behalf of an owner, past lock, policy and key; limits hold all the same.
  int Subscribe(unsigned int bypass);
  int Unsubscribe(unsigned int forced);
  // An owner says no to what waits: 1 when the request is gone and the subscriber was told, else 0.
  unsigned int RejectSubscription();
  unsigned int RejectUnsubscription();
  // kListSuccess when the password offered is an owner's, else kListBadPassword.
  int StringComp() const;
  // Whether the list's policy would take the address in, be it after a key or an approval: its answer to a request
  // with a valid key is neither "deny" nor "deny-notify". Not whether the list is locked or full.
  unsigned int AllowedToSubscribe();

  // Keeps a posting for the owners to decide on: its control file moves to List-Exploder/approval/, and the list
  // remembers it under the id. The caller asks the owners (SendToModerators) and then forgets the message: neither
  // control nor message files are its any more. kListSuccess, or kListTempFail with the message where it was.
  int Hold(SString const &id, SControl &control);
  // The owners' answer: the posting goes back to the list's module with "Approved: yes", or is removed.
  // kListSuccess, kListMsgNotFound for an id that does not wait, kListTempFail. A failure to tell the dispatcher is one
  // too: the posting is then in control/, where a queue walk finds it, and the id still waits.
  int Moderate(SString const &id, unsigned int approve);
  // Forgets a posting that waits when its control file is gone, which a crash in the middle of Moderate leaves behind,
  // or a dispatcher that could not be told: 1 when it was forgotten, 0 when it does not wait or is still there.
  unsigned int ForgetLost(SString const &id);
  // Replaces the body of a posting that waits by these lines. kListSuccess, kListMsgNotFound, kListTempFail.
  int EditText(SString const &id, SStringList const &lines);
  // Sends a posting to the owners, behind the text of the template that the id names, or as it is where the list's
  // moderation method says so. Empty when it went out or need not; else what failed, the place first.
  SStringList SendToModerators(SString const &id, SControl &control, SHeader &header);

  static SString GetErrorKey(int result);    // "Success" to "CircularSubscription"; "TempFail" for any other number
  void LogError(SString const &text) const;  // a line "date:module:ERROR:text" on the log stream

private:
  enum Direction { kSubscribe = 0, kUnsubscribe = 1 };
  struct Section;  // the locks of one change: accounts first, then the list's state

  SString _GetListUID(SString const &list);
  SString _FindSubscriber(int &result);
  int _AuthenticateRequest(unsigned int needsAccount, unsigned int bypass);
  int _TakeIn(Section &section, unsigned int bypass);
  int _Enter(Section &section, SListState &state, SString const &uid, bool isStranger);
  int _ModifySubscription(Section &section, SString const &uid);
  int _TakeOut(Section &section, unsigned int forced);
  void _ApplyDigestRestriction();
  bool _IsOverLimit(Section &section);

  void _Match(unsigned int authenticated, unsigned int self);
  void _GetSubscribePolicy(SAccountPattern &pattern) const;
  void _GetUnsubscribePolicy(SAccountPattern &pattern) const;
  static SString _TranslateSubscribePolicy(SString const &value);
  int _HandlePolicy(Section &section, unsigned int bypass);
  bool _IsKeyGood(SString const &key) const;
  SString _MakeAuthKey() const;
  unsigned int _MailAuthKeyRequest();

  static void _MarkAutomatic(SSubmitter &submitter, SString const &from);
  SString _GenerateRequest(SSubmitter &submitter, SString const &templateKey) const;
  void _WriteRequest(SSubmitter &submitter, SString const &templateKey) const;
  unsigned int _MailSubscriber(SString const &templateKey) const;
  unsigned int _MailOwners(SString const &templateKey) const;
  SStringList _Owners() const;
  unsigned int _Send(SSubmitter &submitter) const;
  void _SendInfo() const;
  void _SendUnsubscribeInfo() const;
  void _SendText(SStringList const &lines, SString const &subject) const;
  void _LogAction() const;

  unsigned int _MailApprovalRequest(Section &section);
  void _NotifyOverLimit() const;
  unsigned int _Reject(SString const &templateKey);
  SStringList _SubmitPosting(SSubmitter &submitter, SString const &id, SString const &subject, SString const &message);

  bool _IsLocked() const { return _list.IsListLocked() != 0; }
  bool _Suppresses(SString const &notification) const;
  SString _ModuleName() const;

  S821Address _address;
  S821Address _requester;
  SList _list;  // before _listUID, whose making reads it
  SString _listUID;
  SString _authKey;
  SString _password;
  SString _action;  // what the policy said about the request under way; empty where it was not asked
  unsigned int _keyOffered = 0;
  unsigned int _keyTrusted = 0;
  unsigned int _digest = 0;
  unsigned int _welcome = 0;
  unsigned int _goodbye = 0;
  Direction _direction = kSubscribe;
  SModule *_module;
  SListBatch *_batch = nullptr;
};
