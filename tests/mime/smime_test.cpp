#include "brenthaven/mime/smime.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "brenthaven/spool/header.h"

namespace {

struct Fields {
  char const *type;
  char const *encoding = nullptr;
};

SHeader Header(Fields const &fields) {
  SHeader header;
  header["MIME-Version:"] = "1.0";
  if (fields.type != nullptr) header["Content-Type:"] = fields.type;
  if (fields.encoding != nullptr) header["Content-Transfer-Encoding:"] = fields.encoding;
  return header;
}

SString Text(SMIME mime) { return mime.operator SString(); }
SStringList Description(SMIME mime) { return mime.operator SStringList(); }

// "main/sub/encoding:content" of each part, joined by "|".
SString Parts(SMIME const &mime) {
  SStringList parts;
  parts.Define();
  for (int i = 0; i < mime.PartMainTypes().Length(); ++i)
    parts.Push(mime.PartMainTypes().Get(i) + "/" + mime.PartSubtypes().Get(i) + "/" + mime.PartEncodings().Get(i) +
               ":" + mime.Contents().Get(i));
  return parts.Join("|");
}

SString Multipart(SString const &body) { return Parts(SMIME(Header({"multipart/mixed; boundary=b"}), body)); }

TEST(SMIME, WithoutMimeVersionTheBodyIsOneText) {
  SHeader header;
  header["Content-Type:"] = "multipart/mixed; boundary=b";
  header["Content-Transfer-Encoding:"] = "base64";
  SMIME const mime(header, "--b\r\n\r\nQQ==\r\n--b--\r\n");
  EXPECT_EQ(mime.HasVersion(), 0);
  EXPECT_EQ(mime.Contents().Length(), 1);
  EXPECT_EQ(Text(mime), "--b\r\n\r\nQQ==\r\n--b--\r\n");
}

TEST(SMIME, TypeAndEncodingOfASimpleBody) {
  struct {
    Fields fields;
    char const *body;
    char const *type;
    char const *content;
    char const *text;
    char const *encoding;  // after the text was taken
    char const *why;
  } const table[] = {
      {{nullptr}, "a", "text/plain", "a", "a", "7bit", "defaults"},
      {{"TEXT/Plain; charset=x", "8BIT"}, "a", "text/plain", "a", "a", "8bit", "lower case; 8bit stays"},
      {{"text/plain", " binary "}, "a", "text/plain", "a", "a", "binary", "binary stays"},
      {{"text/plain", "quoted-printable"}, "=41", "text/plain", "=41", "=41", "7bit", "not decoded"},
      {{"text/plain", "base64"}, "QQ==", "text/plain", "A", "A", "7bit", "decoded"},
      {{"text/html", "8bit"}, "A", "text/html", "A", "QQ==\r\n", "base64", "any other type is encoded"},
      {{"application/x-tar_gz.z", "base64"}, "QQ==", "application/x-tar_gz", "A", "QQ==\r\n", "base64", "word bytes"},
      {{"nonsense"}, "a", "text/plain", "a", "a", "7bit", "no slash"},
      {{"text/;"}, "a", "text/plain", "a", "a", "7bit", "no subtype"},
      {{"\r\n\ttext/enriched-plain"}, "a", "text/enriched-plain", "a", "a", "7bit", "folded; the subtype holds plain"},
      {{"multipart/mixed"}, "a", "text/plain", "a", "a", "7bit", "multipart without boundary is one text"},
      {{"multipart/mixed; boundary=b"}, "a", "text/plain", "a", "a", "7bit", "or without any delimiter"},
  };
  for (auto const &row : table) {
    SCOPED_TRACE(row.why);
    SMIME mime(Header(row.fields), row.body);
    EXPECT_EQ(mime.MainType() + "/" + mime.Subtype(), row.type);
    EXPECT_EQ(mime.Contents().Join("|"), row.content);
    EXPECT_EQ(mime.operator SString(), row.text);
    EXPECT_EQ(mime.Encoding(), row.encoding);
  }
}

TEST(SMIME, BoundaryParameter) {
  struct {
    char const *field;
    char const *want;
    char const *why;
  } const table[] = {
      {"multipart/mixed; boundary=\"a b\"; x=y", "a b", "quoted"},
      {"multipart/mixed; BOUNDARY=ab", "ab", "any case"},
      {"multipart/mixed;\r\n\tBoundary=\"ab\"", "ab", "folded"},
      {"multipart/mixed; boundary=ab\r\n\t; x=y", "ab", "unquoted up to the line's end"},
      {"multipart/mixed; boundary=\"\"; boundary=ab", "ab", "the first that has a value"},
      {"multipart/mixed; boundary=\"ab", "ab", "a missing quote"},
  };
  for (auto const &row : table) {
    SString const marker = SString("--") + row.want;
    SMIME const mime(Header({row.field}), marker + "\r\n\r\nx\r\n" + marker + "--\r\n");
    EXPECT_EQ(mime.Boundary(), row.want) << row.why;
    EXPECT_EQ(Parts(mime), "text/plain/7bit:x") << row.why;
  }
  SMIME const lost(Header({"multipart/mixed; boundary=ab; x=y"}), "--ab\r\n\r\nx\r\n--ab--\r\n");
  EXPECT_EQ(lost.MainType(), "text") << "an unquoted boundary swallows the parameters on its line";
}

TEST(SMIME, DelimitersAndHeads) {
  struct {
    char const *body;
    char const *want;
    char const *why;
  } const table[] = {
      {"--b\r\n\r\nx\r\n--b--\r\n", "text/plain/7bit:x", "defaults"},
      {"pre\r\n--b\r\n\r\nx\r\n--b--\r\npost", "text/plain/7bit:x", "text around the parts is dropped"},
      {"--b\r\n\r\nx\r\n--b\r\n\r\ny\r\n--b--", "text/plain/7bit:x|text/plain/7bit:y",
       "the closing one at the very end"},
      {"--b \t\r\n\r\nx\r\n--b-- \r\n", "text/plain/7bit:x", "blanks behind the boundary"},
      {"--b\r\n\r\nx\r\n--b c\r\n--bc\r\n--b--x\r\n--b--", "text/plain/7bit:x\r\n--b c\r\n--bc\r\n--b--x",
       "no delimiters"},
      {"--b\r\n\r\nx\n--b\ny\r\n--b--", "text/plain/7bit:x\n--b\ny", "a bare LF ends no delimiter"},
      {"--b\r\n\r\nx --b\r\n\r\ny\r\n--b--", "text/plain/7bit:x |text/plain/7bit:y",
       "one in the middle of a line counts"},
      {"--b\r\n\r\nx\r\n--b\r\n\r\nlost", "text/plain/7bit:x", "what no delimiter follows is no part"},
      {"--b\r\n--b\r\n\r\n--b--", "text/plain/7bit:|text/plain/7bit:", "empty parts"},
      {"--b\r\nContent-Type: image/PNG\r\ncontent-transfer-encoding: BASE64\r\n\r\nQQ==\r\n--b--", "image/png/base64:A",
       "head of a part"},
      {"--b\r\nContent-Type: image/png\r\n--b--", "image/png/7bit:", "head without a blank line"},
      {"--b\r\nX: Content-Type: a/b\r\n\r\nContent-Type: c/d\r\n--b--", "text/plain/7bit:Content-Type: c/d",
       "only fields of the head count"},
      {"--b\r\nContent-Type:\r\n image/png\r\n\r\nx\r\n--b--", "text/plain/7bit:x", "a folded type is not seen"},
      {"--b\r\nContent-Type: ?\r\nContent-Type: image/png\r\n\r\nx\r\n--b--", "image/png/7bit:x",
       "the first that is one"},
      {"--b\r\nContent-Transfer-Encoding:base64\r\n\r\nQQ==\r\n--b--",
       "text/plain/7bit:QQ==", "an encoding without a blank does not count"},
      {"--b\r\nContent-Transfer-Encoding: quoted-printable\r\n\r\n=41\r\n--b--", "text/plain/quoted-printable:=41",
       "quoted-printable stays as it is"},
      {"--b\r\n\r\n\r\n\r\n--b--", "text/plain/7bit:\r\n", "blank lines are content"},
  };
  for (auto const &row : table) EXPECT_EQ(Multipart(row.body), row.want) << row.why;
}

TEST(SMIME, NestedPartsJoinTheSameLists) {
  SString const inner = "--c\r\n\r\n1\r\n--c\r\nContent-Type: text/html\r\n\r\n2\r\n--c--";
  SString const front = "--b\r\nContent-Type: multipart/alternative;\r\n\tboundary=\"c\"\r\n\r\n";
  EXPECT_EQ(Multipart(front + inner + "\r\n--b\r\n\r\n3\r\n--b--"),
            "text/plain/7bit:1|text/html/7bit:2|text/plain/7bit:3");
  EXPECT_EQ(Multipart("--b\r\nContent-Type: multipart/alternative; boundary=c\r\n\r\n" + inner + "\r\n--b--"),
            "multipart/alternative/7bit:" + inner)
      << "a boundary behind the type on its line is not seen";
  EXPECT_EQ(Multipart(front + "no delimiter\r\n--b--"), "multipart/alternative/7bit:no delimiter");
}

TEST(SMIME, TextOfAMultipartBody) {
  SMIME mime;
  mime.SetType("Multipart", "Mixed");
  mime.SetBoundary("b");
  mime.AddPart("Text", "Plain", "7bit", "x\r\n");
  mime.AddPart("image", "png", "BASE64", "A", "a.png");
  mime.AddPart("text", "html", "8bit", "");
  char const *const plain =
      "\r\n--b\r\nContent-Type: text/plain\r\nContent-Transfer-Encoding: 7bit\r\n\r\nx\r\n"
      "\r\n--b\r\nContent-Type: image/png\r\nContent-Transfer-Encoding: base64\r\n\r\nQQ==\r\n"
      "\r\n--b\r\nContent-Type: text/html\r\nContent-Transfer-Encoding: 8bit\r\n\r\n\r\n"
      "\r\n--b--\r\n\r\n";
  EXPECT_EQ(mime.operator SString(), plain);
  EXPECT_EQ(mime.Encoding(), "7bit");
  setenv("UseContentDisposition", "yes", 1);
  SString const disposed = mime.operator SString();
  EXPECT_EQ(disposed.Count("Content-Disposition: attachment\r\n\r\n"), 2) << "on every part but the first";
  EXPECT_LT(disposed.Index("image/png"), disposed.Index("Content-Disposition"));
  setenv("UseContentDisposition", "YES", 1);
  EXPECT_EQ(mime.operator SString(), plain) << "the word is compared exactly";
}

TEST(SMIME, WhatIsWrittenIsReadBack) {
  SMIME mime;
  mime.SetType("multipart", "mixed");
  mime.SetBoundary(CreateMIMEBoundary());
  std::string every;
  for (int i = 0; i < 1000; ++i) every += static_cast<char>(i);
  SString const bytes(every.data(), static_cast<int>(every.size()));
  mime.AddPart("text", "plain", "7bit", "line\r\n--no delimiter\r\n");
  mime.AddPart("application", "octet-stream", "base64", bytes);
  SString const field = "multipart/mixed;\r\n\tBoundary=\"" + mime.Boundary() + "\"";
  SMIME const back(Header({field}), mime.operator SString());
  EXPECT_EQ(Description(back), Description(mime));
  EXPECT_EQ(Text(back), Text(mime));
}

TEST(SMIME, TheDescriptionIsReadBack) {
  SMIME multipart;
  multipart.SetType("multipart", "report");
  multipart.SetBoundary("MIME/x");
  multipart.AddPart("text", "plain", "x/y", "MIME/text/plain/7bit", "MIME/");
  multipart.AddPart("", "", "", "");
  SHeader bare;
  std::vector<SMIME> const bodies = {SMIME(), multipart, SMIME(Header({"text/html"}), "MIME/x"), SMIME(bare, "MIME/x"),
                                     SMIME(Header({nullptr, "8bit"}), "")};
  for (SMIME const &body : bodies) {
    SMIME const copy(Description(body));
    EXPECT_EQ(Description(copy), Description(body));
    EXPECT_EQ(Text(copy), Text(body));
    EXPECT_EQ(copy.HasVersion(), body.HasVersion());
  }
}

TEST(SMIME, PlainTextsMakeOnePlainBody) {
  SStringList const texts = {"Hello\r\n", "MIME/x\r\n"};
  SMIME const mime(texts);
  EXPECT_EQ(mime.MainType(), "text");
  EXPECT_EQ(Text(mime), "Hello\r\nMIME/x\r\n");
}

TEST(SMIME, EmptyMeansWhiteSpaceInPlainText) {
  EXPECT_TRUE(SMIME().IsEmpty());
  EXPECT_TRUE(SMIME(Header({nullptr}), " \t\r\n\v\f").IsEmpty());
  EXPECT_FALSE(SMIME(Header({nullptr}), " x ").IsEmpty());
  EXPECT_FALSE(SMIME(Header({nullptr}), SString("\0", 1)).IsEmpty());
  EXPECT_FALSE(SMIME(Header({"text/html"}), "").IsEmpty());
  EXPECT_FALSE(SMIME(Header({"image/png"}), "").IsEmpty());
}

TEST(SMIME, BoundariesDifferAndNeedQuotes) {
  SString const boundary = CreateMIMEBoundary();
  EXPECT_TRUE(boundary.HasMatch("^={27}_ _= [0-9]{1,7}\\([0-9]+\\)$")) << boundary;
  SString other = CreateMIMEBoundary();
  for (int i = 0; i < 10 && other == boundary; ++i) other = CreateMIMEBoundary();
  EXPECT_NE(other, boundary);
}

// Limits: the time limit of the test stands for "linear".
SString Repeated(SString const &unit, int count) {
  SString text("");
  for (int i = 0; i < count; ++i) text += unit;
  return text;
}

TEST(SMIME, PartsBeyondTheLimitAreOneText) {
  for (int extra : {-1, 0, 1, 5000}) {
    int const count = 10000 + extra;
    SMIME const mime(Header({"multipart/mixed; boundary=b"}), Repeated("--b\r\n\r\nx\r\n", count) + "--b--\r\n");
    EXPECT_EQ(mime.Contents().Length(), std::min(count, 10000));
    EXPECT_EQ(mime.Contents().Get(-1).Count("--b\r\n"), extra > 0 ? extra : 0) << "the last holds all that is left";
  }
}

TEST(SMIME, PartsOfNestedBodiesCountTogether) {
  SString const inner =
      "--b\r\nContent-Type: multipart/mixed;\r\n boundary=c\r\n\r\n" + Repeated("--c\r\n\r\nx\r\n", 6000) + "--c--\r\n";
  SMIME const mime(Header({"multipart/mixed; boundary=b"}), inner + inner + "--b\r\n\r\nlast\r\n--b--\r\n");
  EXPECT_EQ(mime.Contents().Length(), 10000);
  EXPECT_EQ(mime.PartMainTypes().Length(), 10000);
  EXPECT_TRUE(mime.Contents().Get(-1).HasPrefix("\r\nx"));
  EXPECT_GE(mime.Contents().Get(-1).Index("last"), 0) << "nothing of the text is lost";
}

TEST(SMIME, LevelsBeyondTheLimitAreOneText) {
  auto const nested = [](int levels) {
    SString body;
    for (int i = 0; i < levels; ++i) {
      SString const name = "L" + MakeSString(i);
      body += "--" + name + "\r\n";
      if (i + 1 < levels) body += "Content-Type: multipart/mixed;\r\n boundary=L" + MakeSString(i + 1) + "\r\n";
      body += "\r\n";
    }
    body += "core\r\n";
    for (int i = levels; i-- > 0;) body += "--L" + MakeSString(i) + "--\r\n";
    return SMIME(Header({"multipart/mixed; boundary=L0"}), body);
  };
  EXPECT_EQ(Parts(nested(16)), "text/plain/7bit:core");
  SMIME const deeper = nested(17);
  EXPECT_EQ(deeper.Contents().Length(), 1);
  EXPECT_TRUE(Parts(deeper).HasPrefix("text/plain/7bit:--L16\r\n")) << "the seventeenth level stays as it is";
  EXPECT_EQ(nested(5000).Contents().Length(), 1);
}

TEST(SMIME, HostileBodiesTakeLinearTime) {
  int const size = 1 << 20;
  SString const dashes('-', size);
  SString const longBoundary('-', 100000);
  Fields const fields = {"multipart/mixed; boundary=\"-----------------------------\""};
  for (SString const &body : {dashes, Repeated("--b", size / 3), Repeated("--b ", size / 4), Repeated("\r\n", size / 2),
                              "--b" + SString(' ', size), Repeated("--b\r\n", size / 5)}) {
    EXPECT_LE(SMIME(Header({"multipart/mixed; boundary=b"}), body).Contents().Length(), 10000);
    EXPECT_LE(SMIME(Header(fields), body).Contents().Length(), 10000);
  }
  SString const field = "multipart/mixed; boundary=\"" + longBoundary + "\"";
  EXPECT_EQ(SMIME(Header({field}), dashes).Contents().Length(), 1);
  EXPECT_EQ(SMIME(Header({"multipart/mixed; " + Repeated("boundary=\"\" ", size / 11)}), dashes).Contents().Length(),
            1);
}

}  // namespace
