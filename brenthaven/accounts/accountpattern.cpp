#include "brenthaven/accounts/accountpattern.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "brenthaven/accounts/accountdb.h"

namespace {

// At the place of each test its name.
constexpr std::string_view kNames[] = {
    "acct-attr-has", "sender-addr-in",   "acct-uid-in",   "always",
    "never",         "subscribing-self", "auth-provided", "remote-user",
};
static_assert(std::size(kNames) == kPatternRemoteUser + 1, "every test has its name");

constexpr char kNot[] = "not";
constexpr int kUsualRules = 16;

// Takes the arguments from the front of what is left of a pattern's tokens.
SStringList TakeArguments(SStringList::Iterator &token, SStringList::Iterator end) {
  SStringList arguments;
  for (; token != end && token->HasPrefix("["); ++token)
    arguments.Push(std::as_const(*token).Segment(1, token->Length() - 2));
  return arguments;
}

}  // namespace

SAccountMatchInfo::SAccountMatchInfo(S821Address const &sender) : _sender(sender) {}

void SAccountMatchInfo::SetLocalDomains(SStringList const &domains) {
  _localDomains.Reset();
  for (SString const &domain : domains) _localDomains.Push(LowerCase(domain));
}

unsigned SAccountMatchInfo::SenderAddrIn(SStringList const &addresses) const {
  SString const sender = _sender.Get();
  for (SString const &address : addresses)
    if (address == sender || "<" + address + ">" == sender) return 1;
  return 0;
}

SString SAccountMatchInfo::GetAccountUID() {
  if (!std::exchange(_isUidKnown, true)) {
    SAccountDB accounts;
    _uid = accounts.GetAccountUID(_sender);
    if (_uid.Length() == 0)
      _uid = accounts.IndexLookup(kAttrRemoteSmtpAddress, _sender.LocalPart() + "@" + _sender.Domain()).Get(0);
  }
  return _uid;
}

SAccount const &SAccountMatchInfo::_Account() {
  if (!std::exchange(_isAccountLoaded, true)) (void)SAccountDB().GetAccountInfo(GetAccountUID(), &_account);
  return _account;
}

unsigned SAccountMatchInfo::AcctAttrHas(SString const &attribute, SString const &value) {
  return _Account().Get(attribute).Contains(value);
}

unsigned SAccountMatchInfo::IsRemoteUser() {
  if (_localDomains.Contains(LowerCase(_sender.Domain()))) return 0;
  if (GetAccountUID().Length() == 0) return 1;
  return _Account().GetString(kAttrRemoteSmtpAddress).Length() > 0;
}

SAccountPattern::SAccountPattern() { _parts.reserve(kUsualRules); }

SAccountPattern::SAccountPattern(SStringList tokens) : SAccountPattern() { Set(std::move(tokens)); }

void SAccountPattern::Set(SStringList tokens) {
  _parts.clear();
  _matched.Undef();
  auto token = tokens.begin();
  auto const end = tokens.end();
  while (token != end) {
    SString const test = *token++;
    SStringList const testArguments = TakeArguments(token, end);
    SString const action = token != end ? *token++ : SString("");
    AddPattern(test, testArguments, action, TakeArguments(token, end));
  }
}

void SAccountPattern::AddPattern(SString test, SStringList testArguments, SString action, SStringList actionArguments) {
  unsigned const isNegated = test == kNot;
  if (isNegated) test = testArguments.Shift();
  AddPattern(_MapPatternName(test), testArguments, action, actionArguments, isNegated);
}

void SAccountPattern::AddPattern(SPatternType type, SStringList testArguments, SString action,
                                 SStringList actionArguments, unsigned isNegated) {
  _parts.push_back({type, std::move(action), std::move(testArguments), std::move(actionArguments), isNegated});
}

unsigned SAccountPattern::Match(SAccountMatchInfo &info) {
  for (SPatternPart const &part : _parts)
    if ((_Holds(part, info) != 0) != (part.isNegated != 0)) {
      _matched = SStringList(part.action);
      _matched.Push(part.actionArguments);
      return 1;
    }
  return 0;
}

SAccountPattern::operator SStringList() const { return _matched; }

SPatternType SAccountPattern::_MapPatternName(SString const &name) {
  auto const *const place = std::find(std::begin(kNames), std::end(kNames), name.View());
  return place != std::end(kNames) ? static_cast<SPatternType>(place - std::begin(kNames)) : kPatternNever;
}

unsigned SAccountPattern::_Holds(SPatternPart const &part, SAccountMatchInfo &info) {
  SStringList const &arguments = part.testArguments;
  switch (part.type) {
    case kPatternAcctAttrHas:
      return info.AcctAttrHas(arguments.Get(0), arguments.Get(1));
    case kPatternSenderAddrIn:
      return info.SenderAddrIn(arguments);
    case kPatternAcctUidIn:
      return info.GetAccountUID().Length() > 0 && arguments.Contains(info.GetAccountUID());
    case kPatternAlways:
      return 1;
    case kPatternNever:
      return 0;
    case kPatternSubscribingSelf:
      return info.GetSubscribingSelf();
    case kPatternAuthProvided:
      return info.GetAuthProvided();
    case kPatternRemoteUser:
      return info.IsRemoteUser();
  }
  return 0;
}
