// Subscribing and leaving.
#include <array>
#include <ctime>
#include <optional>
#include <string_view>

#include "brenthaven/accounts/attributes.h"
#include "brenthaven/accounts/special.h"
#include "brenthaven/lists/section.h"
#include "brenthaven/lists/slistactions.h"
#include "brenthaven/lists/slistkey.h"
#include "brenthaven/spool/accept.h"
#include "brenthaven/spool/log.h"
#include "brenthaven/spool/module.h"
#include "brenthaven/text/base.h"

namespace {

constexpr std::array<char const *, 18> kErrorKeys = {nullptr,
                                                     "Success",
                                                     "ApprovalRequired",
                                                     "AuthenticationRequired",
                                                     "BadAuthKey",
                                                     "RequestDenied",
                                                     "BadPassword",
                                                     "AlreadySubscribed",
                                                     "NoSuchList",
                                                     "NotSubscribed",
                                                     "TempFail",
                                                     "MsgNotFound",
                                                     "OverLimit",
                                                     "InvalidAddress",
                                                     "NoLocalAccount",
                                                     "SubscriptionChanged",
                                                     "Locked",
                                                     "CircularSubscription"};

constexpr int kLongestAddress = 254;  // what fits between the brackets of an envelope, RFC 5321 section 4.5.3.1.3
constexpr char kRequireAuth[] = "require-auth";
constexpr char kImmediateOnly[] = "immediate-only";
constexpr char kDigestOnly[] = "digest-only";

// Whether an address may become a subscriber's: one mailbox, and nothing that would not stand on a line of its own.
bool IsSubscriberAddress(S821Address const &address) {
  SString const bare = BareAddress(address);
  if (!address.IsValid() || address.Domain().Length() == 0 || bare.Length() > kLongestAddress) return false;
  for (unsigned char const byte : bare.View())
    if (byte < 0x20 || byte == 0x7f) return false;
  return true;
}

bool IsOurDomain(SString const &domain) {
  for (SString const &ours : SAccountDB().GetLocalMailDomains())
    if (ours.CompareNoCase(domain)) return true;
  return false;
}

void Add(SStringList &list, SString const &item) {
  if (!list.Contains(item)) list.Push(item);
}

bool Remove(SStringList &list, SString const &item) {
  bool found = false;
  while (list.Delete(item)) found = true;
  return found;
}

// One account's subscriptions, to change and, when a later step fails, to put back.
struct Membership {
  SStringList lists;
  SStringList immediate;
  SStringList digest;

  explicit Membership(SAccount const &subscriber)
      : lists(subscriber.Get(kAttrSubscribedLists)),
        immediate(subscriber.Get(kAttrSubscribedListsImmediate)),
        digest(subscriber.Get(kAttrSubscribedListsDigest)) {}

  // Writes what differs from what stands there.
  bool Store(SAccountMod &subscriber) const {
    Membership const before(subscriber);
    return (lists == before.lists || subscriber.Set(kAttrSubscribedLists, lists)) &&
           (immediate == before.immediate || subscriber.Set(kAttrSubscribedListsImmediate, immediate)) &&
           (digest == before.digest || subscriber.Set(kAttrSubscribedListsDigest, digest));
  }
};

}  // namespace

SListBatch::SListBatch(SString const &list) : _listUID(SListDB().FindList(list)) {}

SListBatch::~SListBatch() = default;

unsigned SListBatch::Commit() {
  std::unique_ptr<SListState> const state = std::move(_state);
  return _accounts.Commit() && (state == nullptr || state->Commit());
}

SListState *SListActions::Section::ReadState() {
  std::unique_ptr<SListState> &state = _batch != nullptr ? _batch->_state : _own;
  if (state == nullptr) state = std::make_unique<SListState>(_listUID);
  if (state->Read()) return state.get();
  state.reset();
  return nullptr;
}

bool SListActions::Section::CommitState() {
  if (_batch != nullptr) return true;
  std::unique_ptr<SListState> const state = std::move(_own);
  return state != nullptr && accounts.Commit() && state->Commit();
}

int SListActions::Section::CountSubscribers() {
  if (_batch == nullptr) return accounts.IndexLookupCount(kAttrSubscribedLists, _listUID);
  if (_batch->_subscribers < 0) _batch->_subscribers = accounts.IndexLookupCount(kAttrSubscribedLists, _listUID);
  return _batch->_subscribers;
}

void SListActions::Section::NoteSubscribers(int more) {
  if (_batch != nullptr && _batch->_subscribers >= 0) _batch->_subscribers += more;
}

SListActions::SListActions(SModule *module, SString const &list, S821Address const &address)
    : _address(address), _requester(address), _listUID(_GetListUID(list)), _module(module) {}

SString SListActions::_GetListUID(SString const &list) {
  SListDB lists;
  SString const uid = lists.FindList(list);
  return lists.GetByUID(uid, &_list, 0) ? uid : SString();
}

void SListActions::SetAuthKey(SString const &key, unsigned int trusted) {
  _authKey = key;
  _keyOffered = key.Length() > 0;
  _keyTrusted = trusted;
}

void SListActions::SetSendInfo(unsigned int welcome, unsigned int goodbye) {
  _welcome = welcome;
  _goodbye = goodbye;
}

void SListActions::SetRequester(S821Address const &requester) { _requester = requester; }

SString SListActions::GetErrorKey(int result) {
  bool const known = result > 0 && result < static_cast<int>(kErrorKeys.size());
  return kErrorKeys[known ? result : kListTempFail];
}

SString SListActions::_ModuleName() const {
  return _module != nullptr ? _module->GetModuleName() : GetEnv("ModuleName");
}

void SListActions::LogError(SString const &text) const {
  WriteLogLine(LogFileDate() + ":" + _ModuleName() + ":ERROR:" + text);
}

int SListActions::StringComp() const { return _list.VerifyPassword(_password) ? kListSuccess : kListBadPassword; }

// The subscriber's account; empty when there is none, with what a request that needs one answers.
SString SListActions::_FindSubscriber(int &result) {
  if (!IsSubscriberAddress(_address)) {
    result = kListInvalidAddress;
    return SString();
  }
  SString uid = SListDB().GetSubscriberUID(_address);
  if (uid.Length() > 0)
    result = kListSuccess;
  else if (SAccountBase::ReadFailed())
    result = kListTempFail;
  else
    result = IsOurDomain(_address.Domain()) ? kListNoLocalAccount : kListNotSubscribed;
  return uid;
}

int SListActions::_AuthenticateRequest(unsigned int needsAccount, unsigned int bypass) {
  int result = kListSuccess;
  _action = SString();
  if (_listUID.Length() == 0) return SAccountBase::ReadFailed() ? kListTempFail : kListNoSuchList;
  (void)_FindSubscriber(result);
  bool const isStranger = result == kListNotSubscribed;  // an address from outside, which may become an account
  if (result != kListSuccess && (needsAccount || !isStranger)) return result;
  if (bypass) return kListSuccess;
  if (_IsLocked()) return kListLocked;
  if (_password.Length() > 0) {
    result = StringComp();
    return SAccountBase::ReadFailed() ? kListTempFail : result;
  }
  if (_keyOffered && !_keyTrusted && !_IsKeyGood(_authKey)) return kListBadAuthKey;
  bool const authenticated = _keyOffered || _keyTrusted;
  _Match(authenticated, LowerCase(BareAddress(_requester)) == LowerCase(BareAddress(_address)));
  if (SAccountBase::ReadFailed()) return kListTempFail;  // a policy that can't be read looks like an open one
  if (_action != kRequireAuth || authenticated) return kListSuccess;
  return _MailAuthKeyRequest() ? kListAuthenticationRequired : kListTempFail;
}

int SListActions::Subscribe(unsigned int bypass) {
  _direction = kSubscribe;
  int result = kListSuccess;
  if (_listUID.Length() > 0 && _FindSubscriber(result) == _listUID) return kListCircularSubscription;
  result = _AuthenticateRequest(0, bypass);
  if (result != kListSuccess) return result;
  Section section(_listUID, _batch);
  result = _TakeIn(section, bypass);
  if (result != kListSuccess) return result;
  if (_welcome) _SendInfo();
  if (ListLoggingEnabled("Subscriptions")) _LogAction();
  return kListSuccess;
}

// What decides comes before what changes: a stranger whose request is refused never gets an account.
int SListActions::_TakeIn(Section &section, unsigned int bypass) {
  int result = kListSuccess;
  SString uid = _FindSubscriber(result);
  bool const isStranger = result == kListNotSubscribed;
  if (result != kListSuccess && !isStranger) return result;
  _ApplyDigestRestriction();
  SAccount known;
  if (!isStranger && section.accounts.GetAccountInfo(uid, &known) && known.Get(kAttrSubscribedLists).Contains(_listUID))
    return _ModifySubscription(section, uid);
  if (_IsOverLimit(section)) {
    _NotifyOverLimit();
    return kListOverLimit;
  }
  result = _HandlePolicy(section, bypass);
  if (result != kListSuccess) return result;
  SListState *const state = section.ReadState();
  if (state == nullptr) {
    LogError("Couldn't get list state for " + _listUID);
    return kListTempFail;
  }
  if (isStranger) uid = GenerateAccountUID(BareAddress(_address));
  if (SAccountBase::ReadFailed()) return kListTempFail;  // the new UID may be somebody's, and a limit may have passed
  return _Enter(section, *state, uid, isStranger);
}

int SListActions::_Enter(Section &section, SListState &state, SString const &uid, bool isStranger) {
  SAccountMod subscriber;
  if (!section.accounts.ModifyAccount(uid, &subscriber) ||
      (isStranger && !subscriber.Set(kAttrRemoteSmtpAddress, SStringList("<" + BareAddress(_address) + ">")))) {
    LogError("Couldn't ModifyAccount " + uid);
    if (isStranger) (void)section.accounts.DeleteAccount(uid);  // made a moment ago, for this alone
    return kListTempFail;
  }
  Membership const before(subscriber);
  Membership member = before;
  member.lists.Push(_listUID);
  Add(_digest ? member.digest : member.immediate, _listUID);
  if (member.Store(subscriber)) {
    state.IncrSubscriptions();
    (void)state.RemoveSubscribeRequest(_address);  // most never waited
    if (section.CommitState()) {
      section.NoteSubscribers(1);
      return kListSuccess;
    }
  }
  LogError("Couldn't store the subscription of " + uid + " to " + _listUID);
  (void)before.Store(subscriber);  // where this fails too, the subscription stays, uncounted
  if (isStranger) (void)subscriber.Set(kAttrSubscribedLists, SStringList());  // the account goes with this object
  return kListTempFail;
}

int SListActions::_ModifySubscription(Section &section, SString const &uid) {
  SAccountMod subscriber;
  if (!section.accounts.ModifyAccount(uid, &subscriber)) {
    LogError("Couldn't ModifyAccount " + uid);
    return kListTempFail;
  }
  Membership member(subscriber);
  SStringList &wanted = _digest ? member.digest : member.immediate;
  bool const moved = Remove(_digest ? member.immediate : member.digest, _listUID);
  if (!moved && wanted.Contains(_listUID)) return kListAlreadySubscribed;
  Add(wanted, _listUID);
  if (member.Store(subscriber) && section.accounts.Commit()) return kListSubscriptionChanged;
  LogError("Couldn't ModifyAccount " + uid);
  return kListTempFail;
}

void SListActions::_ApplyDigestRestriction() {
  SStringList const restriction = _list.Get(kAttrListDigestRestriction);
  if (restriction.Contains(kImmediateOnly)) _digest = 0;
  if (restriction.Contains(kDigestOnly)) _digest = 1;
}

bool SListActions::_IsOverLimit(Section &section) {
  int const everywhere = section.accounts.GetListSubscriberLimit();
  long const here = _list.GetString(kAttrListMaxSubscribers).AsLong();
  if (everywhere <= 0 && here <= 0) return false;
  int const count = section.CountSubscribers();
  return (everywhere > 0 && count >= everywhere) || (here > 0 && count >= here);
}

int SListActions::Unsubscribe(unsigned int forced) {
  _direction = kUnsubscribe;
  int result = _AuthenticateRequest(1, forced);
  if (result != kListSuccess) return result;
  Section section(_listUID, _batch);
  result = _TakeOut(section, forced);
  if (result != kListSuccess) return result;
  if (_goodbye) _SendUnsubscribeInfo();
  if (ListLoggingEnabled("Unsubscriptions")) _LogAction();
  return kListSuccess;
}

int SListActions::_TakeOut(Section &section, unsigned int forced) {
  int result = kListSuccess;
  SString const uid = _FindSubscriber(result);
  if (result != kListSuccess) return result;
  SAccountMod subscriber;
  if (!section.accounts.ModifyAccount(uid, &subscriber)) {
    LogError("Couldn't ModifyAccount " + uid);
    return kListTempFail;
  }
  Membership const before(subscriber);
  if (!before.lists.Contains(_listUID)) return kListNotSubscribed;
  result = _HandlePolicy(section, forced);
  if (result != kListSuccess) return result;
  SListState *const state = section.ReadState();
  if (state == nullptr) {
    LogError("Couldn't get list state for " + _listUID);
    return kListTempFail;
  }
  Membership member = before;
  (void)Remove(member.lists, _listUID);
  (void)Remove(member.immediate, _listUID);
  _digest = Remove(member.digest, _listUID);
  if (member.Store(subscriber)) {
    state->IncrUnsubscriptions(forced);
    (void)state->RemoveUnsubscribeRequest(_address);  // most never waited
    if (section.CommitState()) {
      section.NoteSubscribers(-1);
      return kListSuccess;
    }
  }
  LogError("Couldn't end the subscription of " + uid + " to " + _listUID);
  (void)before.Store(subscriber);  // where this fails too, the subscription has ended, uncounted
  return kListTempFail;
}

void SListActions::_LogAction() const {
  SString const action = _direction == kSubscribe ? "User-Subscribed:" : "User-Unsubscribed:";
  WriteLogLine(LogFileDate() + ":" + _ModuleName() + ":" + action + _listUID + ":" + BareAddress(_address) + ":" +
               (_digest ? "digest" : "immediate"));
}
