#include "brenthaven/listmanager/runner.h"

#include "brenthaven/accounts/attributes.h"
#include "brenthaven/listmanager/held.h"
#include "brenthaven/spool/accept.h"

namespace {

constexpr char kNothing[] = "(none)";

// A list that is asked for in words below the text of an answer; one line says that there is nothing.
void PutLines(SListOutcome &outcome, SStringList const &lines) {
  outcome.lines = lines.Length() > 0 ? lines : SStringList(kNothing);
}

// A name, and what it is about behind it.
SString NameAndInfo(SList const &list) {
  SString const info = list.GetString(kAttrListShortInfo);
  return info.Length() > 0 ? list.GetName() + ": " + info : list.GetName();
}

bool IsChanged(int result) {
  return result == kListSuccess || result == kListSubscriptionChanged || result == kListAlreadySubscribed;
}

// An answer that says that something is not there, or not right. Where accounts could not be read it may be.
int IfRead(int result) { return SAccountBase::ReadFailed() ? kListTempFail : result; }

}  // namespace

bool IsListChange(SListVerb verb) {
  switch (verb) {
    case SListVerb::kSubscribe:
    case SListVerb::kUnsubscribe:
    case SListVerb::kAccept:
    case SListVerb::kReject:
      return true;
    default:
      return false;
  }
}

SListCommandRunner::SListCommandRunner(SModule &module, S821Address const &requester, SString const &listUID)
    : _module(module), _requester(requester), _listUID(listUID) {}

void SListCommandRunner::_Describe(SListCommand const &command, SListOutcome &outcome) {
  SListDB lists;
  bool const isNamed = command.list.Length() > 0;
  outcome.shown = command.shown;
  outcome.verb = ListVerbName(command.verb);
  outcome.subscriber = ShownText(command.address.Length() > 0 ? command.address : BareAddress(_requester));
  (void)lists.GetByUID(isNamed ? lists.FindList(command.list) : _listUID, &outcome.found, 0);
  outcome.list = isNamed ? ShownText(command.list) : outcome.found.GetName();
}

int SListCommandRunner::Run(SListCommand const &command, SListOutcome &outcome) {
  _Describe(command, outcome);
  int result = kListSuccess;
  switch (command.verb) {
    case SListVerb::kSubscribe:
    case SListVerb::kUnsubscribe:
      result = _Request(command, outcome);
      break;
    case SListVerb::kAccept:
    case SListVerb::kReject:
      result = _Decide(command, outcome);
      break;
    case SListVerb::kWhich:
      result = _ListOwn(outcome);
      break;
    case SListVerb::kLists:
      result = _ListAll(outcome);
      break;
    case SListVerb::kInfo:
      result = _ListInfo(outcome);
      break;
    case SListVerb::kWho:
      result = _ListSubscribers(command, outcome);
      break;
    case SListVerb::kHelp:
    case SListVerb::kEnd:
      break;
  }
  if (result != 0 && !IsListChange(command.verb)) result = IfRead(result);
  outcome.key = result != 0 ? SListActions::GetErrorKey(result) : SString(kOutcomeMalformed);
  return result;
}

void SListCommandRunner::Recall(SListCommand const &command, int result, SListOutcome &outcome) {
  _Describe(command, outcome);
  outcome.key = SListActions::GetErrorKey(result);
}

int SListCommandRunner::_Request(SListCommand const &command, SListOutcome &outcome) {
  if (outcome.list.Length() == 0) return 0;
  if (command.address.Length() > 0 && !IsMailAddress(command.address)) return kListInvalidAddress;
  SListActions actions(&_module, outcome.found.GetUID(),
                       command.address.Length() > 0 ? S821Address(command.address) : _requester);
  actions.SetRequester(_requester);
  actions.SetAuthKey(command.key, 0);
  actions.SetPassword(command.password);
  actions.SetDigest(command.digest);
  actions.SetSendInfo(1, 1);
  int const result = command.verb == SListVerb::kSubscribe ? actions.Subscribe(0) : actions.Unsubscribe(0);
  if ((command.key.Length() > 0 || command.password.Length() > 0) && IsChanged(result)) _isProven = true;
  return result;
}

int SListCommandRunner::_Decide(SListCommand const &command, SListOutcome &outcome) {
  if (outcome.list.Length() == 0) return 0;
  if (outcome.found.GetUID().Length() == 0) return IfRead(kListNoSuchList);
  if (outcome.found.IsListLocked()) return kListLocked;
  if (!outcome.found.VerifyPassword(command.password)) return IfRead(kListBadPassword);
  _isProven = true;
  return DecideOnHeld(_module, outcome.found.GetUID(), command.what, command.verb == SListVerb::kAccept);
}

int SListCommandRunner::_ListOwn(SListOutcome &outcome) {
  SListDB lists;
  PutLines(outcome, lists.GetSubscribedListNames(lists.GetSubscriberUID(_requester)));
  return kListSuccess;
}

// The lists that the requester may join.
int SListCommandRunner::_ListAll(SListOutcome &outcome) {
  SListDB lists;
  SStringList lines;
  for (SString const &uid : lists.GetListUIDs()) {
    SList list;
    if (lists.GetByUID(uid, &list, 0) && !list.IsListLocked() &&
        SListActions(&_module, uid, _requester).AllowedToSubscribe())
      lines.Push(NameAndInfo(list));
  }
  PutLines(outcome, lines);
  return kListSuccess;
}

int SListCommandRunner::_ListInfo(SListOutcome &outcome) {
  if (outcome.list.Length() == 0) return 0;
  if (outcome.found.GetUID().Length() == 0) return kListNoSuchList;
  SStringList const text = outcome.found.Get(kAttrListLongInfo);
  PutLines(outcome, text.Length() > 0 ? text : outcome.found.Get(kAttrListShortInfo));
  return kListSuccess;
}

// For the owners, by the account that the mail comes from, which also gets the answer, or by an owner's password.
int SListCommandRunner::_ListSubscribers(SListCommand const &command, SListOutcome &outcome) {
  if (outcome.list.Length() == 0) return 0;
  SList const &list = outcome.found;
  if (list.GetUID().Length() == 0) return kListNoSuchList;
  SListDB lists;
  if (command.password.Length() > 0) {
    if (!list.VerifyPassword(command.password)) return kListBadPassword;
    _isProven = true;
  } else if (!list.IsOwnedBy(lists.GetSubscriberUID(_requester))) {
    return kListRequestDenied;
  }
  SStringList lines;
  for (SString const &uid : list.GetSubscribers()) {
    SAccount subscriber;
    if (!lists.GetAccountInfo(uid, &subscriber)) continue;  // gone since
    SString const address = BareAddress(S821Address(subscriber.GetPrimaryAddress()));
    lines.Push(list.IsDigestSubscriber(subscriber) ? address + " digest" : address);
  }
  PutLines(outcome, lines);
  return kListSuccess;
}
