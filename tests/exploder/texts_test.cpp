#include "brenthaven/exploder/textframe.h"

#include "brenthaven/mime/smime.h"
#include "tests/exploder/exploder_fixture.h"
#include "tests/platform/callhook.h"

namespace {

class TextsTest : public ScratchSpool {
protected:
  // The body with the texts around it; "unfit" or "failed".
  std::string Framed(Texts const &prologue, Texts const &epilogue, std::string const &headerText,
                     std::string const &body) {
    SHeader header;
    Bytes(headerText) >> header;
    PutFile("body", body);
    std::filesystem::remove(Path("framed"));
    switch (STextFrame(ListOf(prologue), ListOf(epilogue)).Write(header, Bytes(Path("body")), Bytes(Path("framed")))) {
      case STextFrame::Result::kWritten:
        return FileBytes("framed");
      case STextFrame::Result::kUnfit:
        return Exists("framed") ? "left behind" : "unfit";
      case STextFrame::Result::kFailed:
        break;
    }
    return Exists("framed") ? "left behind" : "failed";
  }
  std::string Framed(std::string const &header, std::string const &body) {
    return Framed({"pro"}, {"epi"}, header, body);
  }
};

TEST_F(TextsTest, OnlyOnePlainTextTakesTexts) {
  struct {
    char const *header, *body, *want;
  } const kCases[] = {
      {"", "a\r\n", "pro\r\na\r\nepi\r\n"},
      {"", "a", "pro\r\na\r\nepi\r\n"},
      {"", "", "pro\r\nepi\r\n"},
      {"Content-Type: TEXT/Plain; charset=\"UTF-8\"\r\nContent-Transfer-Encoding: 8BIT\r\n", "\xc3\xa4\r\n",
       "pro\r\n\xc3\xa4\r\nepi\r\n"},
      {"Content-Type: text/plain; charset=utf-16\r\n", "a\r\n", "unfit"},
      {"Content-Type: text/plain; charset=x-unknown\r\n", "a\r\n", "unfit"},
      {"Content-Type: text/plain; name=\"a;charset=utf-16\"; charset=iso-8859-15\r\n", "a\r\n", "pro\r\na\r\nepi\r\n"},
      {"Content-Type: text/html\r\n", "<p>\r\n", "unfit"},
      {"Content-Type: multipart/signed; boundary=x\r\n", "--x\r\n", "unfit"},
      {"Content-Type: application/pkcs7-mime\r\n", "MII=\r\n", "unfit"},
      {"Content-Type: text/plain\r\nContent-Type: text/html\r\n", "a\r\n", "unfit"},
      {"Content-Disposition: attachment; filename=a.txt\r\n", "a\r\n", "unfit"},
      {"Content-Transfer-Encoding: binary\r\n", "a\r\n", "unfit"},
      {"Content-Transfer-Encoding: x-uuencode\r\n", "a\r\n", "unfit"},
      {"Content-Transfer-Encoding: quoted-printable\r\n", "=C3=A4\r\n", "pro\r\n=C3=A4\r\nepi\r\n"},
      {"Content-Transfer-Encoding: quoted-printable\r\n", "a =\r\n", "pro\r\na =\r\n\r\nepi\r\n"},
      {"Content-Transfer-Encoding: quoted-printable\r\n", "a =", "pro\r\na =\r\n\r\nepi\r\n"},
      {"Content-Transfer-Encoding: base64\r\n", "YQ==\r\n", "cHJvDQphDQplcGkNCg==\r\n"},
      {"Content-Transfer-Encoding: base64\r\n", "", "cHJvDQplcGkNCg==\r\n"},
      {"Content-Transfer-Encoding: base64\r\n", "YQ==\r\nYQ==\r\n", "unfit"},
      {"Content-Transfer-Encoding: base64\r\n", "YQ\r\n", "unfit"},
      {"Content-Transfer-Encoding: base64\r\n", "YQ==\r\n\r\nSent by nobody\r\n", "unfit"},
  };
  for (auto const &c : kCases) EXPECT_EQ(Framed(c.header, c.body), c.want) << c.header << c.body;
}

TEST_F(TextsTest, OtherBytesThanAsciiNeedACarrier) {
  std::string const utf8 = "Content-Type: text/plain; charset=utf-8\r\nContent-Transfer-Encoding: ";
  struct {
    std::string text, header, want;
  } const kCases[] = {
      {"\xc3\xa4", utf8 + "8bit\r\n", "\xc3\xa4\r\na\r\n"},
      {"\xc3\xa4", utf8 + "7bit\r\n", "unfit"},
      {"\xc3\xa4", utf8 + "quoted-printable\r\n", "=C3=A4\r\na\r\n"},
      {"\xc3\xa4", utf8 + "base64\r\n", ""},
      {"\xc3\xa4", "Content-Type: text/plain; charset=iso-8859-1\r\nContent-Transfer-Encoding: 8bit\r\n", "unfit"},
      {"\xe4", utf8 + "8bit\r\n", "unfit"},
      {"\xc0\xaf", utf8 + "8bit\r\n", "unfit"},
      {"\xed\xa0\x80", utf8 + "8bit\r\n", "unfit"},
      {"\xf4\x90\x80\x80", utf8 + "8bit\r\n", "unfit"},
      {"\xe2\x82\xac", utf8 + "8bit\r\n", "\xe2\x82\xac\r\na\r\n"},
  };
  for (auto const &c : kCases) {
    std::string const want = c.want.empty() ? Text(EncodeBase64(Bytes(c.text + "\r\n"))) : c.want;
    EXPECT_EQ(Framed({c.text}, {}, c.header, c.want.empty() ? "" : "a\r\n"), want) << c.header;
  }
}

TEST_F(TextsTest, LinesKeepTheirMeaningInTheirForm) {
  EXPECT_EQ(Framed({"a\nb\r\n", "c"}, {}, "", "x\r\n"), "a\r\nb\r\nc\r\nx\r\n");
  EXPECT_EQ(Framed({" ", "\r\n"}, {}, "", "x\r\n"), "unfit");  // blank lines are no text
  std::string const flowed = "Content-Type: text/plain; format=Flowed\r\n";
  EXPECT_EQ(Framed({" a ", "> b", "From me", "-- "}, {}, flowed, "x\r\n"), "  a\r\n > b\r\n From me\r\n-- \r\nx\r\n");
  std::string const quoted = "Content-Transfer-Encoding: quoted-printable\r\n";
  EXPECT_EQ(Framed({"a=b ", std::string(100, 'y')}, {}, quoted, "x\r\n"),
            "a=3Db=20\r\n" + std::string(75, 'y') + "=\r\n" + std::string(25, 'y') + "\r\nx\r\n");
}

TEST_F(TextsTest, FailedWriteLeavesNothing) {
  SCallHook const hook("write", 2, ENOSPC);
  PutFile("framed", "");
  EXPECT_EQ(Framed("", "a\r\n"), "failed");
}

}  // namespace
