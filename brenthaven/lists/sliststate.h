// brenthaven/lists/sliststate.h - the state of one list: counters, posters, message ids, and what waits for an answer.
//
// The file listdata/UID below the root, in the encoding of SPickleFile, holds in this order:
//
//   int   version, always 1                     list  users, as they were named to GetUserNum
//   int   total messages                        list  messages of each, decimal
//   int   total kilobytes                       list  kilobytes of each
//   int   digest volume                         list  moderated postings of each
//   int   digest number                         list  bounces of each
//   int   kept as it is                         list  ids of the last 50 messages
//   int   subscriptions                         list  texts of the postings that wait for approval: message names
//   int   unsubscriptions                       list  their ids, at the same places
//   int   forced unsubscriptions                list  requests to subscribe, immediate: local@domain
//   int   kept as it is                         list  requests to unsubscribe
//                                               list  requests to subscribe, digest
#pragma once
#include <array>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "brenthaven/address/address821.h"
#include "brenthaven/platform/pickle.h"
#include "brenthaven/text/sstring.h"
#include "brenthaven/text/sstringlist.h"

// The cycle is Read, changes, Commit; the list's lock is held in between, and what is not committed is dropped with the
// object. Accounts come first: whoever needs them between Read and Commit makes the SAccountDBMod, or to read alone an
// SAccountReadScope, before Read. Otherwise two processes wait for each other for ever, one with the accounts and one
// with the list. Every call but Read and Remove works on what Read took in. User indexes are those of GetUserNum; one
// out of range counts 0 and is not kept.
class SListState : public SPickleFile {
public:
  explicit SListState(SString const &uid);

  // 1 with the lock held; at once when it was read and not committed. A missing file is a list without history. 0, with
  // a line in the log, for a UID that is no safe file name, a refused lock, and a file that can't be read or does not
  // end with its last record: such a file stays as it is until a person has looked at it, for it holds what waits.
  unsigned Read();
  // Replaces the file durably and gives the lock up. 0 with the old file and the lock kept; a temporary file that a
  // crash left is removed first.
  unsigned Commit();
  // Removes the file and its lock file; what is missing counts as removed.
  unsigned Remove();

  int IncrTotalMessages();             // the new total, as all of this kind
  int IncrTotalKbytes(int kilobytes);  // totals stay at the greatest int when they would pass it
  int GetDigestVolume();               // 0 becomes 1, for good
  int IncrDigestVolume();              // the digests' numbers start at 1 again
  int IncrDigestNumber();
  int IncrSubscriptions();
  int IncrUnsubscriptions(unsigned forced);
  int GetTotalMessages() const { return _ints[kTotalMessages]; }
  int GetTotalKbytes() const { return _ints[kTotalKbytes]; }
  int GetDigestNumber() const { return _ints[kDigestNumber]; }
  int GetSubscriptions() const { return _ints[kSubscriptions]; }
  int GetUnsubscriptions() const { return _ints[kUnsubscriptions]; }
  int GetForcedUnsubscriptions() const { return _ints[kForcedUnsubscriptions]; }

  // The user's index, in constant time; an unknown user is appended.
  int GetUserNum(SString const &user);
  int GetUserCount() const { return static_cast<int>(_users.size()); }
  SString GetUser(int user) const;
  int IncrUserTotalMessages(int user) { return _AddToUser(user, kUserMessages, 1); }
  int IncrUserTotalKbytes(int user, int kilobytes) { return _AddToUser(user, kUserKbytes, kilobytes); }
  int IncrModeratedPostCount(int user) { return _AddToUser(user, kUserModerated, 1); }
  int IncrBounceCount(int user) { return _AddToUser(user, kUserBounces, 1); }
  int GetUserTotalMessages(int user) const { return _UserValue(user, kUserMessages); }
  int GetUserTotalKbytes(int user) const { return _UserValue(user, kUserKbytes); }
  int GetModeratedPostCount(int user) const { return _UserValue(user, kUserModerated); }
  int GetBounceCount(int user) const { return _UserValue(user, kUserBounces); }
  void ResetBounceCount(int user);

  // Zeroes the totals and the three counts of subscriptions. Users who have neither moderated postings nor bounces are
  // forgotten, the others keep those two counts alone. Indexes from before do not hold any more.
  void ClearStats();

  // 1 when the id was seen already; the last 50 are known. An empty id is never seen.
  int AddMessageID(SString const &id);

  // Postings that wait for approval, oldest first.
  void AddApproveMsg(SString const &id, SString const &text);
  int DeleteApproveMsg(int index);  // 1, or 0 out of range
  int GetApproveMsgsCount() const { return _approvalIds.Length(); }
  int FindApproveMsg(SString const &id) const { return _approvalIds.Index(id); }  // -1 when it does not wait
  SString GetApproveMsgId(int index) const { return _approvalIds.Get(index); }
  SString GetApproveMsgText(int index) const { return _approvalTexts.Get(index); }

  // Requests that wait for approval. 1 when one was added or removed; 0 when it was there, or was not.
  int AddSubscribeRequest(S821Address const &address, unsigned int digest);
  int RemoveSubscribeRequest(S821Address const &address);  // from both lists
  int AddUnsubscribeRequest(S821Address const &address);
  int RemoveUnsubscribeRequest(S821Address const &address);
  SStringList const &GetSubscribeRequests(unsigned int digest) const { return digest ? _digestRequests : _requests; }
  SStringList const &GetUnsubscribeRequests() const { return _leaveRequests; }

private:
  enum IntRecord {  // places of the leading records
    kVersion,
    kTotalMessages,
    kTotalKbytes,
    kDigestVolume,
    kDigestNumber,
    kKept,
    kSubscriptions,
    kUnsubscriptions,
    kForcedUnsubscriptions,
    kKeptToo,
    kIntRecords
  };
  enum UserValue { kUserMessages, kUserKbytes, kUserModerated, kUserBounces, kUserValues };

  void _TakeIn();
  void _TakeInUsers();
  void _IndexUsers();
  void _PutColumn(std::vector<SString> const &column);
  int _AddTo(IntRecord record, int amount);
  int _AddToUser(int user, UserValue value, int amount);
  int _UserValue(int user, UserValue value) const;
  bool _IsUser(int user) const { return user >= 0 && user < GetUserCount(); }

  SString _uid;
  SString _file;
  bool _loaded = false;
  std::array<int, kIntRecords> _ints{};
  // Parallel, values as decimal strings: a large list's poster table is read and written far more often than counted.
  std::vector<SString> _users;
  std::array<std::vector<SString>, kUserValues> _values;
  std::unordered_map<std::string_view, int> _places;  // of users, by the bytes of their strings in _users
  SStringList _messageIds;
  SStringList _approvalTexts;
  SStringList _approvalIds;
  SStringList _requests;
  SStringList _leaveRequests;
  SStringList _digestRequests;
};
