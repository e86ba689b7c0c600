// brenthaven/lists/listtexts.h - the texts of list mail that an installation starts with, in English.
//
// They stand in the settings under "List-Manager", section "Messages", where an administrator changes them; a text that
// is missing there is taken from here. The line that begins with "Subject:" is the mail's subject. A word in "<+++" and
// "+++>" is filled in: Command, Subscriber, ListName, ListAddress, AuthAddress, AuthKey, OwnerAddress.
#pragma once
#include <string_view>

namespace listtexts {

// The texts that this folder sends.
inline constexpr char kAuthKeyRequest[] = "AuthKeyRequest";
inline constexpr char kApprovalRequest[] = "ApprovalRequest";
inline constexpr char kApprovalHoldRequest[] = "ApprovalHoldRequest";
inline constexpr char kSubscribeAttempt[] = "SubscribeAttemptNotification";
inline constexpr char kOverLimit[] = "OverLimitNotification";
inline constexpr char kSubscribeRejection[] = "SubscribeRejectionNotice";
inline constexpr char kUnsubscribeRejection[] = "UnsubscribeRejectionNotice";
// Those that SendToModerators puts in front of a posting. Subscriber is its poster, AuthKey the id by which it waits.
inline constexpr char kPostApproval[] = "PostApprovalRequest";
inline constexpr char kPostOverLimit[] = "OverGlobalLimitRequest";
inline constexpr char kPostAttempt[] = "PostAttemptNotification";

// The frame of an answer to requests.
inline constexpr char kAnswer[] = "RequestAnswer";
inline constexpr char kAnswerEnd[] = "RequestAnswerEnd";

struct Row {
  char const *key;
  char const *text;
};

inline constexpr Row kTable[] = {
    {kAuthKeyRequest,
     "Subject: confirm <+++AuthKey+++> <+++Command+++> <+++ListName+++> <+++Subscriber+++>\r\n"
     "Somebody, we hope you, asked for this on the mailing list <+++ListName+++>\r\n"
     "(<+++ListAddress+++>):\r\n"
     "\r\n"
     "    <+++Command+++> <+++Subscriber+++>\r\n"
     "\r\n"
     "If that is what you want, simply reply to this mail and leave its subject as\r\n"
     "it is, or send this line to <+++AuthAddress+++>:\r\n"
     "\r\n"
     "confirm <+++AuthKey+++> <+++Command+++> <+++ListName+++> <+++Subscriber+++>\r\n"
     "\r\n"
     "If it is not, do nothing: nothing will be changed.\r\n"
     "The people who look after the list read <+++OwnerAddress+++>.\r\n"},
    {kApprovalRequest,
     "Subject: <+++ListName+++>: please decide on <+++Command+++> <+++Subscriber+++>\r\n"
     "This request for the mailing list <+++ListName+++> needs your approval:\r\n"
     "\r\n"
     "    <+++Command+++> <+++Subscriber+++>\r\n"
     "\r\n"
     "To approve it, send this line with your password to <+++AuthAddress+++>:\r\n"
     "\r\n"
     "approve PASSWORD <+++Command+++> <+++ListName+++> <+++Subscriber+++>\r\n"
     "\r\n"
     "To refuse it, you need not do anything.\r\n"},
    {kApprovalHoldRequest,
     "Subject: <+++ListName+++>: <+++Command+++> <+++Subscriber+++> waits for you\r\n"
     "This request for the mailing list <+++ListName+++> waits for your decision:\r\n"
     "\r\n"
     "    <+++Command+++> <+++Subscriber+++>\r\n"
     "\r\n"
     "It stays in the queue of the list until you approve or reject it. To approve it\r\n"
     "by mail, send this line with your password to <+++AuthAddress+++>:\r\n"
     "\r\n"
     "approve PASSWORD <+++Command+++> <+++ListName+++> <+++Subscriber+++>\r\n"},
    {kSubscribeAttempt,
     "Subject: <+++ListName+++>: <+++Command+++> <+++Subscriber+++> was refused\r\n"
     "The mailing list <+++ListName+++> is closed, and this request was refused:\r\n"
     "\r\n"
     "    <+++Command+++> <+++Subscriber+++>\r\n"
     "\r\n"
     "You get this mail because the list is set to tell its owners. If the address\r\n"
     "should be let in, send this line with your password to <+++AuthAddress+++>:\r\n"
     "\r\n"
     "approve PASSWORD <+++Command+++> <+++ListName+++> <+++Subscriber+++>\r\n"},
    {kOverLimit,
     "Subject: <+++ListName+++> is full\r\n"
     "The mailing list <+++ListName+++> (<+++ListAddress+++>) has as many subscribers\r\n"
     "as it may have. This request was refused:\r\n"
     "\r\n"
     "    <+++Command+++> <+++Subscriber+++>\r\n"},
    {kSubscribeRejection,
     "Subject: Your request to join <+++ListName+++>\r\n"
     "Your request to subscribe <+++Subscriber+++> to the mailing list\r\n"
     "<+++ListName+++> was turned down by the owners of the list.\r\n"
     "\r\n"
     "If you have questions, write to <+++OwnerAddress+++>.\r\n"},
    {kUnsubscribeRejection,
     "Subject: Your request to leave <+++ListName+++>\r\n"
     "Your request to take <+++Subscriber+++> off the mailing list\r\n"
     "<+++ListName+++> was turned down by the owners of the list.\r\n"
     "\r\n"
     "If you have questions, write to <+++OwnerAddress+++>.\r\n"},
    {kPostApproval,
     "Subject: <+++ListName+++>: a posting of <+++Subscriber+++> needs your approval\r\n"
     "The posting below to the mailing list <+++ListName+++> needs the approval of an\r\n"
     "owner. If it waits in the queue of the list, send one of these lines with your\r\n"
     "password to <+++AuthAddress+++>:\r\n"
     "\r\n"
     "approve PASSWORD accept <+++AuthKey+++> <+++ListName+++>\r\n"
     "approve PASSWORD reject <+++AuthKey+++> <+++ListName+++>\r\n"},
    {kPostOverLimit,
     "Subject: <+++ListName+++>: a posting of <+++Subscriber+++> is over a limit\r\n"
     "The posting below to the mailing list <+++ListName+++> is larger than the list\r\n"
     "allows, or more than it sends in one day. If it waits in the queue of the list,\r\n"
     "send one of these lines with your password to <+++AuthAddress+++>:\r\n"
     "\r\n"
     "approve PASSWORD accept <+++AuthKey+++> <+++ListName+++>\r\n"
     "approve PASSWORD reject <+++AuthKey+++> <+++ListName+++>\r\n"},
    {kPostAttempt,
     "Subject: <+++ListName+++>: a posting of <+++Subscriber+++> was refused\r\n"
     "The posting below to the mailing list <+++ListName+++> was refused, and its sender\r\n"
     "told so. You get this mail because the list is set to tell its owners.\r\n"},
    // Answers to requests by mail: its beginning and end, and between them the text of each outcome, behind the name
    // of the command where there is such a row.
    {kAnswer,
     "Subject: Your request to <+++AuthAddress+++>\r\n"
     "This answers your mail to <+++AuthAddress+++>, line by line.\r\n"},
    {kAnswerEnd,
     "\r\n"
     "For all commands send the word help to <+++AuthAddress+++>.\r\n"},
    {"Success", "done.\r\n"},
    {"Subscribe-Success", "<+++Subscriber+++> is now on the mailing list <+++ListName+++>.\r\n"},
    {"Unsubscribe-Success", "<+++Subscriber+++> is no longer on the mailing list <+++ListName+++>.\r\n"},
    {"Accept-Success", "it was let through.\r\n"},
    {"Reject-Success", "it was turned down.\r\n"},
    {"Which-Success", "<+++Subscriber+++> is on these mailing lists:\r\n"},
    {"Lists-Success", "you may join these mailing lists:\r\n"},
    {"Info-Success", "about the mailing list <+++ListName+++> (<+++ListAddress+++>):\r\n"},
    {"Who-Success", "on the mailing list <+++ListName+++> are:\r\n"},
    {"Help-Success",
     "these are the commands, one to a line, in the subject or the text of a mail:\r\n"
     "\r\n"
     "    subscribe [digest] [LIST] [ADDRESS]\r\n"
     "    unsubscribe [LIST] [ADDRESS]\r\n"
     "    confirm KEY\r\n"
     "    which\r\n"
     "    lists\r\n"
     "    info [LIST]\r\n"
     "    help\r\n"
     "    end\r\n"
     "\r\n"
     "LIST is the name of a mailing list, and may be left out in a mail to the\r\n"
     "LISTNAME-request address of the list. ADDRESS is yours if you leave it out.\r\n"
     "The word digest asks for many postings in one mail. A key comes by mail; just\r\n"
     "reply to that mail. Which tells the lists that you are on, and end keeps the\r\n"
     "rest of a mail from being read.\r\n"
     "\r\n"
     "For the owners of a list:\r\n"
     "\r\n"
     "    who [LIST]\r\n"
     "    approve PASSWORD subscribe [digest] [LIST] ADDRESS\r\n"
     "    approve PASSWORD unsubscribe [LIST] ADDRESS\r\n"
     "    approve PASSWORD accept WHAT [LIST]\r\n"
     "    approve PASSWORD reject WHAT [LIST]\r\n"
     "\r\n"
     "WHAT is the id of a posting that waits, or the address of somebody who does.\r\n"},
    {"ApprovalRequired", "the owners of <+++ListName+++> were asked, and will decide.\r\n"},
    {"AuthenticationRequired",
     "a mail with a key went to <+++Subscriber+++>. Nothing is changed\r\n"
     "until somebody replies to it.\r\n"},
    {"BadAuthKey",
     "the key is wrong, too old, or was made for something else. Ask once more to\r\n"
     "get a new one.\r\n"},
    {"RequestDenied", "the mailing list <+++ListName+++> does not allow it.\r\n"},
    {"Who-RequestDenied", "only the owners of <+++ListName+++> may see that.\r\n"},
    {"BadPassword", "that is not the password of an owner of <+++ListName+++>.\r\n"},
    {"AlreadySubscribed", "<+++Subscriber+++> is on <+++ListName+++> already.\r\n"},
    {"NoSuchList", "there is no mailing list <+++ListName+++> here.\r\n"},
    {"NotSubscribed", "<+++Subscriber+++> is not on <+++ListName+++>.\r\n"},
    {"TempFail", "this could not be done. Please try it again later.\r\n"},
    {"MsgNotFound", "nothing like that waits at <+++ListName+++>.\r\n"},
    {"OverLimit", "<+++ListName+++> has as many subscribers as it may have.\r\n"},
    {"InvalidAddress", "<+++Subscriber+++> is no mail address that could be on a list.\r\n"},
    {"NoLocalAccount", "nobody here has the address <+++Subscriber+++>.\r\n"},
    {"SubscriptionChanged", "<+++Subscriber+++> gets <+++ListName+++> in the new way from now on.\r\n"},
    {"Locked", "<+++ListName+++> is locked: it takes no requests now.\r\n"},
    {"CircularSubscription", "a list can't be on itself.\r\n"},
    {"UnknownCommand", "this is no command.\r\n"},
    {"BadSyntax", "this command lacks a word, perhaps the name of a list, or has one too many.\r\n"},
    {"TooManyCommands", "the rest of the mail was not read.\r\n"},
};

// The text of a key; null for a key without one.
constexpr char const *TextOf(std::string_view key) {
  for (Row const &row : kTable)
    if (key == row.key) return row.text;
  return nullptr;
}

}  // namespace listtexts
