// Building a report: to whom, what it says (three parts at most), body file, header file, control.
#include "brenthaven/spool/returned.h"

#include <algorithm>
#include <cerrno>
#include <string_view>

#include "brenthaven/accounts/accountdb.h"
#include "brenthaven/accounts/special.h"
#include "brenthaven/address/address822.h"
#include "brenthaven/mime/japanese.h"
#include "brenthaven/mime/smime.h"
#include "brenthaven/platform/dates.h"
#include "brenthaven/platform/files.h"
#include "brenthaven/spool/accept.h"
#include "brenthaven/spool/keys.h"
#include "brenthaven/spool/log.h"
#include "brenthaven/spool/report.h"
#include "brenthaven/text/base.h"
#include "brenthaven/text/sstringset.h"

namespace {

constexpr char kPostmasterAt[] = "Postmaster@";
constexpr char kAdministrator[] = "Mail Administrator";
constexpr char kSubject[] = "Mail System Error - Returned Mail";
constexpr char kReasonFollows[] = "This Message was undeliverable due to the following reason:\r\n\r\n";
constexpr char kPleaseReply[] = "Please reply to ";
constexpr char kIfInError[] = "if you feel this message to be in error.\r\n";
constexpr long kDefaultMaxKbytes = 64;
constexpr long kKilobyte = 1024;
constexpr long kLeastHeader = 16 * kKilobyte;
constexpr size_t kMostLineBytes = 998;        // RFC 5322 section 2.1.1
constexpr size_t kMostDiagnosticBytes = 900;  // leaves room for the field's name

// Encodings of a part that is not encoded, RFC 2045 section 6.2, from the narrowest to the widest.
enum SEncoding { k7Bit, k8Bit, kBinary };
constexpr char const *kEncodingNames[] = {"7bit", "8bit", "binary"};

SString PostmasterAddress() { return kPostmasterAt + GetEnv("DomainName"); }
SString AdministratorAt(SString const &host) { return SString(kAdministrator) + "<" + kPostmasterAt + host + ">"; }

// Bytes above which a message is not attached as a whole.
long AttachmentLimit() {
  SString const kilobytes = GetEnv("ReturnMaxKbytes");
  bool const isNumber = kilobytes.Length() > 0 && kilobytes[0] >= '0' && kilobytes[0] <= '9';
  long const limit = isNumber ? kilobytes.AsLong() : kDefaultMaxKbytes;
  return std::min<long>(limit, SString::kMaxLength / kKilobyte / 2) * kKilobyte;
}

// The text with CR LF line ends: an LF by itself becomes one, and of CR in a row one is left.
SString WithUniformLineEnds(std::string_view text) {
  SString out;
  out.Reserve(static_cast<int>(text.size()));
  while (!text.empty()) {
    size_t const end = text.find_first_of("\r\n");
    out.Append(text.substr(0, end));
    if (end == std::string_view::npos) break;
    text.remove_prefix(end);
    while (text.starts_with("\r\r")) text.remove_prefix(1);
    bool const isLineEnd = text.starts_with("\n") || text.starts_with("\r\n");
    out += isLineEnd ? "\r\n" : "\r";
    text.remove_prefix(text.starts_with("\r\n") ? 2 : 1);
  }
  return out;
}

// The header as far as it is attached: whole lines of it up to the limit, of which a few kilobytes always go.
SString CutHeader(SString const &header, long limit) {
  size_t const most = static_cast<size_t>(std::max(limit, kLeastHeader));
  if (header.View().size() <= most) return header;
  size_t const end = header.View().rfind("\r\n", most);
  return SString(header.View().substr(0, end == std::string_view::npos ? most : end + 2));
}

// The narrowest encoding that is true of a text.
SEncoding EncodingOf(std::string_view text) {
  SEncoding widest = k7Bit;
  while (!text.empty()) {
    size_t const end = text.find("\r\n");
    std::string_view const line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 2);
    if (line.size() > kMostLineBytes || line.find_first_of(std::string_view("\r\n\0", 3)) != std::string_view::npos)
      return kBinary;
    if (std::any_of(line.begin(), line.end(), [](char c) { return (c & 0x80) != 0; })) widest = k8Bit;
  }
  return widest;
}

// The text as it may stand on one line of a field of printable ASCII.
SString OnOneLine(SString const &text) {
  std::string line(text.View().substr(0, kMostDiagnosticBytes));
  std::replace_if(
      line.begin(), line.end(), [](unsigned char c) { return c < ' ' || c >= 0x7f; }, '?');
  return SString(std::string_view(line));
}

SString HumanText(SStringList const &lines) {
  SString text = kReasonFollows + lines.Join("\r\n") + "\r\n";
  if (GetEnv("SuppressPM") != "yes") text += "\r\n" + SString(kPleaseReply) + PostmasterAddress() + "\r\n" + kIfInError;
  return ToIso2022Jp(text);
}

// The body of message/delivery-status, RFC 3464 section 2: fields of the message, then a group for each recipient.
SString StatusText(SControl const &message, std::vector<SRecipientStatus> const &recipients) {
  SString text = "Reporting-MTA: dns; " + OnOneLine(GetEnv("HostName")) + "\r\n";
  SString const date = message.Get(kKeySubmittedDate).Get(0);
  if (date.Length() > 0) text += "Arrival-Date: " + OnOneLine(date) + "\r\n";
  for (SRecipientStatus const &status : recipients) {
    text += "\r\nFinal-Recipient: rfc822; " + OnOneLine(status.recipient) + "\r\nAction: " + status.action +
            "\r\nStatus: " + status.status + "\r\n";
    if (status.diagnostic.Length() > 0)
      text += "Diagnostic-Code: x-brenthaven; " + OnOneLine(status.diagnostic) + "\r\n";
  }
  return text;
}

// A part that shows the message itself.
struct Attachment {
  char const *mainType = "message";
  char const *subtype = "rfc822";
  SString text;
};

// Who gets the report, and under which key of its control.
struct Addressee {
  char const *key = kKeyChannelTo;
  SString entry;
  SString to;  // for the header
};

Addressee OnChannel(S821Address const &address) {
  return {kKeyChannelTo, kChannelPrefix + address.Get(), S822Address(address).Get()};
}

void RemoveKeepingErrno(SString const &path) {
  int const error = errno;
  (void)RemoveFile(path);  // it may never have been made
  errno = error;
}

// One report while it is built. The steps give false with the error list filled in.
class Report {
public:
  Report(SModule &module, SControl &message, SReturnReasons const &reasons, SStringList &error)
      : _module(module), _message(message), _reasons(reasons), _error(error) {
    SString const name = module.NewMessageID();
    _control.SetModule(&module);
    _control.PutFilename(name);
    _header.PutFilename(name);
  }

  bool FindAddressee();
  bool ReadAttachment();
  bool Write();

private:
  bool _Fail(char const *location, char const *name, SString const &text);
  bool _IsDeliveryReport() const { return !_reasons.recipients.empty(); }
  SMIME _Body();
  void _FillHeader(SMIME const &body);
  void _FillControl();

  SModule &_module;
  SControl &_message;
  SReturnReasons const &_reasons;
  SStringList &_error;
  SControl _control;
  SHeader _header;
  Addressee _addressee;
  Attachment _attachment;
};

bool Report::_Fail(char const *location, char const *name, SString const &text) {
  _error = {location, name, text};
  return false;
}

bool Report::FindAddressee() {
  S821Address const postmaster(PostmasterAddress());
  SString const list = _message.Get(kKeyErrorListUid).Get(0);
  if (list.Length() == 0) {
    S821Address const sender(_message.Get(kKeyUserFrom).Get(0));
    _addressee =
        sender.IsValid() ? OnChannel(sender) : Addressee{kKeyAccountTo, kPostmasterUID, S822Address(postmaster).Get()};
    return true;
  }
  SAccountDB::ClearReadFailed();
  SAccount account;
  S821Address owner;
  if (SAccountDB().GetAccountInfo(list, &account) &&
      SAccountDB().GetAccountInfo(account.GetString(kAttrLinkedOwnerAccount), &account))
    owner = S821Address(account.GetString(kAttrSmtpAddress));
  if (SAccountDB::ReadFailed()) return _Fail("FindAddressee", "AccountReadFail", "Account: " + list);
  _addressee = OnChannel(owner.IsValid() ? owner : postmaster);
  return true;
}

// The body is not touched when it is too large to be attached, whatever its size.
bool Report::ReadAttachment() {
  SMessageContent header;
  if (!_message.ReadHeader(header))
    return _Fail("ReadHeader", "HeaderReadFail", "File: " + _message.GetHeaderFilename());
  _attachment.text = WithUniformLineEnds(header.GetText().View());
  long const limit = AttachmentLimit() - _attachment.text.Length();
  SMessageContent body;
  if (FileSize(_message.GetBodyFilename()) <= limit) {
    if (!_message.ReadBody(body)) return _Fail("ReadBody", "BodyReadFail", "File: " + _message.GetBodyFilename());
    if (SString const text = body.GetText(); text.Length() <= limit) {
      _attachment.text += "\r\n" + WithUniformLineEnds(text.View());
      return true;
    }
  }
  _attachment.text = CutHeader(_attachment.text, AttachmentLimit());
  _attachment.mainType = "text";
  _attachment.subtype = "rfc822-headers";
  return true;
}

bool Report::Write() {
  SMIME body = _Body();
  if (!MapFileWrite(_control.GetBodyFilename(), body))
    return _Fail("MakeBody", "BodyWriteFail", "Unable to Write Body file (" + _control.GetBodyFilename() + ")");
  _FillHeader(body);
  if (!_header.Write()) {
    RemoveKeepingErrno(_control.GetBodyFilename());
    return _Fail("MakeHeader", "HeaderWriteFail", "File: " + _header.GetHeaderFilename());
  }
  _FillControl();
  if (!CommitNewMessage(_control)) {
    RemoveKeepingErrno(_control.GetHeaderFilename());
    RemoveKeepingErrno(_control.GetBodyFilename());
    return _Fail("MakeControl", "ControlWriteFail", "File: " + _control.GetControlFilename());
  }
  (void)_control.Notify();  // accepted all the same: the dispatcher looks into control/ by itself
  return true;
}

SMIME Report::_Body() {
  SMIME body;
  body.SetType("multipart", _IsDeliveryReport() ? "report; report-type=delivery-status" : "mixed");
  body.AddPart("text", "plain; charset=iso-2022-jp", kEncodingNames[k7Bit], HumanText(_reasons.lines));
  if (_IsDeliveryReport())
    body.AddPart("message", "delivery-status", kEncodingNames[k7Bit], StatusText(_message, _reasons.recipients));
  body.AddPart(_attachment.mainType, _attachment.subtype, kEncodingNames[EncodingOf(_attachment.text.View())],
               _attachment.text);
  SString const contents = body.Contents().Join("\r\n");
  SString boundary = CreateMIMEBoundary();
  while (contents.Index(boundary) >= 0) boundary = CreateMIMEBoundary();
  body.SetBoundary(boundary);
  return body;
}

void Report::_FillHeader(SMIME const &body) {
  bool const noHost = GetEnv("ReplyToNoHost") == "yes";
  _header[kHeaderTo] = _addressee.to;
  _header[kHeaderFrom] = AdministratorAt(GetEnv("DomainName"));
  _header[kHeaderReplyTo] = AdministratorAt(GetEnv(noHost ? "DomainName" : "HostName"));
  _header[kHeaderSubject] = kSubject;
  _header[kHeaderDate] = RFC822Date();
  _header[kHeaderMessageId] = "<" + _control.GetFilename() + ">";
  _header[kHeaderMimeVersion] = "1.0";
  _header[kHeaderContentType] =
      body.MainType() + "/" + body.Subtype() + ";\r\n\t\tBoundary=\"" + body.Boundary() + "\"";
  // A multipart is labelled with the widest of its parts' encodings, which the attachment has, RFC 2045 section 6.4.
  _header[kHeaderContentTransferEncoding] = body.PartEncodings().Get(-1);
  _header[kHeaderAutoSubmitted] = "auto-replied";  // RFC 3834 section 5
  _header[kHeaderPrecedence] = "bulk";             // for programs that answer mail and do not know that field
}

void Report::_FillControl() {
  _control[kKeyFunction] = kModuleAccountHandler;
  _control[kKeyControlType] = kTypeMail;
  _control[kKeyPriority] = kPriorityNew;
  _control[kKeyErrorMsgType] = kErrorMsgTypeReturn;
  SStringList const encoding = _message.Get(kKeyMimeEncoding);
  if (encoding.Length() > 0) _control[kKeyMimeEncoding] = encoding;
  _control[kKeyHostFrom] = LocalSubmissionHost();
  _control[kKeySubmittedDate] = RFC822Date();
  _control[kKeySubmittedVia] = _module.GetModuleName() + " " + kErrorMsgTypeReturn;
  _control[kKeyUserFrom] =
      _IsDeliveryReport() ? SString(kNullSender) : SString(kChannelPrefix) + "<" + PostmasterAddress() + ">";
  _control[kKeyMtaHops] = "0";
  _control[_addressee.key] = _addressee.entry;
}

// The module that failed: what stands before the first ":" of Error:.
SString OriginOf(SControl const &control) {
  SString const error = control.Get(kKeyError).Get(0);
  int const colon = error.Index(':');
  return colon > 0 ? error.Segment(0, colon) : SString();
}

// Fields of recipients to do and done, in the order in which a message meets them.
struct RecipientKeys {
  char const *open;
  char const *done;
};
constexpr RecipientKeys kRecipientKeys[] = {{kKeyChannelTo, kKeyChannelToDone},
                                            {kKeyAccountTo, kKeyAccountToDone},
                                            {kKeyDeliverTo, kKeyDeliverToDone},
                                            {kKeyManagerTo, kKeyManagerToDone},
                                            {kKeyModuleTo, kKeyModuleToDone}};

// What is still to be done is taken out of what is done. False when nothing is to be done.
bool ReopenRecipients(SControl &control) {
  bool isOpen = false;
  for (RecipientKeys const &keys : kRecipientKeys) {
    SStringList const open = control.Get(keys.open);
    if (open.Length() == 0) continue;
    isOpen = true;
    SStringSet const wanted(open);
    SStringList done;
    for (SString const &entry : control.Get(keys.done))
      if (!wanted.Contains(entry)) done.Push(entry);
    control.Delete(keys.done);
    if (done.Length() > 0) control[keys.done] = done;
  }
  return isOpen;
}

}  // namespace

SReturned ReturnMessage(SModule &module, SControl &message, SReturnReasons const &reasons, SStringList *error) {
  if (IsReport(message)) {
    WriteLogLine(LogFileDate() + ":" + module.GetModuleName() + ":No report about a report:" + message.GetFilename() +
                 ":" + reasons.lines.Join(" "));
    return SReturned::kNobody;
  }
  Report report(module, message, reasons, *error);
  return report.FindAddressee() && report.ReadAttachment() && report.Write() ? SReturned::kSent : SReturned::kFailed;
}

bool IsReport(SControl const &control) {
  return control.Get(kKeyErrorMsgType).Get(0) == kErrorMsgTypeReturn ||
         (control.Get(kKeyTrace).Get(0) == kModuleErrorHandler && CameBack(control, kModuleErrorHandler));
}

bool CameBack(SControl const &control, char const *place) {
  SStringList const trace = control.Get(kKeyTrace);
  auto const first = std::find(trace.begin(), trace.end(), SString(place));
  return std::any_of(first, trace.end(),
                     [&](SString const &name) { return name != place && name != kModuleErrorHandler; });
}

unsigned int DropMessage(SModule &module, SControl &control) {
  if (!module.CommitBarrier()) return 0;
  if (control.RemoveMessage()) return 1;
  WriteLogLine(LogFileDate() + ":" + module.GetModuleName() + ":Remove failed for Message file (" +
               control.GetFilename() + ")");
  return !FileExists(control.GetControlFilename());
}

void MarkAsError(SModule const &module, SControl &control, SString const &error, SString const &location,
                 SStringList const &text) {
  SErrorNumbers const numbers;
  FillErrorReport(control, numbers, error, module.GetModuleName() + ":" + location, text);
}

// A control that had no file yet, that of a message in memory, is durable with the pass, before the record of the
// message that it came from goes.
unsigned int HoldMessage(SModule &module, SControl &control, char const *place) {
  bool const isNew = !FileExists(control.GetControlFilename());
  if (!module.CommitBarrier()) return 0;
  SString const name = control.GetModuleName();
  control.SetModuleName(place);
  bool const held = control.Write() && control.Defer("");
  control.SetModuleName(name);
  if (!held || !isNew) return held;
  SControl moved = control;
  moved.PutFilename(module.GetDeferredDir() + place + "/" + control.GetFilename() + kControlSuffix);
  module.Cover(moved);
  return 1;
}

bool ResumeMessage(SControl &control) {
  SString const origin = OriginOf(control);
  if (control.Get(kKeyFunction).Get(0) != kModuleErrorHandler || control.Get(kKeyControlType).Get(0) != kTypeMail ||
      origin.Length() == 0 || origin == kModuleErrorHandler)
    return false;
  control[kKeyFunction] = origin;
  for (char const *key : {kKeyError, kKeyErrorText, kKeyErrorNumber, kKeySocketErrorNumber}) control.Delete(key);
  if (ReopenRecipients(control)) return true;
  control[kKeyAccountTo] = control.Get(kKeyAccountToDone);
  control.Delete(kKeyAccountToDone);
  return true;
}
