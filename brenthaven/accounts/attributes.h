// brenthaven/accounts/attributes.h - the one table of account attributes.
//
// The number of an attribute is a byte in every key of BTAccounts.a and BTAccounts.i, so a number is never reused and
// never moved: new attributes go at the end. Names are what configuration, templates and Expanded-Delivery call them.
#pragma once
#include <cstddef>
#include <iterator>
#include <string_view>

#include "brenthaven/store/sobjectdb.h"

// An account attribute by its number. A plain enumeration: the account classes take attributes as int.
enum SAttributeNumber : int {
  kAttrType = 0,
  kAttrAccessDomains = 1,
  kAttrAccountDelivery = 2,
  kAttrAutoReplyInfo = 3,
  kAttrAutoReplyMode = 4,
  kAttrChannelDelivery = 5,
  kAttrFingerAccess = 6,
  kAttrFingerInfo = 7,
  kAttrHomeUrl = 8,
  kAttrHandlerDelivery = 9,
  kAttrLocalDelivery = 10,
  kAttrLogonId = 11,
  kAttrManagerDelivery = 12,
  kAttrName = 13,
  kAttrPopAddress = 14,
  kAttrPassword = 15,
  kAttrProgramDeliverInfo = 16,
  kAttrSmtpAddress = 17,
  kAttrSmtpRewriteStyle = 18,
  kAttrUnixUserName = 19,
  kAttrUseLogonPw = 20,
  kAttrLocked = 21,
  kAttrMailboxQuota = 22,
  kAttrSubscribedLists = 23,
  kAttrSubscribedListsImmediate = 24,
  kAttrSubscribedListsDigest = 25,
  kAttrListOwners = 26,
  kAttrListHeadersToAdd = 27,
  kAttrListHeadersToRemove = 28,
  kAttrListRemoveXHeaders = 29,
  kAttrListPostingPolicy = 30,
  kAttrListSubscriptionPolicy = 31,
  kAttrListPrologue = 32,
  kAttrListEpilogue = 33,
  kAttrListDigestSchedule = 34,
  kAttrListMaxMessagesPerDay = 35,
  kAttrListMaxKbytesPerDay = 36,
  kAttrListLimitPolicy = 37,
  kAttrListName = 38,
  kAttrListShortInfo = 39,
  kAttrListLongInfo = 40,
  kAttrListMaxMessageKbytes = 41,
  kAttrListPriority = 42,
  kAttrRemoteSmtpAddress = 43,
  kAttrListMaxSubscribers = 44,
  kAttrRawPassword = 45,
  kAttrMailboxDir = 46,
  kAttrForwardDelivery = 47,
  kAttrListDigestRestriction = 48,
  kAttrManagerListName = 49,
  kAttrListUnsubscriptionPolicy = 50,
  kAttrListUnsubscribeInfo = 51,
  kAttrExpandedDelivery = 52,
  kAttrParentDomains = 53,
  kAttrListModerationMethod = 54,
  kAttrManagedDomains = 55,
  kAttrLinkedManagerAccount = 56,
  kAttrLinkedOwnerAccount = 57,
  kAttrListAddressExpansionStyle = 58,
  kAttrListMgrSmtpAddress = 59,
  kAttrListOwnerSmtpAddress = 60,
  kAttrProgDelAccount = 61,
  kAttrProgDelPassword = 62,
  kAttrListLocalSubscriberPolicy = 63,
  kAttrListRemoteSubscriberPolicy = 64,
  kAttrListVerifySubscriptions = 65,
  kAttrListVerifyUnsubscriptions = 66,
  kAttrListModerateUnsubscriptions = 67,
  kAttrListSubscriberPostingPolicy = 68,
  kAttrListNonsubscriberPostingPolicy = 69,
  kAttrListWelcomeInfo = 70,
  kAttrListRequestDetection = 71,
  kAttrListStatsMode = 72,
  kAttrListSuppressNotifications = 73,
  kAttrListLocalDomains = 74,
  kAttrListOtherRewrites = 75,
  kAttrListSuppressDuplicates = 76,
  kAttrListLocked = 77,
  kAttrDirectoryAccess = 78,
  kAttrListApprovedPosters = 79,
  kAttrPufEnabled = 80,
  kAttrPerUserFilters = 81,
  kAttrListMailCount = 82,
  kAttrQjJudgeEnabled = 83,
  kAttrLogonAuthMethod = 84,
  kAttrActiveDirectoryDomainUserName = 85,
  kAttrActiveDirectorySecureTransport = 86,
  kAttrLdapServer = 87,
  kAttrLdapPort = 88,
  kAttrLdapDn = 89,
  kAttrLdapSecureTransport = 90,
  kAttrLdapAuthMethod = 91,
  kAttrActiveDirectoryDomain = 92,
  kAttrLdapUseDefault = 93,
  kAttrArchiveRule = 94,
  kAttrLdapServer2 = 95,
  kAttrCount
};

namespace attributes {

struct Row {
  int number;
  std::string_view name;  // compared exactly, case included; NUL-terminated
  unsigned flags;         // SAttributeFlag bits (sobjectdb.h); 0: not indexed
};

inline constexpr Row kTable[] = {
    {kAttrType, "Type", kAttributeIndexed},
    {kAttrAccessDomains, "Access-Domains", 0},
    {kAttrAccountDelivery, "Account-Delivery", kAttributeIndexed},
    {kAttrAutoReplyInfo, "AutoReply-Info", 0},
    {kAttrAutoReplyMode, "AutoReply-Mode", 0},
    {kAttrChannelDelivery, "Channel-Delivery", kAttributeLowerCase | kAttributeAddress | kAttributeSecondWord},
    {kAttrFingerAccess, "Finger-Access", 0},
    {kAttrFingerInfo, "Finger-Info", 0},
    {kAttrHomeUrl, "Home-URL", 0},
    {kAttrHandlerDelivery, "Handler-Delivery", 0},
    {kAttrLocalDelivery, "Local-Delivery", 0},
    {kAttrLogonId, "Logon-Id", 0},
    {kAttrManagerDelivery, "Manager-Delivery", 0},
    {kAttrName, "Name", kAttributeLowerCase | kAttributeIndexed},
    {kAttrPopAddress, "POP-Address", kAttributeLowerCase | kAttributeIndexed | kAttributeUnique},
    {kAttrPassword, "Password", 0},
    {kAttrProgramDeliverInfo, "Program-Deliver-Info", 0},
    {kAttrSmtpAddress, "SMTP-Address", kAttributeLowerCase | kAttributeAddress | kAttributeUnique},
    {kAttrSmtpRewriteStyle, "SMTP-RewriteStyle", 0},
    {kAttrUnixUserName, "UNIX-UserName", 0},
    {kAttrUseLogonPw, "Use-Logon-PW", 0},
    {kAttrLocked, "Locked", 0},
    {kAttrMailboxQuota, "Mailbox-Quota", 0},
    {kAttrSubscribedLists, "Subscribed-Lists", kAttributeIndexed},
    {kAttrSubscribedListsImmediate, "Subscribed-Lists-Immediate", kAttributeIndexed},
    {kAttrSubscribedListsDigest, "Subscribed-Lists-Digest", kAttributeIndexed},
    {kAttrListOwners, "List-Owners", kAttributeIndexed},
    {kAttrListHeadersToAdd, "List-Headers-To-Add", 0},
    {kAttrListHeadersToRemove, "List-Headers-To-Remove", 0},
    {kAttrListRemoveXHeaders, "List-Remove-X-Headers", 0},
    {kAttrListPostingPolicy, "List-Posting-Policy", 0},
    {kAttrListSubscriptionPolicy, "List-Subscription-Policy", 0},
    {kAttrListPrologue, "List-Prologue", 0},
    {kAttrListEpilogue, "List-Epilogue", 0},
    {kAttrListDigestSchedule, "List-Digest-Schedule", 0},
    {kAttrListMaxMessagesPerDay, "List-Max-Messages-Per-Day", 0},
    {kAttrListMaxKbytesPerDay, "List-Max-Kbytes-Per-Day", 0},
    {kAttrListLimitPolicy, "List-Limit-Policy", 0},
    {kAttrListName, "List-Name", kAttributeLowerCase | kAttributeIndexed | kAttributeUnique},
    {kAttrListShortInfo, "List-Short-Info", 0},
    {kAttrListLongInfo, "List-Long-Info", 0},
    {kAttrListMaxMessageKbytes, "List-Max-Message-Kbytes", 0},
    {kAttrListPriority, "List-Priority", 0},
    {kAttrRemoteSmtpAddress, "Remote-SMTP-Address", kAttributeLowerCase | kAttributeAddress | kAttributeUnique},
    {kAttrListMaxSubscribers, "List-Max-Subscribers", 0},
    {kAttrRawPassword, "Raw-Password", 0},
    {kAttrMailboxDir, "MailboxDir", 0},
    {kAttrForwardDelivery, "Forward-Delivery", 0},
    {kAttrListDigestRestriction, "List-Digest-Restriction", 0},
    {kAttrManagerListName, "Manager-List-Name", 0},
    {kAttrListUnsubscriptionPolicy, "List-Unsubscription-Policy", 0},
    {kAttrListUnsubscribeInfo, "List-Unsubscribe-Info", 0},
    {kAttrExpandedDelivery, "Expanded-Delivery", 0},
    {kAttrParentDomains, "Parent-Domains", kAttributeLowerCase | kAttributeDomain},
    {kAttrListModerationMethod, "List-Moderation-Method", 0},
    {kAttrManagedDomains, "Managed-Domains", 0},
    {kAttrLinkedManagerAccount, "Linked-Manager-Account", kAttributeIndexed},
    {kAttrLinkedOwnerAccount, "Linked-Owner-Account", kAttributeIndexed},
    {kAttrListAddressExpansionStyle, "List-Address-Expansion-Style", 0},
    {kAttrListMgrSmtpAddress, "ListMgr-SMTP-Address", 0},
    {kAttrListOwnerSmtpAddress, "ListOwner-SMTP-Address", 0},
    {kAttrProgDelAccount, "ProgDel-Account", 0},
    {kAttrProgDelPassword, "ProgDel-Password", 0},
    {kAttrListLocalSubscriberPolicy, "List-Local-Subscriber-Policy", 0},
    {kAttrListRemoteSubscriberPolicy, "List-Remote-Subscriber-Policy", 0},
    {kAttrListVerifySubscriptions, "List-Verify-Subscriptions", 0},
    {kAttrListVerifyUnsubscriptions, "List-Verify-Unsubscriptions", 0},
    {kAttrListModerateUnsubscriptions, "List-Moderate-Unsubscriptions", 0},
    {kAttrListSubscriberPostingPolicy, "List-Subscriber-Posting-Policy", 0},
    {kAttrListNonsubscriberPostingPolicy, "List-Nonsubscriber-Posting-Policy", 0},
    {kAttrListWelcomeInfo, "List-Welcome-Info", 0},
    {kAttrListRequestDetection, "List-Request-Detection", 0},
    {kAttrListStatsMode, "List-Stats-Mode", 0},
    {kAttrListSuppressNotifications, "List-Suppress-Notifications", 0},
    {kAttrListLocalDomains, "List-Local-Domains", 0},
    {kAttrListOtherRewrites, "List-Other-Rewrites", 0},
    {kAttrListSuppressDuplicates, "List-Suppress-Duplicates", 0},
    {kAttrListLocked, "List-Locked", 0},
    {kAttrDirectoryAccess, "Directory-Access", 0},
    {kAttrListApprovedPosters, "List-Approved-Posters", kAttributeIndexed},
    {kAttrPufEnabled, "PUF-Enabled", 0},
    {kAttrPerUserFilters, "PerUserFilters", 0},
    {kAttrListMailCount, "List-MailCount", 0},
    {kAttrQjJudgeEnabled, "QJ-Judge-Enabled", 0},
    {kAttrLogonAuthMethod, "Logon-Auth-Method", 0},
    {kAttrActiveDirectoryDomainUserName, "ActiveDirectory-Domain-User-Name", 0},
    {kAttrActiveDirectorySecureTransport, "ActiveDirectory-Secure-Transport", 0},
    {kAttrLdapServer, "LDAP-Server", 0},
    {kAttrLdapPort, "LDAP-Port", 0},
    {kAttrLdapDn, "LDAP-DN", 0},
    {kAttrLdapSecureTransport, "LDAP-Secure-Transport", 0},
    {kAttrLdapAuthMethod, "LDAP-Auth-Method", 0},
    {kAttrActiveDirectoryDomain, "ActiveDirectory-Domain", 0},
    {kAttrLdapUseDefault, "LDAP-UseDefault", 0},
    {kAttrArchiveRule, "Archive-Rule", 0},
    {kAttrLdapServer2, "LDAP-Server2", 0},
};

consteval bool IsSound() {
  if (std::size(kTable) != static_cast<std::size_t>(kAttrCount)) return false;
  for (int i = 0; i < kAttrCount; ++i) {
    if (kTable[i].number != i || kTable[i].name.empty()) return false;
    if ((kTable[i].flags & kAttributeSecondWord) != 0 && (kTable[i].flags & kAttributeAddress) == 0) return false;
    for (int j = 0; j < i; ++j)
      if (kTable[i].name == kTable[j].name) return false;
  }
  return true;
}
static_assert(IsSound(), "rows stand at their numbers, no name stands twice, a second word is one of an address");

// The attribute's number; -1 for a name that no row has.
constexpr int NumberOf(std::string_view name) {
  for (Row const &row : kTable)
    if (row.name == name) return row.number;
  return -1;
}

// The name as C text, for the operations that take attributes by name; null outside the table.
constexpr char const *NameOf(int number) {
  return number >= 0 && number < kAttrCount ? kTable[number].name.data() : nullptr;
}

}  // namespace attributes
