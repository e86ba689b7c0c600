#include "brenthaven/lists/accountsearch.h"

#include <algorithm>
#include <vector>

#include "brenthaven/accounts/accountdb.h"
#include "brenthaven/accounts/special.h"
#include "brenthaven/lists/slist.h"
#include "brenthaven/lists/slistactions.h"
#include "brenthaven/regex/sperlregex.h"
#include "brenthaven/text/base.h"

namespace {

constexpr char kPrimaryAddress[] = "SMTP-Primary-Address";
constexpr char kOutsider[] = "<outsider@elsewhere.invalid>";  // a domain that nobody can have (RFC 2606)
constexpr char kIgnoreCase[] = "i";
constexpr char kBehindPrefix[] = "\x7f";  // ends a prefix range
constexpr int kLongestKey = 1024;         // no name or address comes near it, and an expression costs by its length
constexpr int kSlice = 200;               // values of the index read under one lock
constexpr int kLookBehind = 100;          // values that are looked at behind the last hit wanted
constexpr int kShortPrefix = 2;           // from this length on the index beats a look at every list

// Ranges of the index, as low and high: first bytes that are no letter, and no digit.
struct Range {
  char const *low, *high;
  bool isOfDigits;
};
constexpr Range kNoLetters[] = {{"\x01", "0", false}, {"0", ":", true}, {":", "a", false}, {"{", "\x7f", false}};

// An address without the angle brackets that it may be stored with.
SString Bare(SString const &address) {
  return address[0] == '<' && address[-1] == '>' ? address.Segment(1, address.Length() - 2) : address;
}

SString FirstValue(int attribute, SString const &uid) {
  SAccount account;
  return SAccountDB().GetAccountInfo(uid, &account) != 0 ? account.GetString(attribute) : SString();
}

// A key as an expression: ".*" for "*", and nothing else changed.
SString ExpressionOf(SString const &key) { return key.SplitExact("*").Join(".*"); }

}  // namespace

SAccountSearch::SAccountSearch() : _attribute(kAttrSmtpAddress) {
  SString const access = GetEnv("DefaultDirectoryAccess");
  _defaultAccess = access.Length() > 0 ? access[0] : 'n';
}

void SAccountSearch::SetRange(int first, int last) {
  _first = first;
  _last = last;
}

void SAccountSearch::SetSearchAttribute(SString const &name) {
  _isPrimaryOnly = name == kPrimaryAddress;
  _attribute = _isPrimaryOnly ? static_cast<int>(kAttrSmtpAddress) : attributes::NumberOf(name.View());
}

void SAccountSearch::_SetSubscriber(S821Address const &address) {
  _subscriber = address;
  _isForSubscriber = true;
}

void SAccountSearch::SetRemoteListsOnly() { _SetSubscriber(S821Address(kOutsider)); }

void SAccountSearch::SetAvailableListsOnly(SString const &uid) {
  _SetSubscriber(S821Address("<" + Bare(FirstValue(kAttrSmtpAddress, uid)) + ">"));
}

void SAccountSearch::ExcludePostmasters() {
  _seen[kPostmasterUID] = 1;
  SAccount postmaster;
  if (SAccountDB().GetAccountInfo(kPostmasterUID, &postmaster) == 0) return;
  for (SString const &uid : postmaster.Get(kAttrAccountDelivery)) _seen[uid] = 1;
}

void SAccountSearch::ExcludeReserved() {
  for (SString const &uid : GetReservedAccountList()) _seen[uid] = 1;
}

void SAccountSearch::KeySearch() {
  _behindLast = 0;
  SString const key = LowerCase(_key);
  if (key.Length() > kLongestKey) return;
  int const star = key.Index('*');
  if (_kind == kSubscribers) return _SearchSubscribers(ExpressionOf(key));
  if (star < 0) return _SearchExactly(key);

  SString const prefix = key.Segment(0, star);
  if (star < key.Length() - 1) {
    SPerlRegex const regex(ExpressionOf(key), kIgnoreCase);
    if (regex.OK()) (void)_AddRange(prefix, prefix + kBehindPrefix, &regex);
  } else if (_kind == kLists && _isPrimaryOnly && prefix.Length() < kShortPrefix) {
    _ListAddrSearch(prefix);
  } else {
    (void)_AddRange(prefix, prefix + kBehindPrefix, nullptr);
  }
}

void SAccountSearch::KeyClassSearch(unsigned alphabetic) {
  _behindLast = 0;
  if (_kind == kSubscribers) return _SearchSubscribers(alphabetic ? "[^a-z].*" : "[^a-z0-9].*");
  for (Range const &range : kNoLetters)
    if ((alphabetic || !range.isOfDigits) && !_AddRange(range.low, range.high, nullptr)) return;
}

void SAccountSearch::_SearchExactly(SString const &key) {
  if (_attribute == kAttrSmtpAddress) {
    S821Address const address(key);
    return _AddMatch(BareAddress(address), SAccountDB().GetAccountUID(address));
  }
  SStringList const uids = SAccountDB().IndexLookup(_attribute, key);
  SStringList names;
  while (names.Length() < uids.Length()) names.Push(key);
  (void)_AddRegexMatches(nullptr, _attribute, names, uids);
}

// By the addresses of subscribers with a mailbox here, and then of those elsewhere.
void SAccountSearch::_SearchSubscribers(SString const &expression) {
  SListDB lists;
  SList list;
  SPerlRegex const regex("^" + expression + "$", kIgnoreCase);
  if (lists.GetByUID(lists.FindList(_list), &list, 0) == 0 || !regex.OK()) return;
  SStringList const subscribers = list.GetSubscribers();
  if (subscribers.Length() == 0) return;
  if (_AddRegexMatches(&regex, kAttrSmtpAddress, SStringList(), subscribers))
    (void)_AddRegexMatches(&regex, kAttrRemoteSmtpAddress, SStringList(), subscribers);
}

// There are far fewer lists than addresses with a short prefix.
void SAccountSearch::_ListAddrSearch(SString const &prefix) {
  struct Hit {
    SString address, uid;
  };
  std::vector<Hit> hits;
  for (SString const &uid : SListDB().GetListUIDs()) {
    SString const address = LowerCase(Bare(FirstValue(kAttrSmtpAddress, uid)));
    if (address.Length() > 0 && address.HasPrefix(prefix)) hits.push_back({address, uid});
  }
  std::stable_sort(hits.begin(), hits.end(),
                   [](Hit const &a, Hit const &b) { return SString::StrCaseCmp(a.address, b.address) < 0; });
  _isListAddrSearch = true;
  for (Hit const &hit : hits) _AddMatch(hit.address, hit.uid);
  _isListAddrSearch = false;
}

// The values of the index from low up to high, those that match when there is an expression. False when no further
// hit is of use.
bool SAccountSearch::_AddRange(SString low, SString const &high, SRegex const *regex) {
  SAccountDB const accounts;
  SStringList values, uids;
  for (;;) {
    accounts.IndexSlice(_attribute, low, high, kSlice, &values, &uids);
    if (uids.Length() == 0) return true;
    if (!_AddRegexMatches(regex, _attribute, values, uids)) return false;
  }
}

// The text that must match is the name, or, where there are no names, the first value of the attribute. False when no
// further hit is of use. Matching, which a key can make long, holds no lock.
bool SAccountSearch::_AddRegexMatches(SRegex const *regex, int attribute, SStringList const &names,
                                      SStringList const &uids) {
  bool const hasNames = names.Length() == uids.Length();
  auto name = names.begin();
  for (SString const &uid : uids) {
    if (_IsBehindLast()) return false;
    SString const text = hasNames ? *name++ : Bare(FirstValue(attribute, uid));
    if (text.Length() > 0 && (regex == nullptr || regex->HasMatch(text))) _AddMatch(text, uid);
  }
  return true;
}

// Counts the values from the last hit wanted on.
bool SAccountSearch::_IsBehindLast() { return _hits >= _last && _behindLast++ >= kLookBehind; }

// The gate through which every result goes. A UID is marked when it is given, so that one that is found by two of its
// values before the first hit wanted counts as two.
void SAccountSearch::_AddMatch(SString const &name, SString const &uid) {
  if (_seen.Get(uid) == 1 || !_IsWanted(name, uid)) return;
  ++_hits;
  if (_hits < _first || _hits > _last) return;
  _names.Push(name);
  _uids.Push(uid);
  _seen[uid] = 1;
}

bool SAccountSearch::_IsWanted(SString const &name, SString const &uid) const {
  SAccountReadScope const scope;
  SAccount account;
  if (SAccountDB().GetAccountInfo(uid, &account) == 0) return false;
  if (_kind == kUsers && !_IsWantedUser(account)) return false;
  if (_kind == kLists && !_IsWantedList(uid)) return false;
  if (!_isPrimaryOnly || _isListAddrSearch) return true;
  return Bare(account.GetString(kAttrSmtpAddress)).CompareNoCase(name) == 1;
}

bool SAccountSearch::_IsWantedUser(SAccount const &account) const {
  if (account.IsListAcct() || account.GetString(kAttrName).Length() == 0) return false;
  if (_accessLevel == 0) return true;
  char access = account.GetString(kAttrDirectoryAccess)[0];
  if (access == '\0' || access == 'd') access = _defaultAccess;
  return access != 'n' && !(access == 'l' && _accessLevel == 2);
}

bool SAccountSearch::_IsWantedList(SString const &uid) const {
  if (!_isListAddrSearch && SListDB().GetByUID(uid, nullptr, 0) == 0) return false;
  return !_isForSubscriber || SListActions(nullptr, uid, _subscriber).AllowedToSubscribe() != 0;
}
