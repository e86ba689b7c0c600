// command/submission.h - a message from standard input into the spool; what `submit` and `sendmail` share.
#pragma once
#include <memory>
#include <string>
#include <vector>

#include "brenthaven/spool/accept.h"

struct Submission {
  std::string sender;                   // "" or "<>": the null sender
  std::vector<std::string> recipients;  // with or without brackets; one without a domain gets DomainName
  bool readRecipients = false;          // add those of To:, Cc: and Bcc:, and drop Bcc:
  bool dotEnds = false;                 // a line of one "." ends the message
  bool complete = false;                // add From:, Date: and Message-ID: where they are missing
  std::string fullName;                 // for a From: that is added
};

// How a submission ended.
struct SubmissionResult {
  int code;          // of sysexits.h; EX_TEMPFAIL for what may succeed later
  std::string text;  // the message's name in the spool, or what went wrong
};

// Reads the message from `input` to its end and puts it into the spool. Nothing stays of one that failed.
SubmissionResult SubmitFrom(int input, Submission const &submission);

// The address of who runs this program: LOGNAME or the user's name, at DomainName.
std::string OwnAddress();

// The code of sysexits.h for what happened in an SAcceptance.
int ExitCodeOf(SAcceptResult result);

// A new acceptance for a message from this host. `via` goes into Submitted-Via:.
class LocalAcceptance {
public:
  explicit LocalAcceptance(char const *via);
  ~LocalAcceptance();
  SAcceptance *operator->() { return _acceptance.get(); }

private:
  std::unique_ptr<SModule> _module;
  std::unique_ptr<SAcceptance> _acceptance;
};

// Reads lines and blocks from a descriptor through one buffer.
class InputReader {
public:
  explicit InputReader(int fd) : _fd(fd) {}
  // The next line with its line end, at most `limit` bytes of it. False at the end of the input.
  bool ReadLine(std::string &line, size_t limit);
  // What is buffered, else the next block. Empty at the end.
  std::string_view ReadBlock();
  bool Failed() const { return _failed; }  // reading ended with an error: errno of then is in Error()
  int Error() const { return _error; }

private:
  bool _Fill();
  int _fd;
  char _buffer[64 << 10];
  size_t _start = 0, _end = 0;
  bool _failed = false;
  int _error = 0;
};
