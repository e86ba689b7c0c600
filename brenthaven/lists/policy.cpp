// What a list's policy says about a request, and the keys that show that a request is the subscriber's own.
#include <ctime>

#include "brenthaven/accounts/attributes.h"
#include "brenthaven/lists/listtexts.h"
#include "brenthaven/lists/section.h"
#include "brenthaven/lists/slistactions.h"
#include "brenthaven/lists/slistkey.h"
#include "brenthaven/text/base.h"

namespace {

// Actions of a policy; any other lets the request pass.
constexpr char kAllow[] = "allow";
constexpr char kDeny[] = "deny";
constexpr char kDenyNotify[] = "deny-notify";
constexpr char kApproval[] = "approval";
constexpr char kRequireAuth[] = "require-auth";

// Tests of a policy.
constexpr char kNot[] = "not";
constexpr char kAlways[] = "always";
constexpr char kAuthProvided[] = "auth-provided";
constexpr char kRemoteUser[] = "remote-user";

void AddRule(SAccountPattern &pattern, char const *test, SString const &action) {
  pattern.AddPattern(test, SStringList(), action, SStringList());
}

void AddNegatedRule(SAccountPattern &pattern, char const *test, SString const &action) {
  pattern.AddPattern(kNot, SStringList(test), action, SStringList());
}

SListIntent IntentOf(bool unsubscribes, unsigned int digest) {
  if (unsubscribes) return SListIntent::kUnsubscribe;
  return digest ? SListIntent::kSubscribeDigest : SListIntent::kSubscribe;
}

}  // namespace

SString SListActions::_TranslateSubscribePolicy(SString const &value) {
  if (value == "closed") return kDeny;
  if (value == "closed-notify") return kDenyNotify;
  return value == "moderated" ? kApproval : kAllow;
}

void SListActions::_GetSubscribePolicy(SAccountPattern &pattern) const {
  SStringList const tokens = _list.Get(kAttrListSubscriptionPolicy);
  if (tokens.Length() > 0) return pattern.Set(tokens);
  if (!(_list.GetString(kAttrListVerifySubscriptions) == "no")) AddNegatedRule(pattern, kAuthProvided, kRequireAuth);
  AddNegatedRule(pattern, kRemoteUser, _TranslateSubscribePolicy(_list.GetString(kAttrListLocalSubscriberPolicy)));
  AddRule(pattern, kAlways, _TranslateSubscribePolicy(_list.GetString(kAttrListRemoteSubscriberPolicy)));
}

void SListActions::_GetUnsubscribePolicy(SAccountPattern &pattern) const {
  SStringList const tokens = _list.Get(kAttrListUnsubscriptionPolicy);
  if (tokens.Length() > 0) return pattern.Set(tokens);
  if (!(_list.GetString(kAttrListVerifyUnsubscriptions) == "no")) AddNegatedRule(pattern, kAuthProvided, kRequireAuth);
  AddRule(pattern, kAlways, _list.GetString(kAttrListModerateUnsubscriptions) == "yes" ? kApproval : kAllow);
}

// Leaves the matching rule's action, or an empty one, which lets the request pass.
void SListActions::_Match(unsigned int authenticated, unsigned int self) {
  SAccountPattern pattern;
  if (_direction == kSubscribe)
    _GetSubscribePolicy(pattern);
  else
    _GetUnsubscribePolicy(pattern);
  SAccountMatchInfo info(_address);
  info.SetAuthProvided(authenticated);
  info.SetSubscribingSelf(self);
  info.SetLocalDomains(_list.Get(kAttrListLocalDomains));
  _action = pattern.Match(info) ? static_cast<SStringList>(pattern).Get(0) : SString();
}

unsigned int SListActions::AllowedToSubscribe() {
  if (_listUID.Length() == 0) return 0;
  _direction = kSubscribe;
  _Match(1, 1);
  return !(_action == kDeny) && !(_action == kDenyNotify);
}

// Where an owner's word or password stands in place of the policy, no rule has matched and there is no action.
int SListActions::_HandlePolicy(Section &section, unsigned int bypass) {
  if (_action == kDeny) return kListRequestDenied;
  if (_action == kDenyNotify) {
    if (!bypass) (void)_MailOwners(listtexts::kSubscribeAttempt);  // refused in any case; the log has the failure
    return kListRequestDenied;
  }
  if (_action == kApproval && !bypass) return _MailApprovalRequest(section) ? kListApprovalRequired : kListTempFail;
  return kListSuccess;
}

bool SListActions::_IsKeyGood(SString const &key) const {
  SListKeySubject const subject = {BareAddress(_address), _listUID};
  return IsListKey(key, subject, _direction == kUnsubscribe, KeyDay(time(nullptr)), GetKeyDays(), GetEnv("FormSigKey"));
}

SString SListActions::_MakeAuthKey() const {
  SListKeySubject const subject = {BareAddress(_address), _listUID};
  SString const secret = GetEnv("FormSigKey");
  if (GetKeyDays() == 0) return MakeListKey(subject, secret);
  return MakeDatedListKey(subject, IntentOf(_direction == kUnsubscribe, _digest), KeyDay(time(nullptr)), secret);
}

// 1 also for an address that has had its share of keys for this hour: it has them, and gets no more mail.
unsigned int SListActions::_MailAuthKeyRequest() {
  _authKey = _MakeAuthKey();
  SString const address = BareAddress(_address);
  switch (RecordKeyMail(address, time(nullptr))) {
    case SKeyMailAnswer::kMail:
      return _MailSubscriber(listtexts::kAuthKeyRequest);
    case SKeyMailAnswer::kTooMany:
      LogError("Too many requests for " + address + " within an hour: no key mailed");
      return 1;
    case SKeyMailAnswer::kFailed:
      break;
  }
  LogError("Couldn't record the key for " + address + ":" + GetErrorString(-1));
  return 0;
}
