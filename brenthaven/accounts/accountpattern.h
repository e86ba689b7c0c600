// brenthaven/accounts/accountpattern.h - a small rule language for policies about senders: who may post, who may
// subscribe, and what becomes of the others.
//
// A policy is a list of tokens, rule after rule: the test's name, its arguments in square brackets each, the action,
// its arguments in square brackets each.
//
//   sender-addr-in [boss@example.org] [<aide@example.org>]  allow
//   not [remote-user]                                       approval [moderator]
//   always                                                  deny
//
// A test named "not" holds when the one named by its first argument does not. What an action means is the caller's.
#pragma once
#include <string_view>
#include <vector>

#include "brenthaven/accounts/account.h"
#include "brenthaven/address/address821.h"
#include "brenthaven/text/sstring.h"
#include "brenthaven/text/sstringlist.h"

// The tests, by the names at their side. The value is the place in the table of names.
enum SPatternType : int {
  kPatternAcctAttrHas = 0,      // "acct-attr-has": the sender's account has, in the attribute [0], the value [1]
  kPatternSenderAddrIn = 1,     // "sender-addr-in": the sender's address stands among the arguments
  kPatternAcctUidIn = 2,        // "acct-uid-in": the UID of the sender's account stands among the arguments
  kPatternAlways = 3,           // "always"
  kPatternNever = 4,            // "never", and every name that is none of these
  kPatternSubscribingSelf = 5,  // "subscribing-self": the flag of SAccountMatchInfo
  kPatternAuthProvided = 6,     // "auth-provided": the flag of SAccountMatchInfo
  kPatternRemoteUser = 7,       // "remote-user": SAccountMatchInfo::IsRemoteUser
};

// What is known about a sender. The account is looked up by the first test that needs it, and once: an object is made
// for one decision and does not see later changes. SAccountBase::ReadFailed tells whether "no account" is to be
// trusted.
class SAccountMatchInfo {
public:
  SAccountMatchInfo(S821Address const &sender);

  void SetAuthProvided(unsigned provided) { _authProvided = provided; }
  void SetSubscribingSelf(unsigned self) { _subscribingSelf = self; }
  void SetLocalDomains(SStringList const &domains);  // without regard to case
  unsigned GetAuthProvided() const { return _authProvided; }
  unsigned GetSubscribingSelf() const { return _subscribingSelf; }

  // 1 when the sender stands in the list, case included; items may stand in angle brackets or not.
  unsigned SenderAddrIn(SStringList const &addresses) const;
  // The account with this SMTP-Address, or else with this Remote-SMTP-Address; empty or undefined if there is none.
  SString GetAccountUID();
  // 1 when the sender has an account, and that has exactly this value among the attribute's values.
  unsigned AcctAttrHas(SString const &attribute, SString const &value);
  // 0 for a sender in one of the local domains and for one with a local account; 1 for one without an account, and for
  // one whose account only stands for a remote address.
  unsigned IsRemoteUser();

private:
  SAccount const &_Account();

  S821Address _sender;
  SStringList _localDomains;
  unsigned _authProvided = 0;
  unsigned _subscribingSelf = 0;
  SString _uid;
  bool _isUidKnown = false;
  SAccount _account;
  bool _isAccountLoaded = false;
};

// One rule.
struct SPatternPart {
  SPatternType type;
  SString action;
  SStringList testArguments;
  SStringList actionArguments;
  unsigned isNegated;
};

class SAccountPattern {
public:
  SAccountPattern();                    // no rules: nothing matches
  SAccountPattern(SStringList tokens);  // as Set

  // Replaces all rules, and forgets the last match. A token begins with "[" and stands behind the first one when it is
  // an argument; its first and last character are cut, whatever the last one is. A list that ends behind a test gives
  // its rule an empty action.
  void Set(SStringList tokens);
  // A rule behind the others. The test has its name of the text form, "not" among them.
  void AddPattern(SString test, SStringList testArguments, SString action, SStringList actionArguments);
  void AddPattern(SPatternType type, SStringList testArguments, SString action, SStringList actionArguments,
                  unsigned isNegated);

  // 1 when a rule holds for the sender: the first such rule's action is kept. 0 when none does; what an earlier call
  // kept then stays.
  unsigned Match(SAccountMatchInfo &info);
  // The action of the last match, and behind it its arguments; empty before the first match.
  operator SStringList() const;

  static SPatternType _MapPatternName(SString const &name);

private:
  static unsigned _Holds(SPatternPart const &part, SAccountMatchInfo &info);

  std::vector<SPatternPart> _parts;
  SStringList _matched;
};
