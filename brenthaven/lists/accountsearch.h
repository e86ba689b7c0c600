// brenthaven/lists/accountsearch.h - looking users, lists and the subscribers of a list up by a key with wildcards,
// page by page. It stands with the lists, since it asks them who may subscribe.
#pragma once
#include "brenthaven/accounts/account.h"
#include "brenthaven/address/address821.h"
#include "brenthaven/text/named.h"
#include "brenthaven/text/sstring.h"
#include "brenthaven/text/sstringlist.h"

class SRegex;

// Set what is wanted, search, and take the results. What one search finds is added to the results of the one before,
// and neither counts nor gives what they gave. The store is read in slices, so that writers get in between.
//
// What is found must be an account. Users are all but lists, their managers and owners, and those without a Name; with
// an access level wanted, their Directory-Access decides besides ("n": never, "l": up to level 1; one that is empty or
// "d" means the first letter of the environment's DefaultDirectoryAccess, and "n" without that). Lists are those with a
// List-Name, and, with SetRemoteListsOnly or SetAvailableListsOnly, those that would take the address in.
class SAccountSearch {
public:
  enum Kind { kUsers = 1, kLists = 2, kSubscribers = 3 };

  SAccountSearch();

  // "*" stands for any text, any other byte for itself, but see KeySearch. Case does not matter.
  void SetKey(SString const &key) { _key = key; }
  void SetKind(int kind) { _kind = kind; }             // users, until it is set
  void SetList(SString const &list) { _list = list; }  // UID or name of the one whose subscribers are wanted
  void SetRange(int first, int last);                  // the hits wanted, both included; 1 to 10000 until it is set
  void SetAccessLevel(int level) { _accessLevel = level; }  // 1 or 2; 0, as at first, asks for none
  // Which attribute's values the key is compared with: an indexed one. SMTP-Address until it is set, of which
  // "SMTP-Primary-Address" is the first value alone.
  void SetSearchAttribute(SString const &name);
  void SetRemoteListsOnly();                       // lists that an address of no domain of ours could subscribe to
  void SetAvailableListsOnly(SString const &uid);  // lists that this account's first SMTP-Address could subscribe to
  void ExcludePostmasters();                       // Postmaster, and the accounts that get its mail
  void ExcludeReserved();                          // the accounts that modules serve

  // Without "*" the attribute's value must be the key; with one at the end alone, begin with it. With "*" elsewhere it
  // must begin with what is in front of the first "*" and match the key as an expression, in which the bytes other than
  // "*" have their meaning in Perl ("." is any byte), anywhere in the value: "*smith" finds "smithson" too. Subscribers
  // are always matched so, but from end to end. An expression that is none finds nothing, and
  // neither does a key of more than 1024 bytes.
  void KeySearch();
  // Values that begin with no letter, or, without alphabetic, with neither letter nor digit. The key plays no part.
  void KeyClassSearch(unsigned alphabetic);

  // The hits from first to last, in the order of the index, with their UIDs at the same places. A name is the value
  // that was found; for subscribers, an address without its brackets. Each UID is given once.
  SStringList const &GetNames() const { return _names; }
  SStringList const &GetUIDs() const { return _uids; }
  // All hits so far. A search goes on for 100 values behind the last hit wanted, so this is their number where there
  // are few, and tells of a large result that there is more. A UID with several values counts for each in front of the
  // hits wanted, and once behind.
  int GetHits() const { return _hits; }

private:
  void _SearchExactly(SString const &key);
  void _SearchSubscribers(SString const &expression);
  void _ListAddrSearch(SString const &prefix);
  bool _AddRange(SString low, SString const &high, SRegex const *regex);
  bool _AddRegexMatches(SRegex const *regex, int attribute, SStringList const &names, SStringList const &uids);
  void _AddMatch(SString const &name, SString const &uid);
  bool _IsWanted(SString const &name, SString const &uid) const;
  bool _IsWantedUser(SAccount const &account) const;
  bool _IsWantedList(SString const &uid) const;
  void _SetSubscriber(S821Address const &address);
  bool _IsBehindLast();

  SStringList _names;
  SStringList _uids;
  SString _key;
  int _attribute;
  SString _list;
  SNamedValue _seen;  // UIDs excluded and given
  int _accessLevel = 0;
  char _defaultAccess;
  int _kind = kUsers;
  int _first = 1;
  int _last = 10000;
  int _hits = 0;
  int _behindLast = 0;  // values looked at since the last hit wanted
  bool _isPrimaryOnly = false;
  bool _isListAddrSearch = false;
  bool _isForSubscriber = false;  // only lists that would take _subscriber in
  S821Address _subscriber;
};
