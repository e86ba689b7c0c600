// Real-looking messages of every shape that mail takes: what MIME makes of each. Every file of the corpus has its row.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <string>

#include "brenthaven/mime/linebreak.h"
#include "brenthaven/mime/smime.h"
#include "brenthaven/spool/header.h"
#include "brenthaven/text/base.h"

namespace {

struct Message {
  SHeader header;
  SString body;
};

// The header goes up to the first empty line, which belongs to neither; a message without one is all header.
Message ReadMessage(std::string const &path) {
  SString const text = MapFileRead(path.c_str());
  int const blank = text.Index("\r\n\r\n");
  bool const bodyOnly = text.HasPrefix("\r\n");
  int const head = bodyOnly ? 0 : blank < 0 ? text.Length() : blank + 2;
  Message message;
  text.Segment(0, head) >> message.header;
  message.body = text.Segment(head + 2, text.Length() - head - 2);
  return message;
}

struct Facts {
  char const *name;
  char const *type;
  char const *parts;  // of a multipart body, one type after the other; else ""
};

Facts const kCorpus[] = {
    {"all-bytes", "text/plain", ""},
    {"all-lf", "text/plain", ""},
    {"alternative", "multipart/alternative", "text/plain text/html"},
    {"arf", "multipart/report", "text/plain message/feedback-report message/rfc822"},
    {"auto-reply", "text/plain", ""},
    {"bad-base64", "text/plain", ""},
    {"bad-mime", "text/plain", ""},
    {"bare-cr", "text/plain", ""},
    {"bare-lf", "text/plain", ""},
    {"base64-text", "text/plain", ""},
    {"binary-body", "application/octet-stream", ""},
    {"bounce-plain", "text/plain", ""},
    {"calendar", "multipart/alternative", "text/plain text/calendar application/ics"},
    {"calendar-only", "text/calendar", ""},
    {"digest", "multipart/digest", "message/rfc822*3"},
    {"dots", "text/plain", ""},
    {"dsn-delayed", "multipart/report", "text/plain message/delivery-status text/rfc822-headers"},
    {"dsn-failed", "multipart/report", "text/plain message/delivery-status message/rfc822"},
    {"empty-body", "text/plain", ""},
    {"empty-file", "text/plain", ""},
    {"format-flowed", "text/plain", ""},
    {"forwarded", "multipart/mixed", "text/plain message/rfc822"},
    {"from-lines", "text/plain", ""},
    {"header-500-lines", "text/plain", ""},
    {"header-500-recipients", "text/plain", ""},
    {"header-998", "text/plain", ""},
    {"header-bcc", "text/plain", ""},
    {"header-blank-fold", "text/plain", ""},
    {"header-comments", "text/plain", ""},
    {"header-duplicates", "text/plain", ""},
    {"header-empty-values", "text/plain", ""},
    {"header-encoded-words", "text/plain", ""},
    {"header-folded", "text/plain", ""},
    {"header-groups", "text/plain", ""},
    {"header-missing-all", "text/plain", ""},
    {"header-missing-date", "text/plain", ""},
    {"header-no-space", "text/plain", ""},
    {"header-odd-case", "text/html", ""},
    {"header-quoted-names", "text/plain", ""},
    {"header-received-100", "text/plain", ""},
    {"header-references", "text/plain", ""},
    {"header-resent", "text/plain", ""},
    {"header-trace-auth", "text/plain", ""},
    {"header-utf8", "text/plain", ""},
    {"html-base64", "text/html", ""},
    {"html-only", "text/html", ""},
    {"image-only", "image/png", ""},
    {"iso-2022-jp", "text/plain", ""},
    {"iso-2022-jp-attachment", "multipart/mixed", "text/plain application/octet-stream"},
    {"iso-2022-jp-raw-subject", "text/plain", ""},
    {"koi8-r", "text/plain", ""},
    {"latin1-8bit", "text/plain", ""},
    {"latin1-raw-header", "text/plain", ""},
    {"line-100k", "text/plain", ""},
    {"line-998", "text/plain", ""},
    {"list-mail", "text/plain", ""},
    {"mbox-from", "text/plain", ""},
    {"mdn", "multipart/report", "text/plain message/disposition-notification"},
    {"message-external", "message/external-body", ""},
    {"message-partial", "message/partial", ""},
    {"mixed", "multipart/mixed", "text/plain image/png"},
    {"mixed-line-ends", "text/plain", ""},
    {"multipart-200-parts", "multipart/digest", "text/plain*200"},
    {"multipart-bare-lf", "text/plain", ""},
    {"multipart-boundary-unused", "text/plain", ""},
    {"multipart-dashes", "multipart/mixed", "text/plain*3"},
    {"multipart-empty-part", "multipart/mixed", "text/plain*3"},
    {"multipart-missing-boundary", "text/plain", ""},
    {"multipart-no-closing", "multipart/mixed", "text/plain"},
    {"multipart-odd-boundary", "multipart/mixed", "text/plain*2"},
    {"multipart-same-line-boundary", "multipart/mixed", "multipart/alternative"},
    {"nested", "multipart/mixed", "text/plain text/html application/pdf"},
    {"nested-20-levels", "multipart/mixed", "text/plain"},
    {"nested-related", "multipart/mixed", "text/plain text/html image/gif text/plain"},
    {"no-final-newline", "text/plain", ""},
    {"no-header", "text/plain", ""},
    {"no-separator", "text/plain", ""},
    {"not-a-message", "text/plain", ""},
    {"nul-bytes", "text/plain", ""},
    {"nul-in-header", "text/plain", ""},
    {"one-byte-body", "text/plain", ""},
    {"pgp-encrypted", "multipart/encrypted", "application/pgp-encrypted application/octet-stream"},
    {"pgp-inline", "text/plain", ""},
    {"pgp-signed", "multipart/signed", "text/plain application/pgp-signature"},
    {"plain", "text/plain", ""},
    {"plain-mime", "text/plain", ""},
    {"quoted-printable", "text/plain", ""},
    {"rfc2231", "multipart/parallel", "text/plain application/pdf"},
    {"smime-encrypted", "application/pkcs7-mime", ""},
    {"smime-signed", "multipart/signed", "text/plain application/pkcs7-signature"},
    {"trailing-blanks", "text/plain", ""},
    {"two-content-types", "text/html", ""},
    {"utf8-8bit", "text/plain", ""},
    {"white-body", "text/plain", ""},
};

// The types of all parts, a run of equal ones as one with its length.
std::string PartTypes(SMIME const &mime) {
  std::string types;
  int run = 0;
  for (int i = 0; i < mime.PartMainTypes().Length(); ++i) {
    auto const type = [&](int k) { return mime.PartMainTypes().Get(k) + "/" + mime.PartSubtypes().Get(k); };
    ++run;
    if (i + 1 < mime.PartMainTypes().Length() && type(i) == type(i + 1)) continue;
    if (!types.empty()) types += ' ';
    types += type(i);
    if (run > 1) types += "*" + std::to_string(run);
    run = 0;
  }
  return types;
}

TEST(Corpus, EveryMessageHasItsFacts) {
  std::map<std::string, Facts const *> facts;
  for (Facts const &row : kCorpus) facts[row.name] = &row;
  EXPECT_GE(facts.size(), 60U);
  size_t seen = 0;
  for (auto const &entry : std::filesystem::directory_iterator(CORPUS_DIR)) {
    SCOPED_TRACE(entry.path().stem().string());
    Message const message = ReadMessage(entry.path());
    SMIME const mime(message.header, message.body);
    auto const row = facts.find(entry.path().stem());
    ASSERT_NE(row, facts.end()) << "a file without a row";
    ++seen;
    EXPECT_EQ(mime.MainType() + "/" + mime.Subtype(), row->second->type);
    EXPECT_EQ(PartTypes(mime), row->second->parts);
    EXPECT_EQ(mime.Contents().Length(), std::max(mime.PartMainTypes().Length(), 1));
  }
  EXPECT_EQ(seen, facts.size()) << "a row without a file";
}

TEST(Corpus, EveryMessageSurvivesRebuilding) {
  for (auto const &entry : std::filesystem::directory_iterator(CORPUS_DIR)) {
    SCOPED_TRACE(entry.path().stem().string());
    Message message = ReadMessage(entry.path());
    SMIME mime(message.header, message.body);
    SMIME copy(mime.operator SStringList());
    EXPECT_EQ(copy.operator SString(), mime.operator SString());
    if (mime.HasVersion() == 0) {
      EXPECT_EQ(mime.operator SString(), message.body);
    }
    if (mime.MainType() != "multipart") continue;
    // Once rebuilt, flat and with its boundary quoted, a body stays as it is.
    message.header["Content-Type:"] =
        mime.MainType() + "/" + mime.Subtype() + ";\r\n\tBoundary=\"" + mime.Boundary() + "\"";
    SMIME again(message.header, mime.operator SString());
    EXPECT_EQ(PartTypes(again), PartTypes(mime));
    EXPECT_EQ(again.operator SString(), SMIME(message.header, again.operator SString()).operator SString());
  }
}

TEST(Corpus, LinesAddUpToTheMessage) {
  for (auto const &entry : std::filesystem::directory_iterator(CORPUS_DIR)) {
    SCOPED_TRACE(entry.path().stem().string());
    SString const text = MapFileRead(entry.path().c_str());
    SLineBreaker breaker(text, 0);
    SString joined("");
    SString line;
    while (breaker.ReadLine(line)) {
      EXPECT_EQ(breaker.GetCurrentOffset(), joined.Length());
      joined += line;
    }
    EXPECT_EQ(joined, text);
  }
}

}  // namespace
