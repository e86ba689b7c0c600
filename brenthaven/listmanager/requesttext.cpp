#include "brenthaven/listmanager/requesttext.h"

#include <algorithm>
#include <string>
#include <string_view>

#include "brenthaven/mime/japanese.h"
#include "brenthaven/mime/linebreak.h"
#include "brenthaven/mime/smime.h"
#include "brenthaven/spool/keys.h"

namespace {

constexpr int kMaxLevels = 8;  // of multiparts within one another
constexpr std::string_view kBlanks = " \t";
constexpr std::string_view kWhite = " \t\r\n\f\v";
constexpr size_t kNone = std::string_view::npos;
constexpr char kQuotedPrintable[] = "quoted-printable";

std::string_view Trimmed(std::string_view text) {
  size_t const begin = text.find_first_not_of(kWhite);
  return begin == kNone ? std::string_view() : text.substr(begin, text.find_last_not_of(kWhite) - begin + 1);
}

// "Re: ", "AW: ", "Fwd: ", "Re[2]: ", one behind the other. No command has a colon in its first word.
std::string_view WithoutReplyMarks(std::string_view subject) {
  constexpr size_t kLongestMark = 8;
  for (;;) {
    subject = Trimmed(subject);
    size_t const colon = subject.find(':');
    if (colon == kNone || colon > kLongestMark || subject.substr(0, colon).find_first_of(kBlanks) != kNone)
      return subject;
    subject.remove_prefix(colon + 1);
  }
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

// RFC 2045 section 6.7. A "=" that begins neither a byte nor a soft line end stays, as the RFC advises.
SString DecodeQuotedPrintable(std::string_view text) {
  std::string decoded;
  decoded.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '=') {
      decoded += text[i];
      continue;
    }
    int const high = i + 2 < text.size() ? HexDigit(text[i + 1]) : -1;
    int const low = high >= 0 ? HexDigit(text[i + 2]) : -1;
    if (low >= 0) {
      decoded += static_cast<char>(high * 16 + low);
      i += 2;
      continue;
    }
    size_t const end = text.find_first_not_of(" \t\r", i + 1);
    if (end == kNone || text[end] == '\n')
      i = std::min(end, text.size());
    else
      decoded += '=';
  }
  return SString(decoded);
}

// The boundary of a multipart content whose head is not at hand: what stands behind the first line that begins with
// "--".
std::string_view BoundaryOf(std::string_view content) {
  size_t at = content.starts_with("--") ? 0 : content.find("\n--");
  if (at == kNone) return {};
  at = content.find("--", at) + 2;
  std::string_view const line = content.substr(at, content.find_first_of("\r\n", at) - at);
  return line.substr(0, line.find_last_not_of(kBlanks) + 1);
}

// The first text/plain among the parts; undefined when there is none. A part that is itself a multipart, which SMIME
// leaves whole where its boundary stands on one line with its type, is looked into.
SString FirstPlainText(SMIME const &body, int level = 0) {
  SStringList const &mains = body.PartMainTypes(), &subs = body.PartSubtypes();
  for (int i = 0; i < mains.Length(); ++i) {
    SString const content = body.Contents().Get(i);
    if (mains.Get(i) == "text" && subs.Get(i) == "plain")
      return body.PartEncodings().Get(i) == kQuotedPrintable ? DecodeQuotedPrintable(content.View()) : content;
    if (!(mains.Get(i) == "multipart") || level == kMaxLevels) continue;
    std::string_view const boundary = BoundaryOf(content.View());
    if (boundary.empty()) continue;
    SHeader head;
    head[kHeaderMimeVersion] = "1.0";
    head[kHeaderContentType] = "multipart/" + subs.Get(i) + "; boundary=\"" + SString(boundary) + "\"";
    SString found = FirstPlainText(SMIME(head, content), level + 1);
    if (found.Defined()) return found;
  }
  return SString();
}

SString PlainText(SHeader const &header, SString const &body) {
  SMIME const mime(header, body);
  if (!mime.HasVersion()) return body;
  if (mime.MainType() == "multipart") return FirstPlainText(mime);
  if (!(mime.MainType() == "text") || !(mime.Subtype() == "plain")) return SString();
  SString const encoding = LowerCase(SString(Trimmed(header.Get(kHeaderContentTransferEncoding).Get(0).View())));
  SString const content = mime.Contents().Get(0);
  return encoding == kQuotedPrintable ? DecodeQuotedPrintable(content.View()) : content;
}

// "On Tue, 4 Mar 2003, Jo Doe wrote:" above a quotation. The verb may have been wrapped to a line of its own.
void DropIntroduction(SStringList &lines) {
  SString const last = lines.Get(-1);
  if (last[-1] != ':') return;
  (void)lines.Pop();
  if (last.View().find_first_of(kBlanks) == kNone) (void)lines.Pop();
}

SStringList CommandLines(SString const &text) {
  SStringList lines;
  SLineBreaker breaker(text, 1);
  SString raw;
  bool inQuotation = false;
  while (breaker.ReadLine(raw)) {
    if (raw == "-- " || raw == "--" || raw.HasPrefix("-----")) break;
    std::string_view const line = Trimmed(raw.View());
    if (line.empty()) continue;
    bool const isQuoted = line.starts_with('>');
    if (isQuoted && !inQuotation) DropIntroduction(lines);
    if (!isQuoted) lines.Push(SString(line));
    inQuotation = isQuoted;
  }
  return lines;
}

}  // namespace

SRequestText ReadRequestText(SHeader const &header, SString const &body) {
  SRequestText text;
  SString const subject = DecodeEncodedWords(header.Get(kHeaderSubject).Get(0));
  text.subject = SString(WithoutReplyMarks(subject.View()));
  text.lines = CommandLines(PlainText(header, body.Segment(0, kMaxRequestText)));
  return text;
}
