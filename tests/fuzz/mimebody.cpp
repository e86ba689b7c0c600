// Any text as a message: its body taken apart by MIME, put together and taken apart again.
//
// The input is the message: header, blank line, body, all lines ended by CR LF.
#include <time.h>

#include <algorithm>

#include "brenthaven/mime/smime.h"
#include "brenthaven/spool/header.h"
#include "tests/fuzz/fuzz.h"

namespace {

constexpr int kMaxParts = 10000;

struct Message {
  SHeader header;
  SString body;
  explicit Message(std::string_view text) {
    size_t const end = std::min(text.find("\r\n\r\n"), text.size());
    SString const head(text.substr(0, std::min(end + 2, text.size())));
    head >> header;
    body = SString(text.substr(std::min(end + 4, text.size())));
  }
};

SHeader HeaderOf(SMIME const &mime) {
  SHeader header;
  if (!mime.HasVersion()) return header;
  SString type = mime.MainType() + "/" + mime.Subtype();
  if (mime.Boundary().Length() > 0) type += "; boundary=\"" + mime.Boundary() + "\"";
  header["MIME-Version:"] = SStringList("1.0");
  header["Content-Type:"] = SStringList(type);
  header["Content-Transfer-Encoding:"] = SStringList(mime.Encoding());
  return header;
}

SMIME BuiltAndRead(SMIME mime) {
  SString const text = mime.operator SString();
  return {HeaderOf(mime), text};
}

SStringList DescriptionOf(SMIME mime) { return mime.operator SStringList(); }

void ExpectInStep(SMIME const &mime) {
  bool const isMultipart = mime.MainType() == "multipart";
  int const parts = mime.Contents().Length();
  fuzz::Expect(parts <= kMaxParts && (isMultipart || parts == 1), "too many parts");
  int const rows = isMultipart ? parts : 0;
  for (SStringList const *list :
       {&mime.PartMainTypes(), &mime.PartSubtypes(), &mime.PartEncodings(), &mime.PartNames()})
    fuzz::Expect(list->Length() == rows, "the lists of parts are out of step");
}

// Parts are cut out of the body, except those that were decoded, and the last of very many.
void ExpectSlices(SMIME const &mime, SHeader const &header, SString const &body) {
  if (mime.Contents().Length() == kMaxParts) return;
  std::string const transfer = fuzz::Bytes(header.Get("Content-Transfer-Encoding:").Join(" "));
  for (int i = 0; i < mime.Contents().Length(); ++i) {
    SString const content = mime.Contents().Get(i);
    SString const encoding = mime.PartEncodings().Get(i);
    fuzz::Expect(content.Length() <= body.Length(), "a part is longer than the body", content.View());
    bool const mayBeDecoded = mime.PartEncodings().Length() == 0 ? !transfer.empty() : encoding == "base64";
    if (!mayBeDecoded)
      fuzz::Expect(body.View().find(content.View()) != std::string_view::npos, "a part is no slice of the body",
                   content.View());
  }
}

// Once built (which ends each part with a line end), a body is the same when it is read and built again. A content that
// holds the delimiter itself can't be told from two.
void ExpectFixedPoint(SMIME const &mime) {
  fuzz::Expect(DescriptionOf(SMIME(DescriptionOf(mime))) == DescriptionOf(mime), "a description is read as another");
  SString const delimiter = "--" + mime.Boundary();
  for (SString const &content : mime.Contents())
    if (mime.MainType() == "multipart" && content.Index(delimiter) >= 0) return;
  if (mime.Contents().Length() == kMaxParts) return;
  SMIME const once = BuiltAndRead(mime);
  SMIME const twice = BuiltAndRead(once);
  fuzz::Expect(once.Contents().Length() == mime.Contents().Length(), "parts were lost or gained");
  for (int i = 0; i < once.Contents().Length(); ++i)
    fuzz::Expect(once.Contents().Get(i).View().starts_with(mime.Contents().Get(i).View()), "a content was changed",
                 mime.Contents().Get(i).View());
  fuzz::Expect(once.PartMainTypes() == mime.PartMainTypes() && once.PartSubtypes() == mime.PartSubtypes() &&
                   once.PartEncodings() == mime.PartEncodings(),
               "the type of a part was changed");
  fuzz::Expect(DescriptionOf(once) == DescriptionOf(twice), "a body that was built is read as another");
}

double SecondsFor(SHeader const &header, std::string const &body) {
  timespec before, behind;
  SString const text(body);
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &before);
  SMIME const mime(header, text);
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &behind);
  return static_cast<double>(behind.tv_sec - before.tv_sec) +
         static_cast<double>(behind.tv_nsec - before.tv_nsec) / 1e9;
}

// Repeated to a few hundred kilobytes, twice the body takes no more than some twice the time. What is missed is below
// a tenth of a second.
void ExpectLinear(SHeader const &header, SString const &body) {
  constexpr size_t kSize = 256 * 1024;
  if (body.Length() == 0) return;
  std::string large;
  while (large.size() < kSize) large.append(body.View());
  std::string const larger = large + large;
  for (int tries = 0; tries < 3; ++tries)  // processor time, but caches are shared with others
    if (SecondsFor(header, larger) <= 2.5 * SecondsFor(header, large) + 0.1) return;
  fuzz::Fail("a body of twice the size takes far more than twice the time");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const *data, size_t size) {
  Message const message(fuzz::View(data, size));
  SMIME const mime(message.header, message.body);
  ExpectInStep(mime);
  ExpectSlices(mime, message.header, message.body);
  ExpectFixedPoint(mime);
  // One input in 32, picked by its bytes, is large work.
  unsigned sum = 0;
  for (size_t i = 0; i < size; ++i) sum = sum * 31 + data[i];
  if (sum % 32 == 0) ExpectLinear(message.header, message.body);
  return 0;
}
