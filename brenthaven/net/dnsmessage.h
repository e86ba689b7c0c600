// brenthaven/net/dnsmessage.h - the bytes of an MX query and of its reply (RFC 1035 section 4).
//
//   0  2  ID, low byte first          12      question: name, 00 0F (MX), 00 01 (IN)
//   2  2  flags 01 00                 then    resource records: answers, authority, additional
//   4  2  questions 00 01
//   6  6  other counts 0
#pragma once
#include <map>
#include <string>
#include <vector>

#include "brenthaven/text/sstring.h"

inline constexpr int kDnsHeaderLength = 12;

enum DnsReplyCode { kDnsNoError = 0, kDnsNameError = 3 };

// A name as length bytes and labels. Nothing is checked: with IsSendableName it is known to be sound.
SString _EncodeName(SString const &name);

// The name at a position of a message, labels joined by dots, and the position behind it. At most 30 labels and 255
// characters, whatever is said there; a label that would lead out of the message ends the name, and the position is
// then the message's end. Compression pointers are followed at most 128 times.
SString _DecodeName(SString const &message, int *position);

// Whether all labels hold 1 to 63 bytes, and the encoded name at most 255.
bool IsSendableName(SString const &name);

SString MakeMxQuery(int id, SString const &name);
// Long enough to be a reply, and with the query's ID.
bool IsReplyTo(SString const &query, SString const &reply);
// Marked as a reply, and with the query's question, letter case aside.
bool RepeatsQuestion(SString const &query, SString const &reply);

// What a reply to an MX query says.
struct SMxReply {
  int code = kDnsNoError;                         // RCODE
  int answers = 0;                                // ANCOUNT; only low bytes of the counts are read, as signed values
  std::map<int, std::vector<SString>> exchanges;  // names in answer order, by preference
  std::map<std::string, std::vector<SString>> quads;  // addresses told in the additional section, by name
};

// Reads a reply of at least kDnsHeaderLength bytes. Broken or cut off, it gives what stands before the break.
SMxReply ParseMxReply(SString const &reply);
