#include "brenthaven/spool/submitter.h"

#include <cerrno>

#include "brenthaven/accounts/accountdb.h"
#include "brenthaven/address/address822.h"
#include "brenthaven/address/parser822.h"
#include "brenthaven/platform/dates.h"
#include "brenthaven/spool/accept.h"
#include "brenthaven/spool/keys.h"
#include "brenthaven/text/base.h"

namespace {

constexpr char kPostmaster[] = "Postmaster";
constexpr char kBulk[] = "bulk";
constexpr char kMimeVersion[] = "1.0";
constexpr char kDefaultContentType[] = "text/plain; charset=iso-2022-jp";

// What went wrong, in the three values that the caller hands to ProcessError. errno stays for it.
unsigned int Fail(SStringList &error, char const *location, char const *name, SString const &path) {
  error = {location, name, "File: " + path};
  return 0;
}

void RemoveKeepingErrno(SString const &path) {
  int const error = errno;
  (void)RemoveFile(path);  // it may never have been made
  errno = error;
}

}  // namespace

SSubmitter::SSubmitter(SModule *module) : _recipientSet(0), _mimeSet(0), _senderSet(0), _module(module) {
  if (module != nullptr) {
    SString const name = module->NewMessageID();
    _control.SetModule(module);
    _control.PutFilename(name);
    _header.PutFilename(name);
  }
  _control[kKeyFunction] = kModuleAccountHandler;
  _control[kKeyControlType] = kTypeMail;
  _control[kKeyPriority] = kPriorityNew;
}

void SSubmitter::SetRecipientUIDs(SStringList uids) {
  SetRecipientUIDs(uids, SString());
  SAccountDB accounts;
  for (SString const &uid : uids) {
    SAccount account;
    if (!accounts.GetAccountInfo(uid, &account)) continue;
    SString const address = account.GetPrimaryAddress();
    if (address.Length() > 0) _header[kHeaderTo].Push(address);
  }
}

void SSubmitter::SetRecipientUIDs(SStringList uids, SString const &to) {
  _control[kKeyAccountTo] = uids;
  if (uids.Contains(kPostmaster)) _control[kKeySubmittedVia] = _control.GetModuleName() + " " + kPostmaster;
  _header.Delete(kHeaderTo);
  if (to.Length() > 0) _header[kHeaderTo] = to;
  _recipientSet = 1;
}

void SSubmitter::SetRecipientAddresses(SStringList addresses) {
  for (SString const &text : addresses) {
    S821Address const address(text);
    bool const valid = address.IsValid() != 0;
    _control[kKeyChannelTo].Push(kChannelPrefix + (valid ? address.Get() : text));
    _header[kHeaderTo].Push(valid ? S822Address(address).Get() : text);
  }
  _recipientSet = 1;
}

void SSubmitter::SetEnvelopeFrom(S821Address const &address) { _control[kKeyUserFrom] = ChannelSender(address); }

void SSubmitter::SetSender(SString const &from, unsigned int replyTo) {
  _header[kHeaderFrom] = from;
  if (replyTo) _header[kHeaderReplyTo] = from;
  SetEnvelopeFrom(S822Parser(from).NextAddress());
  _senderSet = 1;
}

void SSubmitter::SetSubject(SString const &subject) { _header[kHeaderSubject] = subject; }
void SSubmitter::SetAutomatedFlag() { _header[kHeaderPrecedence] = kBulk; }
void SSubmitter::AddHeader(SString const &key, SString const &value) { _header[key].Push(value); }
void SSubmitter::AddControlHeader(SString const &key, SString const &value) { _control[key].Push(value); }

void SSubmitter::SetMimeBody(SMIME const &body) {
  _body = body;
  _mimeSet = 1;
}

SString SSubmitter::GetMessageID() const { return _header.Get(kHeaderMessageId).Get(0); }

int SSubmitter::GetHeaderSize() const { return _header.Text().Length(); }

unsigned int SSubmitter::Submit(SStringList *error) {
  if (!_senderSet) SetSender(SString(kPostmaster) + "@" + GetEnv("HostName"), 1);
  _CompleteHeader();
  if (_IsTooLarge(*error)) return 0;
  if (_mimeSet) {
    SString const text = _body;  // tells the encoding that it needs
    if (_body.Encoding().Length() > 0) _header[kHeaderContentTransferEncoding] = _body.Encoding();
    if (!MapFileWrite(_control.GetBodyFilename(), text))
      return Fail(*error, "MakeBody", "BodyWriteFail", _control.GetBodyFilename());
  }
  if (!_header.Write()) {
    RemoveKeepingErrno(_control.GetBodyFilename());
    return Fail(*error, "MakeHeader", "HeaderWriteFail", _header.GetHeaderFilename());
  }
  _control[kKeyHostFrom] = LocalSubmissionHost();
  _control[kKeySubmittedDate] = RFC822Date();
  _control[kKeyMtaHops] = "0";
  if (!CommitNewMessage(_control)) {
    int const number = errno;
    (void)_control.RemoveMessage();  // what could not be removed names no message
    errno = number;
    return Fail(*error, "MakeControl", "ControlWriteFail", _control.GetControlFilename());
  }
  (void)_control.Notify();  // accepted all the same: a walk finds it
  return 1;
}

bool SSubmitter::_IsTooLarge(SStringList &error) const {
  struct Limit {
    char const *name;
    int has, most;
  };
  int fields = 0;
  for (SString const &key : _header.Keys()) fields += _header.Get(key).Length();
  Limit const limits[] = {
      {"TooManyRecipients", _control.Get(kKeyAccountTo).Length() + _control.Get(kKeyChannelTo).Length(),
       SAcceptance::kMaxRecipients},
      {"HeaderTooLarge", GetHeaderSize(), static_cast<int>(SAcceptance::kMaxHeaderBytes)},
      {"TooManyFields", fields, SAcceptance::kMaxHeaderFields}};
  for (Limit const &limit : limits) {
    if (limit.has <= limit.most) continue;
    error = {"Submit", limit.name, MakeSString(limit.has)};
    return true;
  }
  return false;
}

void SSubmitter::_CompleteHeader() {
  SetAutomatedFlag();
  _header[kHeaderDate] = RFC822Date();
  _header[kHeaderMessageId] = "<" + _control.GetFilename() + ">";
  _header[kHeaderMimeVersion] = kMimeVersion;
  _header[kHeaderContentType] = _ContentType();
}

SString SSubmitter::_ContentType() const {
  if (!_mimeSet || _body.MainType().Length() == 0) return kDefaultContentType;
  SString type = _body.MainType() + "/" + _body.Subtype();
  if (_body.MainType() != "multipart") return type;
  return type + ";\r\n\t\tBoundary=\"" + _body.Boundary() + "\"";
}
