// brenthaven/spool/accept.h - taking a new message into the spool, durably.
#pragma once
#include <cstddef>
#include <string>

#include "brenthaven/platform/descriptor.h"
#include "brenthaven/spool/control.h"
#include "brenthaven/spool/module.h"

// The last step of every new message: its header and body files are written, the control is filled in and new. Flushes
// body, header and control text, lets the control appear, and flushes the directories; only after a 1 may the message
// be reported as accepted. 0 with errno when that failed: no control file is left, header and body are the caller's.
int CommitNewMessage(SControl &control);

// Envelope values of a message from here. The sender as User-From: has it: "SMTP <a@b>", or "SMTP<>" for a null or
// broken address; and Host-From: of this host.
SString ChannelSender(S821Address const &address);
SString LocalSubmissionHost();

enum class SAcceptResult {
  kOk,
  kNoSpace,            // the disk or the user's share of it is full: may succeed later
  kFailed,             // any other failure to write, errno says which
  kNoRecipient,        // nobody to send to
  kTooManyRecipients,  // more than kMaxRecipients
  kBadAddress,         // an address that is empty, unparsable or would not stand on one line
  kHeaderTooLarge,     // more than kMaxHeaderBytes
  kTooManyFields,      // more than kMaxHeaderFields
  kBadHeader,          // a line that is neither a field nor the continuation of one, or holds a CR
};
// What happened, in words for an error line: "disk full".
char const *AcceptResultText(SAcceptResult result);

// Whether a text is one address and nothing else, with or without angle brackets: valid, and without a blank, bracket
// or control byte inside but in quotes. The parser is milder: it drops blanks and what stands around the brackets, so
// that a slip would send the message to an address that nobody wrote.
bool IsMailAddress(SString const &text);

// Whether a line (without its line end) may stand in a header: a field name of printable characters, optional blanks
// and a colon, or, unless it is the first line, a blank or tab and anything.
bool IsHeaderLine(char const *line, size_t length, bool first);

// One submission: sender, recipients, header, then body bytes as they come, then Commit. The body goes straight to its
// file, however large. An object that ends without a successful Commit leaves nothing in the spool.
class SAcceptance {
public:
  static constexpr int kMaxRecipients = 10000;
  static constexpr size_t kMaxHeaderBytes = 1 << 20;
  static constexpr int kMaxHeaderFields = 5000;

  explicit SAcceptance(SModule &module);  // gives the name; borrowed
  SAcceptance(SAcceptance const &) = delete;
  SAcceptance &operator=(SAcceptance const &) = delete;
  ~SAcceptance();

  // The spool's name for the message, also the text of a Message-ID without its angle brackets.
  SString GetName() const;
  // Envelope. The sender is an address with or without angle brackets; "" and "<>" are the null sender.
  SAcceptResult SetSender(SString const &address);
  SAcceptResult AddRecipient(SString const &address);
  // The header as the message has it: lines ended by CR LF or LF, no blank line at the end. Becomes the header file as
  // it stands, but for three things that a field file needs: CR LF line ends, no blank before the colon, and a blank
  // behind it.
  SAcceptResult SetHeader(SString const &text);
  // Keeps the envelope in Raw-Mail-From: and Raw-Rcpt-To: too, where archive rules look for it.
  void KeepRawEnvelope() { _keepsRaw = true; }
  // Further fields of the control file, set before Commit: Submitted-Via: and the like.
  SControl &GetControl() { return _control; }

  // The next bytes of the body, unchanged. After a failure nothing more is written and Commit gives the same result.
  SAcceptResult AddBody(char const *data, size_t length);
  // The same from a descriptor, from its offset to its end.
  SAcceptResult AddBodyFrom(int fd);

  // Header, body and control files made durable for "SMTP-Router", and the dispatcher told. kOk: accepted for good.
  SAcceptResult Commit();

private:
  SAcceptResult _Refuse(SAcceptResult result);
  SAcceptResult _Fail();
  SAcceptResult _OpenBody();
  SAcceptResult _FlushBlock();
  SAcceptResult _WriteFiles();
  void _CompleteControl();

  SControl _control;
  SString _header;     // as it goes to the file; undefined until SetHeader
  SDescriptor _body;   // open once there is a body file
  std::string _block;  // body bytes not yet in the file
  unsigned long long _bodyBytes = 0;
  int _recipients = 0;
  SAcceptResult _state = SAcceptResult::kOk;  // the first failure, which every later call repeats
  bool _keepsRaw = false;
  bool _accepted = false;
};
