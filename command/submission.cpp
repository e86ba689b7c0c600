#include "command/submission.h"

#include <errno.h>
#include <pwd.h>
#include <string.h>
#include <strings.h>
#include <sysexits.h>
#include <unistd.h>

#include <cstdlib>

#include "brenthaven/address/address822.h"
#include "brenthaven/address/parser822.h"
#include "brenthaven/platform/dates.h"
#include "brenthaven/platform/sys.h"
#include "brenthaven/spool/keys.h"
#include "brenthaven/store/sdbfile.h"
#include "brenthaven/text/base.h"
#include "command/command.h"

namespace {

// Only the frame of a module: it gives names and directories to what is accepted.
class SubmitModule : public SModule {
public:
  SubmitModule() : SModule("Submit") {}
  unsigned int ProcessMail() override { return 1; }
};

constexpr size_t kLongestPiece = 64 << 10;  // of a body line; a longer one goes on in pieces

// Takes the line end off and tells whether the line is the blank one behind the header.
std::string_view Chomped(std::string_view line) {
  if (!line.empty() && line.back() == '\n') line.remove_suffix(1);
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  return line;
}

bool HasName(std::string_view field, std::string_view name) {
  return field.size() >= name.size() && strncasecmp(field.data(), name.data(), name.size()) == 0;
}

// A header as whole fields, continuation lines included.
class Header {
public:
  void AddLine(std::string_view line) {
    bool const continues = !_fields.empty() && (line.front() == ' ' || line.front() == '\t');
    if (continues)
      _fields.back() += line;
    else
      _fields.emplace_back(line);
  }
  bool Has(std::string_view name) const {
    for (std::string const &field : _fields)
      if (HasName(field, name)) return true;
    return false;
  }
  void Drop(std::string_view name) {
    std::erase_if(_fields, [name](std::string const &field) { return HasName(field, name); });
  }
  void Add(std::string const &field) { _fields.push_back(field + "\r\n"); }
  // Adds the addresses of all fields of that name, in brackets. False at one that is none.
  bool AddressesOf(std::string_view name, std::vector<std::string> &addresses) const {
    for (std::string const &field : _fields) {
      if (!HasName(field, name)) continue;
      std::string value = field.substr(name.size());
      std::erase_if(value, [](char c) { return c == '\r' || c == '\n'; });  // unfolded: a fold's blank stays
      S822Parser list((SString(value)));
      S822Address address = list.NextAddress();
      for (; address.Address().Length() > 0; address = list.NextAddress())
        addresses.push_back(ToStd(address.S821Address::Address()));
      if (address.IsBad()) return false;
    }
    return true;
  }
  std::string Text() const {
    std::string text;
    for (std::string const &field : _fields) text += field;
    return text;
  }

private:
  std::vector<std::string> _fields;
};

struct Reading {
  explicit Reading(int input) : in(input) {}
  InputReader in;
  Header header;
  std::string bodyStart;  // a line that turned out not to belong to the header
  bool ended = false;     // by a line of one "."
  size_t headerBytes = 0;
};

// True when the header was read to its end; false when it is too large.
bool ReadHeader(Reading &reading, Submission const &submission) {
  std::string line;
  for (bool first = true; reading.in.ReadLine(line, SAcceptance::kMaxHeaderBytes + 1); first = false) {
    std::string_view const text = Chomped(line);
    if (text.empty()) return true;
    if (submission.dotEnds && text == ".") {
      reading.ended = true;
      return true;
    }
    if (first && submission.complete && text.starts_with("From ")) continue;  // a mailbox file's separator
    if (!IsHeaderLine(text.data(), text.size(), first)) {
      reading.bodyStart = line;  // no blank line in between: what begins here is the body
      return true;
    }
    reading.headerBytes += line.size();
    if (reading.headerBytes > SAcceptance::kMaxHeaderBytes) return false;
    if (line.back() != '\n') line += "\r\n";  // the input's last line need not end
    reading.header.AddLine(line);
  }
  return true;
}

SAcceptResult CopyBodyLines(Reading &reading, LocalAcceptance &acceptance) {
  std::string line;
  SAcceptResult result = SAcceptResult::kOk;
  bool atLineStart = true;
  while (result == SAcceptResult::kOk && reading.in.ReadLine(line, kLongestPiece)) {
    if (atLineStart && Chomped(line) == ".") break;
    atLineStart = line.back() == '\n';
    result = acceptance->AddBody(line.data(), line.size());
  }
  return result;
}

SAcceptResult CopyBody(Reading &reading, Submission const &submission, LocalAcceptance &acceptance) {
  SAcceptResult result = acceptance->AddBody(reading.bodyStart.data(), reading.bodyStart.size());
  if (result != SAcceptResult::kOk || reading.ended) return result;
  if (submission.dotEnds) return CopyBodyLines(reading, acceptance);
  for (std::string_view block = reading.in.ReadBlock(); !block.empty() && result == SAcceptResult::kOk;
       block = reading.in.ReadBlock())
    result = acceptance->AddBody(block.data(), block.size());
  return result;
}

std::string WithDomain(std::string const &address) {
  if (address.find('@') != std::string::npos || address.empty() || address == "<>") return address;
  std::string const domain = "@" + ToStd(GetEnv("DomainName"));
  return address.back() == '>' ? address.substr(0, address.size() - 1) + domain + ">" : address + domain;
}

// Quoted, so that a name can be no other address.
std::string FromField(Submission const &submission) {
  std::string const address = submission.sender.empty() ? "<>" : "<" + submission.sender + ">";
  if (submission.fullName.empty()) return "From: " + address;
  std::string name;
  for (char const c : submission.fullName) {
    if (c == '"' || c == '\\') name += '\\';
    if ((static_cast<unsigned char>(c) & 0x7F) >= 0x20) name += c;
  }
  return "From: \"" + name + "\" " + address;
}

void CompleteHeader(Header &header, Submission const &submission, LocalAcceptance &acceptance) {
  if (!header.Has("From:") && !submission.sender.empty()) header.Add(FromField(submission));
  if (!header.Has("Date:")) header.Add("Date: " + ToStd(RFC822Date()));
  if (!header.Has("Message-ID:")) header.Add("Message-ID: <" + ToStd(acceptance->GetName()) + ">");
}

// False at an address that is none: a message for the ones in front of it alone is not what the sender meant.
bool TakeRecipients(Header &header, std::vector<std::string> &recipients) {
  bool const resent =
      header.Has("Resent-To:") || header.Has("Resent-Cc:") || header.Has("Resent-Bcc:");  // RFC 5322 3.6.6
  for (std::string_view const name : {"To:", "Cc:", "Bcc:"})
    if (!header.AddressesOf(resent ? "Resent-" + std::string(name) : std::string(name), recipients)) return false;
  header.Drop("Bcc:");
  header.Drop("Resent-Bcc:");
  return true;
}

SubmissionResult Refused(SAcceptResult result, std::string const &about) {
  std::string text = AcceptResultText(result);
  if (result == SAcceptResult::kFailed) text += std::string(": ") + strerror(errno);
  return {ExitCodeOf(result), about.empty() ? text : text + ": " + about};
}

}  // namespace

bool InputReader::_Fill() {
  _start = _end = 0;
  ssize_t const length = sys::Read(_fd, _buffer, sizeof _buffer);
  if (length < 0) {
    _failed = true;
    _error = errno;
  }
  if (length > 0) _end = static_cast<size_t>(length);
  return length > 0;
}

bool InputReader::ReadLine(std::string &line, size_t limit) {
  line.clear();
  while (line.size() < limit) {
    if (_start == _end && !_Fill()) return !line.empty();
    size_t const room = std::min(_end - _start, limit - line.size());
    auto const *const newline = static_cast<char const *>(memchr(_buffer + _start, '\n', room));
    size_t const length = newline != nullptr ? static_cast<size_t>(newline - (_buffer + _start)) + 1 : room;
    line.append(_buffer + _start, length);
    _start += length;
    if (newline != nullptr) return true;
  }
  return true;
}

std::string_view InputReader::ReadBlock() {
  if (_start == _end && !_Fill()) return {};
  std::string_view const block(_buffer + _start, _end - _start);
  _start = _end;
  return block;
}

LocalAcceptance::LocalAcceptance(char const *via)
    : _module(std::make_unique<SubmitModule>()), _acceptance(std::make_unique<SAcceptance>(*_module)) {
  _acceptance->GetControl()[kKeySubmittedVia] = via;
  // Only where somebody reads it: for many recipients it doubles every control file of the message.
  if (Sdbfile::GetDirect("SMTP-Router/Config/Archive-Enabled").Get(0) == "yes") _acceptance->KeepRawEnvelope();
}

LocalAcceptance::~LocalAcceptance() = default;

std::string OwnAddress() {
  struct passwd const *const user = getpwuid(getuid());
  char const *const name = user != nullptr ? user->pw_name : getenv("LOGNAME");
  return std::string(name != nullptr && *name != '\0' ? name : "nobody") + "@" + ToStd(GetEnv("DomainName"));
}

int ExitCodeOf(SAcceptResult result) {
  switch (result) {
    case SAcceptResult::kOk:
      return EX_OK;
    case SAcceptResult::kNoSpace:
      return EX_TEMPFAIL;
    case SAcceptResult::kFailed:
      return EX_IOERR;
    case SAcceptResult::kNoRecipient:
      return EX_USAGE;
    case SAcceptResult::kTooManyRecipients:
    case SAcceptResult::kBadAddress:
    case SAcceptResult::kHeaderTooLarge:
    case SAcceptResult::kTooManyFields:
    case SAcceptResult::kBadHeader:
      return EX_DATAERR;
  }
  return EX_SOFTWARE;
}

SubmissionResult SubmitFrom(int input, Submission const &submission) {
  LocalAcceptance acceptance("local submission");
  SAcceptResult result = acceptance->SetSender(SString(WithDomain(submission.sender)));
  if (result != SAcceptResult::kOk) return Refused(result, submission.sender);

  auto const reading = std::make_unique<Reading>(input);
  if (!ReadHeader(*reading, submission)) return Refused(SAcceptResult::kHeaderTooLarge, "");
  std::vector<std::string> recipients = submission.recipients;
  if (submission.readRecipients && !TakeRecipients(reading->header, recipients))
    return Refused(SAcceptResult::kBadAddress, "in To:, Cc: or Bcc:");
  for (std::string const &recipient : recipients) {
    result = acceptance->AddRecipient(SString(WithDomain(recipient)));
    if (result != SAcceptResult::kOk) return Refused(result, recipient);
  }
  if (recipients.empty()) return Refused(SAcceptResult::kNoRecipient, "");
  if (submission.complete) CompleteHeader(reading->header, submission, acceptance);
  result = acceptance->SetHeader(SString(reading->header.Text()));
  if (result == SAcceptResult::kOk) result = CopyBody(*reading, submission, acceptance);
  if (result != SAcceptResult::kOk) return Refused(result, "");
  if (reading->in.Failed()) return {EX_IOERR, std::string("cannot read the message: ") + strerror(reading->in.Error())};
  result = acceptance->Commit();
  if (result != SAcceptResult::kOk) return Refused(result, "");
  return {EX_OK, ToStd(acceptance->GetName())};
}
