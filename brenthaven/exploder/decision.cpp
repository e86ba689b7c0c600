#include "brenthaven/exploder/decision.h"

#include <algorithm>
#include <ctime>

#include "brenthaven/accounts/accountpattern.h"
#include "brenthaven/accounts/attributes.h"
#include "brenthaven/exploder/dailybase.h"
#include "brenthaven/exploder/listheaders.h"
#include "brenthaven/lists/listtexts.h"
#include "brenthaven/spool/keys.h"

namespace {

constexpr char kAllow[] = "allow";
constexpr char kDeny[] = "deny";
constexpr char kDenyNotify[] = "deny-notify";
constexpr char kApproval[] = "approval";
constexpr char kRequireAuth[] = "require-auth";

// Statuses of RFC 3463.
constexpr char kNotAuthorized[] = "5.7.2";  // the sender may not send to the list
constexpr char kTooLarge[] = "5.3.4";
constexpr char kSystemFull[] = "5.2.2";  // the list takes no more today

// A policy word as the action of a rule.
SString ActionOf(SString const &word) {
  if (word == "closed") return kDeny;
  if (word == "closed-notify") return kDenyNotify;
  return word == "moderated" ? kApproval : kAllow;
}

SString PatternAction(SList const &list, SStringList const &rules, S821Address const &poster) {
  SAccountPattern pattern(rules);
  SAccountMatchInfo info(poster);
  SStringList domains;
  for (SString const &domain : list.Get(kAttrListLocalDomains)) domains.Push(LowerCase(domain));
  info.SetLocalDomains(domains);
  SString action = pattern.Match(info) ? static_cast<SStringList>(pattern).Get(0) : SString();
  if (action == kDeny || action == kDenyNotify || action == kApproval) return action;
  return action == kRequireAuth ? kApproval : kAllow;
}

bool IsSubscriber(SList const &list, S821Address const &address) {
  SAccount account;
  return address.IsValid() && SListDB().GetAccountInfo(SListDB().GetSubscriberUID(address), &account) &&
         account.Get(kAttrSubscribedLists).Contains(list.GetUID());
}

SDecision Held(SString const &why, char const *text) {
  return {.verdict = SVerdict::kHold, .why = why, .status = "", .text = text};
}

SDecision Refused(SString const &why, char const *status, bool notify) {
  return {.verdict = SVerdict::kRefuse, .why = why, .status = status, .text = notify ? listtexts::kPostAttempt : ""};
}

// Which limit a posting would pass, with the status that tells it; empty for none.
struct Limit {
  SString why;
  char const *status = "";
};

Limit PassedLimit(SPosting const &posting, SListState const &state) {
  SList const &list = posting.list;
  auto const limitOf = [&list](int attribute) { return list.GetString(attribute).AsLong(); };  // 0 and below: none
  long const mostKbytes = limitOf(kAttrListMaxMessageKbytes);
  if (mostKbytes > 0 && posting.kbytes > mostKbytes)
    return {"the message has " + MakeSString(posting.kbytes) + " kilobytes, of " + MakeSString(mostKbytes) +
                " that the list allows",
            kTooLarge};
  long const mostADay = limitOf(kAttrListMaxMessagesPerDay);
  long const mostKbytesADay = limitOf(kAttrListMaxKbytesPerDay);
  if (mostADay <= 0 && mostKbytesADay <= 0) return {};
  SDailyCounts const today = CountsOfToday(list.GetUID(), state, time(nullptr));
  if (mostADay > 0 && today.messages >= mostADay)
    return {"the list has sent " + MakeSString(today.messages) + " messages today, which is its limit", kSystemFull};
  if (mostKbytesADay > 0 && static_cast<long>(today.kbytes) + posting.kbytes > mostKbytesADay)
    return {"the list would send more than the " + MakeSString(mostKbytesADay) + " kilobytes of one day", kSystemFull};
  return {};
}

SDecision Judge(SPosting const &posting, SListState const &state) {
  SList const &list = posting.list;
  if (!IsApprovedPoster(list, posting.poster)) {
    SString const action = PolicyAction(list, posting.poster);
    if (action == kApproval) return Held("postings need the approval of the list's owners", listtexts::kPostApproval);
    if (action != kAllow) return Refused("you may not post to this list", kNotAuthorized, action == kDenyNotify);
  }
  Limit const limit = PassedLimit(posting, state);
  if (limit.why.Length() == 0) return {};
  SString const policy = list.GetString(kAttrListLimitPolicy);
  SString const action = policy.Length() > 0 ? ActionOf(policy) : SString(kApproval);
  if (action == kAllow) return {};
  if (action == kDeny || action == kDenyNotify) return Refused(limit.why, limit.status, action == kDenyNotify);
  return Held(limit.why, listtexts::kPostOverLimit);
}

}  // namespace

bool IsApprovedPoster(SList const &list, S821Address const &poster) {
  SStringList const approved = list.Get(kAttrListApprovedPosters);
  if (approved.Length() == 0 || !poster.IsValid()) return false;
  SListDB accounts;
  SString const uid = accounts.GetSubscriberUID(poster);
  SString const address = LowerCase(BareAddress(poster));
  return std::any_of(approved.begin(), approved.end(), [&](SString const &entry) {
    if (uid.Length() > 0 && entry == uid) return true;
    S821Address const other(entry);
    if (!other.IsValid() || other.Domain().Length() == 0) return false;
    return LowerCase(BareAddress(other)) == address || (uid.Length() > 0 && accounts.GetSubscriberUID(other) == uid);
  });
}

SString PolicyAction(SList const &list, S821Address const &poster) {
  if (SStringList const rules = list.Get(kAttrListPostingPolicy); rules.Length() > 0)
    return PatternAction(list, rules, poster);
  return ActionOf(list.GetString(IsSubscriber(list, poster) ? kAttrListSubscriberPostingPolicy
                                                            : kAttrListNonsubscriberPostingPolicy));
}

bool IsLoop(SList const &list, SHeader const &header) {
  SString const own = "<" + SListNames(list).id + ">";
  SStringList const ids = header.Get("List-Id:");
  return std::any_of(ids.begin(), ids.end(), [&own](SString const &id) { return LowerCase(id).Index(own) >= 0; });
}

SDecision DecideByRules(SPosting const &posting, SListState &state) {
  if (posting.list.IsListLocked() && !IsApprovedPoster(posting.list, posting.poster))
    return Refused("the list is closed at present", kNotAuthorized, false);
  if (state.AddMessageID(posting.header.Get(kHeaderMessageId).Get(0)))
    return {.verdict = SVerdict::kDrop, .why = "duplicate", .status = "", .text = ""};
  SDecision decision = Judge(posting, state);
  if (SAccountBase::ReadFailed())  // whoever seems a stranger may be none
    return {.verdict = SVerdict::kRetry, .why = "accounts could not be read", .status = "", .text = ""};
  return decision;
}
