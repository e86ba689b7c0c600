// command/smtp.h - SMTP on a pair of descriptors, for programs that speak it to `sendmail -bs`.
#pragma once

// One session (RFC 5321, with PIPELINING, 8BITMIME and ENHANCEDSTATUSCODES) until QUIT or
// the end of the input. A message is in the spool, durably, before its "250". An exit code of sysexits.h.
int RunSmtpSession(int input, int output);
