#include "command/smtp.h"

#include <errno.h>
#include <strings.h>
#include <sysexits.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>

#include "brenthaven/text/base.h"
#include "command/command.h"
#include "command/submission.h"

namespace {

constexpr size_t kLongestCommand = 2048;    // RFC 5321 section 4.5.3.1 asks for 512 at least
constexpr size_t kLongestPiece = 64 << 10;  // of a message line; a longer one goes on in pieces
constexpr int kMostErrors = 20;             // refused commands in a row before the session ends

std::string_view Chomped(std::string_view line) {
  if (!line.empty() && line.back() == '\n') line.remove_suffix(1);
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  return line;
}

bool IsCommand(std::string_view line, std::string_view name) {
  return line.size() >= name.size() && strncasecmp(line.data(), name.data(), name.size()) == 0 &&
         (line.size() == name.size() || line[name.size()] == ' ' || name.back() == ':');
}

// The address behind "FROM:" or "TO:", in its brackets, with the parameters behind it. False when there is none.
bool TakePath(std::string_view &text, std::string &path) {
  while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
  if (text.empty() || text.front() != '<') return false;
  bool quoted = false;
  for (size_t i = 1; i < text.size(); ++i) {
    if (text[i] == '\\')
      ++i;
    else if (text[i] == '"')
      quoted = !quoted;
    else if (text[i] == '>' && !quoted) {
      path = text.substr(0, i + 1);
      text.remove_prefix(i + 1);
      return true;
    }
  }
  return false;
}

// The lines of a message as they come, a long one in pieces. Only CR LF ends a line (RFC 5321 section 2.3.8): what some
// take a bare LF or CR for, others do not, and a message whose end can be read in two ways carries a second one past
// whoever looks at the first.
class MessageLines {
public:
  // Takes the next piece, which ends in LF or is cut off somewhere.
  void Take(std::string_view piece) {
    _startsLine = _endsLine;
    _endsLine = piece.ends_with("\r\n") || (piece == "\n" && _last == '\r');
    bool const followsLf = _last == '\n';
    for (char const c : piece) {
      _hasBare = _hasBare || (_last == '\r') != (c == '\n');
      _last = c;
    }
    _looksLikeEnd = followsLf && _last == '\n' && Chomped(piece) == ".";
  }
  bool StartsLine() const { return _startsLine; }
  bool EndsLine() const { return _endsLine; }
  bool HasBare() const { return _hasBare; }  // so far
  // A line of one dot, as one sees it who takes every LF for a line end.
  bool LooksLikeEnd() const { return _looksLikeEnd; }
  bool IsEnd() const { return _looksLikeEnd && _startsLine && _endsLine; }

private:
  bool _startsLine = true, _endsLine = true, _hasBare = false, _looksLikeEnd = false;
  char _last = '\n';  // of the line before the message
};

class SmtpSession {
public:
  SmtpSession(int input, int output) : _in(std::make_unique<InputReader>(input)), _output(output) {}
  int Run();

private:
  void _Command(std::string_view line);
  void _Hello(bool extended);
  void _Mail(std::string_view rest);
  void _Rcpt(std::string_view rest);
  void _Data();
  enum class Reading { kWhole, kCutOff, kBareLineEnd, kFalseEnd };
  Reading _ReadMessage(SAcceptResult &result);
  void _Forget() { _acceptance.reset(), _recipients = 0; }
  void _Refuse(SAcceptResult result);
  void _Answer(std::string const &text) {
    _errors = 0;
    _Send(text);
  }
  void _Error(std::string const &text) {
    ++_errors;
    _Send(text);
  }
  void _Send(std::string const &text);

  std::unique_ptr<InputReader> _in;
  int _output;
  std::unique_ptr<LocalAcceptance> _acceptance;  // from MAIL to the end of DATA
  int _recipients = 0;
  int _errors = 0;  // in a row
  bool _over = false;
};

int SmtpSession::Run() {
  _Answer("220 " + ToStd(GetEnv("HostName")) + " ESMTP");
  std::string line;
  while (!_over && _in->ReadLine(line, kLongestCommand)) {
    if (line.back() == '\n') {
      _Command(Chomped(line));
    } else {
      while (line.back() != '\n' && _in->ReadLine(line, kLongestCommand)) continue;  // the rest of an endless line
      _Error("500 5.5.2 line too long");
    }
    if (_errors >= kMostErrors) {
      _Send("421 4.7.0 too many errors");
      return EX_PROTOCOL;
    }
  }
  return EX_OK;
}

void SmtpSession::_Command(std::string_view line) {
  if (IsCommand(line, "EHLO") || IsCommand(line, "HELO")) return _Hello(IsCommand(line, "EHLO"));
  if (IsCommand(line, "MAIL FROM:")) return _Mail(line.substr(10));
  if (IsCommand(line, "RCPT TO:")) return _Rcpt(line.substr(8));
  if (IsCommand(line, "DATA")) return _Data();
  if (IsCommand(line, "RSET")) {
    _Forget();
    return _Answer("250 2.0.0 forgotten");
  }
  if (IsCommand(line, "NOOP")) return _Answer("250 2.0.0 ok");
  if (IsCommand(line, "VRFY")) return _Answer("252 2.5.2 send some mail and see");
  if (IsCommand(line, "HELP")) return _Answer("214 2.0.0 RFC 5321");
  if (IsCommand(line, "QUIT")) {
    _over = true;
    return _Answer("221 2.0.0 goodbye");
  }
  _Error("500 5.5.2 command not known");
}

void SmtpSession::_Hello(bool extended) {
  _Forget();
  std::string const host = ToStd(GetEnv("HostName"));
  _Answer(extended ? "250-" + host + "\r\n250-PIPELINING\r\n250-8BITMIME\r\n250 ENHANCEDSTATUSCODES" : "250 " + host);
}

void SmtpSession::_Mail(std::string_view rest) {
  std::string path;
  if (_acceptance != nullptr) return _Error("503 5.5.1 a sender is named already");
  if (!TakePath(rest, path)) return _Error("501 5.1.7 no address in angle brackets");
  _acceptance = std::make_unique<LocalAcceptance>("SMTP on standard input");
  SAcceptResult const result = (*_acceptance)->SetSender(SString(path));
  if (result == SAcceptResult::kOk) return _Answer("250 2.1.0 sender taken");
  _Forget();
  _Refuse(result);
}

void SmtpSession::_Rcpt(std::string_view rest) {
  std::string path;
  if (_acceptance == nullptr) return _Error("503 5.5.1 no sender yet");
  if (!TakePath(rest, path)) return _Error("501 5.1.3 no address in angle brackets");
  // Looked at first: what the acceptance itself refuses, it holds against the recipients that were taken.
  if (!IsMailAddress(SString(path))) return _Refuse(SAcceptResult::kBadAddress);
  // No error of the client's, who sends the message to these and then again to the others (RFC 5321
  // section 4.5.3.1.10).
  if (_recipients == SAcceptance::kMaxRecipients)
    return _Send(std::string("452 4.5.3 ") + AcceptResultText(SAcceptResult::kTooManyRecipients));
  SAcceptResult const result = (*_acceptance)->AddRecipient(SString(path));
  if (result != SAcceptResult::kOk) return _Refuse(result);
  ++_recipients;
  _Answer("250 2.1.5 recipient taken");
}

void SmtpSession::_Data() {
  if (_recipients == 0) return _Error("503 5.5.1 no recipient yet");
  _Answer("354 end with a line of one dot");
  SAcceptResult result = SAcceptResult::kOk;
  Reading const reading = _ReadMessage(result);
  if (reading != Reading::kWhole) {
    _Forget();
    // The client is gone, and what it did not end was not sent; or it may take for its next commands what we would take
    // for the message.
    _over = reading == Reading::kCutOff || reading == Reading::kFalseEnd;
    if (reading != Reading::kCutOff) _Error("554 5.6.0 a line of the message does not end with CR LF");
    return;
  }
  if (result == SAcceptResult::kOk) result = (*_acceptance)->Commit();
  std::string const name = ToStd((*_acceptance)->GetName());
  _Forget();
  if (result == SAcceptResult::kOk) return _Answer("250 2.0.0 accepted as " + name);
  _Refuse(result);
}

// Reads to the line of one dot whatever happens, since the client sends it all; only what looks like that line and is
// not ends the reading at once. Dots that were put in front of lines are taken off (RFC 5321 section 4.5.2).
SmtpSession::Reading SmtpSession::_ReadMessage(SAcceptResult &result) {
  std::string header, line;
  MessageLines lines;
  bool inHeader = true;
  for (;;) {
    if (!_in->ReadLine(line, kLongestPiece)) return Reading::kCutOff;
    lines.Take(line);
    if (lines.LooksLikeEnd()) break;
    std::string_view text = line;
    if (lines.StartsLine() && text.front() == '.') text.remove_prefix(1);
    if (result != SAcceptResult::kOk || lines.HasBare()) continue;
    if (inHeader && lines.StartsLine()) {
      std::string_view const content = Chomped(text);
      bool const isField = !content.empty() && IsHeaderLine(content.data(), content.size(), header.empty());
      if (!isField) {
        inHeader = false;
        result = (*_acceptance)->SetHeader(SString(header));
        if (content.empty() || result != SAcceptResult::kOk) continue;
      }
    }
    if (!inHeader)
      result = (*_acceptance)->AddBody(text.data(), text.size());
    else if (header.size() + text.size() > SAcceptance::kMaxHeaderBytes)
      result = SAcceptResult::kHeaderTooLarge;
    else
      header += text;
  }
  if (!lines.IsEnd()) return Reading::kFalseEnd;
  if (lines.HasBare()) return Reading::kBareLineEnd;
  if (inHeader && result == SAcceptResult::kOk) result = (*_acceptance)->SetHeader(SString(header));
  return Reading::kWhole;
}

void SmtpSession::_Refuse(SAcceptResult result) {
  std::string const text = AcceptResultText(result);
  switch (result) {
    case SAcceptResult::kNoSpace:
      return _Error("452 4.3.1 " + text);
    case SAcceptResult::kFailed:
      return _Error("451 4.3.0 " + text);
    case SAcceptResult::kTooManyRecipients:
      return _Error("452 4.5.3 " + text);
    case SAcceptResult::kBadAddress:
      return _Error("553 5.1.3 " + text);
    case SAcceptResult::kHeaderTooLarge:
    case SAcceptResult::kTooManyFields:
      return _Error("552 5.3.4 " + text);
    default:
      return _Error("554 5.6.0 " + text);
  }
}

void SmtpSession::_Send(std::string const &text) {
  std::string const line = text + "\r\n";
  for (size_t done = 0; done < line.size();) {
    ssize_t const written = write(_output, line.data() + done, line.size() - done);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) {  // nobody listens any more
      _over = true;
      return;
    }
    done += static_cast<size_t>(written);
  }
}

}  // namespace

int RunSmtpSession(int input, int output) { return SmtpSession(input, output).Run(); }
