#include "brenthaven/lists/sliststate.h"

#include <algorithm>
#include <climits>

#include "brenthaven/accounts/safeuid.h"
#include "brenthaven/lists/slist.h"
#include "brenthaven/platform/files.h"
#include "brenthaven/spool/log.h"
#include "brenthaven/text/base.h"

namespace {

constexpr int kVersionWritten = 1;
constexpr int kMessageIdsKept = 50;
constexpr int kFirstDigestVolume = 1;
constexpr unsigned long kDirectoryMode = 0770;
constexpr std::string_view kOwnSuffixes[] = {".lock", ".new"};

// Between lists and files of ours, every name of a state file is one list's.
bool IsListFileName(SString const &uid) {
  return IsSafeUID(uid) && std::none_of(std::begin(kOwnSuffixes), std::end(kOwnSuffixes),
                                        [&uid](std::string_view suffix) { return uid.View().ends_with(suffix); });
}

SString StateDirectory() { return GetEnv("Brenthaven") + "/listdata/"; }

int Sum(int a, int b) {
  long long const sum = static_cast<long long>(a) + b;
  return static_cast<int>(std::clamp<long long>(sum, INT_MIN, INT_MAX));
}

int AsInt(SString const &decimal) {
  return static_cast<int>(std::clamp<long>(decimal.AsLong(), INT_MIN, INT_MAX));  // an empty one counts 0
}

int AddOnce(SStringList &list, SString const &item) {
  if (list.Contains(item)) return 0;
  list.Push(item);
  return 1;
}

int Remove(SStringList &list, SString const &item) {
  int found = 0;
  while (list.Delete(item)) found = 1;
  return found;
}

void LogStateError(SString const &text) { WriteLogLine(LogFileDate() + ":" + GetEnv("ModuleName") + ":ERROR:" + text); }

}  // namespace

SListState::SListState(SString const &uid)
    : SPickleFile(StateDirectory() + uid), _uid(uid), _file(StateDirectory() + uid) {}

unsigned SListState::Read() {
  if (_loaded) return 1;
  if (!IsListFileName(_uid)) {
    LogStateError("No name of a list's state file: " + _uid);
    return 0;
  }
  if (!Lock() && !(MakeDir(StateDirectory(), kDirectoryMode) && Lock())) {
    LogStateError("Couldn't lock list state " + _file + ":" + GetErrorString(-1));
    return 0;
  }
  bool const isNew = !FileExists(_file);
  if (!SPickleFile::Read()) {
    LogStateError("Couldn't read list state " + _file + ":" + GetErrorString(-1));
    return 0;
  }
  _TakeIn();
  if (!isNew && !WasExact()) {
    LogStateError("List state is damaged and left as it is: " + _file);
    return 0;
  }
  _loaded = true;
  return 1;
}

void SListState::_TakeIn() {
  for (int &record : _ints) record = GetInt();
  _TakeInUsers();
  for (SStringList *list :
       {&_messageIds, &_approvalTexts, &_approvalIds, &_requests, &_leaveRequests, &_digestRequests})
    *list = GetList();
}

void SListState::_TakeInUsers() {
  SStringList const users = GetList();
  _users.assign(users.begin(), users.end());
  _IndexUsers();
  for (std::vector<SString> &column : _values) {
    SStringList const values = GetList();
    column.assign(values.begin(), values.end());
    column.resize(_users.size());
  }
}

void SListState::_IndexUsers() {
  _places.clear();
  _places.reserve(_users.size());
  for (int i = 0; i < GetUserCount(); ++i) _places.try_emplace(_users[i].View(), i);
}

unsigned SListState::Commit() {
  if (!_loaded) return 0;
  _loaded = false;
  _ints[kVersion] = kVersionWritten;
  Clear();
  for (int const record : _ints) PutInt(record);
  _PutColumn(_users);
  for (std::vector<SString> const &column : _values) _PutColumn(column);
  for (SStringList const *list :
       {&_messageIds, &_approvalTexts, &_approvalIds, &_requests, &_leaveRequests, &_digestRequests})
    PutList(*list);
  (void)RemoveFile(_file + ".new");  // nobody else's while the lock is ours; mostly there is none
  return Write();
}

void SListState::_PutColumn(std::vector<SString> const &column) {
  PutInt(static_cast<int>(column.size()));
  for (SString const &value : column) PutString(value);
}

unsigned SListState::Remove() {
  if (!IsListFileName(_uid)) return 0;
  _loaded = false;
  auto const isGone = [](SString const &path) { return RemoveFile(path) != 0 || !FileExists(path); };
  bool const stateIsGone = isGone(_file);
  return isGone(_file + ".lock") && stateIsGone;
}

int SListState::IncrTotalMessages() { return _AddTo(kTotalMessages, 1); }

int SListState::IncrTotalKbytes(int kilobytes) { return _AddTo(kTotalKbytes, kilobytes); }

int SListState::GetDigestVolume() {
  int &volume = _ints[kDigestVolume];
  if (volume == 0) volume = kFirstDigestVolume;
  return volume;
}

int SListState::IncrDigestVolume() {
  _ints[kDigestNumber] = 0;
  return _ints[kDigestVolume] = Sum(GetDigestVolume(), 1);
}

int SListState::IncrDigestNumber() { return _AddTo(kDigestNumber, 1); }

int SListState::IncrSubscriptions() { return _AddTo(kSubscriptions, 1); }

int SListState::IncrUnsubscriptions(unsigned forced) {
  return _AddTo(forced ? kForcedUnsubscriptions : kUnsubscriptions, 1);
}

int SListState::_AddTo(IntRecord record, int amount) { return _ints[record] = Sum(_ints[record], amount); }

int SListState::GetUserNum(SString const &user) {
  auto const found = _places.find(user.View());
  if (found != _places.end()) return found->second;
  int const place = GetUserCount();
  _users.push_back(user.Defined() ? user : SString(""));
  for (std::vector<SString> &column : _values) column.emplace_back("0");
  _places.emplace(_users.back().View(), place);
  return place;
}

SString SListState::GetUser(int user) const { return _IsUser(user) ? _users[user] : SString(); }

int SListState::_AddToUser(int user, UserValue value, int amount) {
  if (!_IsUser(user)) return 0;
  int const sum = Sum(_UserValue(user, value), amount);
  _values[value][user] = SString(sum);
  return sum;
}

int SListState::_UserValue(int user, UserValue value) const { return _IsUser(user) ? AsInt(_values[value][user]) : 0; }

void SListState::ResetBounceCount(int user) {
  if (_IsUser(user)) _values[kUserBounces][user] = "0";
}

void SListState::ClearStats() {
  for (IntRecord record : {kTotalMessages, kTotalKbytes, kSubscriptions, kUnsubscriptions, kForcedUnsubscriptions})
    _ints[record] = 0;
  _places.clear();
  int kept = 0;
  for (int user = 0; user < GetUserCount(); ++user) {
    if (GetModeratedPostCount(user) == 0 && GetBounceCount(user) == 0) continue;
    _users[kept] = _users[user];
    for (UserValue value : {kUserModerated, kUserBounces}) _values[value][kept] = _values[value][user];
    for (UserValue value : {kUserMessages, kUserKbytes}) _values[value][kept] = "0";
    ++kept;
  }
  _users.resize(kept);
  for (std::vector<SString> &column : _values) column.resize(kept);
  _IndexUsers();
}

int SListState::AddMessageID(SString const &id) {
  if (id.Length() == 0) return 0;
  if (_messageIds.Contains(id)) return 1;
  _messageIds.Push(id);
  while (_messageIds.Length() > kMessageIdsKept) (void)_messageIds.Shift();
  return 0;
}

void SListState::AddApproveMsg(SString const &id, SString const &text) {
  _approvalIds.Push(id);
  _approvalTexts.Push(text);
}

int SListState::DeleteApproveMsg(int index) {
  if (!_approvalIds.Delete(index)) return 0;
  (void)_approvalTexts.Delete(index);  // a list that was shorter already has nothing there
  return 1;
}

int SListState::AddSubscribeRequest(S821Address const &address, unsigned int digest) {
  return AddOnce(digest ? _digestRequests : _requests, BareAddress(address));
}

int SListState::RemoveSubscribeRequest(S821Address const &address) {
  int const immediate = ::Remove(_requests, BareAddress(address));
  return ::Remove(_digestRequests, BareAddress(address)) | immediate;
}

int SListState::AddUnsubscribeRequest(S821Address const &address) {
  return AddOnce(_leaveRequests, BareAddress(address));
}

int SListState::RemoveUnsubscribeRequest(S821Address const &address) {
  return ::Remove(_leaveRequests, BareAddress(address));
}
