#include "brenthaven/spool/accept.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <string_view>

#include "brenthaven/platform/barrier.h"
#include "brenthaven/platform/dates.h"
#include "brenthaven/platform/nativepath.h"
#include "brenthaven/platform/sys.h"
#include "brenthaven/spool/keys.h"
#include "brenthaven/text/base.h"

namespace {

constexpr char kLocalHost[] = " [127.0.0.1]";
constexpr mode_t kFileMode = 0660;
constexpr size_t kBlockBytes = 64 << 10;  // body bytes gathered for one write
constexpr unsigned long long kKilobyte = 1024;

struct ResultRow {
  SAcceptResult result;
  char const *text;
};
constexpr ResultRow kResults[] = {
    {SAcceptResult::kOk, "accepted"},
    {SAcceptResult::kNoSpace, "disk full"},
    {SAcceptResult::kFailed, "cannot write to the spool"},
    {SAcceptResult::kNoRecipient, "no recipient"},
    {SAcceptResult::kTooManyRecipients, "too many recipients"},
    {SAcceptResult::kBadAddress, "bad address"},
    {SAcceptResult::kHeaderTooLarge, "header too large"},
    {SAcceptResult::kTooManyFields, "too many header fields"},
    {SAcceptResult::kBadHeader, "no header, or a header line that is none"},
};

bool IsBlank(char c) { return c == ' ' || c == '\t'; }

// Length of the field name at the start of a line, 0 when it opens no field. colon is where its colon stands.
size_t FieldNameLength(std::string_view line, size_t &colon) {
  size_t length = 0;
  while (length < line.size() && line[length] > ' ' && line[length] < 0x7f && line[length] != ':') ++length;
  colon = length;
  while (colon < line.size() && IsBlank(line[colon])) ++colon;
  return colon < line.size() && line[colon] == ':' ? length : 0;
}

// Cuts the next line off the text, without its LF or CR LF.
std::string_view TakeLine(std::string_view &text) {
  size_t const end = text.find('\n');
  std::string_view line = text.substr(0, end);
  text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  if (end != std::string_view::npos && line.ends_with('\r')) line.remove_suffix(1);
  return line;
}

// Brackets stand on both sides or on neither; no blank, bracket or control byte inside but in quotes.
bool IsOneAddress(std::string_view text) {
  if (text.starts_with('<') && text.ends_with('>')) text = text.substr(1, text.size() - 2);
  bool quoted = false;
  for (size_t i = 0; i < text.size(); ++i) {
    if (static_cast<unsigned char>(text[i]) < ' ' || text[i] == 0x7f) return false;
    if (text[i] == '\\')
      ++i;
    else if (text[i] == '"')
      quoted = !quoted;
    else if (!quoted && (text[i] == ' ' || text[i] == '<' || text[i] == '>'))
      return false;
  }
  return true;
}

// A file of a message, to be flushed; one that is not there is not part of it.
void AddIfThere(SSyncBarrier &barrier, SString const &path) {
  int const error = errno;
  SNativePath const native(path);
  struct stat info;
  if (sys::Stat(native, &info) == 0) barrier.AddFile(native);
  errno = error;
}

void RemoveKeepingErrno(SString const &path) {
  int const error = errno;
  (void)RemoveFile(path);  // it may never have been made
  errno = error;
}

}  // namespace

int CommitNewMessage(SControl &control) {
  if (!control.PrepareWrite() || !control.WriteTemporary()) return 0;
  SSyncBarrier barrier;
  AddIfThere(barrier, control.GetHeaderFilename());
  AddIfThere(barrier, control.GetBodyFilename());
  barrier.AddFile(SNativePath(control.TemporaryName()));
  if (!barrier.Commit()) {
    RemoveKeepingErrno(control.TemporaryName());
    return 0;
  }
  if (!control.PutInPlace()) return 0;
  barrier.AddParentOf(SNativePath(control.GetHeaderFilename()));
  barrier.AddParentOf(SNativePath(control.GetControlFilename()));
  if (barrier.Commit()) return 1;
  RemoveKeepingErrno(control.GetControlFilename());
  return 0;
}

SString ChannelSender(S821Address const &address) {
  return address.IsValid() ? kChannelPrefix + address.S821Address::Address() : SString(kNullSender);
}

SString LocalSubmissionHost() { return GetEnv("HostName") + kLocalHost; }

char const *AcceptResultText(SAcceptResult result) {
  return std::find_if(std::begin(kResults), std::end(kResults) - 1,
                      [result](ResultRow const &row) { return row.result == result; })
      ->text;
}

bool IsMailAddress(SString const &text) { return IsOneAddress(text.View()) && S821Address(text).IsValid(); }

bool IsHeaderLine(char const *line, size_t length, bool first) {
  size_t colon = 0;
  std::string_view const text(line, length);
  if (FieldNameLength(text, colon) > 0) return true;
  return !first && !text.empty() && IsBlank(text.front());
}

SAcceptance::SAcceptance(SModule &module) {
  _control.SetModule(&module);
  _control.PutFilename(module.NewMessageID());
  _control[kKeyFunction] = kModuleSmtpRouter;
  _control[kKeyControlType] = kTypeMail;
  _control[kKeyPriority] = kPriorityNew;
  _control[kKeyUserFrom] = kNullSender;
}

SAcceptance::~SAcceptance() {
  if (_accepted) return;
  RemoveKeepingErrno(_control.GetHeaderFilename());
  RemoveKeepingErrno(_control.GetBodyFilename());
}

SString SAcceptance::GetName() const { return _control.GetFilename(); }

SAcceptResult SAcceptance::SetSender(SString const &address) {
  S821Address const sender(address);
  if (sender.IsBad() || !IsOneAddress(address.View())) return _Refuse(SAcceptResult::kBadAddress);
  _control[kKeyUserFrom] = ChannelSender(sender);
  return _state;
}

SAcceptResult SAcceptance::AddRecipient(SString const &address) {
  S821Address const recipient(address);
  if (!recipient.IsValid() || !IsOneAddress(address.View())) return _Refuse(SAcceptResult::kBadAddress);
  if (_recipients == kMaxRecipients) return _Refuse(SAcceptResult::kTooManyRecipients);
  _control[kKeyChannelTo].Push(kChannelPrefix + recipient.Get());
  ++_recipients;
  return _state;
}

SAcceptResult SAcceptance::SetHeader(SString const &text) {
  std::string_view rest = text.View();
  if (rest.size() > kMaxHeaderBytes) return _Refuse(SAcceptResult::kHeaderTooLarge);
  SString header;
  header.Reserve(text.Length());
  int fields = 0;
  while (!rest.empty()) {
    std::string_view const line = TakeLine(rest);
    bool const hasBareCr = line.find('\r') != std::string_view::npos;  // a line end to some readers, not to others
    if (hasBareCr || !IsHeaderLine(line.data(), line.size(), fields == 0)) return _Refuse(SAcceptResult::kBadHeader);
    size_t colon = 0;
    size_t const name = IsBlank(line.front()) ? 0 : FieldNameLength(line, colon);
    if (name > 0) {
      if (++fields > kMaxHeaderFields) return _Refuse(SAcceptResult::kTooManyFields);
      std::string_view const value = line.substr(colon + 1);
      header.Append(line.substr(0, name)).Append(value.starts_with(' ') ? ":" : ": ").Append(value);
    } else {
      header.Append(line);
    }
    header += "\r\n";
  }
  if (fields == 0) return _Refuse(SAcceptResult::kBadHeader);
  _header = header;
  return _state;
}

SAcceptResult SAcceptance::AddBody(char const *data, size_t length) {
  if (_state != SAcceptResult::kOk) return _state;
  _bodyBytes += length;
  _block.append(data, length);
  return _block.size() >= kBlockBytes ? _FlushBlock() : _state;
}

SAcceptResult SAcceptance::AddBodyFrom(int fd) {
  std::string buffer(kBlockBytes, '\0');
  while (_state == SAcceptResult::kOk) {
    ssize_t const got = sys::Read(fd, buffer.data(), buffer.size());
    if (got < 0) return _Fail();
    if (got == 0) break;
    (void)AddBody(buffer.data(), static_cast<size_t>(got));  // its failure ends the loop
  }
  return _state;
}

SAcceptResult SAcceptance::Commit() {
  if (_state == SAcceptResult::kOk && _recipients == 0) _state = SAcceptResult::kNoRecipient;
  if (_state == SAcceptResult::kOk && !_header.Defined()) _state = SAcceptResult::kBadHeader;
  if (_state != SAcceptResult::kOk || _WriteFiles() != SAcceptResult::kOk) return _state;
  _accepted = true;
  (void)_control.Notify();  // accepted all the same: the dispatcher looks into control/ by itself
  return _state;
}

// The first failure stays, since a message with a part refused is not the message that was meant.
SAcceptResult SAcceptance::_Refuse(SAcceptResult result) {
  if (_state == SAcceptResult::kOk) _state = result;
  return _state;
}

SAcceptResult SAcceptance::_Fail() {
  return _Refuse(errno == ENOSPC || errno == EDQUOT ? SAcceptResult::kNoSpace : SAcceptResult::kFailed);
}

SAcceptResult SAcceptance::_OpenBody() {
  SString const path = _control.GetBodyFilename();
  _body = SDescriptor(sys::Open(SNativePath(path), O_WRONLY | O_CREAT | O_EXCL, kFileMode));
  if (!_body.IsOpen() || sys::Fchmod(_body.Get(), kFileMode) != 0) return _Fail();
  return _state;
}

SAcceptResult SAcceptance::_FlushBlock() {
  if (!_body.IsOpen() && _OpenBody() != SAcceptResult::kOk) return _state;
  if (sys::WriteAll(_body.Get(), _block.data(), _block.size()) != 0) return _Fail();
  _block.clear();
  return _state;
}

SAcceptResult SAcceptance::_WriteFiles() {
  if (_FlushBlock() != SAcceptResult::kOk) return _state;  // makes the file of an empty body too
  if (sys::Close(_body.Release()) != 0) return _Fail();
  if (!MapFileWrite(_control.GetHeaderFilename(), _header)) return _Fail();
  _CompleteControl();
  return CommitNewMessage(_control) ? _state : _Fail();
}

void SAcceptance::_CompleteControl() {
  _control[kKeyHostFrom] = LocalSubmissionHost();
  _control[kKeySubmittedDate] = RFC822Date();
  _control[kKeyMtaHops] = "0";
  if (_keepsRaw) {
    _control[kKeyRawMailFrom] = S821Address(_control.Get(kKeyUserFrom).Get(0)).Get();
    for (SString const &entry : _control.Get(kKeyChannelTo)) _control[kKeyRawRcptTo].Push(S821Address(entry).Get());
  }
  unsigned long long const bytes = static_cast<unsigned long long>(_header.Length()) + _bodyBytes;
  _control[kKeyMessageSize] = SString(static_cast<long>((bytes + kKilobyte - 1) / kKilobyte));
}
