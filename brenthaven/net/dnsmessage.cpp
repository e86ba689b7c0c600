#include "brenthaven/net/dnsmessage.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "brenthaven/text/sstringlist.h"

namespace {

constexpr int kMostLabels = 30;
constexpr int kMostPointers = 128;
constexpr int kPointerBits = 0xC0;
constexpr int kLongestName = 255;
constexpr int kLongestLabel = 63;
constexpr int kQuestionTail = 4;  // type and class
constexpr std::string_view kMxInternet("\x00\x0F\x00\x01", kQuestionTail);

// Offsets in a resource record from the end of its name.
constexpr int kTypeLow = 1;
constexpr int kLengthLow = 9;
constexpr int kData = 10;
constexpr int kPreferenceLength = 2;

enum RecordType { kTypeA = 1, kTypeMx = 15 };

int ByteAt(SString const &message, int position) { return static_cast<unsigned char>(message[position]); }

// A count of the header: its low byte, signed, so that 128 and more of anything count as none.
int CountAt(SString const &message, int position) {
  return std::max<int>(static_cast<signed char>(message[position]), 0);
}

// Labels of a name without the dot that may end it.
SStringList LabelsOf(SString const &name) {
  SString const text = name[-1] == '.' ? SString(name.View().substr(0, name.Length() - 1)) : name;
  return text.Split('.');
}

// Where one resource record lies. A record that is cut off is not sound, and nothing can be found behind it.
struct Record {
  SString name;
  int type;
  int start;  // of its data
  int length;
  int End() const { return start + length; }
};

// See _DecodeName; false when the name is cut off or led astray.
bool DecodeName(SString const &message, int *position, SString *name) {
  std::vector<std::string_view> labels;
  int at = *position;
  int pointers = 0;
  int behind = -1;  // the first pointer
  bool sound = true;
  while (labels.size() < kMostLabels) {
    int const length = at < message.Length() ? ByteAt(message, at) : -1;
    ++at;
    if (length == 0) break;
    bool const is_pointer = length > 0 && (length & kPointerBits) != 0;
    sound = length > 0 &&
            (is_pointer ? at < message.Length() && ++pointers <= kMostPointers : length <= message.Length() - at);
    if (!sound) break;
    if (is_pointer) {
      if (behind < 0) behind = at + 1;
      at = (length & ~kPointerBits) << 8 | ByteAt(message, at);
    } else {
      labels.push_back(message.View().substr(at, length));
      at += length;
    }
  }
  *position = behind >= 0 ? behind : sound ? at : message.Length();

  *name = SString("");
  for (std::string_view label : labels) {
    int const dot = name->Length() > 0 ? 1 : 0;
    if (name->Length() + dot + static_cast<int>(label.size()) > kLongestName) break;
    if (dot) *name += '.';
    name->Append(label);
  }
  return sound;
}

bool ReadRecord(SString const &reply, int position, Record *record) {
  (void)DecodeName(reply, &position, &record->name);  // cut off, it stands at the end and the next line says so
  if (position > reply.Length() - kData) return false;
  record->type = ByteAt(reply, position + kTypeLow);
  record->start = position + kData;
  record->length = ByteAt(reply, position + kLengthLow);  // a longer record puts the reading out of step
  return true;
}

// The answer section; returns the position behind it.
int ReadAnswers(SString const &reply, int position, int count, SMxReply *result) {
  Record record;
  for (; count > 0 && ReadRecord(reply, position, &record); --count) {
    if (record.type != kTypeMx) {
      position = record.End();
      continue;
    }
    if (record.start > reply.Length() - kPreferenceLength) return reply.Length();
    int const preference = ByteAt(reply, record.start) << 8 | ByteAt(reply, record.start + 1);
    position = record.start + kPreferenceLength;  // from here on the name tells where the record ends
    SString name;
    if (DecodeName(reply, &position, &name)) result->exchanges[preference].push_back(name);
  }
  return count > 0 ? reply.Length() : position;
}

int SkipRecords(SString const &reply, int position, int count) {
  Record record;
  for (; count > 0 && ReadRecord(reply, position, &record); --count) position = record.End();
  return count > 0 ? reply.Length() : position;
}

void ReadAdditional(SString const &reply, int position, int count, SMxReply *result) {
  constexpr int kQuadBytes = 4;
  Record record;
  for (; count > 0 && ReadRecord(reply, position, &record); --count) {
    position = record.End();
    if (record.type != kTypeA || record.start > reply.Length() - kQuadBytes) continue;
    std::array<char, 16> quad;
    (void)snprintf(quad.data(), quad.size(), "%d.%d.%d.%d", ByteAt(reply, record.start),
                   ByteAt(reply, record.start + 1), ByteAt(reply, record.start + 2), ByteAt(reply, record.start + 3));
    result->quads[std::string(record.name.View())].push_back(SString(quad.data()));
  }
}

}  // namespace

SString _EncodeName(SString const &name) {
  SString bytes("");
  for (SString const &label : LabelsOf(name)) {
    bytes += static_cast<char>(label.Length());
    bytes += label;
  }
  bytes += '\0';
  return bytes;
}

SString _DecodeName(SString const &message, int *position) {
  SString name;
  (void)DecodeName(message, position, &name);  // what there is of it is the name
  return name;
}

bool IsSendableName(SString const &name) {
  if (name.View().find("..") != std::string_view::npos) return false;  // an empty label would end the name
  int length = 1;                                                      // of the encoded name
  for (SString const &label : LabelsOf(name)) {
    if (label.Length() < 1 || label.Length() > kLongestLabel) return false;
    length += 1 + label.Length();
  }
  return length <= kLongestName;
}

SString MakeMxQuery(int id, SString const &name) {
  constexpr std::string_view kRest("\x01\x00\x00\x01\x00\x00\x00\x00\x00\x00", kDnsHeaderLength - 2);
  SString query("");
  query += static_cast<char>(id & 0xFF);
  query += static_cast<char>(id >> 8 & 0xFF);
  query.Append(kRest);
  query += _EncodeName(name);
  query.Append(kMxInternet);
  return query;
}

bool IsReplyTo(SString const &query, SString const &reply) {
  return reply.Length() >= kDnsHeaderLength && reply[0] == query[0] && reply[1] == query[1];
}

bool RepeatsQuestion(SString const &query, SString const &reply) {
  constexpr int kReplyBit = 0x80;
  if ((ByteAt(reply, 2) & kReplyBit) == 0 || ByteAt(reply, 4) != 0 || ByteAt(reply, 5) != 1) return false;
  int const length = query.Length() - kDnsHeaderLength;
  SString const asked = SString(query.View().substr(kDnsHeaderLength));
  // A length byte is below 64 and no letter, so the fold touches names alone.
  return reply.Length() >= query.Length() &&
         asked.CompareNoCase(SString(reply.View().substr(kDnsHeaderLength, length))) == 1;
}

SMxReply ParseMxReply(SString const &reply) {
  SMxReply result;
  result.code = ByteAt(reply, 3) & 0x0F;
  result.answers = CountAt(reply, 7);
  int position = kDnsHeaderLength;
  for (int question = 0; question < CountAt(reply, 5); ++question) {
    (void)_DecodeName(reply, &position);
    position = std::min(position + kQuestionTail, reply.Length());
  }
  position = ReadAnswers(reply, position, result.answers, &result);
  position = SkipRecords(reply, position, CountAt(reply, 9));
  ReadAdditional(reply, position, CountAt(reply, 11), &result);
  return result;
}
