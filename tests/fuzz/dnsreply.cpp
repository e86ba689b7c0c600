// Any bytes as the reply of a name server, and as the name to ask it for.
#include <algorithm>

#include "brenthaven/net/dnsmessage.h"
#include "tests/fuzz/fuzz.h"

namespace {

constexpr int kMostLabels = 30;
constexpr int kLongestName = 255;
constexpr size_t kMostRecords = 127;

void ExpectName(SString const &name, SString const &message) {
  fuzz::Expect(name.Defined() && name.Length() <= kLongestName, "a name that is too long", name.View());
  // The bytes of a label may be dots themselves; each comes out of the message.
  for (char const c : name.View())
    fuzz::Expect(c == '.' || message.View().find(c) != std::string_view::npos, "a name of bytes from elsewhere",
                 name.View());
}

// From every position: each is one to which a pointer may lead.
void ExpectNames(SString const &message) {
  for (int start = 0; start < std::min(message.Length(), 600); ++start) {
    int position = start;
    SString const name = _DecodeName(message, &position);
    ExpectName(name, message);
    fuzz::Expect(position > start && position <= message.Length() + 1, "behind a name is no place in the message");
  }
}

void ExpectReply(SString const &reply) {
  SMxReply const result = ParseMxReply(reply);
  size_t exchanges = 0;
  for (auto const &[preference, names] : result.exchanges) {
    fuzz::Expect(preference >= 0 && preference <= 0xffff, "a preference of more than 16 bits");
    exchanges += names.size();
    for (SString const &name : names) ExpectName(name, reply);
  }
  fuzz::Expect(exchanges <= static_cast<size_t>(result.answers), "more exchanges than answers");
  size_t quads = 0;
  for (auto const &[name, addresses] : result.quads) {
    quads += addresses.size();
    for (SString const &address : addresses)
      fuzz::Expect(address.Length() >= 7 && address.Length() <= 15 && address.Count('.') == 3, "no dotted quad",
                   address.View());
  }
  fuzz::Expect(quads <= kMostRecords && result.answers <= static_cast<int>(kMostRecords), "more records than counted");

  // What was cut off says no more than what stands before the cut.
  SMxReply const cut = ParseMxReply(SString(reply.View().substr(0, std::max(reply.Length() - 1, kDnsHeaderLength))));
  size_t cutExchanges = 0;
  for (auto const &[preference, names] : cut.exchanges) cutExchanges += names.size();
  fuzz::Expect(cutExchanges <= exchanges, "a reply that is cut off has more exchanges");
}

// A name that may be sent comes back as it was, apart from dots at its end.
void ExpectSentName(SString const &name) {
  bool const isSendable = IsSendableName(name);
  SString const query = MakeMxQuery(0x1234, name);
  if (!isSendable || std::min(name.Count('.') + 1, kMostLabels + 1) > kMostLabels) return;
  int position = kDnsHeaderLength;
  SString const read = _DecodeName(query, &position);
  fuzz::Expect(read.View() == name.View().substr(0, name.View().find_last_not_of('.') + 1),
               "a name is read otherwise than it was asked for", name.View());
  fuzz::Expect(position == query.Length() - 4, "a question does not end behind its name", name.View());
  std::string reply = fuzz::Bytes(query);
  reply[2] = static_cast<char>(reply[2] | 0x80);
  fuzz::Expect(IsReplyTo(query, fuzz::Text(reply)) && RepeatsQuestion(query, fuzz::Text(reply)),
               "a question is not known again", name.View());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const *data, size_t size) {
  SString const message = fuzz::Text(fuzz::View(data, size));
  ExpectNames(message);
  if (message.Length() >= kDnsHeaderLength) ExpectReply(message);
  SString const query = MakeMxQuery(0x1234, "mail.example.org");
  if (IsReplyTo(query, message) && RepeatsQuestion(query, message))
    fuzz::Expect(message.Length() >= query.Length(), "a question in a reply that has no room for it");
  ExpectSentName(message);
  return 0;
}
