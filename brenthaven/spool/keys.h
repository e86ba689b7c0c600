// brenthaven/spool/keys.h - the keys and words of control files and the header fields that we write ourselves.
//
// A field key keeps its ending: "X:" lists work still to do, "X!" work that an earlier pass over the same control file
// has finished (constants ending in Done). Keys of a control file are compared exactly, keys of a header without case.
#pragma once

// Control file: who is to do what, and since when.
inline constexpr char const kKeyFunction[] = "Function:";         // name of the module that is to process the file
inline constexpr char const kKeyControlType[] = "Control-Type:";  // one of the kType words
inline constexpr char const kKeyPriority[] = "Priority:";         // decimal digits, "1" before "3"
inline constexpr char const kKeyTrace[] = "Trace:";  // one value a commit: the module that wrote, oldest first

// Control file: the envelope and how the message came in.
inline constexpr char const kKeyUserFrom[] =
    "User-From:";  // "SMTP <a@b>"; the null sender is "SMTP<>", without a blank
inline constexpr char const kKeyHostFrom[] = "Host-From:";  // submitting host, as in "mail.example.org [127.0.0.1]"
inline constexpr char const kKeySubmittedDate[] = "Submitted-Date:";
inline constexpr char const kKeySubmittedVia[] = "Submitted-Via:";
inline constexpr char const kKeyMimeEncoding[] = "MIME-Encoding:";
inline constexpr char const kKeyMtaHops[] = "MTA-Hops:";
inline constexpr char const kKeyMessageSize[] = "Message-Size:";  // kilobytes, rounded up, when we write it
inline constexpr char const kKeyRawMailFrom[] = "Raw-Mail-From:";
inline constexpr char const kKeyRawRcptTo[] = "Raw-Rcpt-To:";
inline constexpr char const kKeyAccumulatedRcptNum[] = "Accumlated-Rcpt-Num:";  // spelled so in every file there is

// Control file: recipients. Channel entries are "SMTP <address>".
inline constexpr char const kKeyChannelTo[] = "Channel-To:";
inline constexpr char const kKeyChannelToDone[] = "Channel-To!";
inline constexpr char const kKeyAccountTo[] = "Account-To:";
inline constexpr char const kKeyAccountToDone[] = "Account-To!";
inline constexpr char const kKeyDeliverTo[] = "Deliver-To:";
inline constexpr char const kKeyDeliverToDone[] = "Deliver-To!";
inline constexpr char const kKeyManagerTo[] = "Manager-To:";
inline constexpr char const kKeyManagerToDone[] = "Manager-To!";
inline constexpr char const kKeyModuleTo[] = "Module-To:";
inline constexpr char const kKeyModuleToDone[] = "Module-To!";
inline constexpr char const kKeyHostTo[] = "Host-To:";  // destination host; names the subdirectory of a deferral
inline constexpr char const kKeyArchiveTransferDone[] = "Archive-Transfer!";

// Control file: what went wrong or waits.
inline constexpr char const kKeyDeferReason[] = "Defer-Reason:";
inline constexpr char const kKeyBadDeliveries[] = "Bad-Deliveries:";
inline constexpr char const kKeyTempFailures[] = "Temp-Failures:";
inline constexpr char const kKeyOverQuota[] = "Over-Quota:";
inline constexpr char const kKeyMailboxDeliverErrorSent[] = "Mailbox-Deliver-Error-Sent:";
inline constexpr char const kKeyError[] = "Error:";  // "Module:Location (ErrorName)"
inline constexpr char const kKeyErrorText[] = "Error-Text:";
inline constexpr char const kKeyErrorNumber[] = "Error-Number:";           // errno
inline constexpr char const kKeySocketErrorNumber[] = "WSAError-Number:";  // last error of the socket layer
inline constexpr char const kKeyErrorMsgType[] = "Error-Msg-Type:";
inline constexpr char const kKeyErrorListUid[] = "Error-List-UID:";
inline constexpr char const kKeyErrorReported[] = "Error-Reported:";  // date; all that is left is to remove the record

// Control file of a request.
inline constexpr char const kKeyReturnPath[] = "Return-Path:";  // decimal UDP port that waits for the answer
inline constexpr char const kKeyRequestType[] = "Request-Type:";
inline constexpr char const kKeyAddress[] = "Address:";
inline constexpr char const kKeyAddressDone[] = "Address!";

// Values of Function:. A delivery module is named by its agent and kDeliverSuffix.
inline constexpr char const kModuleAccountHandler[] = "Account-Handler";
inline constexpr char const kModuleSmtpRouter[] = "SMTP-Router";
inline constexpr char const kModuleSmtpDeliver[] = "SMTP-Deliver";
inline constexpr char const kModuleMailboxDeliver[] = "Mailbox-Deliver";
inline constexpr char const kModuleErrorHandler[] = "Error-Handler";
inline constexpr char const kDeliverSuffix[] = "-Deliver";

// Values of Control-Type:, Priority: and Error-Msg-Type:.
inline constexpr char const kTypeMail[] = "Mail";
inline constexpr char const kTypeRequest[] = "Request";
inline constexpr char const kTypeError[] = "Error";
inline constexpr char const kPriorityNew[] = "1";      // new messages and errors
inline constexpr char const kPriorityRequest[] = "3";  // a request that sets none
inline constexpr char const kErrorMsgTypeReturn[] = "ReturnMessage";

// The channel word, and the two forms that begin with it: an entry is kChannelPrefix + "<address>".
inline constexpr char const kChannelWord[] = "SMTP";
inline constexpr char const kChannelPrefix[] = "SMTP ";
inline constexpr char const kNullSender[] = "SMTP<>";

// Names of a message's files, and of a field file while it is written.
inline constexpr char const kControlSuffix[] = "-Control";
inline constexpr char const kHeaderSuffix[] = "-Header";
inline constexpr char const kBodySuffix[] = "-Body";
inline constexpr char const kTempSuffix[] = ".temp";

// Header fields.
inline constexpr char const kHeaderFrom[] = "From:";
inline constexpr char const kHeaderReplyTo[] = "Reply-To:";
inline constexpr char const kHeaderTo[] = "To:";
inline constexpr char const kHeaderSubject[] = "Subject:";
inline constexpr char const kHeaderDate[] = "Date:";
inline constexpr char const kHeaderMessageId[] = "Message-ID:";
inline constexpr char const kHeaderPrecedence[] = "Precedence:";
inline constexpr char const kHeaderAutoSubmitted[] = "Auto-Submitted:";  // RFC 3834
inline constexpr char const kHeaderMimeVersion[] = "MIME-Version:";
inline constexpr char const kHeaderContentType[] = "Content-Type:";
inline constexpr char const kHeaderContentTransferEncoding[] = "Content-Transfer-Encoding:";
inline constexpr char const kHeaderXSender[] = "X-Sender:";
